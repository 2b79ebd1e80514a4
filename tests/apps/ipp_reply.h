// Decoding of IPP replies for the printer tests: groups of top-level
// attributes with their values as raw bytes.
#ifndef TESTS_APPS_IPP_REPLY_H
#define TESTS_APPS_IPP_REPLY_H

#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

namespace ipp_reply {

struct Value {
    uint8_t tag;
    std::string bytes;
    int32_t integer() const {
        uint32_t v = 0;
        for (unsigned char c : bytes) v = (v << 8) | c;
        return static_cast<int32_t>(v);
    }
};
struct Attr { std::string name; std::vector<Value> values; };
struct Group { uint8_t tag; std::vector<Attr> attrs; };

// A decoded reply: groups of top-level attributes (collection contents skipped).
struct Response {
    uint16_t status = 0xFFFF;
    std::vector<Group> groups;

    std::vector<const Group*> of(uint8_t tag) const {
        std::vector<const Group*> out;
        for (const Group& g : groups)
            if (g.tag == tag) out.push_back(&g);
        return out;
    }
    const Attr* find(uint8_t tag, const std::string& name) const {
        for (const Group* g : of(tag))
            for (const Attr& a : g->attrs)
                if (a.name == name) return &a;
        return nullptr;
    }
    int32_t integer(uint8_t tag, const std::string& name) const {
        const Attr* a = find(tag, name);
        return a != nullptr && !a->values.empty() ? a->values[0].integer() : -1;
    }
    std::string text(uint8_t tag, const std::string& name) const {
        const Attr* a = find(tag, name);
        return a != nullptr && !a->values.empty() ? a->values[0].bytes : "<absent>";
    }
    // Every value of the attribute, as bytes; none when it is absent.
    std::vector<std::string> texts(uint8_t tag, const std::string& name) const {
        std::vector<std::string> out;
        if (const Attr* a = find(tag, name))
            for (const Value& v : a->values) out.push_back(v.bytes);
        return out;
    }
};

inline Response parse(const std::string& b) {
    Response r;
    if (b.size() < 9) return r;
    auto u16 = [&b](size_t p) {
        return p + 2 <= b.size() ? static_cast<size_t>((static_cast<uint8_t>(b[p]) << 8) | static_cast<uint8_t>(b[p + 1]))
                                 : b.size();
    };
    r.status = static_cast<uint16_t>(u16(2));
    size_t p = 8;
    int depth = 0;
    while (p < b.size()) {
        const uint8_t tag = static_cast<uint8_t>(b[p++]);
        if (tag == 0x03) break;
        if (tag < 0x10) {
            r.groups.push_back(Group{tag, {}});
            continue;
        }
        const size_t nameLength = u16(p);
        const std::string name = b.substr(std::min(p + 2, b.size()), nameLength);
        p += 2 + nameLength;
        const size_t valueLength = u16(p);
        const std::string value = b.substr(std::min(p + 2, b.size()), valueLength);
        p += 2 + valueLength;
        if (tag == 0x37) --depth;
        if (tag == 0x37 || (tag == 0x34 ? depth++ > 0 : depth > 0) || r.groups.empty()) continue;
        Group& g = r.groups.back();
        if (nameLength != 0 || g.attrs.empty()) g.attrs.push_back(Attr{name, {}});
        g.attrs.back().values.push_back(Value{tag, value});
    }
    return r;
}

}  // namespace ipp_reply

#endif
