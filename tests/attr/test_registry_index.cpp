// The registry's lookups answer through an index; these tests hold every answer
// against a plain front-to-back scan of the installed tables, for tables with
// duplicate names, identifiers and (identifier, tag) pairs, for misses, and for
// tables that change (also in place, at the same address) or are first looked
// up from many threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_ipptable.h"
#include "attr/registry_fixture.h"

namespace {

using A = cmp_ipp_attr;

// The first row of rows that matches, as a front-to-back scan finds it.
template <typename Rows, typename Match>
const typename Rows::value_type* firstOf(const Rows& rows, Match match) {
    for (const auto& r : rows)
        if (match(r)) return &r;
    return nullptr;
}

struct Domain {
    std::vector<std::string> names;
    std::vector<uint16_t> ids;
    std::set<int> tags;
};

// Every name and identifier of the tables and their neighbours, misses that
// differ only in case, length or a last letter, names of earlier tables, and
// tags with and without rows.
Domain domainOf(const RegistryTables& t) {
    Domain d;
    d.names = {"", "nope", "x", "SIDES", "copie", "copiesx", "copies", "sides", "beta"};
    d.tags = {-1, 0, 0x13, 0x21, 0x33, 0x42, 0x44, 0x50, 0x7FFF, -32768, 70000, -70000};
    for (const auto& r : t.attrs) {
        if (r.name != nullptr && r.name[0] != '\0') {
            d.names.push_back(r.name);
            std::string other = r.name;
            other.back() = static_cast<char>(other.back() ^ 1);
            d.names.push_back(other);
        }
        d.tags.insert(r.valueTag);
    }
    uint16_t top = 12;
    for (const auto& r : t.attrs) top = std::max<uint16_t>(top, r.id);
    for (const auto& r : t.altTypes) top = std::max<uint16_t>(top, r.id);
    for (uint32_t id = 0; id <= top + 2u; ++id) d.ids.push_back(static_cast<uint16_t>(id));
    d.ids.push_back(0xFFFF);
    return d;
}

// Every lookup of the registry against a scan of t; returns the number of differences.
int differences(const RegistryTables& t, const Domain& d) {
    int bad = 0;
    auto check = [&bad](bool ok, const std::string& what) {
        if (!ok) {
            if (bad < 10) ADD_FAILURE() << what;
            ++bad;
        }
    };
    for (const std::string& n : d.names) {
        const auto* r = firstOf(t.attrs, [&](const cmp_ipp_attr_row_t& x) { return x.name && x.name == n; });
        check(A::cmp_ipp_attr_name_to_id(n.c_str()) == (r != nullptr ? r->id : 0), "name_to_id " + n);
    }
    for (uint16_t id : d.ids) {
        const std::string at = " id " + std::to_string(id);
        const auto* r = firstOf(t.attrs, [id](const cmp_ipp_attr_row_t& x) { return x.id == id; });
        int16_t type = 12345;
        const char* name = A::cmp_ipp_attr_id_to_name(id, &type);
        if (r != nullptr) {
            // The very text of the first row, not an equal one of a later row.
            check(name == (r->name != nullptr ? r->name : name) && (r->name != nullptr || *name == '\0'),
                  "id_to_name" + at);
            check(type == r->valueTag, "id_to_name type" + at);
        } else {
            check(*name == '\0' && type == 12345, "id_to_name miss" + at);
        }
        check(A::nameIdToType(id) == (r != nullptr ? r->valueTag : 0), "nameIdToType" + at);
        const auto* alt = firstOf(t.altTypes, [id](const cmp_ipp_alt_type_row_t& x) { return x.id == id; });
        check(A::nameIdToAlternateType(id) == (alt != nullptr ? alt->altTag : 0), "nameIdToAlternateType" + at);
        check(A::nameIdIsOneSetOf(id) == (firstOf(t.oneSetOf, [id](uint16_t x) { return x == id; }) != nullptr),
              "nameIdIsOneSetOf" + at);
        const auto* op = firstOf(t.operations, [id](const cmp_ipp_operation_row_t& x) { return x.id == id; });
        const char* opName = op != nullptr && op->name != nullptr ? op->name : "unknown";
        check(std::strcmp(cmp_ipp_ipptable_op_name(id), opName) == 0, "op text" + at);
        check(cmp_ipp_ipptable_op_name(id) == opName || op == nullptr || op->name == nullptr, "op name" + at);
        const auto* st = firstOf(t.statuses, [id](const cmp_ipp_status_row_t& x) { return x.code == id; });
        const char* stText = st != nullptr && st->text != nullptr ? st->text : "unknown";
        check(std::strcmp(cmp_ipp_ipptable_status_text(id), stText) == 0, "status" + at);
        for (int tag : d.tags) {
            const auto* row =
                firstOf(t.attrs, [&](const cmp_ipp_attr_row_t& x) { return x.id == id && x.valueTag == tag; });
            int32_t lo = -7, hi = -7;
            const bool hit = A::getNameIdMinMax(id, tag, &lo, &hi);
            const std::string what = "getNameIdMinMax" + at + " tag " + std::to_string(tag);
            check(hit == (row != nullptr), what);
            if (row != nullptr) check(lo == row->min && hi == row->max, what + " range");
        }
    }
    return bad;
}

RegistryTables duplicates() {
    RegistryTables t;
    t.attrs = {
        {7, "copies", 0x21, 1, 999},  {7, "copies", 0x33, 5, 50},   {7, "copies", 0x21, 2, 3},  // (7, 0x21) twice
        {9, "sides", 0x44, 1, 255},   {10, "sides", 0x44, 2, 254},  {11, "job-name", -1, 0, 255},
        {12, nullptr, 0x41, 0, 9},    {12, "late-name", 0x41, 0, 8}, {3, "", 0x42, 0, 1},
        {4, "media", 0x44, 1, 255},   {4, "media", 0x42, 0, 255},   {5, "x", -32768, 0, 0},
    };
    t.altTypes = {{9, 0x42, 0, 255}, {7, 0x13, 0, 0}, {9, 0x41, 0, 0}};
    t.oneSetOf = {9, 11, 9, 4};
    t.operations = {{2, "Print-Job"}, {2, "Shadowed"}, {4, nullptr}};
    t.statuses = {{0x0400, "client-error-bad-request"}, {0x0400, "shadowed"}, {0, "successful-ok"}};
    return t;
}

// Hundreds of rows over a narrow range of identifiers and names, so that
// most keys repeat, as in a dictionary that adds second rows for alternate tags.
RegistryTables generated(unsigned seed, size_t rows) {
    static std::vector<std::string> names;  // row names must outlive the tables
    if (names.empty())
        for (int i = 0; i < 400; ++i) names.push_back("attr-" + std::to_string(i));
    std::mt19937 rnd(seed);
    const int16_t tags[] = {-1, 0x21, 0x22, 0x23, 0x33, 0x41, 0x42, 0x44, 0x45, 0x34, 0x4A};
    RegistryTables t;
    for (size_t i = 0; i < rows; ++i) {
        const uint16_t id = static_cast<uint16_t>(1 + rnd() % 300);
        t.attrs.push_back({id, names[rnd() % names.size()].c_str(), tags[rnd() % 11], static_cast<int32_t>(rnd() % 9),
                           static_cast<int32_t>(100 + rnd() % 9)});
    }
    for (int i = 0; i < 80; ++i) t.altTypes.push_back({static_cast<uint16_t>(1 + rnd() % 300), tags[rnd() % 11], 0, 0});
    for (int i = 0; i < 120; ++i) t.oneSetOf.push_back(static_cast<uint16_t>(1 + rnd() % 300));
    for (int i = 0; i < 60; ++i) t.operations.push_back({static_cast<uint16_t>(rnd() % 80), names[rnd() % 50].c_str()});
    for (int i = 0; i < 60; ++i) t.statuses.push_back({static_cast<uint16_t>(rnd() % 80), names[rnd() % 50].c_str()});
    return t;
}

cmp_ipp_ipptable_def* reg() { return cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance(); }

void write(const RegistryTables& t) { t.writeInto(reg()); }

// Each case leaves the registry in some state and returns the tables a scan
// must find there: installed fresh, written field by field without reindex()
// (the index is built lazily), changed after the index was built, or rewritten
// in place at the same address and count, which only reindex() makes known.
TEST(RegistryIndex, EveryLookupAnswersAsAScanOfTheTables) {
    const RegistryTables dup = duplicates(), many = generated(1, 600), other = generated(2, 300);
    RegistryTables inPlace;
    const struct {
        const char* what;
        std::function<RegistryTables()> install;
    } cases[] = {
        {"no tables", [] { write(RegistryTables{}); return RegistryTables{}; }},
        {"duplicate names, identifiers and pairs", [&] { write(dup); reg()->reindex(); return dup; }},
        {"600 generated rows, built lazily", [&] { write(many); return many; }},
        {"counts below one and a table missing behind its count",
         [&] {
             write(dup);
             reg()->m_attrCount = -3;
             reg()->m_altTypeTable = nullptr;  // nothing to read behind the count
             reg()->m_oneSetOfCount = 0;
             reg()->m_operationIdCount = 1;
             reg()->m_statusCodeTable = nullptr;
             reg()->m_statusCodeCount = 0;
             reg()->reindex();
             RegistryTables seen;
             seen.operations = {dup.operations[0]};
             return seen;
         }},
        {"a count shortened after the index was built",
         [&] {
             write(dup);
             EXPECT_EQ(differences(dup, domainOf(dup)), 0);  // every index is built
             reg()->m_attrCount = 3;  // the registry fields are the index's key
             RegistryTables seen = dup;
             seen.attrs.resize(3);
             return seen;
         }},
        {"another table written after the index was built",
         [&] {
             write(dup);
             EXPECT_EQ(differences(dup, domainOf(dup)), 0);
             reg()->m_attrTable = other.attrs.data();
             reg()->m_attrCount = static_cast<int16_t>(other.attrs.size());
             RegistryTables seen = dup;
             seen.attrs = other.attrs;
             return seen;
         }},
        {"rows rewritten in place, then reindex()",
         [&] {
             inPlace.attrs = {{1, "alpha", 0x21, 0, 1}, {2, "beta", 0x44, 1, 255}, {1, "alpha", 0x33, 4, 5}};
             inPlace.altTypes = {{2, 0x42, 0, 0}};
             write(inPlace);
             reg()->reindex();
             EXPECT_EQ(differences(inPlace, domainOf(inPlace)), 0);
             inPlace.attrs[0] = {5, "gamma", 0x42, 0, 9};
             inPlace.attrs[1] = {1, "alpha", 0x23, 1, 2};
             inPlace.attrs[2] = {5, "gamma", 0x21, 7, 8};
             inPlace.altTypes[0] = {5, 0x44, 0, 0};
             reg()->reindex();
             return inPlace;
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RegistryRestore restore;
        const RegistryTables seen = c.install();
        EXPECT_EQ(differences(seen, domainOf(seen)), 0);
    }
}

// The first lookups after installing come from many tasks at once, and one of
// them builds the index while the others wait for it or read it.
TEST(RegistryConcurrency, FirstLookupsFromManyThreadsAgreeWithTheTables) {
    for (unsigned round = 0; round < 3; ++round) {
        const RegistryTables t = generated(10 + round, 500);
        const Domain d = domainOf(t);
        RegistryRestore restore;
        write(t);  // without reindex(): the index is built lazily
        std::atomic<int> ready{0};
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int k = 0; k < 8; ++k) {
            threads.emplace_back([&] {
                ready.fetch_add(1);
                while (ready.load() < 8) std::this_thread::yield();
                wrong.fetch_add(differences(t, d));
            });
        }
        for (auto& th : threads) th.join();
        EXPECT_EQ(wrong.load(), 0) << "round " << round;
    }
}

}  // namespace
