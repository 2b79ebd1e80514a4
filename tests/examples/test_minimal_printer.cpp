// The example printer as a process of its own, spoken to over the library's
// socket with the test front-end client: what it answers, what it counts, and
// that it stops cleanly on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "apps/program.h"
#include "apps/temp_dir.h"
#include "httpd/httpd_fixture.h"

namespace {

bool contains(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

uint32_t statusOf(const Reply& r) { return be32At(r.body, 0) & 0xFFFF; }

class MinimalPrinter : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = makeTempDir("minimal-printer");
        ASSERT_FALSE(m_dir.empty());
        m_socket = m_dir + "/zyn_ipp_server";
        m_env = "GEN_UNIX_PATH=" + m_dir + "/";
        m_child = startProgram(CMP_IPP_MINIMAL_PRINTER, {}, m_env.c_str(), 022, m_dir + "/stderr");
        ASSERT_GT(m_child.pid, 0);
        ASSERT_TRUE(contains(readUntil(m_child.out, "running\n", 30000), "minimal_printer: running"));
    }
    void TearDown() override {
        if (m_child.pid > 0) {
            kill(m_child.pid, SIGKILL);
            exitStatus(m_child);
        }
        removeDir(m_dir);
    }

    // SIGTERM, then the exit status; what it printed on the way out is kept.
    int stop() {
        kill(m_child.pid, SIGTERM);
        m_stdout = readUntil(m_child.out, "byte(s)\n", 30000);
        return exitStatus(m_child);
    }

    Reply exchange(const Bytes& ipp) {
        Client c(m_socket);
        EXPECT_TRUE(sendIpp(c, ipp));
        return c.readReply();
    }

    std::string m_dir, m_socket, m_env, m_stdout;
    Child m_child;
};

TEST_F(MinimalPrinter, CountsPrintJobBytesAcrossBlocksAndSkipsAbortedUploads) {
    // The first block carries the request and 1000 document bytes; three more follow.
    Bytes job = ippRequest(0x0002, 42);
    job.insert(job.end(), 1000, 'a');
    {
        Client c(m_socket);
        // Raw, to cut the blocks where the count has to add them up.
        ASSERT_TRUE(c.rawPost(job, static_cast<int32_t>(job.size() + 15000)));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(c.rawBlock(Bytes(5000, static_cast<unsigned char>('b' + i))));
        ASSERT_TRUE(c.rawBlock({}));
        const Reply r = c.rawReply();
        expectIppReply(r, 42);
        EXPECT_EQ(statusOf(r), 0x0000u);
        EXPECT_TRUE(contains(r.body, "job-id"));
        EXPECT_TRUE(contains(r.body, "job-completed-successfully"));
    }
    {
        // An upload cut off before its end block is aborted by the library: no job.
        Client c(m_socket);
        ASSERT_TRUE(c.rawPost(ippRequest(0x0002, 43), 100000));
        ASSERT_TRUE(c.rawBlock(Bytes(7000, 'x')));
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(contains(m_stdout, "minimal_printer: 1 job(s), 16000 byte(s)")) << m_stdout;
}

TEST_F(MinimalPrinter, AnswersItsOperationsRefusesOthersWithTheCharsetAndHtmlComesForGet) {
    // Get-Printer-Attributes is answered with the printer object (and checked
    // through the front end with ipptool: example.ipptool).
    Reply r = exchange(ippRequest(0x000B, 41));
    expectIppReply(r, 41);
    EXPECT_EQ(statusOf(r), 0x0000u) << "successful-ok";
    EXPECT_TRUE(contains(r.body, "ipp://localhost:8631/ipp/print"));
    r = exchange(ippRequest(0x0008, 44));  // Cancel-Job: not in operations-supported
    expectIppReply(r, 44);
    EXPECT_EQ(statusOf(r), 0x0501u) << "server-error-operation-not-supported";
    EXPECT_TRUE(contains(r.body, "attributes-charset")) << "prepareRequest sees failed streams too";

    Client c(m_socket);
    ASSERT_TRUE(c.sendRequest(getRequest()));
    const Reply page = c.readReply();
    ASSERT_TRUE(page.ok);
    EXPECT_EQ(page.status, 0);
    EXPECT_TRUE(contains(page.body, "<h1>Minimal Printer</h1>")) << page.body;
    EXPECT_EQ(stop(), 0);
}

}  // namespace
