// A group's index against the plain rules: every change the class allows
// (replace-or-append by identifier and by name, collection markers, adopted
// and merged attributes, entries changed in place through the non-const
// accessors, a registry that renames identifiers) is made both on a group and on
// a reference list that scans, and every lookup must agree afterwards. The
// decoder's in-place merging of additional values is held against the
// attribute-by-attribute steps it replaces.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "msg/cmp_ipp_attrs.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

// The rules of replace-or-append, applied by scanning a plain list.
struct Reference {
    std::vector<cmp_ipp_attr> v;

    int32_t indexOf(uint16_t id) const {
        for (size_t i = 0; i < v.size(); ++i)
            if (v[i].m_nameId == id) return static_cast<int32_t>(i);
        return -1;
    }
    int32_t indexOf(const char* name) const {
        for (size_t i = 0; i < v.size(); ++i)
            if (std::strcmp(v[i].cmp_ipp_attr_get_name(), name) == 0) return static_cast<int32_t>(i);
        return -1;
    }
    void setByName(const cmp_ipp_attr& a, bool replace) {
        if (!a.cmp_ipp_attr_is_col_type() && replace) {
            const int32_t i = indexOf(a.cmp_ipp_attr_get_name());
            if (i >= 0) {
                v[static_cast<size_t>(i)] = a;
                return;
            }
        }
        v.push_back(a);
    }
    void set(const cmp_ipp_attr& a, bool replaceMember) {
        const bool marker = a.cmp_ipp_attr_is_col_type() != 0;
        if (a.m_nameId == 0 && !marker) {
            setByName(a, true);
            return;
        }
        const int32_t i = indexOf(a.m_nameId);
        if (i >= 0 && !marker) {
            v[static_cast<size_t>(i)] = a;
        } else if (i >= 0 && replaceMember) {
            if (a.m_type == CMP_IPP_TAG_MEMBERNAME && a.m_numValues >= 1) v[static_cast<size_t>(i)] = a;
        } else {
            v.push_back(a);
        }
    }
};

// Everything about an entry that a caller can see, capacities included.
std::string shape(const cmp_ipp_attr& a) {
    std::ostringstream o;
    o << a.m_type << '/' << a.m_nameId << '/' << a.m_nameLength << '/' << a.cmp_ipp_attr_get_name() << '/'
      << a.m_numValues << '/' << a.m_memberType << " L";
    for (int32_t i = 0; i < a.m_longs.length(); ++i) o << ',' << a.m_longs[i];
    o << " S";
    for (int32_t i = 0; i < a.m_strings.length(); ++i) o << ',' << (a.m_strings[i].isSet() ? a.m_strings[i].c_str() : "<unset>");
    o << " C" << a.m_strings.capacity() << '.' << a.m_bufs.capacity() << '.' << a.m_longs.capacity();
    return o.str();
}

const uint16_t kIds[] = {0, 1, 5, 8, 15, 99};
const char* const kNames[] = {"x", "y", "z", "copies", "media", "", "job-name", "attributes-charset", "nope"};

void expectSame(const cmp_ipp_attrs& g, const Reference& r, const std::string& step) {
    ASSERT_EQ(g.count(), static_cast<int32_t>(r.v.size())) << step;
    for (size_t i = 0; i < r.v.size(); ++i)
        ASSERT_EQ(shape(g[static_cast<int32_t>(i)]), shape(r.v[i])) << step << ", entry " << i;
    for (uint16_t id : kIds) {
        ASSERT_EQ(g.cmp_ipp_attrs_index_of(id), r.indexOf(id)) << step << ", id " << id;
        const cmp_ipp_attr* found = g.find(id);
        ASSERT_EQ(found == nullptr ? -1 : static_cast<int32_t>(found - &g[0]), r.indexOf(id)) << step;
    }
    for (const char* n : kNames) ASSERT_EQ(g.cmp_ipp_attrs_index_of(n), r.indexOf(n)) << step << ", name " << n;
}

class Maker {
public:
    explicit Maker(unsigned seed) : rnd(seed) {}
    unsigned pick(unsigned n) { return rnd() % n; }

    // An attribute of a random kind, identifier and (sometimes) own name.
    cmp_ipp_attr attr() {
        const uint16_t id = kIds[pick(6)];
        const unsigned kind = pick(12);
        cmp_ipp_attr a;
        if (kind < 5) {
            a = cmp_ipp_attr(0x21, id, static_cast<int32_t>(pick(10)));
        } else if (kind < 9) {
            a = cmp_ipp_attr(0x44, id, kind % 2 ? "kw" : "other");
        } else if (kind == 9) {
            a = cmp_ipp_attr(CMP_IPP_TAG_BEGIN_COLLECTION, id);
        } else {
            a = cmp_ipp_attr(CMP_IPP_TAG_MEMBERNAME, id);
            if (kind == 11) a.cmp_ipp_attr_add_multi(cmp_ipp_attr(0x21, 0, 7));
        }
        if (id == 0 || pick(5) == 0) ownName(a);
        return a;
    }
    // An additional value: no name, a tag that fits some entries and not others.
    cmp_ipp_attr value() {
        return pick(2) ? cmp_ipp_attr(0x21, 0, static_cast<int32_t>(100 + pick(10))) : cmp_ipp_attr(0x44, 0, "more");
    }
    void ownName(cmp_ipp_attr& a) {
        const char* n = kNames[pick(4)];
        a.setName(n, static_cast<int32_t>(std::strlen(n)));
    }

private:
    std::mt19937 rnd;
};

// Alternate names for the identifiers of the message tables.
RegistryTables renamed() {
    RegistryTables t = messageTables();
    for (auto& row : t.attrs) {
        if (row.id == 1) row.name = "media";
        else if (row.id == 5) row.name = "copies";
        else if (row.id == 8) row.name = "job-name";
        else if (row.id == 15) row.name = "attributes-charset";
    }
    return t;
}

TEST(AttrsIndex, EveryChangeLeavesTheLookupsOfAScan) {
    TraceCapture quiet(-1);  // refused merges trace errors
    std::unique_ptr<ScopedRegistry> reg(new ScopedRegistry(messageTables()));
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Maker make(seed);
        cmp_ipp_attrs g("Job0");
        Reference r;
        for (int i = 0; i < 20; ++i) {
            const cmp_ipp_attr a = make.attr();
            g.cmp_ipp_attrs_set_attr_by_name(&a, false);
            r.setByName(a, false);
        }
        for (int step = 0; step < 1500; ++step) {
            const std::string at = "seed " + std::to_string(seed) + " step " + std::to_string(step);
            cmp_ipp_attr a = make.attr();
            const bool flag = make.pick(2) != 0;
            switch (make.pick(9)) {
            case 0:
            case 1:
                g.cmp_ipp_attrs_set_attr(&a, flag);
                r.set(a, flag);
                break;
            case 2:
                g.cmp_ipp_attrs_set_attr_by_name(&a, flag);
                r.setByName(a, flag);
                break;
            case 3: {
                cmp_ipp_attr given(a);
                g.adopt(given);
                r.setByName(a, false);
                break;
            }
            case 4:
            case 5: {
                const int32_t pos = static_cast<int32_t>(make.pick(static_cast<unsigned>(r.v.size())));
                const cmp_ipp_attr value = make.value();
                cmp_ipp_attr merged(r.v[static_cast<size_t>(pos)]);
                merged.cmp_ipp_attr_add_multi(value);
                r.set(merged, false);
                // Where the rules put it: a new last entry for a marker, else the
                // first entry of its identifier (of its name for identifier 0).
                const int32_t where = merged.cmp_ipp_attr_is_col_type()  ? static_cast<int32_t>(r.v.size()) - 1
                                      : merged.m_nameId != 0 ? r.indexOf(merged.m_nameId)
                                                             : r.indexOf(merged.cmp_ipp_attr_get_name());
                EXPECT_EQ(g.addValueAt(pos, value), where) << at;
                break;
            }
            case 6: {
                // Changed in place through the non-const accessors, behind the index's back.
                const int32_t i = static_cast<int32_t>(make.pick(static_cast<unsigned>(r.v.size())));
                const uint16_t id = kIds[make.pick(6)];
                if (flag) {
                    g[i].setNameId(id);
                    r.v[static_cast<size_t>(i)].setNameId(id);
                } else {
                    cmp_ipp_attr* found = g.find(r.v[static_cast<size_t>(i)].m_nameId);
                    const int32_t j = r.indexOf(r.v[static_cast<size_t>(i)].m_nameId);
                    ASSERT_NE(found, nullptr) << at;
                    make.ownName(*found);
                    r.v[static_cast<size_t>(j)].setName(found->m_name, found->m_nameLength);
                }
                break;
            }
            case 7:
                // The registry renames identifiers: names taken from it change.
                reg.reset();
                reg.reset(new ScopedRegistry(flag ? renamed() : messageTables()));
                break;
            default:
                break;
            }
            expectSame(g, r, at);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(AttrsIndex, CopiesCarryTheEntriesNotTheIndex) {
    ScopedRegistry reg(messageTables());
    cmp_ipp_attrs g("Op");
    for (int i = 0; i < 40; ++i) {
        cmp_ipp_attr a(0x21, static_cast<uint16_t>(i % 20), i);
        g.cmp_ipp_attrs_set_attr(&a, false);
    }
    cmp_ipp_attrs copy(g);
    cmp_ipp_attrs assigned;
    assigned = g;
    for (const cmp_ipp_attrs* c : {&copy, &assigned}) {
        ASSERT_EQ(c->count(), 20);
        EXPECT_STREQ(c->getName(), "Op");
        EXPECT_EQ(c->cmp_ipp_attrs_index_of(uint16_t{7}), 7);
    }
    cmp_ipp_attr a(0x21, 7, 99);
    copy.cmp_ipp_attrs_set_attr(&a, false);
    EXPECT_EQ(copy.find(uint16_t{7})->m_longs[0], 99);
    EXPECT_EQ(g.find(uint16_t{7})->m_longs[0], 27) << "the original keeps its own entries";
}

// The printer's attribute list is read by every request task at once, with
// const lookups and with the non-const find some callers use.
TEST(AttrsConcurrency, ManyThreadsLookUpOneIndexedList) {
    ScopedRegistry reg(messageTables());
    cmp_ipp_attrs printer;
    for (int i = 0; i < 300; ++i) {
        cmp_ipp_attr a(0x21, static_cast<uint16_t>(1 + i % 150), i);
        const std::string name = "own-" + std::to_string(i % 200);
        if (i % 3 == 0) {
            a.setNameId(0);
            a.setName(name.c_str(), static_cast<int32_t>(name.size()));
        }
        printer.cmp_ipp_attrs_set_attr(&a, false);  // builds and keeps the index
    }
    Reference r;
    for (int32_t i = 0; i < printer.count(); ++i) r.v.push_back(printer.list()[i]);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 6; ++k) {
        threads.emplace_back([&, k] {
            for (int round = 0; round < 20; ++round) {
                for (uint16_t id = 0; id < 160; ++id) {
                    const cmp_ipp_attrs& view = printer;
                    const cmp_ipp_attr* a = view.find(id);
                    if ((a == nullptr ? -1 : static_cast<int32_t>(a - &view[0])) != r.indexOf(id)) wrong.fetch_add(1);
                    // Hands out a pointer: the list stops trusting its index (only a flag changes).
                    if (k == 0 && id % 40 == 0 && printer.find(id) == nullptr && r.indexOf(id) >= 0) wrong.fetch_add(1);
                }
                for (int n = 0; n < 210; n += 7) {
                    const std::string name = "own-" + std::to_string(n);
                    if (printer.cmp_ipp_attrs_index_of(name.c_str()) != r.indexOf(name.c_str())) wrong.fetch_add(1);
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

// ---- the decoder's merging ---------------------------------------------------

// What decoding a group did before merging in place: every attribute stored as a
// copy, additional values added to a separate previous attribute which is then
// stored again with cmp_ipp_attrs_set_attr(previous, false).
Reference groupByTheSteps(const Bytes& bytes, uint32_t offset) {
    Reference r;
    cmp_ipp_buf buf = bufOf(bytes);
    std::unique_ptr<cmp_ipp_attr> previous;
    while ((buf.getByteAt(offset) & 0xF0) != 0) {
        uint16_t status = 0;
        int32_t consumed = 0;
        std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(buf, static_cast<int32_t>(offset), &status, &consumed));
        if (!a) break;
        const bool additional = a->m_nameLength == 0 && a->m_nameId == 0 && !a->cmp_ipp_attr_is_col_type();
        if (!additional) {
            r.setByName(*a, false);
            previous = std::move(a);
        } else {
            previous->cmp_ipp_attr_add_multi(*a);
            r.set(*previous, false);
        }
        offset += static_cast<uint32_t>(consumed);
    }
    return r;
}

TEST(DecodeMerging, AdditionalValuesEndAsTheAttributeByAttributeStepsLeaveThem) {
    TraceCapture quiet(-1);
    ScopedRegistry reg(messageTables());
    ScopedPrinter printer;
    const struct {
        const char* what;
        int fillers;  // attributes before the interesting part: 0 scans, 20 uses the index
    } cases[] = {{"short group", 0}, {"long group", 20}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Ipp m;
        m.header(1, 1, 0x0002, 1).opGroup().tag(0x02);
        const uint32_t groupStart = static_cast<uint32_t>(m.b.size());
        for (int i = 0; i < c.fillers; ++i) m.integer(0x21, "f" + std::to_string(i), i);
        m.integer(0x21, "copies", 1);
        // A second copies; a range that does not fit it, then an integer that does:
        // both are stored again over the first copies.
        m.integer(0x21, "copies", 2).range("", 5, 9).integer(0x21, "", 3);
        // The same for a name the registry does not know.
        m.text(0x44, "zz", "a").text(0x44, "zz", "b").text(0x41, "", "c").text(0x44, "", "d");
        // A value after a collection marker: the marker is stored again, as a new entry.
        m.attr(0x34, "media-col", {}).integer(0x21, "", 4).attr(0x37, "", {});
        // A name with a zero byte: not registered, but it reads as "copies", so
        // its merged value lands on the first entry named so.
        m.attr(0x21, std::string("copies\0", 7), Ipp::be32(5)).text(0x44, "", "e").integer(0x21, "", 6);
        m.tag(0x03);

        cmp_ipp_buf buf = bufOf(m.b);
        cmp_ipp_request req;
        ASSERT_EQ(req.decode(buf, nullptr), 0u);
        const cmp_ipp_attrs* group = req.cmp_ipp_msg_get_job_attrs(0);
        const Reference expected = groupByTheSteps(m.b, groupStart);
        ASSERT_EQ(group->count(), static_cast<int32_t>(expected.v.size()));
        for (size_t i = 0; i < expected.v.size(); ++i)
            EXPECT_EQ(shape((*group)[static_cast<int32_t>(i)]), shape(expected.v[i])) << "entry " << i;
        // The first copies took 2 and 3, and was then overwritten by the
        // zero-byte name with 5 and 6; the second copies keeps its 2.
        const cmp_ipp_attr* byName = group->find("copies");
        ASSERT_NE(byName, nullptr);
        EXPECT_EQ(byName->m_nameId, 0);
        EXPECT_EQ(byName->m_numValues, 2);
        const cmp_ipp_attr* byId = group->find(uint16_t{8});
        ASSERT_NE(byId, nullptr);
        ASSERT_EQ(byId->m_numValues, 1);
        EXPECT_EQ(byId->m_longs[0], 2);
    }
}

}  // namespace
