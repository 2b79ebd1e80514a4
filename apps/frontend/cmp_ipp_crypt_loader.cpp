// libcrypt is opened when a password is first checked or hashed, not linked:
// most printers have no password file, and a linked library costs its
// relocated pages in every process. The two calls the front end makes are
// defined here and forward to the library once it is open.
#include <crypt.h>
#include <dlfcn.h>
#include <errno.h>

#include <mutex>
#include <string>

#include "cmp_ipp_auth.h"

namespace {

const char kLibrary[] = "libcrypt.so.1";

struct CryptCalls {
    decltype(&::crypt_rn) hash = nullptr;
    decltype(&::crypt_gensalt_rn) salt = nullptr;
    std::string failure;  // why they are not there
};

const CryptCalls& calls() {
    static CryptCalls c;
    static std::once_flag once;
    std::call_once(once, [] {
        void* lib = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);  // kept open: the calls stay valid
        if (lib == nullptr) {
            const char* why = dlerror();
            c.failure = std::string("cannot load ") + kLibrary + ": " + (why != nullptr ? why : "not found");
            return;
        }
        c.hash = reinterpret_cast<decltype(&::crypt_rn)>(dlsym(lib, "crypt_rn"));
        c.salt = reinterpret_cast<decltype(&::crypt_gensalt_rn)>(dlsym(lib, "crypt_gensalt_rn"));
        if (c.hash == nullptr || c.salt == nullptr) {
            c.failure = std::string(kLibrary) + " lacks crypt_rn or crypt_gensalt_rn";
            c.hash = nullptr;
            c.salt = nullptr;
        }
    });
    return c;
}

}  // namespace

namespace cmp_ipp_fe {

bool passwordHashingAvailable(std::string* why) {
    const CryptCalls& c = calls();
    if (c.hash != nullptr) return true;
    if (why != nullptr) *why = c.failure;
    return false;
}

}  // namespace cmp_ipp_fe

// Without the library nothing matches and nothing is hashed: a failure, as
// libcrypt itself reports one.
extern "C" char* crypt_rn(const char* phrase, const char* setting, void* data, int size) {
    const CryptCalls& c = calls();
    if (c.hash == nullptr) {
        errno = ENOSYS;
        return nullptr;
    }
    return c.hash(phrase, setting, data, size);
}

extern "C" char* crypt_gensalt_rn(const char* prefix, unsigned long count, const char* rbytes, int nrbytes,
                                  char* output, int size) {
    const CryptCalls& c = calls();
    if (c.salt == nullptr) {
        errno = ENOSYS;
        return nullptr;
    }
    return c.salt(prefix, count, rbytes, nrbytes, output, size);
}
