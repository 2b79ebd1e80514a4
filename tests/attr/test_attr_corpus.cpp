// Every attribute of the captured IPP messages is decoded and written back to
// the same bytes, with getByteLength equal to the bytes consumed. The message
// framing (8-byte header, delimiter tags, end-of-attributes) is walked here.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"

namespace {

using Message = std::pair<std::string, Bytes>;

struct WalkResult {
    int attributes = 0;
    std::map<int32_t, int> tags;
    std::set<std::string> ownNames;
    int registered = 0;
};

// Decodes every attribute of every message, writes each back at its own offset
// into a copy of the message and compares the two.
void walk(const std::vector<Message>& corpus, WalkResult& r) {
    for (const auto& message : corpus) {
        SCOPED_TRACE(message.first);
        const Bytes& bytes = message.second;
        if (bytes.size() < 8) continue;
        cmp_ipp_buf in(bytes.data(), static_cast<uint32_t>(bytes.size()), false);  // wraps, as the HTTP side does
        cmp_ipp_buf out(static_cast<uint32_t>(bytes.size()), true);
        for (uint32_t i = 0; i < 8; ++i) out.setByteAt(i, bytes[i]);
        out.resize(8);
        uint32_t offset = 8;
        while (offset < bytes.size()) {
            const uint8_t tag = bytes[offset];
            if (tag < 0x10) {
                out.setByteAt(offset, tag);
                out.resize(++offset);
                if (tag == 0x03) break;  // document data follows
                continue;
            }
            SCOPED_TRACE(offset);
            uint16_t status = 0;
            int32_t count = 0;
            std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(in, static_cast<int32_t>(offset), &status, &count));
            ASSERT_NE(a, nullptr) << "status " << status;
            ASSERT_GT(count, 0);
            ASSERT_LE(offset + static_cast<uint32_t>(count), bytes.size());
            EXPECT_EQ(a->getByteLength(), count);
            a->getBytes(out, static_cast<int32_t>(offset));
            ASSERT_EQ(out.length(), offset + static_cast<uint32_t>(count));
            EXPECT_EQ(hexOf(Bytes(out.data() + offset, out.data() + offset + count)),
                      hexOf(Bytes(bytes.begin() + offset, bytes.begin() + offset + count)))
                << a->cmp_ipp_attr_get_name();
            EXPECT_GT(a->toHTML(false).length(), 0);

            ++r.attributes;
            ++r.tags[a->m_type == 0x4A && a->m_numValues > 0 ? a->m_memberType : a->m_type];
            if (a->m_name != nullptr) r.ownNames.insert(a->m_name);
            if (a->m_nameId != 0) {
                ++r.registered;
                EXPECT_EQ(a->m_name, nullptr);
            }
            offset += static_cast<uint32_t>(count);
        }
        EXPECT_EQ(hexOf(contentOf(out)), hexOf(Bytes(bytes.begin(), bytes.begin() + offset)));
    }
}

class AttrCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        corpus = capturedMessages(".ipp");
        ASSERT_GE(corpus.size(), 2u) << "no corpus in " << CMP_IPP_CORPUS_DIR;
    }
    std::vector<Message> corpus;
    TraceCapture traces;
};

TEST_F(AttrCorpus, EveryAttributeWritesBackToItsBytes) {
    // First with an empty dictionary: every name is the attribute's own.
    WalkResult own;
    {
        ScopedRegistry none;
        walk(corpus, own);
    }
    EXPECT_GT(own.attributes, 500);
    EXPECT_EQ(own.registered, 0);
    for (int32_t tag : {0x13, 0x21, 0x22, 0x23, 0x30, 0x31, 0x32, 0x33, 0x34, 0x37, 0x41, 0x42, 0x44, 0x45, 0x47,
                        0x48, 0x49, 0x4A}) {
        EXPECT_GT(own.tags[tag], 0) << "tag " << tag;
    }

    // Then with a dictionary holding three of every four names seen, so both
    // registry names and own names are written back.
    RegistryTables tables;
    uint16_t id = 1;
    int n = 0;
    for (const std::string& name : own.ownNames) {
        if (++n % 4 == 0) continue;
        tables.attrs.push_back({id++, name.c_str(), -1, 0, 0});
    }
    WalkResult mixed;
    {
        ScopedRegistry dictionary(tables);
        walk(corpus, mixed);
    }
    EXPECT_EQ(mixed.attributes, own.attributes);
    EXPECT_GT(mixed.registered, own.attributes / 2);
    EXPECT_FALSE(mixed.ownNames.empty());
    EXPECT_TRUE(traces.lines().empty());
}

}  // namespace
