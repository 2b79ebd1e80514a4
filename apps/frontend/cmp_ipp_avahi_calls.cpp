#include "cmp_ipp_avahi_calls.h"

#include <dlfcn.h>

#include <mutex>

namespace cmp_ipp_fe {

namespace {

const char kLibrary[] = "libavahi-client.so.3";  // brings libavahi-common with it

struct Loaded {
    AvahiCalls calls;
    bool ok = false;
    std::string failure;
};

const Loaded& loaded() {
    static Loaded l;
    static std::once_flag once;
    std::call_once(once, [] {
        void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);  // kept open: the calls stay valid
        if (lib == nullptr) {
            const char* why = dlerror();
            l.failure = std::string("cannot load ") + kLibrary + ": " + (why != nullptr ? why : "not found");
            return;
        }
        // A handle's lookup covers the libraries it depends on, so the
        // libavahi-common calls are found through it too.
#define CMP_IPP_AVAHI_FIND(name)                                                          \
    l.calls.name = reinterpret_cast<decltype(l.calls.name)>(dlsym(lib, #name));           \
    if (l.calls.name == nullptr && l.failure.empty()) l.failure = std::string(kLibrary) + " lacks " #name;
        CMP_IPP_AVAHI_CALLS(CMP_IPP_AVAHI_FIND)
#undef CMP_IPP_AVAHI_FIND
        l.ok = l.failure.empty();
    });
    return l;
}

}  // namespace

const AvahiCalls* avahiCalls(std::string* why) {
    const Loaded& l = loaded();
    if (l.ok) return &l.calls;
    if (why != nullptr) *why = l.failure;
    return nullptr;
}

}  // namespace cmp_ipp_fe
