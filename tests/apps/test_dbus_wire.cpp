// The announcer's own D-Bus wire code: exact bytes of what it sends, and every
// malformed or oversized message from the bus dropped without reading outside
// its buffer (the sanitizer build checks the latter).
#include <gtest/gtest.h>

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "cmp_ipp_dbus.h"
#include "cmp_ipp_dnssd.h"

namespace {

using namespace cmp_ipp_fe::dbus;
using Bytes = std::vector<uint8_t>;

TEST(DbusWire, SmallCallHasTheExactLayout) {
    Call c;
    c.path = "/";
    c.member = "M";
    const Bytes want = {
        'l', 1, 0, 1, 0, 0, 0, 0, 7, 0, 0, 0, 26, 0, 0, 0,     // fixed header, 26 bytes of fields
        1, 1, 'o', 0, 1, 0, 0, 0, '/', 0, 0, 0, 0, 0, 0, 0,    // PATH, padded to 8
        3, 1, 's', 0, 1, 0, 0, 0, 'M', 0, 0, 0, 0, 0, 0, 0,    // MEMBER, then the body's 8-byte boundary
    };
    EXPECT_EQ(encode(c, 7), want);
}

TEST(DbusWire, BodyTypesAreAlignedAndLittleEndian) {
    Writer w;
    w.y(0xAB);
    w.q(0x1234);  // aligned to 2
    w.i(-2);      // aligned to 4
    w.b(true);
    w.g("is");
    w.s("ab");
    w.aay({"k=v", ""});
    const Bytes want = {0xAB, 0,    0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 1,   0,   0,   0,   2,   'i', 's', 0,
                        2,    0,    0,    0,    'a',  'b',  0,    0,    /* aay: 12 bytes */ 12, 0, 0, 0,
                        3,    0,    0,    0,    'k',  '=',  'v',  0,    0,   0,   0,   0};
    EXPECT_EQ(w.bytes(), want);
}

Call groupSignal() {
    Call c;
    c.type = kSignal;
    c.path = "/Client1/EntryGroup1";
    c.interface = "org.freedesktop.Avahi.EntryGroup";
    c.member = "StateChanged";
    Writer w;
    w.i(3);
    w.s("org.freedesktop.Avahi.CollisionError");
    c.signature = "is";
    c.body = w.bytes();
    return c;
}

TEST(DbusWire, WhatIsEncodedParsesBack) {
    Call c = groupSignal();
    c.destination = ":1.5";
    const Bytes bytes = encode(c, 42);
    ASSERT_EQ(frameLength(bytes.data(), bytes.size()), bytes.size());
    Message m;
    ASSERT_TRUE(parse(bytes.data(), bytes.size(), m));
    EXPECT_EQ(m.type, kSignal);
    EXPECT_EQ(m.serial, 42u);
    EXPECT_EQ(m.path, c.path);
    EXPECT_EQ(m.interface, c.interface);
    EXPECT_EQ(m.member, c.member);
    EXPECT_EQ(m.destination, ":1.5");
    EXPECT_EQ(m.signature, "is");
    Reader r(m);
    EXPECT_EQ(r.i(), 3);
    EXPECT_EQ(r.s(), "org.freedesktop.Avahi.CollisionError");
    EXPECT_TRUE(r.ok());
    r.u();
    EXPECT_FALSE(r.ok()) << "reading past the body";

    Call e;
    e.type = kError;
    e.replySerial = 9;
    e.errorName = "org.freedesktop.Avahi.CollisionError";
    Writer w;
    w.s("Local name collision");
    e.signature = "s";
    e.body = w.bytes();
    const Bytes eb = encode(e, 3);
    ASSERT_TRUE(parse(eb.data(), eb.size(), m));
    EXPECT_EQ(m.replySerial, 9u);
    EXPECT_EQ(errorText(m), "Local name collision");
}

// Offset of the first occurrence of text in bytes.
size_t at(const Bytes& b, const std::string& text) {
    for (size_t k = 0; k + text.size() <= b.size(); ++k) {
        if (memcmp(b.data() + k, text.data(), text.size()) == 0) return k;
    }
    ADD_FAILURE() << "no " << text;
    return 0;
}
void put32(Bytes& b, size_t off, uint32_t v) {
    for (int k = 0; k < 4; ++k) b[off + k] = static_cast<uint8_t>(v >> (8 * k));
}

TEST(DbusWire, MalformedMessagesAreRefused) {
    const Bytes good = encode(groupSignal(), 5);
    const size_t bodyAt = good.size() - 45;  // i, then a 36-byte string with its length and nul
    const size_t member = at(good, "StateChanged");
    const size_t bodySignature = at(good, std::string("\x02is\x00", 4));
    const size_t signatureField = at(good, std::string("\x08\x01g\x00", 4));  // code 8
    struct Case {
        const char* what;
        std::function<void(Bytes&)> spoil;
    };
    const Case cases[] = {
        {"unknown byte order", [](Bytes& b) { b[0] = 'x'; }},
        {"protocol version 2", [](Bytes& b) { b[3] = 2; }},
        {"serial 0", [](Bytes& b) { put32(b, 8, 0); }},
        {"unknown message type", [](Bytes& b) { b[1] = 9; }},
        {"body longer than the message", [](Bytes& b) { put32(b, 4, 49); }},
        {"body length near 4 GiB", [](Bytes& b) { put32(b, 4, 0xFFFFFFF0u); }},
        {"fields length near 4 GiB", [](Bytes& b) { put32(b, 12, 0xFFFFFFF0u); }},
        {"fields length one short", [](Bytes& b) { b[12] -= 1; }},
        {"path field typed as string", [](Bytes& b) { b[18] = 's'; }},
        {"field signature of two types", [](Bytes& b) { b[17] = 2; }},
        {"string length past the end", [&](Bytes& b) { put32(b, member - 4, 0x7FFFFFFF); }},
        {"string length 4 GiB - 1", [&](Bytes& b) { put32(b, member - 4, 0xFFFFFFFFu); }},
        {"string without its nul", [&](Bytes& b) { b[member + 12] = 'x'; }},
        {"string with a nul inside", [&](Bytes& b) { b[member + 3] = 0; }},
        {"nonzero padding", [](Bytes& b) { b[46] = 1; }},  // after the path's nul
        {"signature names a string where an int is", [&](Bytes& b) { b[bodySignature + 1] = 's'; }},
        {"signature longer than the body", [&](Bytes& b) { b[bodySignature + 2] = 'u'; }},
        {"signature type unknown", [&](Bytes& b) { b[bodySignature + 1] = 'Z'; }},
        {"body string length past the body", [&](Bytes& b) { put32(b, bodyAt + 4, 200); }},
        {"file descriptors field (code 9)", [&](Bytes& b) { b[signatureField] = 9; }},
        {"unknown field with an invalid type", [&](Bytes& b) {
             b[signatureField] = 200;
             b[signatureField + 2] = '(';
         }},
        {"signal without a member", [&](Bytes& b) { b[at(b, std::string("\x03\x01s\x00", 4))] = 200; }},
    };
    for (const Case& c : cases) {
        Bytes b = good;
        c.spoil(b);
        Message m;
        EXPECT_FALSE(parse(b.data(), b.size(), m)) << c.what;
        // In a stream: dropped (or the stream given up), never parsed.
        Connection conn;
        std::vector<Message> out;
        conn.feed(b.data(), b.size(), out);
        EXPECT_TRUE(out.empty()) << c.what;
    }
    Message m;
    ASSERT_TRUE(parse(good.data(), good.size(), m)) << "the unspoilt message";
    // Every prefix of a good message is refused, read within its own length.
    for (size_t len = 0; len < good.size(); ++len) {
        Bytes prefix(good.begin(), good.begin() + static_cast<long>(len));
        EXPECT_FALSE(parse(prefix.data(), prefix.size(), m)) << len;
    }
    // Any single byte spoilt: parsed or refused, never read outside.
    for (size_t k = 0; k < good.size(); ++k) {
        for (uint8_t v : {0x00, 0x7F, 0x80, 0xFF}) {
            Bytes b = good;
            b[k] = v;
            if (parse(b.data(), b.size(), m)) {
                EXPECT_LE(m.body.size(), b.size());
            }
        }
    }
}

TEST(DbusWire, DeepVariantsAndHugeArraysAreRefused) {
    // A body of nested variants, each holding the next: refused beyond the depth limit.
    for (int depth : {3, 40}) {
        Writer w;
        for (int k = 0; k < depth; ++k) w.g("v");
        w.g("y");
        w.y(1);
        Reader r(w.bytes().data(), w.bytes().size(), false);
        size_t k = 0;
        EXPECT_EQ(r.skip("v", &k), depth < kMaxDepth) << depth;
    }
    Writer w;
    w.u(0x7FFFFFFF);  // an array claiming 2 GiB
    Reader r(w.bytes().data(), w.bytes().size(), false);
    size_t k = 0;
    EXPECT_FALSE(r.skip("ay", &k));
}

TEST(DbusWire, StreamFramingSurvivesSplitsOversizeAndJunk) {
    const Bytes a = encode(groupSignal(), 1);
    Call big = groupSignal();
    Writer w;
    w.i(2);
    w.s(std::string(kMaxMessage, 'x'));  // larger than we keep
    big.body = w.bytes();
    const Bytes b = encode(big, 2);
    Bytes bad = encode(groupSignal(), 3);
    bad[at(bad, "StateChanged")] = 0;  // a nul inside a name: malformed, same framing
    const Bytes c = encode(groupSignal(), 4);
    Bytes stream;
    for (const Bytes& part : {a, b, bad, c}) stream.insert(stream.end(), part.begin(), part.end());

    for (size_t chunk : {size_t(1), size_t(7), size_t(4096), stream.size()}) {
        Connection conn;
        std::vector<Message> out;
        for (size_t off = 0; off < stream.size(); off += chunk) {
            const size_t n = std::min(chunk, stream.size() - off);
            ASSERT_TRUE(conn.feed(stream.data() + off, n, out)) << chunk;
        }
        ASSERT_EQ(out.size(), 2u) << chunk;
        EXPECT_EQ(out[0].serial, 1u);
        EXPECT_EQ(out[1].serial, 4u) << "the message after the skipped ones";
        EXPECT_EQ(conn.dropped(), 2u) << chunk;
    }
    // A fixed header that is not D-Bus: the stream cannot be resynchronised.
    Connection conn;
    std::vector<Message> out;
    Bytes junk(32, 'J');
    EXPECT_FALSE(conn.feed(junk.data(), junk.size(), out));
    EXPECT_TRUE(out.empty());
}

TEST(DbusWire, BusAddressGivesTheSocketPath) {
    const struct {
        const char* address;
        const char* path;
    } cases[] = {
        {"unix:path=/run/dbus/system_bus_socket", "/run/dbus/system_bus_socket"},
        {"unix:guid=abc,path=/tmp/b%20us", "/tmp/b us"},
        {"tcp:host=x,port=1;unix:path=/second", "/second"},
        {"unix:abstract=/tmp/dbus-x", ""},
        {"unix:path=/p%2", "/p%2"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(socketPathOf(c.address), c.path) << c.address;
}

TEST(DnssdNames, AlternativeNamesFollowAvahisRule) {
    const std::string long62(62, 'a');
    // 58 ASCII bytes then a 3-byte character across the cut at 60.
    const std::string utf8 = std::string(58, 'b') + "\xE2\x82\xAC" + "cc";
    const struct {
        std::string in, out;
    } cases[] = {
        {"Printer", "Printer #2"},
        {"Printer #2", "Printer #3"},
        {"Printer #9", "Printer #10"},
        {"Printer #199", "Printer #200"},
        {"Printer #0", "Printer #0 #2"},
        {"Printer #02", "Printer #02 #2"},
        {"Printer #", "Printer # #2"},
        {"Printer #x", "Printer #x #2"},
        {"Printer#3", "Printer#3 #2"},
        {"A #2 #5", "A #2 #6"},
        {long62, std::string(60, 'a') + " #2"},
        {std::string(60, 'a') + " #9", std::string(59, 'a') + " #10"},
        {utf8, std::string(58, 'b') + " #2"},
    };
    for (const auto& c : cases) {
        const std::string got = cmp_ipp_fe::alternativeServiceName(c.in);
        EXPECT_EQ(got, c.out) << c.in;
        EXPECT_LE(got.size(), 63u) << c.in;
    }
}

}  // namespace
