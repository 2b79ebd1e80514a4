// The real cmp-ipp-service program: what it refuses to start with, and where it
// puts its socket and spool, what URI it announces, and how it stops. Its IPP
// behind a front end is tested end to end (printer_e2e.sh).
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "apps/temp_dir.h"
#include "cmp_ipp_version.h"

namespace {

struct Child {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
};

// Starts the service with these arguments and, when env is not null, this one
// environment entry added.
Child start(const std::vector<std::string>& args, const char* env = nullptr) {
    int out[2], err[2];
    Child r;
    if (pipe(out) != 0 || pipe(err) != 0) return r;
    r.pid = fork();
    if (r.pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]);
        close(err[0]);
        if (env != nullptr) putenv(const_cast<char*>(env));
        std::vector<char*> argv{const_cast<char*>(CMP_IPP_SERVICE_PROGRAM)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    r.out = out[0];
    r.err = err[0];
    return r;
}

// Reads fd until `until` appears, the writer closes it or the time is up.
std::string readUntil(int fd, const std::string& until, int timeoutMs) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[512];
    while (std::chrono::steady_clock::now() < deadline) {
        if (!until.empty() && text.find(until) != std::string::npos) break;
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    return text;
}

int exitStatus(Child& r) {
    int status = 0;
    if (waitpid(r.pid, &status, 0) != r.pid) return -1;
    close(r.out);
    close(r.err);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 07777;
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

TEST_F(ServiceProgram, RefusesBadOptionsBeforeStarting) {
    const struct {
        std::vector<std::string> args;
        int status;
        const char* message;  // on standard error
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
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        if (c.status != 1) args.insert(args.end(), {"--spool", work + "/spool"});
        Child r = start(args);
        ASSERT_GT(r.pid, 0);
        const std::string err = readUntil(r.err, "", 10000);
        EXPECT_EQ(exitStatus(r), c.status) << c.args[0];
        EXPECT_NE(err.find(c.message), std::string::npos) << c.args[0] << ": " << err;
    }
    // Nothing was started, so nothing was made.
    EXPECT_FALSE(exists(work + "/spool"));
}

TEST_F(ServiceProgram, HelpGoesToStandardOutput) {
    Child r = start({"--help"});
    const std::string out = readUntil(r.out, "", 10000);
    EXPECT_EQ(exitStatus(r), 0);
    EXPECT_EQ(out.rfind("Usage:", 0), 0u) << out;
    EXPECT_NE(out.find("--socket-dir"), std::string::npos);
}

// The version of the library it was built with, as packaging scripts read it.
TEST_F(ServiceProgram, VersionGoesToStandardOutput) {
    Child r = start({"--version"});
    const std::string out = readUntil(r.out, "", 10000);
    EXPECT_EQ(exitStatus(r), 0);
    EXPECT_EQ(out, std::string("cmp-ipp-service ") + CMP_IPP_VERSION + "\n");
    EXPECT_FALSE(exists(work + "/spool"));
}

// Without --socket-dir the socket goes where the library and the front end look
// by default: $GEN_UNIX_PATH.
TEST_F(ServiceProgram, AnnouncesItselfServesPrivateFilesAndStopsOnSigterm) {
    const std::string sock = work + "/sock";
    ASSERT_EQ(mkdir(sock.c_str(), 0700), 0);
    const std::string env = "GEN_UNIX_PATH=" + sock + "/";
    Child r = start({"--host", "::1", "--port", "8632", "--spool", work + "/spool"}, env.c_str());
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
