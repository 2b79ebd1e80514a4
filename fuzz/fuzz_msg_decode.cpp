// libFuzzer target: whole-message decoding of arbitrary bytes that arrive in
// pieces through the interface record, as a request body does. The decoded
// message is then encoded and rendered, so every path over what decoding may
// leave behind (partial groups, odd tags, collections) runs too.
//
// The first input byte chooses the size of the first piece and of the pieces
// that follow; the rest is the message.
#include <cstdint>
#include <cstdlib>

#include "msg/cmp_ipp_request.h"
#include "platform/cmp_dbglog.h"
#include "msg/msg_fixture.h"

namespace {

void setUp() {
    static ScopedRegistry registry(messageTables());  // the message tests' dictionary
    static ScopedPrinter printer;                      // versions 1.0 to 2.0, the usual operations
    const char* keep = std::getenv("CMP_IPP_FUZZ_TRACES");
    if (keep == nullptr || *keep != '1') orvane::cmp_dbglog_common::get_instance().set_level(-1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = (setUp(), true);
    (void)ready;
    if (size < 1) return 0;
    const size_t step = 1 + (data[0] & 0x3F) * 4;
    const uint8_t* msg = data + 1;
    const size_t len = size - 1;
    const size_t first = len < step ? len : step;

    PiecePort pieces = PiecePort::inChunks(Bytes(msg, msg + len), first, step);

    cmp_ipp_buf buf(msg, static_cast<uint32_t>(first), true);
    cmp_ipp_request req;
    const uint32_t status = req.decode(buf, &pieces.info);
    if (buf.getPort() != nullptr) __builtin_trap();  // the record must be detached on every way out
    if (status == 0 && req.m_dataLength != static_cast<int32_t>(req.m_docData.length())) __builtin_trap();

    cmp_ipp_buf out = req.cmp_ipp_msg_encode();
    if (out.length() != req.m_msgLength) __builtin_trap();
    cmp_ipp_string page = req.cmp_ipp_msg_to_html();
    (void)page;
    return 0;
}
