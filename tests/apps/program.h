// The project's programs run as processes of their own: started with the
// arguments, environment and umask a test gives, read from and waited for,
// every wait bounded.
#ifndef TESTS_APPS_PROGRAM_H
#define TESTS_APPS_PROGRAM_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

struct Child {
    pid_t pid = -1;
    int out = -1;  // its standard output
    int err = -1;  // its standard error, unless that goes to a file
};

// Starts program with args under umask `mask`, with `env` ("NAME=value")
// added when given; standard error goes to errFile when one is named.
inline Child startProgram(const char* program, const std::vector<std::string>& args, const char* env = nullptr,
                          mode_t mask = 022, const std::string& errFile = "") {
    int out[2], err[2];
    Child r;
    if (pipe(out) != 0 || pipe(err) != 0) return r;
    r.pid = fork();
    if (r.pid == 0) {
        umask(mask);
        dup2(out[1], 1);
        const int e = errFile.empty() ? err[1] : open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (e >= 0) dup2(e, 2);
        close(out[0]);
        close(err[0]);
        if (env != nullptr) putenv(const_cast<char*>(env));
        std::vector<char*> argv{const_cast<char*>(program)};
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
inline std::string readUntil(int fd, const std::string& until, int timeoutMs) {
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

// The child's exit status (128 + the signal for one killed by a signal), or
// -1 when it does not end in time.
inline int exitStatus(Child& r, int timeoutMs = 30000) {
    int status = 0;
    for (int waited = 0; waitpid(r.pid, &status, WNOHANG) != r.pid; waited += 20) {
        if (waited >= timeoutMs) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    r.pid = -1;
    close(r.out);
    close(r.err);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A Unix socket bound at path (not yet listening), or connected to a server
// there; -1 on failure.
inline int unixSocketAt(const std::string& path, bool bindIt) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un a;
    std::memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    const struct sockaddr* at = reinterpret_cast<struct sockaddr*>(&a);
    if ((bindIt ? bind(fd, at, sizeof a) : connect(fd, at, sizeof a)) == 0) return fd;
    close(fd);
    return -1;
}

inline mode_t modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 07777;
}

#endif
