#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

using Messages = std::vector<std::pair<std::string, Bytes>>;

// Names and first tags of every named attribute in a message, read straight off
// the framing.
void collectNames(const Bytes& b, std::map<std::string, int16_t>& names) {
    size_t i = 8;
    while (i < b.size()) {
        const unsigned char tag = b[i];
        if (tag < 0x10) {
            ++i;
            if (tag == 3) return;
            continue;
        }
        if (i + 3 > b.size()) return;
        const size_t nameLen = static_cast<size_t>(b[i + 1] << 8 | b[i + 2]);
        if (i + 3 + nameLen + 2 > b.size()) return;
        const std::string name(b.begin() + static_cast<long>(i) + 3, b.begin() + static_cast<long>(i + 3 + nameLen));
        const size_t valueLen = static_cast<size_t>(b[i + 3 + nameLen] << 8 | b[i + 4 + nameLen]);
        if (!name.empty() && tag != 0x4A && tag != 0x37 && names.count(name) == 0) names[name] = tag;
        i += 5 + nameLen + valueLen;
    }
}

// A dictionary made of the attributes the corpus requests use.
class CorpusDictionary {
public:
    CorpusDictionary() {
        std::map<std::string, int16_t> names;
        for (const auto& m : capturedMessages(".req.ipp")) collectNames(m.second, names);
        names.emplace("ipp-versions-supported", 0x44);
        names.emplace("operations-supported", 0x23);
        for (const auto& kv : names) storage.push_back(kv.first);
        uint16_t id = 1;
        for (const std::string& n : storage) tables.attrs.push_back({id++, n.c_str(), names[n], 0, INT32_MAX});
    }
    std::vector<std::string> storage;
    RegistryTables tables;
};

uint32_t expectedResult(const std::string& file) {
    // A request id of 0, a bare header, and version 0.0 are refused while decoding;
    // the other malformed requests lack operation attributes, which is the
    // handler's business.
    if (file.rfind("002-", 0) == 0 || file.rfind("003-", 0) == 0) return 0x0400;
    if (file.rfind("008-", 0) == 0) return 0x0503;
    return 0;
}

class CorpusTest : public ::testing::Test {
protected:
    CorpusDictionary dict;
    ScopedRegistry reg{dict.tables};
    ScopedPrinter printer;
    const Messages requests = capturedMessages(".req.ipp");
};

TEST_F(CorpusTest, EveryRequestDecodesAndEncodesBackToItsBytes) {
    ASSERT_GE(requests.size(), 28u) << "corpus not found at " << CMP_IPP_CORPUS_DIR;
    for (const auto& m : requests) {
        SCOPED_TRACE(m.first);
        const Bytes& bytes = m.second;
        cmp_ipp_buf buf = bufOf(bytes);
        cmp_ipp_request req;
        ASSERT_EQ(req.decode(buf, nullptr), expectedResult(m.first));
        if (expectedResult(m.first) != 0) continue;
        EXPECT_EQ(req.m_version, bytes[0] << 8 | bytes[1]);
        EXPECT_EQ(contentOf(req.cmp_ipp_msg_encode()), bytes);
        EXPECT_EQ(req.m_msgLength, bytes.size());
    }
}

TEST_F(CorpusTest, RequestsInPiecesDecodeAsInOnePiece) {
    for (const auto& m : requests) {
        if (expectedResult(m.first) != 0) continue;
        SCOPED_TRACE(m.first);
        const Bytes& bytes = m.second;
        cmp_ipp_buf whole = bufOf(bytes);
        cmp_ipp_request reference;
        ASSERT_EQ(reference.decode(whole, nullptr), 0u);
        reference.m_docData.resize(0);
        const Bytes expected = contentOf(reference.cmp_ipp_msg_encode());

        const size_t attrEnd = expected.size();  // header, groups and end tag
        for (size_t chunk : {size_t{64}, size_t{512}}) {
            for (size_t split = 1; split < std::min(bytes.size(), attrEnd + 2); ++split) {
                PiecePort port = PiecePort::inChunks(bytes, split, chunk);
                cmp_ipp_buf first(bytes.data(), static_cast<uint32_t>(split), true);
                cmp_ipp_request req;
                ASSERT_EQ(req.decode(first, &port.info), 0u) << "split at " << split << ", pieces of " << chunk;
                EXPECT_EQ(first.getPort(), nullptr) << "the record is detached after decoding";
                // The data read so far plus what the port still holds is the whole document.
                Bytes data = contentOf(req.m_docData);
                const Bytes unread = port.unread();
                data.insert(data.end(), unread.begin(), unread.end());
                EXPECT_EQ(data, Bytes(bytes.begin() + static_cast<long>(attrEnd), bytes.end()));
                req.m_docData.resize(0);
                ASSERT_EQ(contentOf(req.cmp_ipp_msg_encode()), expected) << "split at " << split;
            }
        }
    }
}

}  // namespace
