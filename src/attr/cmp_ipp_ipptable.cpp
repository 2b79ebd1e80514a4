#include "cmp_ipp_ipptable.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "attr/cmp_ipp_ipptable_index.h"
#include "containers/cmp_ipp_once.h"
#include "platform/emw_osw.h"

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::m_singleton = nullptr;

cmp_ipp_ipptable_def::cmp_ipp_ipptable_def()
    : m_attrTable(nullptr), m_altTypeTable(nullptr), m_oneSetOfTable(nullptr), m_operationIdTable(nullptr),
      m_statusCodeTable(nullptr), m_attrCount(0), m_altTypeCount(0), m_oneSetOfCount(0),
      m_operationIdCount(0), m_statusCodeCount(0) {}

cmp_ipp_ipptable_def::~cmp_ipp_ipptable_def() = default;

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance() {
    return cmp_ipp_once::instance(&m_singleton, [] { return new cmp_ipp_ipptable_def(); });
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

// The key of row i of a table; two rows with equal keys match the same lookups.
typedef uint32_t (*KeyOf)(const void* rows, int32_t i);

uint32_t attrId(const void* rows, int32_t i) { return static_cast<const cmp_ipp_attr_row_t*>(rows)[i].id; }
uint32_t attrIdTag(const void* rows, int32_t i) {
    const cmp_ipp_attr_row_t& r = static_cast<const cmp_ipp_attr_row_t*>(rows)[i];
    return r.id | static_cast<uint32_t>(static_cast<uint16_t>(r.valueTag)) << 16;
}
uint32_t altId(const void* rows, int32_t i) { return static_cast<const cmp_ipp_alt_type_row_t*>(rows)[i].id; }
uint32_t setId(const void* rows, int32_t i) { return static_cast<const uint16_t*>(rows)[i]; }
uint32_t opId(const void* rows, int32_t i) { return static_cast<const cmp_ipp_operation_row_t*>(rows)[i].id; }
uint32_t statusCode(const void* rows, int32_t i) { return static_cast<const cmp_ipp_status_row_t*>(rows)[i].code; }

uint32_t hashName(const char* s, size_t n) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

// Whether a row's name is exactly the len bytes at name.
bool sameName(const char* rowName, const char* name, size_t len) {
    return rowName != nullptr && std::strncmp(rowName, name, len) == 0 && rowName[len] == '\0';
}

// Open addressing with linear probing over the rows of one table. A slot holds
// row number + 1, 0 when free; at most two thirds of the slots are used, so
// every probe ends. Each key is entered with its first row only.
struct Table {
    const void* rows;
    KeyOf key;  // null for the table of names
    uint16_t* slots;
    uint32_t shift;  // 32 - log2(number of slots)
    uint32_t mask;

    uint32_t home(uint32_t k) const { return (k * 2654435761u) >> shift; }  // Fibonacci hashing

    int32_t find(uint32_t k) const {
        for (uint32_t i = home(k); slots[i] != 0; i = (i + 1) & mask) {
            if (key(rows, slots[i] - 1) == k) return slots[i] - 1;
        }
        return -1;
    }
    const cmp_ipp_attr_row_t* findName(const char* name, size_t len) const {
        const cmp_ipp_attr_row_t* a = static_cast<const cmp_ipp_attr_row_t*>(rows);
        for (uint32_t i = home(hashName(name, len)); slots[i] != 0; i = (i + 1) & mask) {
            if (sameName(a[slots[i] - 1].name, name, len)) return &a[slots[i] - 1];
        }
        return nullptr;
    }
    void add(int32_t r) {
        const char* name = nullptr;
        size_t len = 0;
        uint32_t k;
        if (key != nullptr) {
            k = key(rows, r);
        } else {
            name = static_cast<const cmp_ipp_attr_row_t*>(rows)[r].name;
            if (name == nullptr) return;  // a row without a name is never found by name
            len = std::strlen(name);
            k = hashName(name, len);
        }
        uint32_t i = home(k);
        for (; slots[i] != 0; i = (i + 1) & mask) {
            const int32_t j = slots[i] - 1;
            if (key != nullptr ? key(rows, j) == k : sameName(static_cast<const cmp_ipp_attr_row_t*>(rows)[j].name, name, len))
                return;  // an earlier row has it
        }
        slots[i] = static_cast<uint16_t>(r + 1);
    }
};

int32_t rowsOf(int16_t count, const void* table) { return (table == nullptr || count < 1) ? 0 : count; }

uint32_t bitsFor(int32_t rows) {
    uint32_t b = 1;
    while ((1u << b) < static_cast<uint32_t>(rows) + static_cast<uint32_t>(rows) / 2 + 1) ++b;
    return b;
}

enum { kByName, kById, kByIdTag, kAltById, kOneSetOf, kOpById, kStatusByCode, kTables };

struct RegistryIndex {
    // The registry fields it was built from, and the reindex() generation.
    const void* tables[5];
    int16_t counts[5];
    uint32_t generation;
    uint32_t serial;
    const RegistryIndex* replaced;

    Table t[kTables];
    uint16_t* storage;

    bool describes(const cmp_ipp_ipptable_def& r, uint32_t gen) const {
        return generation == gen && tables[0] == r.m_attrTable && tables[1] == r.m_altTypeTable &&
               tables[2] == r.m_oneSetOfTable && tables[3] == r.m_operationIdTable &&
               tables[4] == r.m_statusCodeTable && counts[0] == r.m_attrCount && counts[1] == r.m_altTypeCount &&
               counts[2] == r.m_oneSetOfCount && counts[3] == r.m_operationIdCount &&
               counts[4] == r.m_statusCodeCount;
    }
    const cmp_ipp_attr_row_t* attrs() const { return static_cast<const cmp_ipp_attr_row_t*>(tables[0]); }
};

std::atomic<const RegistryIndex*> g_index{nullptr};
std::atomic<uint32_t> g_generation{0};
std::mutex g_buildLock;

RegistryIndex* build(const cmp_ipp_ipptable_def& r, uint32_t gen) {
    RegistryIndex* ix = new RegistryIndex();
    ix->tables[0] = r.m_attrTable;
    ix->tables[1] = r.m_altTypeTable;
    ix->tables[2] = r.m_oneSetOfTable;
    ix->tables[3] = r.m_operationIdTable;
    ix->tables[4] = r.m_statusCodeTable;
    ix->counts[0] = r.m_attrCount;
    ix->counts[1] = r.m_altTypeCount;
    ix->counts[2] = r.m_oneSetOfCount;
    ix->counts[3] = r.m_operationIdCount;
    ix->counts[4] = r.m_statusCodeCount;
    ix->generation = gen;

    // Which registry table each index table covers, and its key.
    static const struct {
        int table;
        KeyOf key;
    } kinds[kTables] = {{0, nullptr}, {0, attrId}, {0, attrIdTag}, {1, altId}, {2, setId}, {3, opId}, {4, statusCode}};
    uint32_t bits[kTables];
    uint32_t total = 0;
    for (int k = 0; k < kTables; ++k) {
        bits[k] = bitsFor(rowsOf(ix->counts[kinds[k].table], ix->tables[kinds[k].table]));
        total += 1u << bits[k];
    }
    ix->storage = new uint16_t[total]();
    uint16_t* next = ix->storage;
    for (int k = 0; k < kTables; ++k) {
        Table& t = ix->t[k];
        t.rows = ix->tables[kinds[k].table];
        t.key = kinds[k].key;
        t.slots = next;
        t.shift = 32 - bits[k];
        t.mask = (1u << bits[k]) - 1;
        next += 1u << bits[k];
        const int32_t n = rowsOf(ix->counts[kinds[k].table], t.rows);
        for (int32_t i = 0; i < n; ++i) t.add(i);
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

// The row number of the first row with key k in index table which, or -1.
int32_t rowOf(int which, uint32_t k) { return current()->t[which].find(k); }

}  // namespace

void cmp_ipp_ipptable_def::reindex() {
    g_generation.fetch_add(1, std::memory_order_acq_rel);
    // Built now, while the software installs its tables, not by the first request.
    if (this == __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE)) current();
}

namespace cmp_ipp_registry {

const cmp_ipp_attr_row_t* attrByName(const char* name, size_t len) { return current()->t[kByName].findName(name, len); }

const cmp_ipp_attr_row_t* attrById(uint16_t id) {
    const RegistryIndex* ix = current();
    const int32_t r = ix->t[kById].find(id);
    return r < 0 ? nullptr : &ix->attrs()[r];
}

const cmp_ipp_attr_row_t* attrByIdTag(uint16_t id, int tag) {
    if (tag < INT16_MIN || tag > INT16_MAX) return nullptr;  // no row holds such a tag
    const RegistryIndex* ix = current();
    const int32_t r = ix->t[kByIdTag].find(id | static_cast<uint32_t>(static_cast<uint16_t>(tag)) << 16);
    return r < 0 ? nullptr : &ix->attrs()[r];
}

const cmp_ipp_alt_type_row_t* altTypeById(uint16_t id) {
    const RegistryIndex* ix = current();
    const int32_t r = ix->t[kAltById].find(id);
    return r < 0 ? nullptr : &static_cast<const cmp_ipp_alt_type_row_t*>(ix->tables[1])[r];
}

bool isOneSetOf(uint16_t id) { return rowOf(kOneSetOf, id) >= 0; }

const cmp_ipp_operation_row_t* operationById(uint16_t id) {
    const RegistryIndex* ix = current();
    const int32_t r = ix->t[kOpById].find(id);
    return r < 0 ? nullptr : &static_cast<const cmp_ipp_operation_row_t*>(ix->tables[3])[r];
}

const cmp_ipp_status_row_t* statusByCode(uint16_t code) {
    const RegistryIndex* ix = current();
    const int32_t r = ix->t[kStatusByCode].find(code);
    return r < 0 ? nullptr : &static_cast<const cmp_ipp_status_row_t*>(ix->tables[4])[r];
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
