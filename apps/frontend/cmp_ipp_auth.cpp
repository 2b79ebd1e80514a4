#include "cmp_ipp_auth.h"

#include <crypt.h>
#include <errno.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <stdio.h>
#include <strings.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include "cmp_ipp_clock.h"

namespace cmp_ipp_fe {

namespace {

// A good pair is taken without hashing again for this long.
const int64_t kRememberMs = 5 * 60 * 1000;
const size_t kRememberedPairs = 32;
// Longer names or passwords are refused without a look (a header is at most a few kB).
const size_t kMaxCredential = 1024;

using cmp_ipp_app::nowMs;

// Equal texts, in a time that does not depend on where they differ.
bool sameText(const std::string& a, const char* b) {
    const size_t n = std::strlen(b);
    unsigned char diff = a.size() == n ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ (i < n ? b[i] : 0));
    return diff == 0;
}

bool cryptMatches(const std::string& password, const std::string& hash) {
    // crypt_data is large (tens of kB): on the heap, not on a connection's stack.
    std::unique_ptr<struct crypt_data> data(new struct crypt_data());
    const char* out = crypt_rn(password.c_str(), hash.c_str(), data.get(), sizeof *data);
    // A hash that is not one ("*", "!") gives no result or a failure token.
    const bool match = out != nullptr && out[0] != '*' && sameText(hash, out);
    std::memset(data.get(), 0, sizeof *data);
    return match;
}

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

bool validName(const std::string& name) {
    if (name.empty() || name.size() > kMaxCredential) return false;
    for (char c : name)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == ':') return false;
    return true;
}

}  // namespace

bool decodeBase64(const std::string& in, std::string* out) {
    out->clear();
    if (in.size() % 4 != 0) return false;
    out->reserve(in.size() / 4 * 3);
    for (size_t i = 0; i < in.size(); i += 4) {
        const bool last = i + 4 == in.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = in[i + static_cast<size_t>(k)];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++pad;
                continue;
            }
            if (pad != 0) return false;  // nothing after padding
            v[k] = base64Value(c);
            if (v[k] < 0) return false;
        }
        const uint32_t w = (static_cast<uint32_t>(v[0]) << 18) | (static_cast<uint32_t>(v[1]) << 12) |
                           (static_cast<uint32_t>(v[2]) << 6) | static_cast<uint32_t>(v[3]);
        out->push_back(static_cast<char>(w >> 16));
        if (pad < 2) out->push_back(static_cast<char>((w >> 8) & 0xFF));
        if (pad < 1) out->push_back(static_cast<char>(w & 0xFF));
    }
    return true;
}

bool parseBasicCredentials(const char* header, std::string* user, std::string* password) {
    if (header == nullptr) return false;
    while (*header == ' ' || *header == '\t') ++header;
    if (strncasecmp(header, "Basic", 5) != 0 || (header[5] != ' ' && header[5] != '\t')) return false;
    const char* p = header + 5;
    while (*p == ' ' || *p == '\t') ++p;
    const char* end = p;
    while (*end != '\0' && *end != ' ' && *end != '\t') ++end;
    const char* rest = end;
    while (*rest == ' ' || *rest == '\t') ++rest;
    const size_t length = static_cast<size_t>(end - p);
    if (*rest != '\0' || length == 0 || length > 4 * kMaxCredential) return false;
    std::string decoded;
    if (!decodeBase64(std::string(p, length), &decoded)) return false;
    const size_t colon = decoded.find(':');
    if (colon == std::string::npos) return false;
    *user = decoded.substr(0, colon);
    *password = decoded.substr(colon + 1);
    std::fill(decoded.begin(), decoded.end(), '\0');
    return validName(*user) && password->size() <= kMaxCredential;
}

BasicAuth::BasicAuth() {
    if (gnutls_rnd(GNUTLS_RND_KEY, m_key, sizeof m_key) < 0) {
        // Without a random key the digests are still unusable outside this process.
        for (size_t i = 0; i < sizeof m_key; ++i) m_key[i] = static_cast<unsigned char>(nowMs() >> (i % 8));
    }
}

std::shared_ptr<BasicAuth> BasicAuth::load(const std::string& path, std::string* error) {
    FILE* f = fopen(path.c_str(), "re");
    if (f == nullptr) {
        if (error != nullptr) *error = "cannot read " + path + ": " + strerror(errno);
        return nullptr;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0 && text.size() < (1u << 22)) text.append(buf, n);
    fclose(f);
    std::string why;
    std::shared_ptr<BasicAuth> a = fromText(text, &why);
    if (!a && error != nullptr) *error = path + ": " + why;
    return a;
}

std::shared_ptr<BasicAuth> BasicAuth::fromText(const std::string& text, std::string* error) {
    std::shared_ptr<BasicAuth> a(new BasicAuth());
    size_t at = 0;
    int lineNo = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        const size_t colon = line.find(':');
        const std::string name = colon == std::string::npos ? std::string() : line.substr(0, colon);
        const std::string hash = colon == std::string::npos ? std::string() : line.substr(colon + 1);
        if (!validName(name) || hash.empty() || hash.find_first_of(" \t:") != std::string::npos) {
            if (error != nullptr) *error = "line " + std::to_string(lineNo) + " is not \"name:hash\"";
            return nullptr;
        }
        if (!a->m_hashes.emplace(name, hash).second) {
            if (error != nullptr) *error = "line " + std::to_string(lineNo) + " names " + name + " again";
            return nullptr;
        }
    }
    if (a->m_hashes.empty()) {
        if (error != nullptr) *error = "no users";
        return nullptr;
    }
    // In the system's preferred method: a name that is not there costs about
    // what a real user's check does.
    std::string why;
    a->m_dummyHash = hashPassword("no user has this password", &why);
    return a;
}

bool BasicAuth::remembered(const unsigned char* tag, int64_t now) const {
    std::lock_guard<std::mutex> g(m_lock);
    for (const Cached& c : m_cache)
        if (c.until > now && std::memcmp(c.tag, tag, sizeof c.tag) == 0) return true;
    return false;
}

void BasicAuth::remember(const unsigned char* tag, int64_t now) const {
    std::lock_guard<std::mutex> g(m_lock);
    m_cache.erase(std::remove_if(m_cache.begin(), m_cache.end(), [now](const Cached& c) { return c.until <= now; }),
                 m_cache.end());
    if (m_cache.size() >= kRememberedPairs) m_cache.erase(m_cache.begin());
    Cached c;
    std::memcpy(c.tag, tag, sizeof c.tag);
    c.until = now + kRememberMs;
    m_cache.push_back(c);
}

bool BasicAuth::check(const std::string& user, const std::string& password) const {
    if (!validName(user) || password.size() > kMaxCredential) return false;
    // The digest of the pair stands for it in memory.
    std::string pair = user;
    pair += '\0';
    pair += password;
    unsigned char tag[32];
    const bool tagged = gnutls_hmac_fast(GNUTLS_MAC_SHA256, m_key, sizeof m_key, pair.data(), pair.size(), tag) == 0;
    std::fill(pair.begin(), pair.end(), '\0');
    const int64_t now = nowMs();
    auto it = m_hashes.find(user);
    if (it == m_hashes.end()) {
        if (!m_dummyHash.empty()) (void)cryptMatches(password, m_dummyHash);
        return false;
    }
    if (tagged && remembered(tag, now)) return true;
    const bool ok = cryptMatches(password, it->second);
    if (ok && tagged) remember(tag, now);
    return ok;
}

std::string hashPassword(const std::string& password, std::string* error) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // Null prefix and count 0: the system's preferred method at its default cost.
    if (crypt_gensalt_rn(nullptr, 0, nullptr, 0, setting, sizeof setting) == nullptr) {
        if (error != nullptr) *error = std::string("cannot make a salt: ") + strerror(errno);
        return std::string();
    }
    std::unique_ptr<struct crypt_data> data(new struct crypt_data());
    const char* out = crypt_rn(password.c_str(), setting, data.get(), sizeof *data);
    std::string hash = out != nullptr && out[0] != '*' ? out : "";
    std::memset(data.get(), 0, sizeof *data);
    if (hash.empty() && error != nullptr) *error = std::string("cannot hash the password: ") + strerror(errno);
    return hash;
}

bool operationNeedsAuthentication(uint16_t operation) {
    switch (operation) {
    case 0x0009:  // Get-Job-Attributes
    case 0x000A:  // Get-Jobs
    case 0x000B:  // Get-Printer-Attributes
    case 0x0015:  // Get-Printer-Supported-Values
    case 0x0018:  // Get-Subscription-Attributes
    case 0x0019:  // Get-Subscriptions
    case 0x001C:  // Get-Notifications
        return false;
    default:
        return true;
    }
}

}  // namespace cmp_ipp_fe
