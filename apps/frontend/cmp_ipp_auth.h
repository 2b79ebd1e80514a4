// HTTP Basic authentication for the front end: the password file, the check of
// a user's password against it, the parsing of an Authorization header, and
// which IPP operations need an authenticated user.
//
// Password file: one user a line, "name:hash", where hash is a crypt(3) hash
// ("$y$..." yescrypt, "$6$..." SHA-512, "$5$...", "$2b$..."), as
// `cmp-ipp-printer --hash-password` or `mkpasswd` make them. Blank lines and
// lines starting with '#' are skipped. A name holds no ':' and no control
// characters; a hash that is not a usable crypt hash ("*", "!") locks the user.
#ifndef CMP_IPP_AUTH_H
#define CMP_IPP_AUTH_H

#include <stdint.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cmp_ipp_fe {

class BasicAuth {
public:
    // Null with the reason (file and line) in *error when the file cannot be
    // read or a line is malformed, or when it names no user.
    static std::shared_ptr<BasicAuth> load(const std::string& path, std::string* error);
    static std::shared_ptr<BasicAuth> fromText(const std::string& text, std::string* error);

    // Whether the password is the user's. Hashing is slow by design, so a
    // pair checked good is remembered for a while (as a keyed digest, never in
    // the clear). An unknown user costs as much time as a known one.
    bool check(const std::string& user, const std::string& password) const;
    size_t users() const { return m_hashes.size(); }

private:
    BasicAuth();
    bool remembered(const unsigned char* tag, int64_t now) const;
    void remember(const unsigned char* tag, int64_t now) const;

    std::map<std::string, std::string> m_hashes;
    std::string m_dummyHash;  // checked for unknown users, so they take as long
    unsigned char m_key[32];  // keys the digests of remembered pairs
    struct Cached {
        unsigned char tag[32];
        int64_t until;
    };
    mutable std::mutex m_lock;
    mutable std::vector<Cached> m_cache;
};

// "Basic <base64 of user:password>" (the scheme in any case) into its parts.
// False for any other scheme, bad base64, no ':' or absurd lengths.
bool parseBasicCredentials(const char* header, std::string* user, std::string* password);
// Standard base64 with padding; false on any other character or bad length.
bool decodeBase64(const std::string& in, std::string* out);

// A crypt(3) hash of the password with a fresh salt, in the system's preferred
// method; empty with the reason in *error when it cannot be made.
std::string hashPassword(const std::string& password, std::string* error);

// Whether libcrypt could be opened (it is opened at the first call); why not in *why.
bool passwordHashingAvailable(std::string* why);

// IPP operations that change something (job submission and job control, and
// any operation not known to be a query) need an authenticated user; the
// queries (Get-Printer-Attributes, Get-Jobs, Get-Job-Attributes, ...) do not.
bool operationNeedsAuthentication(uint16_t operation);

}  // namespace cmp_ipp_fe

#endif
