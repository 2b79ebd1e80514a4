// The example printer as a process of its own, spoken to over the library's
// socket with the test front-end client: what it answers, what it counts, and
// that it stops cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "httpd/httpd_fixture.h"

namespace {

uint16_t be16At(const std::string& s, size_t at) {
    return static_cast<uint16_t>(static_cast<unsigned char>(s[at]) << 8 | static_cast<unsigned char>(s[at + 1]));
}

bool contains(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

class MinimalPrinter : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/minimal-printer-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_socket = m_dir + "/zyn_ipp_server";
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], 1);
            close(out[0]);
            setenv("GEN_UNIX_PATH", (m_dir + "/").c_str(), 1);
            execl(CMP_IPP_MINIMAL_PRINTER, CMP_IPP_MINIMAL_PRINTER, static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        m_out = out[0];
        ASSERT_TRUE(contains(readUntil("running\n", 30000), "minimal_printer: running"));
    }
    void TearDown() override {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_out >= 0) close(m_out);
        unlink(m_socket.c_str());
        rmdir(m_dir.c_str());
    }

    // Standard output until `until` appears, the program closes it or the time is up.
    std::string readUntil(const std::string& until, int timeoutMs) {
        const auto start = Clock::now();
        while (msSince(start) < timeoutMs && !contains(m_stdout, until)) {
            struct pollfd p = {m_out, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            char buf[256];
            const ssize_t n = read(m_out, buf, sizeof buf);
            if (n <= 0) break;
            m_stdout.append(buf, static_cast<size_t>(n));
        }
        return m_stdout;
    }

    // SIGTERM, then the exit status (or -1 when it did not exit normally).
    int stop() {
        kill(m_pid, SIGTERM);
        readUntil("byte(s)\n", 30000);
        int status = 0;
        const pid_t waited = waitpid(m_pid, &status, 0);
        m_pid = -1;
        return waited > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    Reply exchange(const Bytes& ipp) {
        Client c(m_socket);
        EXPECT_TRUE(c.connected());
        EXPECT_TRUE(sendIpp(c, ipp));
        return c.readReply();
    }

    std::string m_dir, m_socket, m_stdout;
    pid_t m_pid = -1;
    int m_out = -1;
};

TEST_F(MinimalPrinter, CountsPrintJobBytesAcrossBlocksAndSkipsAbortedUploads) {
    // The first block carries the request and 1000 document bytes; three more follow.
    Ipp job;
    job.header(1, 1, 0x0002, 42).opGroup().tag(3);
    job.b.insert(job.b.end(), 1000, 'a');
    {
        Client c(m_socket);
        ASSERT_TRUE(c.connected());
        // Raw, to cut the blocks where the count has to add them up.
        ASSERT_TRUE(c.rawBytes(recordBytes(postRequest(static_cast<int32_t>(job.b.size() + 15000)))));
        ASSERT_TRUE(c.rawBlock(job.b));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(c.rawBlock(Bytes(5000, static_cast<unsigned char>('b' + i))));
        ASSERT_TRUE(c.rawBlock({}));
        const Reply r = c.rawReply();
        expectIppReply(r, 42);
        EXPECT_EQ(be16At(r.body, 2), 0x0000);
        EXPECT_TRUE(contains(r.body, "job-id"));
        EXPECT_TRUE(contains(r.body, "job-completed-successfully"));
    }
    {
        // An upload cut off before its end block is aborted by the library: no job.
        Ipp cut;
        cut.header(1, 1, 0x0002, 43).opGroup().tag(3);
        Client c(m_socket);
        ASSERT_TRUE(c.connected());
        ASSERT_TRUE(c.rawBytes(recordBytes(postRequest(100000))));
        ASSERT_TRUE(c.rawBlock(cut.b));
        ASSERT_TRUE(c.rawBlock(Bytes(7000, 'x')));
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(contains(m_stdout, "minimal_printer: 1 job(s), 16000 byte(s)")) << m_stdout;
}

TEST_F(MinimalPrinter, AnswersItsOperationsRefusesOthersWithTheCharsetAndHtmlComesForGet) {
    // Get-Printer-Attributes is answered with the printer object (and checked
    // through the front end with ipptool: example.ipptool).
    Ipp gpa;
    gpa.header(1, 1, 0x000B, 41).opGroup().tag(3);
    Reply r = exchange(gpa.b);
    expectIppReply(r, 41);
    EXPECT_EQ(be16At(r.body, 2), 0x0000) << "successful-ok";
    EXPECT_TRUE(contains(r.body, "ipp://localhost:8631/ipp/print"));
    Ipp cancel;
    cancel.header(1, 1, 0x0008, 44).opGroup().tag(3);  // Cancel-Job: not in operations-supported
    r = exchange(cancel.b);
    expectIppReply(r, 44);
    EXPECT_EQ(be16At(r.body, 2), 0x0501) << "server-error-operation-not-supported";
    EXPECT_TRUE(contains(r.body, "attributes-charset")) << "prepareRequest sees failed streams too";

    Client c(m_socket);
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(c.sendRequest(getRequest()));
    const Reply page = c.readReply();
    ASSERT_TRUE(page.ok);
    EXPECT_EQ(page.status, 0);
    EXPECT_TRUE(contains(page.body, "<h1>Minimal Printer</h1>")) << page.body;
    EXPECT_EQ(stop(), 0);
}

}  // namespace
