// libFuzzer target: cmp_ipp_attr::Create on arbitrary bytes, walked as message
// decoding walks an attribute section (delimiter bytes skipped, each attribute
// read at the offset after the previous one).
//
// Besides the sanitizers, every decoded attribute must satisfy:
//   - getBytes writes exactly getByteLength() bytes;
//   - those bytes decode again, consuming all of them, to an attribute that is
//     written back to the same bytes (decoding then encoding is stable).
// The value operations and the HTML rendering run on every attribute too.
//
// The input is decoded twice: from one buffer, and from a buffer that receives
// it in small pieces through a port, as a request body arrives.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "platform/cmp_dbglog.h"
#include "msg/msg_fixture.h"

namespace {

void setUp() {
    static ScopedRegistry registry(messageTables());  // the message tests' dictionary
    // The error traces are exercised by the unit tests; here they would only
    // slow the run down. CMP_IPP_FUZZ_TRACES=1 keeps them.
    const char* keep = std::getenv("CMP_IPP_FUZZ_TRACES");
    if (keep == nullptr || *keep != '1') orvane::cmp_dbglog_common::get_instance().set_level(-1);
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}


std::vector<uint8_t> encode(cmp_ipp_attr& a) {
    const int32_t length = a.getByteLength();
    check(length >= 0);
    cmp_ipp_buf out(static_cast<uint32_t>(length) + 1, true);
    a.getBytes(out, 0);
    check(out.length() == static_cast<uint32_t>(length));
    return std::vector<uint8_t>(out.data(), out.data() + out.length());
}

void exercise(cmp_ipp_attr& a, cmp_ipp_attr& previous) {
    std::vector<uint8_t> bytes = encode(a);
    if (!bytes.empty()) {
        cmp_ipp_buf again(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
        uint16_t status = 0;
        int32_t count = 0;
        std::unique_ptr<cmp_ipp_attr> b(cmp_ipp_attr::Create(again, 0, &status, &count));
        check(b != nullptr);
        check(count == static_cast<int32_t>(bytes.size()));
        check(encode(*b) == bytes);
    }

    (void)a.toHTML(true).length();
    (void)a.toHTML(false).length();
    (void)a.cmp_ipp_attr_validate_attr_range();
    (void)a.cmp_ipp_attr_contains_value_of(previous);
    (void)a.cmp_ipp_attr_contains_value_of(7);
    (void)a.cmp_ipp_attr_contains_value_of("a4");
    cmp_ipp_attr copy(a);
    copy.toLower();
    copy.cmp_ipp_attr_add_multi(previous);
    copy.cmp_ipp_attr_add_multi(copy);
    (void)encode(copy);
    previous = a;
}

void decodeAll(cmp_ipp_buf& buf, size_t size) {
    cmp_ipp_attr previous;
    uint32_t offset = 0;
    // Each call consumes at least one byte that is there, so this ends.
    while (offset < size) {
        uint16_t status = 0;
        int32_t count = -1;
        std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(buf, static_cast<int32_t>(offset), &status, &count));
        check(count >= 0);
        if (a) {
            check(count >= 5);
            exercise(*a, previous);
        } else {
            check(status == 0x0400 || status == 0x0409);
        }
        offset += count > 0 ? static_cast<uint32_t>(count) : 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = (setUp(), true);
    (void)ready;
    if (size > 0x7FFFFF) return 0;

    {
        cmp_ipp_buf whole(data, static_cast<uint32_t>(size), false);
        decodeAll(whole, size);
    }
    {
        PiecePort pieces = PiecePort::inChunks(Bytes(data, data + size), 0, 1 + size % 13);
        cmp_ipp_buf streamed(true);
        streamed.setPort(&pieces.info);
        decodeAll(streamed, size);
    }
    return 0;
}
