// The front end's security pieces on their own: Basic credentials and the
// password file, and the TLS identity (made, kept, reused and replaced in a
// state directory).
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "apps/program.h"
#include "apps/temp_dir.h"
#include "cmp_ipp_auth.h"
#include "cmp_ipp_tls.h"

namespace {

using namespace cmp_ipp_fe;

// ---- Basic credentials -----------------------------------------------------------

TEST(FrontendAuth, BasicHeaderIsTakenApart) {
    struct Case {
        const char* header;
        bool ok;
        const char* user;
        const char* password;
    };
    const Case cases[] = {
        {"Basic YWxpY2U6czNjcjN0", true, "alice", "s3cr3t"},
        {"basic YWxpY2U6czNjcjN0", true, "alice", "s3cr3t"},           // the scheme in any case
        {"  Basic   YWxpY2U6czNjcjN0  ", true, "alice", "s3cr3t"},     // blanks around
        {"Basic YWxpY2U6YTpiOmM=", true, "alice", "a:b:c"},            // the password may hold ':'
        {"Basic YWxpY2U6", true, "alice", ""},                          // and be empty
        {"Basic YWxpY2U6YQ==", true, "alice", "a"},                     // Base64 with one or two pads
        {"Basic YWxpY2U=", false, "", ""},                              // no ':'
        {"Basic OnB3", false, "", ""},                                  // no user
        {"Basic YWxpY2U6czNjcjN0 extra", false, "", ""},
        {"Basic", false, "", ""},
        {"BasicYWxpY2U6czNjcjN0", false, "", ""},
        {"Bearer YWxpY2U6czNjcjN0", false, "", ""},
        {"Basic !!!!", false, "", ""},
        {"Basic YWxpY2U6YQ=", false, "", ""},                           // Base64 not in fours
        {"Basic YWxpY2U6Y===", false, "", ""},                          // padding too early
        {"Basic YWxpY2U6YQ==YWJj", false, "", ""},                      // something after the padding
        {"Basic YWxpY2U6Y=Fj", false, "", ""},
        {"Basic YQpiOmM=", false, "", ""},                              // a control character in the name
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.header);
        std::string user, password;
        EXPECT_EQ(parseBasicCredentials(c.header, &user, &password), c.ok);
        if (c.ok) {
            EXPECT_EQ(user, c.user);
            EXPECT_EQ(password, c.password);
        }
    }
    std::string u, p;
    EXPECT_FALSE(parseBasicCredentials(nullptr, &u, &p));
    const std::string huge = "Basic " + std::string(8000, 'Q');
    EXPECT_FALSE(parseBasicCredentials(huge.c_str(), &u, &p)) << "absurd lengths are refused unread";
}

TEST(FrontendAuth, PasswordFileChecksEachUsersOwnPassword) {
    std::string error;
    const std::string alice = hashPassword("wonderland", &error);
    ASSERT_FALSE(alice.empty()) << error;
    const std::string bob = hashPassword("builder", &error);
    ASSERT_NE(alice, bob);
    EXPECT_NE(hashPassword("wonderland", &error), alice) << "a fresh salt every time";
    const std::shared_ptr<BasicAuth> a =
        BasicAuth::fromText("# printer users\n\nalice:" + alice + "\r\nbob:" + bob + "\nlocked:*\n", &error);
    ASSERT_TRUE(a) << error;
    EXPECT_EQ(a->users(), 3u);
    struct Case {
        const char* user;
        const char* password;
        bool ok;
    };
    const Case cases[] = {
        {"alice", "wonderland", true}, {"bob", "builder", true},     {"alice", "builder", false},
        {"alice", "Wonderland", false}, {"alice", "", false},         {"carol", "wonderland", false},
        {"locked", "", false},          {"locked", "*", false},       {"", "wonderland", false},
        {"alice", "wonderland", true},  // again, now from what was remembered
        {"alice", "wonderlan", false},  // remembering one pair lets no other in
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.user) + "/" + c.password);
        EXPECT_EQ(a->check(c.user, c.password), c.ok);
    }
}

TEST(FrontendAuth, MalformedPasswordFilesAreRefusedWithTheLine) {
    const std::string hash = "$6$salt$abc";
    struct Case {
        std::string text;
        const char* error;
    };
    const Case cases[] = {
        {"", "no users"},
        {"# only a comment\n\n", "no users"},
        {"alice\n", "line 1 is not \"name:hash\""},
        {"alice:" + hash + "\n:" + hash + "\n", "line 2 is not \"name:hash\""},
        {"alice:\n", "line 1 is not \"name:hash\""},
        {"alice:" + hash + " trailing\n", "line 1 is not \"name:hash\""},
        {"\nalice:" + hash + "\nalice:" + hash + "\n", "line 3 names alice again"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string error;
        EXPECT_FALSE(BasicAuth::fromText(c.text, &error));
        EXPECT_EQ(error, c.error);
    }
    std::string error;
    EXPECT_FALSE(BasicAuth::load("/nonexistent/users", &error));
    EXPECT_NE(error.find("/nonexistent/users"), std::string::npos) << error;
}

// ---- TLS identity ------------------------------------------------------------------

struct TempDir {
    ~TempDir() { removeDir(path); }
    const std::string path = makeTempDir("cmp-ipp-tls");
};

std::string readAll(const std::string& p) {
    std::ifstream f(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

void writeAll(const std::string& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; }

// Checks a name against the certificate the way a TLS client does.
bool certificateCovers(const std::string& pem, const char* name) {
    gnutls_x509_crt_t crt;
    gnutls_x509_crt_init(&crt);
    const gnutls_datum_t d = {reinterpret_cast<unsigned char*>(const_cast<char*>(pem.data())),
                              static_cast<unsigned>(pem.size())};
    const bool ok = gnutls_x509_crt_import(crt, &d, GNUTLS_X509_FMT_PEM) >= 0 &&
                    gnutls_x509_crt_check_hostname2(crt, name, 0) != 0;
    gnutls_x509_crt_deinit(crt);
    return ok;
}

TEST(FrontendTls, SelfSignedCertificateCoversItsNamesOnly) {
    TlsIdentity id;
    std::string error;
    ASSERT_TRUE(makeSelfSignedIdentity({"printer.example", "localhost", "127.0.0.1", "::1"}, 30, &id, &error)) << error;
    EXPECT_TRUE(tlsIdentityUsable(id, &error)) << error;
    // PEM both: the certificate is read as such below, the pair was just found usable.
    for (const char* name : {"printer.example", "localhost", "127.0.0.1", "::1"})
        EXPECT_TRUE(certificateCovers(id.certificatePem, name)) << name;
    for (const char* name : {"other.example", "127.0.0.2"})
        EXPECT_FALSE(certificateCovers(id.certificatePem, name)) << name;
    const time_t expiry = tlsCertificateExpiry(id.certificatePem);
    EXPECT_GT(expiry, time(nullptr) + 29 * 86400);
    EXPECT_LT(expiry, time(nullptr) + 31 * 86400);
    EXPECT_FALSE(makeSelfSignedIdentity({}, 30, &id, &error));

    TlsIdentity other;
    ASSERT_TRUE(makeSelfSignedIdentity({"printer.example"}, 30, &other, &error));
    TlsIdentity mixed{id.certificatePem, other.keyPem};
    EXPECT_FALSE(tlsIdentityUsable(mixed, &error)) << "a key of another certificate";
    const std::string garbled = "-----BEGIN CERTIFICATE-----\nxx\n";
    for (const TlsIdentity& bad : {TlsIdentity{garbled, id.keyPem}, TlsIdentity{id.certificatePem, garbled},
                                    TlsIdentity{"", id.keyPem}, TlsIdentity{id.certificatePem, ""}}) {
        EXPECT_FALSE(tlsIdentityUsable(bad, &error));
        EXPECT_FALSE(error.empty());
    }
}

TEST(FrontendTls, StateDirectoryKeepsOnePrivatePairAndReplacesABadOne) {
    TempDir t;
    const std::string dir = t.path + "/state/nested";  // made, each level 0700
    const std::vector<std::string> names{"localhost", "127.0.0.1"};
    TlsIdentity first, again;
    bool created = false;
    std::string error;
    ASSERT_TRUE(selfSignedTlsIdentity(dir, names, &first, &created, &error)) << error;
    EXPECT_TRUE(created);
    EXPECT_EQ(modeOf(t.path + "/state"), 0700u);
    EXPECT_EQ(modeOf(dir), 0700u);
    EXPECT_EQ(modeOf(dir + "/localhost.key"), 0600u);
    EXPECT_EQ(modeOf(dir + "/localhost.crt"), 0600u);
    // What was written is read back by the second start: a wrong pair would be replaced.

    ASSERT_TRUE(selfSignedTlsIdentity(dir, names, &again, &created, &error)) << error;
    EXPECT_FALSE(created) << "a second start takes the same certificate";
    EXPECT_EQ(again.certificatePem, first.certificatePem);

    // Each of these makes the kept pair unusable; the next start replaces it.
    struct Spoil {
        const char* what;
        std::function<void()> act;
    };
    TlsIdentity stranger;  // for localhost too, but valid for 10 days only
    ASSERT_TRUE(makeSelfSignedIdentity({"localhost"}, 10, &stranger, &error));
    const Spoil spoils[] = {
        {"key missing", [&] { unlink((dir + "/localhost.key").c_str()); }},
        {"certificate garbled", [&] { writeAll(dir + "/localhost.crt", "-----BEGIN CERTIFICATE-----\nxx\n"); }},
        {"key of another certificate", [&] { writeAll(dir + "/localhost.key", stranger.keyPem); }},
        {"about to expire", [&] {
             writeAll(dir + "/localhost.crt", stranger.certificatePem);
             writeAll(dir + "/localhost.key", stranger.keyPem);
         }},
    };
    for (const Spoil& s : spoils) {
        SCOPED_TRACE(s.what);
        s.act();
        TlsIdentity now;
        ASSERT_TRUE(selfSignedTlsIdentity(dir, names, &now, &created, &error)) << error;
        EXPECT_TRUE(created);
        EXPECT_TRUE(tlsIdentityUsable(now, &error)) << error;
        EXPECT_NE(now.certificatePem, first.certificatePem);
        EXPECT_EQ(modeOf(dir + "/localhost.key"), 0600u);
        first = now;
    }

    // Another host name: a pair of its own beside the first.
    TlsIdentity named;
    ASSERT_TRUE(selfSignedTlsIdentity(dir, {"printer.local"}, &named, &created, &error)) << error;
    EXPECT_TRUE(created);
    EXPECT_TRUE(certificateCovers(named.certificatePem, "printer.local"));
    EXPECT_EQ(readAll(dir + "/localhost.crt"), first.certificatePem) << "the first pair stays";
}

// Given files are only read and looked at at start: whether the pair parses
// and matches is found out by the front end at the first TLS connection.
TEST(FrontendTls, GivenFilesMustBeAPemCertificateAndKey) {
    TempDir t;
    TlsIdentity a, loaded;
    std::string error;
    ASSERT_TRUE(makeSelfSignedIdentity({"localhost"}, 30, &a, &error));
    writeAll(t.path + "/a.crt", a.certificatePem);
    writeAll(t.path + "/a.key", a.keyPem);
    writeAll(t.path + "/text", "not PEM at all\n");
    EXPECT_TRUE(loadTlsIdentity(t.path + "/a.crt", t.path + "/a.key", &loaded, &error)) << error;
    EXPECT_EQ(loaded.certificatePem, a.certificatePem);
    EXPECT_EQ(loaded.keyPem, a.keyPem);
    const struct {
        const char* cert;
        const char* key;
        const char* blamed;
    } cases[] = {
        {"/a.crt", "/none.key", "none.key"},
        {"/none.crt", "/a.key", "none.crt"},
        {"/a.key", "/a.key", "a.key"},   // a key where the certificate should be
        {"/a.crt", "/a.crt", "a.crt"},   // a certificate where the key should be
        {"/a.crt", "/text", "text"},
        {"/text", "/a.key", "text"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cert) + " " + c.key);
        TlsIdentity untouched;
        error.clear();
        EXPECT_FALSE(loadTlsIdentity(t.path + c.cert, t.path + c.key, &untouched, &error));
        EXPECT_NE(error.find(c.blamed), std::string::npos) << error;
        EXPECT_TRUE(untouched.certificatePem.empty());
    }
}

}  // namespace
