// Shared pieces of the message tests: a byte builder for IPP messages, a small
// dictionary, and a printer object installed in the manager for one scope.
#ifndef TESTS_MSG_MSG_FIXTURE_H
#define TESTS_MSG_MSG_FIXTURE_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"
#include "attr/cmp_ipp_attr.h"
#include "msg/cmp_ipp_obj.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_manager.h"

// Builds IPP wire bytes.
class Ipp {
public:
    Ipp& header(uint8_t major, uint8_t minor, uint16_t op, uint32_t requestId) {
        b.push_back(major);
        b.push_back(minor);
        u16(op);
        u32(requestId);
        return *this;
    }
    Ipp& tag(uint8_t t) {
        b.push_back(t);
        return *this;
    }
    Ipp& attr(uint8_t t, const std::string& name, const Bytes& value) {
        b.push_back(t);
        u16(static_cast<uint16_t>(name.size()));
        b.insert(b.end(), name.begin(), name.end());
        u16(static_cast<uint16_t>(value.size()));
        b.insert(b.end(), value.begin(), value.end());
        return *this;
    }
    Ipp& text(uint8_t t, const std::string& name, const std::string& value) {
        return attr(t, name, Bytes(value.begin(), value.end()));
    }
    Ipp& integer(uint8_t t, const std::string& name, int32_t v) { return attr(t, name, be32(v)); }
    Ipp& range(const std::string& name, int32_t lo, int32_t hi) {
        Bytes v = be32(lo);
        Bytes h = be32(hi);
        v.insert(v.end(), h.begin(), h.end());
        return attr(0x33, name, v);
    }
    Ipp& raw(const Bytes& more) {
        b.insert(b.end(), more.begin(), more.end());
        return *this;
    }
    // The usual operation attributes of a request.
    Ipp& opGroup() {
        tag(0x01);
        text(0x47, "attributes-charset", "utf-8");
        text(0x48, "attributes-natural-language", "en");
        return text(0x45, "printer-uri", "ipp://localhost/ipp/print");
    }
    static Bytes be32(int32_t v) {
        uint32_t u = static_cast<uint32_t>(v);
        return Bytes{static_cast<unsigned char>(u >> 24), static_cast<unsigned char>(u >> 16),
                     static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u)};
    }

    Bytes b;

private:
    void u16(uint16_t v) {
        b.push_back(static_cast<unsigned char>(v >> 8));
        b.push_back(static_cast<unsigned char>(v));
    }
    void u32(uint32_t v) {
        Bytes x = be32(static_cast<int32_t>(v));
        b.insert(b.end(), x.begin(), x.end());
    }
};

// A dictionary covering the attributes the message tests use.
inline RegistryTables messageTables() {
    RegistryTables t;
    t.attrs = {
        {1, "attributes-charset", 0x47, 0, 63},
        {2, "attributes-natural-language", 0x48, 0, 63},
        {3, "printer-uri", 0x45, 0, 1023},
        {4, "requesting-user-name", 0x42, 0, 255},
        {5, "job-name", 0x42, 0, 255},
        {6, "ipp-versions-supported", 0x44, 1, 255},
        {7, "operations-supported", 0x23, 1, 0xFFFF},
        {8, "copies", 0x21, 1, 999},
        {9, "page-ranges", 0x33, 1, INT32_MAX},
        {10, "job-state-reasons", 0x44, 1, 255},
        {11, "printer-uri-supported", 0x45, 0, 1023},
        {12, "printer-more-info", 0x45, 0, 1023},
        {13, "printer-supply-info-uri", 0x45, 0, 1023},
        {14, "printer-icons", 0x45, 0, 1023},
        {15, "media", 0x44, 1, 255},
        {16, "job-id", 0x21, 1, INT32_MAX},
        {17, "any-tag", -1, 0, 1023},
        {18, "media-col", 0x34, 0, 0},
        {19, "media-size", 0x34, 0, 0},
        {20, "sides", 0x44, 1, 255},
    };
    t.altTypes = {{15, 0x42, 0, 255}};
    t.oneSetOf = {6, 7, 9, 10, 11, 14};
    t.operations = {{0x0002, "Print-Job"}, {0x000B, "Get-Printer-Attributes"}};
    t.statuses = {{0x0000, "successful-ok"}, {0x0400, "client-error-bad-request"}};
    return t;
}

// What decoding gives the malformed messages of the captured corpus: a
// request-id of 0 and a bare header are refused, version 0.0 is not
// supported. The replies carry the same header faults except the bare header,
// which the printer answered with a well-formed reply.
inline uint32_t expectedDecodeResult(const std::string& file) {
    const bool request = file.find(".req.") != std::string::npos;
    if (file.rfind("002-", 0) == 0 || (request && file.rfind("003-", 0) == 0)) return 0x0400;
    if (file.rfind("008-", 0) == 0) return 0x0503;
    return 0;
}

// A printer object carrying ipp-versions-supported and operations-supported,
// registered with the manager for the life of the scope.
class ScopedPrinter {
public:
    explicit ScopedPrinter(const std::vector<std::string>& versions = {"1.0", "1.1", "2.0"},
                           const std::vector<int32_t>& ops = {0x0002, 0x0004, 0x0005, 0x0006, 0x0008, 0x0009, 0x000A,
                                                              0x000B}) {
        cmp_ipp_attr v(0x44, cmp_ipp_attr::cmp_ipp_attr_name_to_id("ipp-versions-supported"));
        for (const std::string& s : versions) {
            v.m_strings.append(cmp_ipp_string(s.c_str()));
            v.m_strings.append(cmp_ipp_string(""));
        }
        cmp_ipp_attr o(0x23, cmp_ipp_attr::cmp_ipp_attr_name_to_id("operations-supported"));
        for (int32_t op : ops) o.m_longs.append(op);
        install(v, static_cast<int32_t>(versions.size()), "ipp-versions-supported");
        install(o, static_cast<int32_t>(ops.size()), "operations-supported");
        m_saved = cmp_ipp_manager::get()->m_printer;
        cmp_ipp_manager::get()->init(&printer);
    }
    ~ScopedPrinter() { cmp_ipp_manager::get()->init(m_saved); }

    cmp_ipp_obj printer;

private:
    void install(cmp_ipp_attr& a, int32_t values, const char* name) {
        if (values == 0) return;
        a.m_numValues = values;
        if (a.m_nameId == 0) a.setName(name, static_cast<int32_t>(std::strlen(name)));
        printer.m_attrs.cmp_ipp_attrs_set_attr(&a, false);
    }
    void* m_saved;
};

#endif
