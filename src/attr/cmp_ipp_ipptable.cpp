#include "cmp_ipp_ipptable.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "attr/cmp_ipp_ipptable_index.h"
#include "platform/emw_osw.h"

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::m_singleton = nullptr;

cmp_ipp_ipptable_def::cmp_ipp_ipptable_def()
    : m_attrTable(nullptr), m_altTypeTable(nullptr), m_oneSetOfTable(nullptr), m_operationIdTable(nullptr),
      m_statusCodeTable(nullptr), m_attrCount(0), m_altTypeCount(0), m_oneSetOfCount(0),
      m_operationIdCount(0), m_statusCodeCount(0) {}

cmp_ipp_ipptable_def::~cmp_ipp_ipptable_def() = default;

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance() {
    cmp_ipp_ipptable_def* p = __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE);
    if (p != nullptr) return p;
    OSW_Thread_Guard guard;
    if (m_singleton == nullptr) __atomic_store_n(&m_singleton, new cmp_ipp_ipptable_def(), __ATOMIC_RELEASE);
    return m_singleton;
}

// ---- the index -------------------------------------------------------------
//
// One immutable index per installed table set, published through an atomic
// pointer: lookups on many tasks read it without a lock; the first lookup after
// the tables change builds a new one under a lock. A replaced index is never
// freed (a lookup on another task may still be reading it); it stays linked
// behind its successor, so a table set installed once costs one index for the
// life of the process.

namespace {

// Open addressing with linear probing. A slot holds row number + 1, 0 when free;
// tables are at most two thirds full, so every probe sequence ends.
struct Table {
    uint16_t* slots;
    uint32_t shift;  // 32 - log2(number of slots)
    uint32_t mask;

    uint32_t first(uint32_t key) const { return (key * 2654435761u) >> shift; }  // Fibonacci hashing
};

uint32_t hashName(const char* s, size_t n) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

int32_t rows(int16_t count, const void* table) { return (table == nullptr || count < 1) ? 0 : count; }

uint32_t slotsFor(int32_t rows) {
    uint32_t n = 2;
    while (n < static_cast<uint32_t>(rows) + static_cast<uint32_t>(rows) / 2 + 1) n <<= 1;
    return n;
}

struct RegistryIndex {
    // The registry fields it was built from, and the reindex() generation.
    const cmp_ipp_attr_row_t* attrs;
    const cmp_ipp_alt_type_row_t* alts;
    const uint16_t* sets;
    const cmp_ipp_operation_row_t* ops;
    const cmp_ipp_status_row_t* statuses;
    int16_t attrCount, altCount, setCount, opCount, statusCount;
    uint32_t generation;
    uint32_t serial;
    const RegistryIndex* replaced;

    Table byName, byId, byIdTag, altById, oneSetOf, opById, statusByCode;
    uint16_t* storage;

    bool describes(const cmp_ipp_ipptable_def& r, uint32_t gen) const {
        return generation == gen && attrs == r.m_attrTable && alts == r.m_altTypeTable && sets == r.m_oneSetOfTable &&
               ops == r.m_operationIdTable && statuses == r.m_statusCodeTable && attrCount == r.m_attrCount &&
               altCount == r.m_altTypeCount && setCount == r.m_oneSetOfCount && opCount == r.m_operationIdCount &&
               statusCount == r.m_statusCodeCount;
    }

    int32_t nAttrs() const { return rows(attrCount, attrs); }
    int32_t nAlts() const { return rows(altCount, alts); }
    int32_t nSets() const { return rows(setCount, sets); }
    int32_t nOps() const { return rows(opCount, ops); }
    int32_t nStatuses() const { return rows(statusCount, statuses); }

    // The first row r whose key matches, or -1. same(r) tells whether row r has the key.
    template <typename Same>
    static int32_t find(const Table& t, uint32_t key, Same same) {
        for (uint32_t i = t.first(key);; i = (i + 1) & t.mask) {
            const uint16_t s = t.slots[i];
            if (s == 0) return -1;
            if (same(s - 1)) return s - 1;
        }
    }
    // Enters row r unless an earlier row with the same key is there: first row wins.
    template <typename Same>
    static void add(Table& t, uint32_t key, int32_t r, Same same) {
        uint32_t i = t.first(key);
        for (; t.slots[i] != 0; i = (i + 1) & t.mask) {
            if (same(t.slots[i] - 1)) return;
        }
        t.slots[i] = static_cast<uint16_t>(r + 1);
    }
};

std::atomic<const RegistryIndex*> g_index{nullptr};
std::atomic<uint32_t> g_generation{0};
std::mutex g_buildLock;

uint32_t idTagKey(uint16_t id, int tag) { return id ^ (static_cast<uint32_t>(static_cast<uint16_t>(tag)) << 16); }

bool sameName(const char* rowName, const char* name, size_t len) {
    return rowName != nullptr && std::strncmp(rowName, name, len) == 0 && rowName[len] == '\0';
}

RegistryIndex* build(const cmp_ipp_ipptable_def& r, uint32_t gen) {
    RegistryIndex* ix = new RegistryIndex();
    ix->attrs = r.m_attrTable;
    ix->alts = r.m_altTypeTable;
    ix->sets = r.m_oneSetOfTable;
    ix->ops = r.m_operationIdTable;
    ix->statuses = r.m_statusCodeTable;
    ix->attrCount = r.m_attrCount;
    ix->altCount = r.m_altTypeCount;
    ix->setCount = r.m_oneSetOfCount;
    ix->opCount = r.m_operationIdCount;
    ix->statusCount = r.m_statusCodeCount;
    ix->generation = gen;

    Table* tables[] = {&ix->byName, &ix->byId, &ix->byIdTag, &ix->altById, &ix->oneSetOf, &ix->opById, &ix->statusByCode};
    const int32_t counts[] = {ix->nAttrs(), ix->nAttrs(), ix->nAttrs(), ix->nAlts(), ix->nSets(), ix->nOps(), ix->nStatuses()};
    uint32_t total = 0;
    for (int32_t c : counts) total += slotsFor(c);
    ix->storage = new uint16_t[total]();
    uint16_t* next = ix->storage;
    for (size_t k = 0; k < sizeof counts / sizeof counts[0]; ++k) {
        const uint32_t n = slotsFor(counts[k]);
        uint32_t bits = 0;
        while ((1u << bits) < n) ++bits;
        tables[k]->slots = next;
        tables[k]->shift = 32 - bits;
        tables[k]->mask = n - 1;
        next += n;
    }

    const cmp_ipp_attr_row_t* a = ix->attrs;
    for (int32_t i = 0; i < ix->nAttrs(); ++i) {
        if (a[i].name != nullptr) {
            const char* name = a[i].name;
            const size_t len = std::strlen(name);
            RegistryIndex::add(ix->byName, hashName(name, len), i,
                               [&](int32_t j) { return sameName(a[j].name, name, len); });
        }
        const uint16_t id = a[i].id;
        const int16_t tag = a[i].valueTag;
        RegistryIndex::add(ix->byId, id, i, [&](int32_t j) { return a[j].id == id; });
        RegistryIndex::add(ix->byIdTag, idTagKey(id, tag), i,
                           [&](int32_t j) { return a[j].id == id && a[j].valueTag == tag; });
    }
    for (int32_t i = 0; i < ix->nAlts(); ++i) {
        const uint16_t id = ix->alts[i].id;
        RegistryIndex::add(ix->altById, id, i, [&](int32_t j) { return ix->alts[j].id == id; });
    }
    for (int32_t i = 0; i < ix->nSets(); ++i) {
        const uint16_t id = ix->sets[i];
        RegistryIndex::add(ix->oneSetOf, id, i, [&](int32_t j) { return ix->sets[j] == id; });
    }
    for (int32_t i = 0; i < ix->nOps(); ++i) {
        const uint16_t id = ix->ops[i].id;
        RegistryIndex::add(ix->opById, id, i, [&](int32_t j) { return ix->ops[j].id == id; });
    }
    for (int32_t i = 0; i < ix->nStatuses(); ++i) {
        const uint16_t code = ix->statuses[i].code;
        RegistryIndex::add(ix->statusByCode, code, i, [&](int32_t j) { return ix->statuses[j].code == code; });
    }
    return ix;
}

const RegistryIndex* current() {
    const cmp_ipp_ipptable_def& r = *cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance();
    const RegistryIndex* ix = g_index.load(std::memory_order_acquire);
    if (ix != nullptr && ix->describes(r, g_generation.load(std::memory_order_relaxed))) return ix;

    std::lock_guard<std::mutex> lock(g_buildLock);
    const uint32_t gen = g_generation.load(std::memory_order_acquire);
    ix = g_index.load(std::memory_order_relaxed);
    if (ix != nullptr && ix->describes(r, gen)) return ix;
    RegistryIndex* fresh = build(r, gen);
    fresh->replaced = ix;
    fresh->serial = ix != nullptr ? ix->serial + 1 : 1;
    g_index.store(fresh, std::memory_order_release);
    return fresh;
}

}  // namespace

void cmp_ipp_ipptable_def::reindex() {
    g_generation.fetch_add(1, std::memory_order_acq_rel);
    // Built now, while the software installs its tables, not by the first request.
    if (this == __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE)) current();
}

namespace cmp_ipp_registry {

const cmp_ipp_attr_row_t* attrByName(const char* name, size_t len) {
    const RegistryIndex* ix = current();
    const cmp_ipp_attr_row_t* a = ix->attrs;
    const int32_t r = RegistryIndex::find(ix->byName, hashName(name, len),
                                          [&](int32_t j) { return sameName(a[j].name, name, len); });
    return r < 0 ? nullptr : &a[r];
}

const cmp_ipp_attr_row_t* attrById(uint16_t id) {
    const RegistryIndex* ix = current();
    const cmp_ipp_attr_row_t* a = ix->attrs;
    const int32_t r = RegistryIndex::find(ix->byId, id, [&](int32_t j) { return a[j].id == id; });
    return r < 0 ? nullptr : &a[r];
}

const cmp_ipp_attr_row_t* attrByIdTag(uint16_t id, int tag) {
    if (tag < INT16_MIN || tag > INT16_MAX) return nullptr;  // no row holds such a tag
    const RegistryIndex* ix = current();
    const cmp_ipp_attr_row_t* a = ix->attrs;
    const int32_t r = RegistryIndex::find(ix->byIdTag, idTagKey(id, tag),
                                          [&](int32_t j) { return a[j].id == id && a[j].valueTag == tag; });
    return r < 0 ? nullptr : &a[r];
}

const cmp_ipp_alt_type_row_t* altTypeById(uint16_t id) {
    const RegistryIndex* ix = current();
    const int32_t r = RegistryIndex::find(ix->altById, id, [&](int32_t j) { return ix->alts[j].id == id; });
    return r < 0 ? nullptr : &ix->alts[r];
}

bool isOneSetOf(uint16_t id) {
    const RegistryIndex* ix = current();
    return RegistryIndex::find(ix->oneSetOf, id, [&](int32_t j) { return ix->sets[j] == id; }) >= 0;
}

const cmp_ipp_operation_row_t* operationById(uint16_t id) {
    const RegistryIndex* ix = current();
    const int32_t r = RegistryIndex::find(ix->opById, id, [&](int32_t j) { return ix->ops[j].id == id; });
    return r < 0 ? nullptr : &ix->ops[r];
}

const cmp_ipp_status_row_t* statusByCode(uint16_t code) {
    const RegistryIndex* ix = current();
    const int32_t r =
        RegistryIndex::find(ix->statusByCode, code, [&](int32_t j) { return ix->statuses[j].code == code; });
    return r < 0 ? nullptr : &ix->statuses[r];
}

uint32_t serial() { return current()->serial; }

}  // namespace cmp_ipp_registry

const char* cmp_ipp_ipptable_op_name(uint16_t op) {
    const cmp_ipp_operation_row_t* row = cmp_ipp_registry::operationById(op);
    return (row != nullptr && row->name != nullptr) ? row->name : "unknown";
}

const char* cmp_ipp_ipptable_status_text(uint16_t code) {
    const cmp_ipp_status_row_t* row = cmp_ipp_registry::statusByCode(code);
    return (row != nullptr && row->text != nullptr) ? row->text : "unknown";
}
