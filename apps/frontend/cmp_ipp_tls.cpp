#include "cmp_ipp_tls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "cmp_ipp_write_all.h"

namespace cmp_ipp_fe {

namespace {

// A PEM file larger than this is not a certificate or key of ours.
const size_t kMaxPemBytes = 1 << 20;
const int kRenewDays = 30;
const int kSelfSignedDays = 3650;

void say(std::string* error, const std::string& text) {
    if (error != nullptr) *error = text;
}

std::string gnutlsError(const char* what, int rc) { return std::string(what) + ": " + gnutls_strerror(rc); }

bool readFile(const std::string& path, std::string* out, std::string* error) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        say(error, "cannot read " + path + ": " + strerror(errno));
        return false;
    }
    out->clear();
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            say(error, "cannot read " + path + ": " + strerror(errno));
            close(fd);
            return false;
        }
        if (n == 0) break;
        out->append(buf, static_cast<size_t>(n));
        if (out->size() > kMaxPemBytes) {
            say(error, path + " is too large for a PEM file");
            close(fd);
            return false;
        }
    }
    close(fd);
    return true;
}

// Written whole under a temporary name, then renamed: a reader sees the old
// file or the new one, never a part.
bool writeFileAtomically(const std::string& path, const std::string& text, std::string* error) {
    std::string temp = path + ".XXXXXX";
    const int fd = mkstemp(&temp[0]);  // created 0600
    if (fd < 0) {
        say(error, "cannot create a file beside " + path + ": " + strerror(errno));
        return false;
    }
    bool ok = fchmod(fd, 0600) == 0 && cmp_ipp_app::writeAll(fd, text.data(), text.size()) && fsync(fd) == 0;
    const int saved = errno;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
        say(error, "cannot write " + path + ": " + strerror(ok ? errno : saved));
        unlink(temp.c_str());
        return false;
    }
    return true;
}

// Creates the missing directories of path, each 0700.
bool ensureDirectories(const std::string& path, std::string* error) {
    if (path.empty()) {
        say(error, "no state directory");
        return false;
    }
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/') continue;
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0700) == 0) continue;
        struct stat st;
        if (errno == EEXIST && stat(part.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) continue;
        say(error, "cannot create directory " + part + ": " + strerror(errno));
        return false;
    }
    return true;
}

// A name usable as a file name: letters, digits, '.', '-' and '_' are kept.
std::string fileNameFor(const std::string& name) {
    std::string out;
    for (char c : name) {
        const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                          c == '-' || c == '_';
        out += keep ? c : '_';
    }
    if (out.empty() || out[0] == '.') out = "printer" + out;
    return out;
}

struct CrtDeleter {
    void operator()(gnutls_x509_crt_t c) const { gnutls_x509_crt_deinit(c); }
};
using CrtPtr = std::unique_ptr<std::remove_pointer<gnutls_x509_crt_t>::type, CrtDeleter>;

CrtPtr importCertificate(const std::string& pem) {
    gnutls_x509_crt_t crt = nullptr;
    if (gnutls_x509_crt_init(&crt) < 0) return CrtPtr();
    CrtPtr owned(crt);
    const gnutls_datum_t d = {reinterpret_cast<unsigned char*>(const_cast<char*>(pem.data())),
                              static_cast<unsigned>(pem.size())};
    if (gnutls_x509_crt_import(crt, &d, GNUTLS_X509_FMT_PEM) < 0) return CrtPtr();
    return owned;
}

std::string datumText(gnutls_datum_t& d) {
    std::string s(reinterpret_cast<const char*>(d.data), d.size);
    gnutls_free(d.data);
    d.data = nullptr;
    return s;
}

}  // namespace

bool tlsIdentityUsable(const TlsIdentity& id, std::string* error) {
    // Each part on its own first: GnuTLS leaks memory when it meets a
    // certificate it cannot read while loading a pair.
    const gnutls_datum_t certText = {reinterpret_cast<unsigned char*>(const_cast<char*>(id.certificatePem.data())),
                                     static_cast<unsigned>(id.certificatePem.size())};
    gnutls_x509_crt_t* chain = nullptr;
    unsigned chainLength = 0;
    int rc = gnutls_x509_crt_list_import2(&chain, &chainLength, &certText, GNUTLS_X509_FMT_PEM, 0);
    if (rc < 0) {
        say(error, gnutlsError("unusable certificate", rc));
        return false;
    }
    for (unsigned i = 0; i < chainLength; ++i) gnutls_x509_crt_deinit(chain[i]);
    gnutls_free(chain);
    gnutls_certificate_credentials_t creds = nullptr;
    rc = gnutls_certificate_allocate_credentials(&creds);
    if (rc < 0) {
        say(error, gnutlsError("cannot allocate TLS credentials", rc));
        return false;
    }
    const gnutls_datum_t cert = {reinterpret_cast<unsigned char*>(const_cast<char*>(id.certificatePem.data())),
                                 static_cast<unsigned>(id.certificatePem.size())};
    const gnutls_datum_t key = {reinterpret_cast<unsigned char*>(const_cast<char*>(id.keyPem.data())),
                                static_cast<unsigned>(id.keyPem.size())};
    rc = gnutls_certificate_set_x509_key_mem2(creds, &cert, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
    gnutls_certificate_free_credentials(creds);
    if (rc < 0) {
        say(error, gnutlsError("unusable certificate or key", rc));
        return false;
    }
    return true;
}

bool loadTlsIdentity(const std::string& certificatePath, const std::string& keyPath, TlsIdentity* out,
                     std::string* error) {
    TlsIdentity id;
    if (!readFile(certificatePath, &id.certificatePem, error) || !readFile(keyPath, &id.keyPem, error)) return false;
    // Only the markers here: parsing would keep GnuTLS's certificate and
    // big-number code resident in a printer that may never see a TLS client.
    // The pair itself is checked when the first one comes.
    if (id.certificatePem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
        say(error, certificatePath + " holds no PEM certificate");
        return false;
    }
    const size_t begin = id.keyPem.find("-----BEGIN ");
    if (begin == std::string::npos || id.keyPem.find("PRIVATE KEY-----", begin) == std::string::npos) {
        say(error, keyPath + " holds no PEM private key");
        return false;
    }
    *out = std::move(id);
    return true;
}

time_t tlsCertificateExpiry(const std::string& certificatePem) {
    const CrtPtr crt = importCertificate(certificatePem);
    if (!crt) return 0;
    const time_t t = gnutls_x509_crt_get_expiration_time(crt.get());
    return t == static_cast<time_t>(-1) ? 0 : t;
}

bool makeSelfSignedIdentity(const std::vector<std::string>& names, int validDays, TlsIdentity* out,
                            std::string* error) {
    if (names.empty() || names[0].empty()) {
        say(error, "a certificate needs a name");
        return false;
    }
    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_crt_t crt = nullptr;
    int rc = gnutls_x509_privkey_init(&key);
    if (rc >= 0) rc = gnutls_x509_crt_init(&crt);
    // P-256: made in a moment, and taken by every TLS client there is.
    if (rc >= 0)
        rc = gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA, GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0);
    if (rc >= 0) rc = gnutls_x509_crt_set_version(crt, 3);
    unsigned char serial[16];
    if (rc >= 0) rc = gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof serial);
    serial[0] &= 0x7F;  // a positive number
    if (rc >= 0) rc = gnutls_x509_crt_set_serial(crt, serial, sizeof serial);
    const time_t now = time(nullptr);
    if (rc >= 0) rc = gnutls_x509_crt_set_activation_time(crt, now - 3600);  // clocks a little behind
    if (rc >= 0) rc = gnutls_x509_crt_set_expiration_time(crt, now + static_cast<time_t>(validDays) * 86400);
    if (rc >= 0)
        rc = gnutls_x509_crt_set_dn_by_oid(crt, GNUTLS_OID_X520_COMMON_NAME, 0, names[0].data(),
                                           static_cast<unsigned>(names[0].size()));
    for (const std::string& name : names) {
        if (rc < 0 || name.empty()) continue;
        unsigned char ip[16];
        if (inet_pton(AF_INET, name.c_str(), ip) == 1) {
            rc = gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_IPADDRESS, ip, 4, GNUTLS_FSAN_APPEND);
        } else if (inet_pton(AF_INET6, name.c_str(), ip) == 1) {
            rc = gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_IPADDRESS, ip, 16, GNUTLS_FSAN_APPEND);
        } else {
            rc = gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_DNSNAME, name.data(),
                                                      static_cast<unsigned>(name.size()), GNUTLS_FSAN_APPEND);
        }
    }
    if (rc >= 0) rc = gnutls_x509_crt_set_basic_constraints(crt, 0, -1);
    if (rc >= 0) rc = gnutls_x509_crt_set_key_usage(crt, GNUTLS_KEY_DIGITAL_SIGNATURE);
    if (rc >= 0) rc = gnutls_x509_crt_set_key_purpose_oid(crt, GNUTLS_KP_TLS_WWW_SERVER, 0);
    if (rc >= 0) rc = gnutls_x509_crt_set_key(crt, key);
    unsigned char keyId[64];
    size_t keyIdSize = sizeof keyId;
    if (rc >= 0) rc = gnutls_x509_crt_get_key_id(crt, GNUTLS_KEYID_USE_SHA1, keyId, &keyIdSize);
    if (rc >= 0) rc = gnutls_x509_crt_set_subject_key_id(crt, keyId, keyIdSize);
    if (rc >= 0) rc = gnutls_x509_crt_sign2(crt, crt, key, GNUTLS_DIG_SHA256, 0);
    gnutls_datum_t certPem = {nullptr, 0};
    gnutls_datum_t keyPem = {nullptr, 0};
    if (rc >= 0) rc = gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_PEM, &certPem);
    if (rc >= 0) rc = gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &keyPem);
    if (rc >= 0) {
        out->certificatePem = datumText(certPem);
        out->keyPem = datumText(keyPem);
    } else {
        gnutls_free(certPem.data);
        if (keyPem.data != nullptr) {
            // Key material does not linger in freed memory.
            std::memset(keyPem.data, 0, keyPem.size);
            gnutls_free(keyPem.data);
        }
        say(error, gnutlsError("cannot make a certificate", rc));
    }
    if (crt != nullptr) gnutls_x509_crt_deinit(crt);
    if (key != nullptr) gnutls_x509_privkey_deinit(key);
    return rc >= 0;
}

namespace {

// Takes the kept pair when it is usable and for these names, or makes and
// writes a new one. The caller holds the lock.
bool keepOrMakePair(const std::string& certPath, const std::string& keyPath, const std::vector<std::string>& names,
                    bool* created, std::string* error) {
    TlsIdentity kept;
    bool reuse = readFile(certPath, &kept.certificatePem, nullptr) && readFile(keyPath, &kept.keyPem, nullptr) &&
                 tlsIdentityUsable(kept, nullptr);
    if (reuse) {
        const CrtPtr crt = importCertificate(kept.certificatePem);
        reuse = crt && gnutls_x509_crt_check_hostname2(crt.get(), names[0].c_str(), 0) != 0 &&
                tlsCertificateExpiry(kept.certificatePem) > time(nullptr) + kRenewDays * 86400;
    }
    if (reuse) {
        // Whoever made them, they stay private.
        (void)chmod(keyPath.c_str(), 0600);
        (void)chmod(certPath.c_str(), 0600);
        return true;
    }
    TlsIdentity made;
    // The key first: a certificate is never there without its key.
    if (!makeSelfSignedIdentity(names, kSelfSignedDays, &made, error) || !writeFileAtomically(keyPath, made.keyPem, error) ||
        !writeFileAtomically(certPath, made.certificatePem, error))
        return false;
    *created = true;
    return true;
}

// keepOrMakePair in a child process. Checking a certificate pulls in GnuTLS's
// ASN.1, certificate and big-number code (some 700 kB on x86-64); in a child
// that stays out of the printer, which then touches it only when a TLS client
// comes. The child reports a status byte, then the error text.
bool keepOrMakePairApart(const std::string& certPath, const std::string& keyPath,
                         const std::vector<std::string>& names, bool* created, std::string* error) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return keepOrMakePair(certPath, keyPath, names, created, error);
    const pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        return keepOrMakePair(certPath, keyPath, names, created, error);
    }
    if (child == 0) {
        close(fds[0]);
        bool made = false;
        std::string why;
        const bool ok = keepOrMakePair(certPath, keyPath, names, &made, &why);
        const char status = ok ? (made ? 'm' : 'k') : 'e';
        (void)cmp_ipp_app::writeAll(fds[1], &status, 1);
        (void)cmp_ipp_app::writeAll(fds[1], why.data(), why.size());
        _exit(0);  // nothing of the parent's (atexit, buffered output) runs twice
    }
    close(fds[1]);
    std::string report;
    char buf[256];
    for (;;) {
        const ssize_t n = read(fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (report.size() < 4096) report.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (report.empty() || (report[0] != 'm' && report[0] != 'k')) {
        say(error, report.size() > 1 ? report.substr(1) : std::string("the certificate check ended abnormally"));
        return false;
    }
    *created = report[0] == 'm';
    return true;
}

}  // namespace

bool selfSignedTlsIdentity(const std::string& dir, const std::vector<std::string>& names, TlsIdentity* out,
                           bool* created, std::string* error) {
    if (created != nullptr) *created = false;
    if (names.empty() || names[0].empty()) {
        say(error, "a certificate needs a name");
        return false;
    }
    if (!ensureDirectories(dir, error)) return false;
    const std::string base = dir + "/" + fileNameFor(names[0]);
    const std::string certPath = base + ".crt";
    const std::string keyPath = base + ".key";

    // One process makes the pair while the others wait and then take it.
    const std::string lockPath = dir + "/.tls.lock";
    const int lock = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0) {
        say(error, "cannot open " + lockPath + ": " + strerror(errno));
        return false;
    }
    while (flock(lock, LOCK_EX) != 0 && errno == EINTR) {
    }
    bool made = false;
    TlsIdentity id;
    // Read under the lock: the pair the check passed or wrote, not one that
    // another process is replacing.
    const bool ok = keepOrMakePairApart(certPath, keyPath, names, &made, error) &&
                    readFile(certPath, &id.certificatePem, error) && readFile(keyPath, &id.keyPem, error);
    if (ok) {
        *out = std::move(id);
        if (created != nullptr) *created = made;
    }
    flock(lock, LOCK_UN);
    close(lock);
    return ok;
}

}  // namespace cmp_ipp_fe
