// The default dictionary: its tables checked against each other, against the
// wire syntax limits, and against real IPP traffic, which is what the
// dictionary has to accept.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "cmp_ipp_dictionary.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

const std::string kCorpus = CMP_IPP_CORPUS_DIR;

template <typename Row>
std::vector<Row> rowsOf(const Row* (*table)(int16_t*)) {
    int16_t n = 0;
    const Row* rows = table(&n);
    return std::vector<Row>(rows, rows + (n > 0 ? n : 0));
}

std::vector<cmp_ipp_attr_row_t> attrRows() { return rowsOf(cmp_ipp_dictionary_attr_table); }
std::vector<cmp_ipp_alt_type_row_t> altRows() { return rowsOf(cmp_ipp_dictionary_alt_type_table); }
std::vector<cmp_ipp_operation_row_t> operationRows() { return rowsOf(cmp_ipp_dictionary_operation_table); }
std::vector<cmp_ipp_status_row_t> statusRows() { return rowsOf(cmp_ipp_dictionary_status_table); }
std::vector<uint16_t> oneSetOfIds() {
    int16_t n = 0;
    const uint16_t* ids = cmp_ipp_dictionary_onesetof_table(&n);
    return std::vector<uint16_t>(ids, ids + (n > 0 ? n : 0));
}

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

TEST(DictionaryTables, NamesAndIdentifiersCorrespondOneToOne) {
    const std::vector<cmp_ipp_attr_row_t> rows = attrRows();
    ASSERT_GE(rows.size(), 300u);
    std::map<std::string, uint16_t> idOfName;
    std::map<uint16_t, std::string> nameOfId;
    std::set<std::pair<uint16_t, int16_t>> idAndTag;
    for (const cmp_ipp_attr_row_t& r : rows) {
        ASSERT_NE(r.name, nullptr) << "identifier " << r.id;
        SCOPED_TRACE(r.name);
        EXPECT_NE(r.id, 0) << "0 stands for an unregistered name";
        EXPECT_GT(std::string(r.name).size(), 0u);
        // The encoder writes the name of the identifier's first row, so one
        // identifier with two names would rename attributes on the way out.
        const auto byName = idOfName.emplace(r.name, r.id);
        EXPECT_EQ(byName.first->second, r.id) << "name registered under two identifiers";
        const auto byId = nameOfId.emplace(r.id, r.name);
        EXPECT_EQ(byId.first->second, r.name) << "identifier carries two names";
        EXPECT_TRUE(idAndTag.emplace(r.id, r.valueTag).second) << "a row for this identifier and tag already exists";
    }
}

TEST(DictionaryTables, TagsAndRangesFitTheWireSyntax) {
    for (const cmp_ipp_attr_row_t& r : attrRows()) {
        SCOPED_TRACE(r.name);
        EXPECT_TRUE(r.valueTag == -1 || isValueTag(r.valueTag)) << "tag 0x" << std::hex << r.valueTag;
        EXPECT_LE(r.min, r.max);
        const int32_t limit = wireLengthLimit(r.valueTag);
        if (limit >= 0) {
            EXPECT_GE(r.min, 0) << "a length bound";
            EXPECT_LE(r.max, limit) << "longer than the syntax allows";
        }
        if (r.valueTag == 0x44) {
            EXPECT_GE(r.min, 1) << "keywords are never empty";
        }
        if (r.valueTag == 0x22) {
            EXPECT_TRUE(r.min == 0 && r.max == 1);
        }
        if (r.valueTag == 0x23) {
            EXPECT_GE(r.min, 0) << "enum values are not negative";
        }
        if (r.valueTag == 0x34) {
            EXPECT_TRUE(r.min == 0 && r.max == 0);
        }
    }
}

TEST(DictionaryTables, AlternatesAreOnePerRegisteredAttributeAndDifferFromItsTag) {
    std::map<uint16_t, int16_t> mainTag;
    for (const cmp_ipp_attr_row_t& r : attrRows()) mainTag.emplace(r.id, r.valueTag);  // first row wins
    std::set<uint16_t> seen;
    const std::vector<cmp_ipp_alt_type_row_t> alts = altRows();
    ASSERT_FALSE(alts.empty());
    for (const cmp_ipp_alt_type_row_t& a : alts) {
        SCOPED_TRACE(testing::Message() << "identifier 0x" << std::hex << a.id);
        ASSERT_EQ(mainTag.count(a.id), 1u) << "alternate for an unregistered identifier";
        // Only the first alternate row of an identifier is ever consulted.
        EXPECT_TRUE(seen.insert(a.id).second) << "second alternate row would never be read";
        EXPECT_NE(mainTag[a.id], -1) << "a tag of -1 accepts everything already";
        EXPECT_NE(a.altTag, mainTag[a.id]);
        EXPECT_TRUE(isValueTag(a.altTag) || isOutOfBandTag(a.altTag)) << "tag 0x" << std::hex << a.altTag;
        EXPECT_LE(a.altMin, a.altMax);
    }
}

TEST(DictionaryTables, FurtherRowsOfAnIdentifierCarryItsAlternateTag) {
    std::map<uint16_t, int16_t> altTag;
    for (const cmp_ipp_alt_type_row_t& a : altRows()) altTag.emplace(a.id, a.altTag);
    std::set<uint16_t> seen;
    for (const cmp_ipp_attr_row_t& r : attrRows()) {
        if (seen.insert(r.id).second) continue;
        SCOPED_TRACE(r.name);
        // A further row only matters to range lookups by identifier and tag; a
        // tag the decoder refuses would make it dead.
        ASSERT_EQ(altTag.count(r.id), 1u);
        EXPECT_EQ(r.valueTag, altTag[r.id]);
    }
}

TEST(DictionaryTables, OneSetOfListHoldsRegisteredIdentifiersOnce) {
    std::set<uint16_t> registered;
    for (const cmp_ipp_attr_row_t& r : attrRows()) registered.insert(r.id);
    const std::vector<uint16_t> ids = oneSetOfIds();
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

TEST(DictionaryTables, OperationsAreUniqueAndNamedInIppStyle) {
    const std::vector<cmp_ipp_operation_row_t> ops = operationRows();
    ASSERT_FALSE(ops.empty());
    std::set<uint16_t> ids;
    std::set<std::string> names;
    for (const cmp_ipp_operation_row_t& op : ops) {
        ASSERT_NE(op.name, nullptr);
        const std::string name = op.name;
        SCOPED_TRACE(name);
        EXPECT_NE(op.id, 0);
        EXPECT_TRUE(ids.insert(op.id).second);
        EXPECT_TRUE(names.insert(name).second);
        // Words with a capital initial, joined by hyphens: Get-Printer-Attributes.
        bool wordStart = true;
        for (char c : name) {
            if (wordStart) {
                EXPECT_TRUE(c >= 'A' && c <= 'Z') << "word starts with " << c;
            }
            wordStart = c == '-';
        }
        EXPECT_FALSE(wordStart) << "ends with a hyphen";
    }
}

TEST(DictionaryTables, StatusTextsAreUniqueAndMatchTheirClass) {
    const std::vector<cmp_ipp_status_row_t> statuses = statusRows();
    ASSERT_FALSE(statuses.empty());
    std::set<uint16_t> codes;
    std::set<std::string> texts;
    for (const cmp_ipp_status_row_t& s : statuses) {
        ASSERT_NE(s.text, nullptr);
        const std::string text = s.text;
        SCOPED_TRACE(text);
        EXPECT_TRUE(codes.insert(s.code).second);
        EXPECT_TRUE(texts.insert(text).second);
        const char* prefix = s.code < 0x0100   ? "successful-ok"
                             : s.code < 0x0400 ? "(no such class)"
                             : s.code < 0x0500 ? "client-error-"
                             : s.code < 0x0600 ? "server-error-"
                                               : "(no such class)";
        EXPECT_EQ(text.rfind(prefix, 0), 0u) << "code 0x" << std::hex << s.code;
    }
}

// ---------------------------------------------------------------------------
// The tables as the library sees them once installed

TEST(DictionaryInstalled, AlternateTagsAreValidatedWithTheirOwnRange) {
    ScopedDictionary dict;
    for (const cmp_ipp_alt_type_row_t& a : altRows()) {
        SCOPED_TRACE(cmp_ipp_attr::cmp_ipp_attr_id_to_name(a.id, nullptr));
        EXPECT_EQ(cmp_ipp_attr::nameIdToAlternateType(a.id), a.altTag);
        // Either a further attribute row or the tag's default range must give
        // the range the alternate row states, or validation of a value sent
        // with the alternate tag uses bounds nobody chose.
        int32_t min = 0, max = 0;
        cmp_ipp_attr::getNameIdMinMax(a.id, a.altTag, &min, &max);
        EXPECT_EQ(min, a.altMin);
        EXPECT_EQ(max, a.altMax);
    }
}

TEST(DictionaryInstalled, InstallingAgainChangesNothing) {
    ScopedDictionary dict;
    cmp_ipp_ipptable_def* reg = cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance();
    const cmp_ipp_ipptable_def before = *reg;
    cmp_ipp_dictionary_install();
    EXPECT_EQ(reg->m_attrTable, before.m_attrTable);
    EXPECT_EQ(reg->m_attrCount, before.m_attrCount);
    EXPECT_EQ(reg->m_altTypeCount, before.m_altTypeCount);
    EXPECT_EQ(reg->m_oneSetOfCount, before.m_oneSetOfCount);
    EXPECT_EQ(reg->m_operationIdCount, before.m_operationIdCount);
    EXPECT_EQ(reg->m_statusCodeCount, before.m_statusCodeCount);
}

// ---------------------------------------------------------------------------
// Against the corpus

// One value on the wire and the attribute or collection member it belongs to.
struct WireValue {
    std::string file;
    std::string owner;  // attribute or member name
    bool member;
    uint8_t tag;
    Bytes value;
};

// Walks the framing of a message: 8-byte header, delimiter tags 0x00-0x0F,
// then per field tag(1) name-length(2) name value-length(2) value. Values
// with an empty name belong to the attribute or member before them; a
// memberAttrName field names the member whose values follow; begCollection
// opens a level and endCollection closes it.
std::vector<WireValue> walk(const std::string& file, const Bytes& b) {
    struct Level {
        std::string member;
    };
    std::vector<WireValue> out;
    std::vector<Level> levels;
    std::string attribute;
    size_t i = 8;
    while (i < b.size()) {
        const uint8_t tag = b[i];
        if (tag < 0x10) {
            ++i;
            if (tag == 3) break;
            continue;
        }
        if (i + 3 > b.size()) break;
        const size_t nameLen = static_cast<size_t>(b[i + 1] << 8 | b[i + 2]);
        if (i + 5 + nameLen > b.size()) break;
        const std::string name(b.begin() + static_cast<long>(i + 3), b.begin() + static_cast<long>(i + 3 + nameLen));
        const size_t valueLen = static_cast<size_t>(b[i + 3 + nameLen] << 8 | b[i + 4 + nameLen]);
        const size_t at = i + 5 + nameLen;
        if (at + valueLen > b.size()) break;
        const Bytes value(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + valueLen));
        i = at + valueLen;

        if (!name.empty()) {
            attribute = name;
            levels.clear();
        }
        if (tag == 0x4A) {
            if (!levels.empty()) levels.back().member.assign(value.begin(), value.end());
            continue;
        }
        if (tag == 0x37) {
            if (!levels.empty()) levels.pop_back();
            continue;
        }
        const bool inside = !levels.empty();
        out.push_back({file, inside ? levels.back().member : attribute, inside, tag, value});
        if (tag == 0x34) levels.push_back({});
    }
    return out;
}

std::vector<WireValue> corpusValues() {
    std::vector<WireValue> all;
    for (const char* suffix : {".req.ipp", ".rsp.ipp"}) {
        for (const auto& m : capturedMessages(suffix)) {
            const std::vector<WireValue> v = walk(m.first, m.second);
            all.insert(all.end(), v.begin(), v.end());
        }
    }
    return all;
}

class DictionaryCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        values = corpusValues();
        ASSERT_GT(values.size(), 500u) << "corpus not found at " << kCorpus;
    }
    ScopedDictionary dict;
    std::vector<WireValue> values;
};

TEST_F(DictionaryCorpus, EveryAttributeAndMemberNameIsRegistered) {
    std::set<std::string> missing;
    std::set<std::string> names;
    for (const WireValue& v : values) {
        names.insert(v.owner);
        if (cmp_ipp_attr::cmp_ipp_attr_name_to_id(v.owner.c_str()) == 0) missing.insert(v.file + ": " + v.owner);
    }
    EXPECT_GT(names.size(), 100u);
    EXPECT_TRUE(names.count("media-col-database") && names.count("x-dimension")) << "walker lost the members";
    for (const std::string& m : missing) ADD_FAILURE() << "not registered: " << m;
}

TEST_F(DictionaryCorpus, EveryValueTagIsTheRegisteredOrTheAlternateTag) {
    std::set<std::string> wrong;
    for (const WireValue& v : values) {
        const uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id(v.owner.c_str());
        if (id == 0) continue;  // reported by the test above
        const int16_t tag = cmp_ipp_attr::nameIdToType(id);
        if (tag == -1 || tag == v.tag || cmp_ipp_attr::nameIdToAlternateType(id) == v.tag) continue;
        std::ostringstream line;
        line << v.file << ": " << v.owner << (v.member ? " (member)" : "") << std::hex << " sent as 0x"
             << static_cast<int>(v.tag) << ", registered 0x" << tag;
        wrong.insert(line.str());
    }
    for (const std::string& w : wrong) ADD_FAILURE() << w;
}

TEST_F(DictionaryCorpus, EveryValueLiesWithinItsRegisteredBounds) {
    auto be32 = [](const Bytes& b, size_t at) {
        return static_cast<int32_t>(static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
                                    static_cast<uint32_t>(b[at + 2]) << 8 | b[at + 3]);
    };
    int checked = 0;
    for (const WireValue& v : values) {
        const uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id(v.owner.c_str());
        if (id == 0) continue;
        int32_t min = 0, max = 0;
        cmp_ipp_attr::getNameIdMinMax(id, v.tag, &min, &max);
        std::vector<int64_t> measured;
        switch (v.tag) {
        case 0x21: case 0x23:
            if (v.value.size() == 4) measured.push_back(be32(v.value, 0));
            break;
        case 0x22:
            if (v.value.size() == 1) measured.push_back(v.value[0]);
            break;
        case 0x33:
            if (v.value.size() == 8) measured = {be32(v.value, 0), be32(v.value, 4)};
            break;
        case 0x30: case 0x41: case 0x42: case 0x44: case 0x45: case 0x46: case 0x47: case 0x48: case 0x49:
            measured.push_back(static_cast<int64_t>(v.value.size()));
            break;
        default:
            break;
        }
        for (int64_t m : measured) {
            ++checked;
            EXPECT_TRUE(m >= min && m <= max)
                << v.file << ": " << v.owner << " value " << m << " outside " << min << ".." << max;
        }
    }
    EXPECT_GT(checked, 500);
}

// The results the message layer gives the malformed requests of the corpus:
// a request-id of 0 and a bare header are refused while decoding, version 0.0
// is not supported. The replies carry the same header faults except the bare
// header, which the printer answered with a well-formed reply.
uint32_t expectedDecodeResult(const std::string& file) {
    const bool request = file.find(".req.") != std::string::npos;
    if (file.rfind("002-", 0) == 0) return 0x0400;
    if (request && file.rfind("003-", 0) == 0) return 0x0400;
    if (file.rfind("008-", 0) == 0) return 0x0503;
    return 0;
}

TEST_F(DictionaryCorpus, RequestsAndRepliesDecodeAndEncodeBackWithTheDictionary) {
    ScopedPrinter printer{{"1.0", "1.1", "2.0"}, {0x0002, 0x0004, 0x0005, 0x0006, 0x0008, 0x0009, 0x000A, 0x000B}};
    TraceCapture traces(2);
    const auto requests = capturedMessages(".req.ipp");
    const auto replies = capturedMessages(".rsp.ipp");
    ASSERT_GE(requests.size(), 28u);
    ASSERT_EQ(replies.size(), requests.size());
    auto check = [](cmp_ipp_msg& msg, const std::pair<std::string, Bytes>& m) {
        const std::string& f = m.first;
        const Bytes& bytes = m.second;
        SCOPED_TRACE(f);
        cmp_ipp_buf buf(bytes.data(), static_cast<uint32_t>(bytes.size()), true);
        ASSERT_EQ(msg.decode(buf, nullptr), expectedDecodeResult(f));
        if (expectedDecodeResult(f) != 0) return;
        // Names go out through the registry: a wrong identifier or name shows here.
        EXPECT_EQ(contentOf(msg.cmp_ipp_msg_encode()), bytes);
    };
    for (const auto& m : requests) {
        cmp_ipp_request req;
        check(req, m);
    }
    for (const auto& m : replies) {
        cmp_ipp_response rsp;
        check(rsp, m);
    }
    EXPECT_FALSE(traces.contains("parse error. Id[")) << "a value tag was refused";
}

}  // namespace
