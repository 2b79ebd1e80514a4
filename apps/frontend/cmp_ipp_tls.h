// The front end's TLS identity: a certificate and its private key in PEM, read
// from files the administrator gives, or a self-signed one that the printer
// makes at its first start and keeps in a state directory.
#ifndef CMP_IPP_TLS_H
#define CMP_IPP_TLS_H

#include <time.h>

#include <string>
#include <vector>

namespace cmp_ipp_fe {

struct TlsIdentity {
    std::string certificatePem;
    std::string keyPem;
};

// Reads both files and checks that they look like a PEM certificate and a PEM
// private key; whether they parse and belong together is for the first TLS
// connection to find out (tlsIdentityUsable).
bool loadTlsIdentity(const std::string& certificatePath, const std::string& keyPath, TlsIdentity* out,
                     std::string* error);

// True when the key belongs to the certificate (and both parse).
bool tlsIdentityUsable(const TlsIdentity& id, std::string* error);

// A new self-signed server certificate (ECDSA P-256, SHA-256) for these names:
// the first is the subject's common name, and every one goes into the
// subjectAltName (numeric addresses as IP addresses, the rest as DNS names).
bool makeSelfSignedIdentity(const std::vector<std::string>& names, int validDays, TlsIdentity* out,
                            std::string* error);

// The identity kept in dir for names[0] ("<name>.crt" and "<name>.key", both
// 0600; dir is created 0700 when missing). Made anew when either file is
// missing or unusable, when the certificate is not for names[0], or when it
// expires within 30 days. Several processes starting at once agree on one
// (a lock file in dir). *created says whether it was made now. The check and
// the making run in a child process: call it before starting any thread.
bool selfSignedTlsIdentity(const std::string& dir, const std::vector<std::string>& names, TlsIdentity* out,
                           bool* created, std::string* error);

// When the certificate stops being valid; 0 when it cannot be read.
time_t tlsCertificateExpiry(const std::string& certificatePem);

}  // namespace cmp_ipp_fe

#endif
