// A group's index against a scan of the group's own entries: every change the
// class allows (replace-or-append by identifier and by name, collection
// markers, adopted and merged attributes, entries changed in place through the
// non-const accessors, a registry that renames identifiers) is made on a group
// long enough to be indexed, and every lookup must answer as a front-to-back
// scan does. The replace-or-append rules themselves are held in AttrsTest; the
// decoder's in-place merging is held against the attribute-by-attribute steps
// it replaces.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "msg/cmp_ipp_attrs.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

// First entry by identifier or by name, scanning from the front.
int32_t scanFor(const cmp_ipp_vector<cmp_ipp_attr>& v, uint16_t id) {
    for (int32_t i = 0; i < v.length(); ++i)
        if (v[i].m_nameId == id) return i;
    return -1;
}
int32_t scanFor(const cmp_ipp_vector<cmp_ipp_attr>& v, const char* name) {
    for (int32_t i = 0; i < v.length(); ++i)
        if (std::strcmp(v[i].cmp_ipp_attr_get_name(), name) == 0) return i;
    return -1;
}

const uint16_t kIds[] = {0, 1, 5, 8, 15, 99};
const char* const kNames[] = {"x", "y", "z", "copies", "media", "", "job-name", "attributes-charset", "nope"};

// index_of and find of g answer for every key as the scan does.
template <typename Key>
void expectScanAnswer(const cmp_ipp_attrs& g, Key key, const std::string& step) {
    const int32_t scanned = scanFor(g.list(), key);
    ASSERT_EQ(g.cmp_ipp_attrs_index_of(key), scanned) << step << ", key " << key;
    const cmp_ipp_attr* found = g.find(key);
    ASSERT_EQ(found == nullptr ? -1 : static_cast<int32_t>(found - &g[0]), scanned) << step << ", key " << key;
}

void expectScanAnswers(const cmp_ipp_attrs& g, const std::string& step) {
    for (uint16_t id : kIds) expectScanAnswer(g, id, step);
    for (const char* n : kNames) expectScanAnswer(g, n, step);
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

// Each change is also made on a twin group, adopting and merging through the
// steps they stand for: both must hold the same entries, capacities included.
// The twin is told before every change that an entry was handed out, so it
// decides each change with an index built afresh, g with the one it keeps up.
TEST(AttrsIndex, EveryChangeLeavesTheLookupsOfAScan) {
    TraceCapture quiet(-1);  // refused merges trace errors
    std::unique_ptr<ScopedRegistry> reg(new ScopedRegistry(messageTables()));
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Maker make(seed);
        cmp_ipp_attrs g("Job0");
        for (int i = 0; i < 20; ++i) {
            const cmp_ipp_attr a = make.attr();
            g.cmp_ipp_attrs_set_attr_by_name(&a, false);
        }
        cmp_ipp_attrs expected(g);
        for (int step = 0; step < 1500; ++step) {
            const std::string at = "seed " + std::to_string(seed) + " step " + std::to_string(step);
            cmp_ipp_attr a = make.attr();
            const bool flag = make.pick(2) != 0;
            const int32_t pos = static_cast<int32_t>(make.pick(static_cast<unsigned>(g.count())));
            (void)expected[0];
            switch (make.pick(9)) {
            case 0:
            case 1:
                g.cmp_ipp_attrs_set_attr(&a, flag);
                expected.cmp_ipp_attrs_set_attr(&a, flag);
                break;
            case 2:
                g.cmp_ipp_attrs_set_attr_by_name(&a, flag);
                expected.cmp_ipp_attrs_set_attr_by_name(&a, flag);
                break;
            case 3:
                expected.cmp_ipp_attrs_set_attr_by_name(&a, false);
                g.adopt(a);
                break;
            case 4:
            case 5: {
                const cmp_ipp_attr value = make.value();
                cmp_ipp_attr merged(expected.list()[pos]);
                merged.cmp_ipp_attr_add_multi(value);
                expected.cmp_ipp_attrs_set_attr(&merged, false);
                // Where the steps put it: a new last entry for a marker, else the
                // first entry of its identifier (of its name for identifier 0).
                const int32_t where = merged.cmp_ipp_attr_is_col_type() ? expected.count() - 1
                                      : merged.m_nameId != 0 ? scanFor(expected.list(), merged.m_nameId)
                                                             : scanFor(expected.list(), merged.cmp_ipp_attr_get_name());
                EXPECT_EQ(g.addValueAt(pos, value), where) << at;
                break;
            }
            case 6: {
                // Changed in place through the non-const accessors, behind the index's back.
                const uint16_t id = kIds[make.pick(6)];
                if (flag) {
                    g[pos].setNameId(id);
                    expected[pos].setNameId(id);
                } else {
                    cmp_ipp_attr* found = g.find(g.list()[pos].m_nameId);
                    ASSERT_NE(found, nullptr) << at;
                    make.ownName(*found);
                    expected[static_cast<int32_t>(found - &g[0])].setName(found->m_name, found->m_nameLength);
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
            ASSERT_EQ(g.count(), expected.count()) << at;
            for (int32_t i = 0; i < g.count(); ++i)
                ASSERT_EQ(shapeOf(g.list()[i]), shapeOf(expected.list()[i])) << at << ", entry " << i;
            expectScanAnswers(g, at);
            if (HasFatalFailure()) return;
        }
    }
}

// The copy constructor is held by the twin group above; an assigned group
// takes the entries and builds an index of its own.
TEST(AttrsIndex, AssignmentCarriesTheEntriesNotTheIndex) {
    ScopedRegistry reg(messageTables());
    cmp_ipp_attrs g("Op"), assigned;
    for (int i = 0; i < 40; ++i) g.cmp_ipp_attrs_set_attr(0x21, static_cast<uint16_t>(i % 20), i);
    assigned = g;
    ASSERT_EQ(assigned.count(), 20);
    EXPECT_STREQ(assigned.getName(), "Op");
    EXPECT_EQ(assigned.cmp_ipp_attrs_index_of(uint16_t{7}), 7);
    assigned.cmp_ipp_attrs_set_attr(0x21, 7, 99);
    EXPECT_EQ(assigned.find(uint16_t{7})->m_longs[0], 99);
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
    const cmp_ipp_vector<cmp_ipp_attr>& v = printer.list();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 6; ++k) {
        threads.emplace_back([&, k] {
            for (int round = 0; round < 20; ++round) {
                for (uint16_t id = 0; id < 160; ++id) {
                    const cmp_ipp_attrs& view = printer;
                    const cmp_ipp_attr* a = view.find(id);
                    if ((a == nullptr ? -1 : static_cast<int32_t>(a - &view[0])) != scanFor(v, id)) wrong.fetch_add(1);
                    // Hands out a pointer: the list stops trusting its index (only a flag changes).
                    if (k == 0 && id % 40 == 0 && printer.find(id) == nullptr && scanFor(v, id) >= 0) wrong.fetch_add(1);
                }
                for (int n = 0; n < 210; n += 7) {
                    const std::string name = "own-" + std::to_string(n);
                    if (printer.cmp_ipp_attrs_index_of(name.c_str()) != scanFor(v, name.c_str())) wrong.fetch_add(1);
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
cmp_ipp_attrs groupByTheSteps(const Bytes& bytes, uint32_t offset) {
    cmp_ipp_attrs r;
    cmp_ipp_buf buf = bufOf(bytes);
    std::unique_ptr<cmp_ipp_attr> previous;
    while ((buf.getByteAt(offset) & 0xF0) != 0) {
        uint16_t status = 0;
        int32_t consumed = 0;
        std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(buf, static_cast<int32_t>(offset), &status, &consumed));
        if (!a) break;
        const bool additional = a->m_nameLength == 0 && a->m_nameId == 0 && !a->cmp_ipp_attr_is_col_type();
        if (!additional) {
            r.cmp_ipp_attrs_set_attr_by_name(a.get(), false);
            previous = std::move(a);
        } else {
            previous->cmp_ipp_attr_add_multi(*a);
            r.cmp_ipp_attrs_set_attr(previous.get(), false);
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
        const cmp_ipp_attrs expected = groupByTheSteps(m.b, groupStart);
        ASSERT_EQ(group->count(), expected.count());
        for (int32_t i = 0; i < expected.count(); ++i)
            EXPECT_EQ(shapeOf(group->list()[i]), shapeOf(expected.list()[i])) << "entry " << i;
    }
}

}  // namespace
