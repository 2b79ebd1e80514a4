// Every attribute of the captured IPP messages, requests and replies, is
// decoded and written back to the same bytes: first with an empty dictionary,
// so every name is the attribute's own, then with one that holds three of
// every four names, so registry names and own names are written side by side.
// The encoder places each attribute after the getByteLength of the one before,
// so a wrong length shows as moved bytes.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "attr/cmp_ipp_attr.h"
#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

struct WalkResult {
    int messages = 0;
    int attributes = 0;
    int registered = 0;
    std::set<std::string> ownNames;
};

WalkResult roundTrip() {
    WalkResult r;
    ScopedPrinter printer;
    for (const auto& m : capturedMessages(".ipp")) {
        SCOPED_TRACE(m.first);
        cmp_ipp_request req;
        cmp_ipp_response rsp;
        cmp_ipp_msg& msg = m.first.find(".req.") != std::string::npos ? static_cast<cmp_ipp_msg&>(req) : rsp;
        cmp_ipp_buf buf = bufOf(m.second);
        EXPECT_EQ(msg.decode(buf, nullptr), expectedDecodeResult(m.first));
        if (expectedDecodeResult(m.first) != 0) continue;
        ++r.messages;
        EXPECT_EQ(hexOf(contentOf(msg.cmp_ipp_msg_encode())), hexOf(m.second));
        for (int32_t g = 0; g < msg.groupCount(); ++g) {
            for (int32_t i = 0; i < msg.group(g)->count(); ++i) {
                const cmp_ipp_attr* a = &msg.group(g)->list()[i];
                ++r.attributes;
                if (a->m_name != nullptr && a->m_name[0] != '\0') r.ownNames.insert(a->m_name);
                if (a->m_nameId != 0) ++r.registered;
                EXPECT_TRUE(a->m_nameId == 0 || a->m_name == nullptr) << "a registered name is not kept";
                EXPECT_GT(a->toHTML(false).length(), 0);
            }
        }
    }
    return r;
}

TEST(AttrCorpus, EveryAttributeWritesBackToItsBytes) {
    TraceCapture traces;
    WalkResult own;
    {
        ScopedRegistry none;
        own = roundTrip();
    }
    EXPECT_GE(own.messages, 50) << "corpus at " << CMP_IPP_CORPUS_DIR;
    EXPECT_GT(own.attributes, 500);
    EXPECT_EQ(own.registered, 0);

    RegistryTables tables;
    uint16_t id = 1;
    int n = 0;
    for (const std::string& name : own.ownNames) {
        if (++n % 4 != 0) tables.attrs.push_back({id++, name.c_str(), -1, 0, 0});
    }
    WalkResult mixed;
    {
        ScopedRegistry dictionary(tables);
        mixed = roundTrip();
    }
    EXPECT_EQ(mixed.attributes, own.attributes);
    EXPECT_GT(mixed.registered, own.attributes / 2);
    EXPECT_FALSE(mixed.ownNames.empty());
    for (const std::string& line : traces.lines())
        EXPECT_NE(line.find("]:cmp_ipp_ippmsg::decode("), std::string::npos) << "only the malformed headers: " << line;
}

}  // namespace
