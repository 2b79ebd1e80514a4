// The captured requests arriving in pieces, split at every byte of their
// attribute part, decode as they do in one piece. Decoding and encoding back
// every captured message whole is held in AttrCorpus and DictionaryCorpus.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

TEST(CorpusTest, RequestsInPiecesDecodeAsInOnePiece) {
    ScopedRegistry none;
    ScopedPrinter printer;
    const auto requests = capturedMessages(".req.ipp");
    ASSERT_GE(requests.size(), 28u) << "corpus not found at " << CMP_IPP_CORPUS_DIR;
    for (const auto& m : requests) {
        if (expectedDecodeResult(m.first) != 0) continue;
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
