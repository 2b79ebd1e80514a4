// The default dictionary: its tables checked against each other, against the
// wire syntax limits, and against real IPP traffic, which is what the
// dictionary has to accept.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "cmp_ipp_dictionary.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

template <typename Row>
std::vector<Row> rowsOf(const Row* (*table)(int16_t*)) {
    int16_t n = 0;
    const Row* rows = table(&n);
    return std::vector<Row>(rows, rows + (n > 0 ? n : 0));
}

std::vector<cmp_ipp_attr_row_t> attrRows() { return rowsOf(cmp_ipp_dictionary_attr_table); }
std::vector<cmp_ipp_alt_type_row_t> altRows() { return rowsOf(cmp_ipp_dictionary_alt_type_table); }

// Installs the dictionary for one scope and puts the previous tables back.
class ScopedDictionary : public RegistryRestore {
public:
    ScopedDictionary() { cmp_ipp_dictionary_install(); }
};

// Largest length RFC 8010 allows for the values of a length-bounded tag; -1 for
// tags bounded by value instead.
int32_t wireLengthLimit(int16_t tag) {
    switch (tag) {
    case 0x30: case 0x35: case 0x41: case 0x45: return 1023;
    case 0x36: case 0x42: case 0x44: case 0x49: return 255;
    case 0x46: case 0x47: case 0x48: return 63;
    default: return -1;
    }
}

bool isValueTag(int16_t tag) {
    static const std::set<int16_t> tags = {0x21, 0x22, 0x23, 0x30, 0x31, 0x32, 0x33, 0x34, 0x35,
                                           0x36, 0x41, 0x42, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49};
    return tags.count(tag) != 0;
}

bool isOutOfBandTag(int16_t tag) { return tag == 0x10 || tag == 0x12 || tag == 0x13; }

// ---------------------------------------------------------------------------
// The tables on their own

TEST(DictionaryTables, AttributeRowsAreOneToOneAndFitTheWireSyntax) {
    const std::vector<cmp_ipp_attr_row_t> rows = attrRows();
    ASSERT_GE(rows.size(), 300u);
    std::map<uint16_t, int16_t> altTag;
    for (const cmp_ipp_alt_type_row_t& a : altRows()) altTag.emplace(a.id, a.altTag);
    std::map<std::string, uint16_t> idOfName;
    std::map<uint16_t, std::string> nameOfId;
    std::set<std::pair<uint16_t, int16_t>> idAndTag;
    for (const cmp_ipp_attr_row_t& r : rows) {
        ASSERT_NE(r.name, nullptr) << "identifier " << r.id;
        SCOPED_TRACE(r.name);
        EXPECT_NE(r.id, 0) << "0 stands for an unregistered name";
        EXPECT_NE(r.name[0], '\0');
        // The encoder writes the name of the identifier's first row, so one
        // identifier with two names would rename attributes on the way out.
        EXPECT_EQ(idOfName.emplace(r.name, r.id).first->second, r.id) << "name registered under two identifiers";
        const auto byId = nameOfId.emplace(r.id, r.name);
        EXPECT_EQ(byId.first->second, r.name) << "identifier carries two names";
        EXPECT_TRUE(idAndTag.emplace(r.id, r.valueTag).second) << "a row for this identifier and tag already exists";
        // A further row only matters to range lookups by identifier and tag; a
        // tag the decoder refuses would make it dead.
        EXPECT_TRUE(byId.second || (altTag.count(r.id) != 0 && r.valueTag == altTag[r.id])) << "further row";

        EXPECT_TRUE(r.valueTag == -1 || isValueTag(r.valueTag)) << "tag 0x" << std::hex << r.valueTag;
        EXPECT_LE(r.min, r.max);
        const int32_t limit = wireLengthLimit(r.valueTag);
        EXPECT_TRUE(limit < 0 || (r.min >= 0 && r.max <= limit)) << "a length bound within the syntax";
        EXPECT_TRUE(r.valueTag != 0x44 || r.min >= 1) << "keywords are never empty";
        EXPECT_TRUE(r.valueTag != 0x22 || (r.min == 0 && r.max == 1));
        EXPECT_TRUE(r.valueTag != 0x23 || r.min >= 0) << "enum values are not negative";
        EXPECT_TRUE(r.valueTag != 0x34 || (r.min == 0 && r.max == 0));
    }
}

TEST(DictionaryTables, OneSetOfListHoldsRegisteredIdentifiersOnce) {
    std::set<uint16_t> registered;
    for (const cmp_ipp_attr_row_t& r : attrRows()) registered.insert(r.id);
    const std::vector<uint16_t> ids = rowsOf(cmp_ipp_dictionary_onesetof_table);
    ASSERT_FALSE(ids.empty());
    std::set<uint16_t> seen;
    for (uint16_t id : ids) {
        EXPECT_EQ(registered.count(id), 1u) << "0x" << std::hex << id;
        EXPECT_TRUE(seen.insert(id).second) << "0x" << std::hex << id << " listed twice";
    }
}

TEST(DictionaryTables, DefaultAttributesTakeTheSyntaxOfTheirAttribute) {
    std::map<std::string, int16_t> tagOf;
    for (const cmp_ipp_attr_row_t& r : attrRows()) tagOf.emplace(r.name, r.valueTag);
    const std::string suffix = "-default";
    int pairs = 0;
    for (const auto& kv : tagOf) {
        const std::string& name = kv.first;
        if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        const auto base = tagOf.find(name.substr(0, name.size() - suffix.size()));
        if (base == tagOf.end()) continue;
        ++pairs;
        EXPECT_EQ(kv.second, base->second) << name;
    }
    EXPECT_GT(pairs, 20);
}

// Words with a capital initial, joined by single hyphens: Get-Printer-Attributes.
bool ippStyle(const std::string& name) {
    for (size_t i = 0; i < name.size(); ++i)
        if ((i == 0 || name[i - 1] == '-') && !(name[i] >= 'A' && name[i] <= 'Z')) return false;
    return !name.empty() && name.back() != '-';
}

// Operation numbers, status codes and their names are unique; operations are
// named in IPP style, status texts start with their class.
TEST(DictionaryTables, OperationsAndStatusesAreUniqueAndNamedByTheirRules) {
    const std::vector<cmp_ipp_operation_row_t> ops = rowsOf(cmp_ipp_dictionary_operation_table);
    const std::vector<cmp_ipp_status_row_t> statuses = rowsOf(cmp_ipp_dictionary_status_table);
    ASSERT_FALSE(ops.empty() || statuses.empty());
    std::set<uint16_t> ids, codes;
    std::set<std::string> names;
    for (const cmp_ipp_operation_row_t& op : ops) {
        ASSERT_NE(op.name, nullptr);
        SCOPED_TRACE(op.name);
        EXPECT_NE(op.id, 0);
        EXPECT_TRUE(ids.insert(op.id).second);
        EXPECT_TRUE(names.insert(op.name).second);
        EXPECT_TRUE(ippStyle(op.name));
    }
    for (const cmp_ipp_status_row_t& s : statuses) {
        ASSERT_NE(s.text, nullptr);
        SCOPED_TRACE(s.text);
        EXPECT_TRUE(codes.insert(s.code).second);
        EXPECT_TRUE(names.insert(s.text).second);
        const char* prefix = s.code < 0x0100   ? "successful-ok"
                             : s.code < 0x0400 ? "(no such class)"
                             : s.code < 0x0500 ? "client-error-"
                             : s.code < 0x0600 ? "server-error-"
                                               : "(no such class)";
        EXPECT_EQ(std::string(s.text).rfind(prefix, 0), 0u) << "code 0x" << std::hex << s.code;
    }
}

// ---------------------------------------------------------------------------
// The tables as the library sees them once installed

// One alternate row per registered attribute (only the first is ever read),
// with a tag other than the attribute's (-1 accepts everything already), and the
// range it states is the one validation uses for a value sent with that tag:
// from a further attribute row or the tag's default range, not bounds nobody chose.
TEST(DictionaryInstalled, AlternatesAreOnePerAttributeWithTheirOwnTagAndRange) {
    ScopedDictionary dict;
    const std::vector<cmp_ipp_alt_type_row_t> alts = altRows();
    ASSERT_FALSE(alts.empty());
    std::set<uint16_t> seen;
    for (const cmp_ipp_alt_type_row_t& a : alts) {
        SCOPED_TRACE(testing::Message() << "identifier 0x" << std::hex << a.id);
        EXPECT_STRNE(cmp_ipp_attr::cmp_ipp_attr_id_to_name(a.id, nullptr), "") << "not a registered identifier";
        EXPECT_TRUE(seen.insert(a.id).second) << "second alternate row would never be read";
        const int16_t mainTag = cmp_ipp_attr::nameIdToType(a.id);
        EXPECT_NE(mainTag, -1);
        EXPECT_NE(a.altTag, mainTag);
        EXPECT_TRUE(isValueTag(a.altTag) || isOutOfBandTag(a.altTag)) << "tag 0x" << std::hex << a.altTag;
        EXPECT_EQ(cmp_ipp_attr::nameIdToAlternateType(a.id), a.altTag);
        int32_t min = 0, max = 0;
        cmp_ipp_attr::getNameIdMinMax(a.id, a.altTag, &min, &max);
        EXPECT_EQ(min, a.altMin);
        EXPECT_EQ(max, a.altMax);
    }
}

// ---------------------------------------------------------------------------
// Against the corpus

// One decoded attribute or collection member against the installed dictionary:
// its name is registered, its tag is the registered or the alternate one (the
// decoder checks this for attributes, not for members), and each of its values
// lies within the registered bounds. Returns the number of values measured.
int keepsToTheDictionary(const cmp_ipp_attr& a, std::set<std::string>& names) {
    const std::string name = a.cmp_ipp_attr_get_name();
    if (name.empty()) return 0;  // the end of a collection, or a further collection value
    names.insert(name);
    EXPECT_NE(a.m_nameId, 0) << "not registered: " << name;
    if (a.m_nameId == 0) return 0;
    const bool member = a.m_type == 0x4A;
    const int32_t tag = !member ? a.m_type : a.m_numValues > 0 ? a.m_memberType : 0x34;
    const int16_t registered = cmp_ipp_attr::nameIdToType(a.m_nameId);
    EXPECT_TRUE(registered == -1 || registered == tag || cmp_ipp_attr::nameIdToAlternateType(a.m_nameId) == tag)
        << name << (member ? " (member)" : "") << std::hex << " sent as 0x" << tag << ", registered 0x" << registered;
    int32_t min = 0, max = 0;
    cmp_ipp_attr::getNameIdMinMax(a.m_nameId, tag, &min, &max);
    std::vector<int64_t> measured;
    for (int32_t i = 0; i < a.m_numValues; ++i) {
        switch (tag) {
        case 0x21: case 0x22: case 0x23:
            measured.push_back(a.m_longs[i]);
            break;
        case 0x33:
            measured.insert(measured.end(), {a.m_longs[2 * i], a.m_longs[2 * i + 1]});
            break;
        case 0x30:
            measured.push_back(a.m_bufs[i].length());
            break;
        case 0x41: case 0x42: case 0x44: case 0x45: case 0x46: case 0x47: case 0x48: case 0x49:
            measured.push_back(a.m_strings[2 * i].length());
            break;
        default:
            break;
        }
    }
    for (int64_t m : measured)
        EXPECT_TRUE(m >= min && m <= max) << name << " value " << m << " outside " << min << ".." << max;
    return static_cast<int>(measured.size());
}

// Every captured request and reply decodes with the dictionary and is encoded
// back byte for byte (names go out through the registry: a wrong identifier or
// name shows here), and keeps to the dictionary in every attribute and member.
TEST(DictionaryCorpus, EveryMessageDecodesEncodesBackAndKeepsToTheDictionary) {
    ScopedDictionary dict;
    ScopedPrinter printer;
    TraceCapture traces(2);
    const auto requests = capturedMessages(".req.ipp");
    const auto replies = capturedMessages(".rsp.ipp");
    ASSERT_GE(requests.size(), 28u) << "corpus not found at " << CMP_IPP_CORPUS_DIR;
    ASSERT_EQ(replies.size(), requests.size());
    std::set<std::string> names;
    int measured = 0;
    auto check = [&](cmp_ipp_msg& msg, const std::pair<std::string, Bytes>& m) {
        SCOPED_TRACE(m.first);
        cmp_ipp_buf buf = bufOf(m.second);
        ASSERT_EQ(msg.decode(buf, nullptr), expectedDecodeResult(m.first));
        if (expectedDecodeResult(m.first) != 0) return;
        EXPECT_EQ(contentOf(msg.cmp_ipp_msg_encode()), m.second);
        for (int32_t g = 0; g < msg.groupCount(); ++g)
            for (int32_t i = 0; i < msg.group(g)->count(); ++i)
                measured += keepsToTheDictionary(msg.group(g)->list()[i], names);
    };
    for (const auto& m : requests) {
        cmp_ipp_request req;
        check(req, m);
    }
    for (const auto& m : replies) {
        cmp_ipp_response rsp;
        check(rsp, m);
    }
    EXPECT_GT(names.size(), 100u);
    EXPECT_TRUE(names.count("media-col-database") && names.count("x-dimension")) << "members not looked at";
    EXPECT_GT(measured, 500);
    EXPECT_FALSE(traces.contains("parse error. Id[")) << "a value tag was refused";
}

}  // namespace
