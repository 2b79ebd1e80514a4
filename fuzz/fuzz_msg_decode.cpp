// libFuzzer target: whole-message decoding of arbitrary bytes that arrive in
// pieces through the interface record, as a request body does. The decoded
// message is then encoded and rendered, so every path over what decoding may
// leave behind (partial groups, odd tags, collections) runs too.
//
// The first input byte chooses the size of the first piece and of the pieces
// that follow; the rest is the message.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "msg/cmp_ipp_request.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_manager.h"
#include "attr/codec_test_util.h"

namespace {

const cmp_ipp_attr_row_t kAttrs[] = {
    {1, "attributes-charset", 0x47, 0, 63},    {2, "attributes-natural-language", 0x48, 0, 63},
    {3, "printer-uri", 0x45, 0, 1023},         {4, "requesting-user-name", 0x42, 0, 255},
    {5, "job-name", 0x42, 0, 255},             {6, "ipp-versions-supported", 0x44, 1, 255},
    {7, "operations-supported", 0x23, 1, 0xFFFF}, {8, "copies", 0x21, 1, 999},
    {9, "page-ranges", 0x33, 1, INT32_MAX},    {10, "media-col", 0x34, 0, 0},
    {11, "media-size", 0x34, 0, 0},            {12, "x-dimension", 0x21, 0, 100000},
    {13, "sides", 0x44, 1, 255},               {14, "requested-attributes", 0x44, 1, 255},
    {15, "document-format", 0x49, 0, 255},     {16, "job-state-reasons", 0x44, 1, 255},
    {17, "printer-uri-supported", 0x45, 0, 1023},
};
const cmp_ipp_alt_type_row_t kAlt[] = {{13, 0x42, 0, 255}, {5, 0x41, 0, 1023}};

cmp_ipp_obj* g_printer = nullptr;

void setUp() {
    cmp_ipp_ipptable_def* reg = cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance();
    reg->m_attrTable = kAttrs;
    reg->m_attrCount = static_cast<int16_t>(sizeof kAttrs / sizeof kAttrs[0]);
    reg->m_altTypeTable = kAlt;
    reg->m_altTypeCount = static_cast<int16_t>(sizeof kAlt / sizeof kAlt[0]);
    const char* keep = std::getenv("CMP_IPP_FUZZ_TRACES");
    if (keep == nullptr || *keep != '1') orvane::cmp_dbglog_common::get_instance().set_level(-1);

    g_printer = new cmp_ipp_obj();
    cmp_ipp_attr versions(0x44, 6, "1.0");
    for (const char* v : {"1.1", "2.0"}) {
        cmp_ipp_attr more(0x44, 0, v);
        versions.cmp_ipp_attr_add_multi(more);
    }
    g_printer->m_attrs.cmp_ipp_attrs_set_attr(&versions, false);
    cmp_ipp_attr ops(0x23, 7, 2);
    for (int32_t op : {4, 5, 6, 8, 9, 10, 11}) {
        cmp_ipp_attr more(0x23, 0, op);
        ops.cmp_ipp_attr_add_multi(more);
    }
    g_printer->m_attrs.cmp_ipp_attrs_set_attr(&ops, false);
    cmp_ipp_manager::get()->m_printer = g_printer;
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
