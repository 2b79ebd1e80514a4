// Installs dictionary tables in the process-wide registry for the life of one
// scope and puts the previous tables back afterwards.
#ifndef TESTS_ATTR_REGISTRY_FIXTURE_H
#define TESTS_ATTR_REGISTRY_FIXTURE_H

#include <vector>

#include "attr/cmp_ipp_ipptable.h"

struct RegistryTables {
    std::vector<cmp_ipp_attr_row_t> attrs;
    std::vector<cmp_ipp_alt_type_row_t> altTypes;
    std::vector<uint16_t> oneSetOf;
    std::vector<cmp_ipp_operation_row_t> operations;
    std::vector<cmp_ipp_status_row_t> statuses;
};

// Puts the registry's tables back as they were when it was made.
class RegistryRestore {
public:
    RegistryRestore() : m_saved(*reg()) {}
    ~RegistryRestore() {
        cmp_ipp_ipptable_def* r = reg();
        r->m_attrTable = m_saved.m_attrTable;
        r->m_altTypeTable = m_saved.m_altTypeTable;
        r->m_oneSetOfTable = m_saved.m_oneSetOfTable;
        r->m_operationIdTable = m_saved.m_operationIdTable;
        r->m_statusCodeTable = m_saved.m_statusCodeTable;
        r->m_attrCount = m_saved.m_attrCount;
        r->m_altTypeCount = m_saved.m_altTypeCount;
        r->m_oneSetOfCount = m_saved.m_oneSetOfCount;
        r->m_operationIdCount = m_saved.m_operationIdCount;
        r->m_statusCodeCount = m_saved.m_statusCodeCount;
        r->reindex();
    }
    RegistryRestore(const RegistryRestore&) = delete;
    RegistryRestore& operator=(const RegistryRestore&) = delete;

protected:
    static cmp_ipp_ipptable_def* reg() { return cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance(); }

private:
    cmp_ipp_ipptable_def m_saved;
};

class ScopedRegistry : public RegistryRestore {
public:
    explicit ScopedRegistry(const RegistryTables& t) : m_tables(t) { install(); }
    ScopedRegistry() { install(); }

private:
    void install() {
        cmp_ipp_ipptable_def* r = reg();
        r->m_attrTable = m_tables.attrs.data();
        r->m_altTypeTable = m_tables.altTypes.data();
        r->m_oneSetOfTable = m_tables.oneSetOf.data();
        r->m_operationIdTable = m_tables.operations.data();
        r->m_statusCodeTable = m_tables.statuses.data();
        r->m_attrCount = static_cast<int16_t>(m_tables.attrs.size());
        r->m_altTypeCount = static_cast<int16_t>(m_tables.altTypes.size());
        r->m_oneSetOfCount = static_cast<int16_t>(m_tables.oneSetOf.size());
        r->m_operationIdCount = static_cast<int16_t>(m_tables.operations.size());
        r->m_statusCodeCount = static_cast<int16_t>(m_tables.statuses.size());
        // The tables may sit where earlier ones sat, with the same counts.
        r->reindex();
    }

    RegistryTables m_tables;
};

// The small dictionary of the attribute tests.
inline RegistryTables attrTestTables() {
    RegistryTables t;
    t.attrs = {
        {1, "copies", 0x21, 1, 999},         {2, "media-col", 0x34, 0, 0}, {3, "media-size", 0x34, 0, 0},
        {4, "x-dimension", 0x21, 0, 100000}, {5, "sides", 0x44, 1, 255},  {6, "job-name", 0x42, 0, 255},
        {7, "rng", 0x33, 5, 50},             {8, "oct", 0x50, 0, 10},     {9, "media", 0x44, 1, 255},
    };
    return t;
}

#endif
