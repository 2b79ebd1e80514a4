#include "cmp_ipp_attrs.h"

#include <cstring>
#include <utility>

#include "attr/cmp_ipp_ipptable_index.h"

// ---- the index ---------------------------------------------------------------
//
// Open-addressing tables of entry positions (-1: free slot) that give the first
// entry of an identifier and the first entry of a name (own name, else the
// registry's name of the identifier). Each table is built the first time a
// changing operation of a long enough list needs it, and kept up to date as
// entries are appended. It is dropped, and rebuilt when next needed, when an
// overwrite changes an entry's key, when a caller took a non-const reference,
// or (names) when the registry's tables changed.

struct cmp_ipp_attrs_index {
    int32_t count = 0;  // entries [0, count) are in the tables
    int32_t* ids = nullptr;
    uint32_t idBits = 0;
    int32_t* names = nullptr;
    uint32_t nameBits = 0;
    uint32_t serial = 0;  // registry serial the names were taken under

    ~cmp_ipp_attrs_index() {
        delete[] ids;
        delete[] names;
    }
};

namespace {

uint32_t homeOf(uint32_t key, uint32_t bits) { return (key * 2654435761u) >> (32 - bits); }

uint32_t nameKey(const char* s) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (; *s != '\0'; ++s) h = (h ^ static_cast<unsigned char>(*s)) * 16777619u;
    return h;
}

// Probes for key; same(p) tells whether entry p has it. Returns the slot that
// holds the first such entry, or the free slot where it would go.
template <typename Same>
uint32_t probe(const int32_t* slots, uint32_t bits, uint32_t key, Same same) {
    const uint32_t mask = (1u << bits) - 1;
    uint32_t i = homeOf(key, bits);
    while (slots[i] >= 0 && !same(slots[i])) i = (i + 1) & mask;
    return i;
}

using List = cmp_ipp_vector<cmp_ipp_attr>;

void enterId(int32_t* slots, uint32_t bits, const List& list, int32_t p) {
    const uint16_t id = list[p].m_nameId;
    const uint32_t i = probe(slots, bits, id, [&](int32_t q) { return list[q].m_nameId == id; });
    if (slots[i] < 0) slots[i] = p;  // else an earlier entry has it: first wins
}

void enterName(int32_t* slots, uint32_t bits, const List& list, int32_t p) {
    const char* name = list[p].cmp_ipp_attr_get_name();
    const uint32_t i = probe(slots, bits, nameKey(name),
                             [&](int32_t q) { return std::strcmp(list[q].cmp_ipp_attr_get_name(), name) == 0; });
    if (slots[i] < 0) slots[i] = p;
}

// A table for the entries [0, count), at most half full.
int32_t* buildTable(const List& list, int32_t count, uint32_t* bits,
                    void (*enter)(int32_t*, uint32_t, const List&, int32_t)) {
    uint32_t b = 5;
    while ((1u << b) < 2u * static_cast<uint32_t>(count)) ++b;
    int32_t* slots = new int32_t[1u << b];
    std::memset(slots, 0xFF, sizeof(int32_t) << b);
    for (int32_t p = 0; p < count; ++p) enter(slots, b, list, p);
    *bits = b;
    return slots;
}

// Whether a table of 2^bits slots can take one more entry and stay below two thirds full.
bool roomFor(uint32_t bits, int32_t count) { return 3u * (static_cast<uint32_t>(count) + 1) <= (2u << bits); }

}  // namespace

cmp_ipp_attrs::cmp_ipp_attrs() noexcept : m_index(nullptr), m_changedOutside(false) {}

cmp_ipp_attrs::cmp_ipp_attrs(const char* name) : cmp_ipp_attrs() { m_name.assignBytes(name, -1); }

cmp_ipp_attrs::cmp_ipp_attrs(const cmp_ipp_attrs& other)
    : m_list(other.m_list), m_name(other.m_name), m_index(nullptr), m_changedOutside(false) {}

cmp_ipp_attrs& cmp_ipp_attrs::operator=(const cmp_ipp_attrs& other) {
    if (this == &other) return *this;
    dropIndex();
    m_list = other.m_list;
    m_name = other.m_name;
    return *this;
}

cmp_ipp_attrs::~cmp_ipp_attrs() { delete m_index; }

void cmp_ipp_attrs::dropIndex() {
    delete m_index;
    m_index = nullptr;
}

int32_t cmp_ipp_attrs::scanId(uint16_t id) const {
    for (int32_t i = 0; i < m_list.length(); ++i) {
        if (m_list[i].m_nameId == id) return i;
    }
    return -1;
}

int32_t cmp_ipp_attrs::scanName(const char* name) const {
    for (int32_t i = 0; i < m_list.length(); ++i) {
        if (std::strcmp(m_list[i].cmp_ipp_attr_get_name(), name) == 0) return i;
    }
    return -1;
}

int32_t cmp_ipp_attrs::firstWithId(uint16_t id) const {
    const cmp_ipp_attrs_index* ix = m_index;
    if (ix == nullptr || ix->ids == nullptr || ix->count != m_list.length() ||
        m_changedOutside.load(std::memory_order_relaxed))
        return scanId(id);
    const List& list = m_list;
    return ix->ids[probe(ix->ids, ix->idBits, id, [&](int32_t q) { return list[q].m_nameId == id; })];
}

int32_t cmp_ipp_attrs::firstWithName(const char* name) const {
    const cmp_ipp_attrs_index* ix = m_index;
    if (ix == nullptr || ix->names == nullptr || ix->count != m_list.length() ||
        m_changedOutside.load(std::memory_order_relaxed) || ix->serial != cmp_ipp_registry::serial())
        return scanName(name);
    const List& list = m_list;
    return ix->names[probe(ix->names, ix->nameBits, nameKey(name),
                           [&](int32_t q) { return std::strcmp(list[q].cmp_ipp_attr_get_name(), name) == 0; })];
}

// An index that holds every entry, trusted again from here on.
void cmp_ipp_attrs::prepareIndex() {
    if (m_changedOutside.exchange(false, std::memory_order_relaxed) ||
        (m_index != nullptr && m_index->count != m_list.length()))
        dropIndex();
    if (m_index == nullptr) {
        m_index = new cmp_ipp_attrs_index();
        m_index->count = m_list.length();
    }
}

int32_t cmp_ipp_attrs::firstWithIdForChange(uint16_t id) {
    if (m_list.length() < kIndexFrom) return scanId(id);
    prepareIndex();
    if (m_index->ids == nullptr) m_index->ids = buildTable(m_list, m_index->count, &m_index->idBits, enterId);
    return firstWithId(id);
}

int32_t cmp_ipp_attrs::firstWithNameForChange(const char* name) {
    if (m_list.length() < kIndexFrom) return scanName(name);
    prepareIndex();
    const uint32_t serial = cmp_ipp_registry::serial();
    if (m_index->names != nullptr && m_index->serial != serial) {
        delete[] m_index->names;
        m_index->names = nullptr;
    }
    if (m_index->names == nullptr) {
        m_index->names = buildTable(m_list, m_index->count, &m_index->nameBits, enterName);
        m_index->serial = serial;
    }
    return firstWithName(name);
}

cmp_ipp_attr& cmp_ipp_attrs::appendEntry() { return m_list.appendSlot(); }

// Called once the new last entry holds its attribute.
void cmp_ipp_attrs::entered() {
    cmp_ipp_attrs_index* ix = m_index;
    if (ix == nullptr) return;
    const int32_t p = m_list.length() - 1;
    if (ix->count != p) {
        dropIndex();
        return;
    }
    if (ix->ids != nullptr) {
        if (roomFor(ix->idBits, p)) {
            enterId(ix->ids, ix->idBits, m_list, p);
        } else {
            delete[] ix->ids;
            ix->ids = buildTable(m_list, p + 1, &ix->idBits, enterId);
        }
    }
    if (ix->names != nullptr) {
        if (roomFor(ix->nameBits, p)) {
            enterName(ix->names, ix->nameBits, m_list, p);
        } else {
            delete[] ix->names;
            ix->names = buildTable(m_list, p + 1, &ix->nameBits, enterName);
        }
    }
    ix->count = p + 1;
}

void cmp_ipp_attrs::overwrite(int32_t i, const cmp_ipp_attr& attr) {
    if (m_index != nullptr) {
        const cmp_ipp_attr& old = m_list[i];
        if ((m_index->ids != nullptr && old.m_nameId != attr.m_nameId) ||
            (m_index->names != nullptr && std::strcmp(old.cmp_ipp_attr_get_name(), attr.cmp_ipp_attr_get_name()) != 0))
            dropIndex();
    }
    m_list[i] = attr;
}

// ---- lookups -----------------------------------------------------------------

int32_t cmp_ipp_attrs::cmp_ipp_attrs_index_of(uint16_t id) const { return firstWithId(id); }

int32_t cmp_ipp_attrs::cmp_ipp_attrs_index_of(const char* name) const {
    return name == nullptr ? -1 : firstWithName(name);
}

cmp_ipp_attr* cmp_ipp_attrs::find(uint16_t id) {
    const int32_t i = firstWithId(id);
    if (i < 0) return nullptr;
    m_changedOutside.store(true, std::memory_order_relaxed);
    return &m_list[i];
}

cmp_ipp_attr* cmp_ipp_attrs::find(const char* name) {
    const int32_t i = cmp_ipp_attrs_index_of(name);
    if (i < 0) return nullptr;
    m_changedOutside.store(true, std::memory_order_relaxed);
    return &m_list[i];
}

const cmp_ipp_attr* cmp_ipp_attrs::find(uint16_t id) const {
    const int32_t i = firstWithId(id);
    return i < 0 ? nullptr : &m_list[i];
}

const cmp_ipp_attr* cmp_ipp_attrs::find(const char* name) const {
    const int32_t i = cmp_ipp_attrs_index_of(name);
    return i < 0 ? nullptr : &m_list[i];
}

// ---- changes -----------------------------------------------------------------

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr_by_name(const cmp_ipp_attr* attr, bool replace) {
    if (attr == nullptr) return;
    if (!attr->cmp_ipp_attr_is_col_type() && replace) {
        const int32_t i = firstWithNameForChange(attr->cmp_ipp_attr_get_name());
        if (i >= 0) {
            overwrite(i, *attr);
            return;
        }
    }
    appendEntry() = *attr;
    entered();
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(const cmp_ipp_attr* attr, bool replaceMember) {
    if (attr == nullptr) return;
    const bool marker = attr->cmp_ipp_attr_is_col_type() != 0;
    if (attr->m_nameId == 0 && !marker) {
        cmp_ipp_attrs_set_attr_by_name(attr, true);
        return;
    }
    const int32_t i = firstWithIdForChange(attr->m_nameId);
    if (i >= 0 && !marker) {
        overwrite(i, *attr);
        return;
    }
    if (i >= 0 && replaceMember) {
        if (attr->m_type == CMP_IPP_TAG_MEMBERNAME && attr->m_numValues >= 1) overwrite(i, *attr);
        return;  // other markers are dropped
    }
    appendEntry() = *attr;
    entered();
}

void cmp_ipp_attrs::adopt(cmp_ipp_attr& attr) {
    // What a copy would not carry over: a name without a length, unset texts
    // (a copied unset string becomes an empty one).
    if (attr.m_name != nullptr && attr.m_nameLength <= 0) attr.setName(nullptr, attr.m_nameLength);
    for (int32_t i = 0; i < attr.m_strings.length(); ++i) {
        if (!attr.m_strings[i].isSet()) attr.m_strings[i].assignBytes(nullptr, -1);
    }
    cmp_ipp_attr& slot = appendEntry();
    // A spare that was never touched has stores of capacity 2 and no name: a
    // copy into it would end exactly like the attribute itself.
    if (!slot.m_strings.hasStorage() && !slot.m_bufs.hasStorage() && !slot.m_longs.hasStorage() &&
        slot.m_name == nullptr) {
        slot = std::move(attr);
    } else {
        slot = attr;
    }
    entered();
}

int32_t cmp_ipp_attrs::addValueAt(int32_t pos, const cmp_ipp_attr& value) {
    if (pos < 0 || pos >= m_list.length()) return -1;
    if (m_list[pos].m_name != nullptr && m_list[pos].m_nameLength <= 0) {
        // A name without a length (setNameId after setName) is not copied, so
        // the copy has another key than the entry: take the long way.
        cmp_ipp_attr merged(m_list[pos]);
        merged.cmp_ipp_attr_add_multi(value);
        cmp_ipp_attrs_set_attr(&merged, false);
        if (merged.cmp_ipp_attr_is_col_type()) return m_list.length() - 1;
        return merged.m_nameId != 0 ? firstWithIdForChange(merged.m_nameId)
                                    : firstWithNameForChange(merged.cmp_ipp_attr_get_name());
    }
    if (m_list[pos].cmp_ipp_attr_is_col_type()) {
        // cmp_ipp_attrs_set_attr(marker, false) always appends.
        cmp_ipp_attr merged(m_list[pos]);
        merged.cmp_ipp_attr_add_multi(value);
        adopt(merged);
        return m_list.length() - 1;
    }
    // cmp_ipp_attrs_set_attr overwrites the first entry of the same identifier
    // (of the same name when the identifier is 0): pos itself or one before it.
    const cmp_ipp_attr& entry = m_list[pos];
    int32_t target = entry.m_nameId != 0 ? firstWithIdForChange(entry.m_nameId)
                                         : firstWithNameForChange(entry.cmp_ipp_attr_get_name());
    if (target < 0 || target > pos) target = pos;
    if (target != pos) overwrite(target, m_list[pos]);
    // Neither the identifier nor the name changes: the index stays as it is.
    m_list[target].cmp_ipp_attr_add_multi(value);
    return target;
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const unsigned char* bytes, int16_t length) {
    cmp_ipp_attr a(type, id, bytes, length);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text, const char* language) {
    cmp_ipp_attr a(type, id, text, language);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t a, int32_t b, int32_t c) {
    cmp_ipp_attr attr(type, id, a, b, c);
    cmp_ipp_attrs_set_attr(&attr, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t value) {
    cmp_ipp_attr attr(type, id, value, 0, 0);
    cmp_ipp_attrs_set_attr(&attr, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text) {
    cmp_ipp_attr a(type, id, text);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, void* value) {
    cmp_ipp_attr a(type, id, cmp_ipp_buf(value != nullptr));
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::setAttrs(const cmp_ipp_attrs& other) {
    if (&other == this) return;
    for (int32_t i = 0; i < other.m_list.length(); ++i) cmp_ipp_attrs_set_attr(&other.m_list[i], false);
}
