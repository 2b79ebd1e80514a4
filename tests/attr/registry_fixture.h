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

    // Points the registry at these tables as embedding software does: the fields only, no reindex().
    void writeInto(cmp_ipp_ipptable_def* r) const {
        r->m_attrTable = attrs.data();
        r->m_altTypeTable = altTypes.data();
        r->m_oneSetOfTable = oneSetOf.data();
        r->m_operationIdTable = operations.data();
        r->m_statusCodeTable = statuses.data();
        r->m_attrCount = static_cast<int16_t>(attrs.size());
        r->m_altTypeCount = static_cast<int16_t>(altTypes.size());
        r->m_oneSetOfCount = static_cast<int16_t>(oneSetOf.size());
        r->m_operationIdCount = static_cast<int16_t>(operations.size());
        r->m_statusCodeCount = static_cast<int16_t>(statuses.size());
    }
};

// Puts the registry's tables back as they were when it was made.
class RegistryRestore {
public:
    RegistryRestore() : m_saved(*reg()) {}
    ~RegistryRestore() {
        *reg() = m_saved;
        reg()->reindex();
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
        m_tables.writeInto(reg());
        reg()->reindex();  // the tables may sit where earlier ones sat, with the same counts
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
