// The real cmp-ipp-service program: what it refuses to start with, and where it
// puts its socket and spool, what URI it announces, and how it stops. Its IPP
// behind a front end is tested end to end (printer_e2e.sh).
#include <gtest/gtest.h>

#include "apps/program.h"
#include "apps/temp_dir.h"
#include "cmp_ipp_version.h"

namespace {

Child start(const std::vector<std::string>& args, const char* env = nullptr, mode_t mask = 022) {
    return startProgram(CMP_IPP_SERVICE_PROGRAM, args, env, mask);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class ServiceProgram : public ::testing::Test {
protected:
    void SetUp() override {
        work = makeTempDir("service-program");
        ASSERT_FALSE(work.empty());
    }
    void TearDown() override {
        // Only what the program makes: the spool and socket directories, empty.
        for (const char* d : {"/spool", "/sock"}) removeDir(work + d);
        rmdir(work.c_str());
    }
    std::string work;
};

// Refused options, and the two that only print: nothing is started, so
// nothing is made.
TEST_F(ServiceProgram, OptionsAreCheckedBeforeStarting) {
    const struct {
        std::vector<std::string> args;
        int status;
        const char* message;  // at the start of standard output for status 0, else on standard error
    } cases[] = {
        {{"--port", "0"}, 2, "bad port: 0"},  // never bound: 0 would name no port
        {{"--port", "65536"}, 2, "bad port: 65536"},
        {{"--port", "80x"}, 2, "bad port: 80x"},
        {{"--host", ""}, 2, "empty host name"},
        {{"--trace-level", "10"}, 2, "bad trace level: 10"},
        {{"--processing-ms", "-1"}, 2, "bad processing time: -1"},
        {{"--socket-group", "no-such-group-cmp-ipp"}, 2, "unknown group: no-such-group-cmp-ipp"},
        {{"stray-argument"}, 2, "Usage:"},
        {{"--no-such-option"}, 2, "Usage:"},
        {{"--spool", "/proc/no-spool-here"}, 1, "cannot use spool directory /proc/no-spool-here"},
        {{"--help"}, 0, "Usage:"},
        // The version of the library it was built with, as packaging scripts read it.
        {{"--version"}, 0, "cmp-ipp-service " CMP_IPP_VERSION "\n"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        if (c.status != 1) args.insert(args.end(), {"--spool", work + "/spool"});
        Child r = start(args);
        ASSERT_GT(r.pid, 0);
        const std::string text = readUntil(c.status == 0 ? r.out : r.err, "", 10000);
        EXPECT_EQ(exitStatus(r), c.status) << c.args[0];
        if (c.status == 0) {
            // Help starts with its usage line; the version is all there is.
            EXPECT_EQ(c.args[0] == "--help" ? text.substr(0, 6) : text, c.message);
        } else {
            EXPECT_NE(text.find(c.message), std::string::npos) << c.args[0] << ": " << text;
        }
    }
    EXPECT_FALSE(exists(work + "/spool"));
}

// Without --socket-dir the socket goes where the library and the front end look
// by default: $GEN_UNIX_PATH. The socket and the spool are the service user's
// alone, even under umask 000.
TEST_F(ServiceProgram, AnnouncesItselfServesPrivateFilesAndStopsOnSigterm) {
    const std::string sock = work + "/sock";
    ASSERT_EQ(mkdir(sock.c_str(), 0700), 0);
    const std::string env = "GEN_UNIX_PATH=" + sock + "/";
    Child r = start({"--host", "::1", "--port", "8632", "--spool", work + "/spool"}, env.c_str(), 0);
    ASSERT_GT(r.pid, 0);
    const std::string out = readUntil(r.out, "Spool:", 30000);
    EXPECT_NE(out.find("Printer URI: ipp://[::1]:8632/ipp/print\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Socket:      " + sock + "/zyn_ipp_server\n"), std::string::npos) << out;
    EXPECT_EQ(modeOf(sock + "/zyn_ipp_server") & 0777, 0600u);
    EXPECT_EQ(modeOf(work + "/spool"), 0700u);

    kill(r.pid, SIGTERM);
    EXPECT_EQ(exitStatus(r), 0);
    EXPECT_FALSE(exists(sock + "/zyn_ipp_server"));
}

}  // namespace
