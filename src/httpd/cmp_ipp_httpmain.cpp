// The listener: owns the Unix-domain socket, accepts connections up to the limit
// and starts one connection task per connection.
//
// Waking on stop: a listener blocked in accept() would only notice a stop when a
// connection arrives. It therefore waits in poll() on the listening socket and on
// the read end of a process-wide pipe; the stop routine writes one byte into the
// pipe after raising the shutdown flag, and the listener leaves at once, closing
// and removing its socket file. The byte is left in the pipe while the flag is up,
// so every listener sees it; a byte found while no stop is in progress is stale
// and is drained.
//
// A stop that finds no connection open returns at once and lowers the shutdown
// flag again, possibly before the listener has woken. So a stop also leaves a
// request to leave that stays up until the next start; that start first waits
// for the listeners asked to leave, so an old listener never removes the socket
// file of a new one.
#include "httpd/cmp_ipp_httpmain.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_pic.h"
#include "platform/cmp_dbglog.h"
#include "containers/cmp_ipp_once.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;

std::atomic<int32_t> g_pn_httpd_num_ports{0};
std::atomic<int32_t> g_pn_httpd_shutdown{0};
std::atomic<int32_t> g_pn_httpd_conn_count{0};

namespace {

const int kBacklog = 5;
const uint32_t kConnectionStack = 30720;
const int32_t kTaskPriorityLevel = 10;
const char kSocketName[] = "zyn_ipp_server";
const char kDefaultPath[] = "/tmp/zyn_ipp_server";

int g_wakeTried = 0;
// Group given access to the socket file; -1: the owner alone.
std::atomic<int32_t> g_socketGroup{-1};
std::atomic<int> g_wake[2] = {{-1}, {-1}};

bool setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

void drainWake() {
    char sink[64];
    while (read(g_wake[0].load(), sink, sizeof sink) > 0) {
    }
}

std::atomic<int32_t> g_leaveRequested{0};
std::atomic<int32_t> g_listenersAlive{0};

bool stopping() { return g_pn_httpd_shutdown.load() != 0 || g_leaveRequested.load() != 0; }

// The socket file gets its final mode whatever the process's umask: read and
// write for the owner (and the configured group) only, since whoever can
// connect can submit jobs and see the replies. Done between bind and listen:
// until listen no connection can be made, so no one gets in through the mode
// the file was created with.
bool restrictSocketFile(const char* path) {
    const int32_t group = g_socketGroup.load();
    if (group >= 0 && chown(path, static_cast<uid_t>(-1), static_cast<gid_t>(group)) != 0) return false;
    return chmod(path, group >= 0 ? 0660 : 0600) == 0;
}

int leave(int rc) {
    // A stop that has already returned set the count to 0: never below that.
    int32_t n = g_pn_httpd_num_ports.load();
    while (n > 0 && !g_pn_httpd_num_ports.compare_exchange_weak(n, n - 1)) {
    }
    return rc;
}

// One slot per connection that may be open at once, and one for the connection
// the listener is about to refuse. Trivially destructible: tasks that end after a
// stop may use it while the process exits.
struct ConnSlot {
    int sock;      // 0: free
    bool stopped;  // shut down by a stop
};
pthread_mutex_t g_connLock = PTHREAD_MUTEX_INITIALIZER;
ConnSlot g_conns[AHTTPD_MAX_CONNECTIONS + 1];

ConnSlot* findConn(int sock) {
    for (ConnSlot& c : g_conns) {
        if (c.sock == sock) return &c;
    }
    return nullptr;
}

}  // namespace

bool pn_httpd_wake_prepare() {
    cmp_ipp_once::run(&g_wakeTried, [] {
        int fds[2];
        if (pipe(fds) != 0) return;
        if (!setNonBlocking(fds[0]) || !setNonBlocking(fds[1])) {
            close(fds[0]);
            close(fds[1]);
            return;
        }
        set_cloexec_flag(fds[0], 1);
        set_cloexec_flag(fds[1], 1);
        g_wake[1].store(fds[1]);
        g_wake[0].store(fds[0]);
    });
    return g_wake[0].load() >= 0;
}

void pn_httpd_wake_listener() {
    const int fd = g_wake[1].load();
    if (fd < 0) return;
    const char byte = 1;
    // A full pipe already holds a wake-up: nothing is lost when this write fails.
    (void)!write(fd, &byte, 1);
}

void pn_httpd_listeners_leave() { g_leaveRequested.store(1); }

void pn_httpd_listener_starting() {
    // Listeners asked to leave do so within a poll wake-up.
    while (g_leaveRequested.load() != 0 && g_listenersAlive.load() > 0) IPP_ThreadDelay(1);
    g_leaveRequested.store(0);
    g_listenersAlive.fetch_add(1);
}

void pn_httpd_listener_ended() { g_listenersAlive.fetch_sub(1); }

bool pn_httpd_conn_add(int sock) {
    if (sock <= 0) return false;
    pthread_mutex_lock(&g_connLock);
    ConnSlot* slot = findConn(0);
    if (slot != nullptr) *slot = ConnSlot{sock, false};
    pthread_mutex_unlock(&g_connLock);
    return slot != nullptr;
}

void pn_httpd_conn_close(int sock) {
    if (sock <= 0) return;
    pthread_mutex_lock(&g_connLock);
    ConnSlot* slot = findConn(sock);
    if (slot != nullptr) *slot = ConnSlot{0, false};
    close(sock);
    pthread_mutex_unlock(&g_connLock);
}

int pn_httpd_conn_shutdown_all() {
    int n = 0;
    pthread_mutex_lock(&g_connLock);
    for (ConnSlot& c : g_conns) {
        if (c.sock <= 0 || c.stopped) continue;
        c.stopped = true;
        (void)shutdown(c.sock, SHUT_RDWR);
        ++n;
    }
    pthread_mutex_unlock(&g_connLock);
    return n;
}

extern "C" int pn_httpd_set_socket_group(int32_t gid) {
    g_socketGroup.store(gid < 0 ? -1 : gid);
    return 0;
}

int pn_httpd_create_task(PN_PIC_TaskEntry entry, void* arg, const char* name, uint32_t stackSize) {
    PN_PIC_TaskParam param;
    memset(&param, 0, sizeof param);
    param.priority = kTaskPriorityLevel;
    param.policy = PN_PIC_SCHED_RR;
    param.joinable = 0;
    param.entry = entry;
    param.arg = arg;
    param.name = name;
    param.stackSize = stackSize;
    return PN_PIC_ThreadCreateB(&param);
}

extern "C" int32_t getConnectionCount(void) { return g_pn_httpd_conn_count.load(); }
extern "C" void incConnectionCount(void) { g_pn_httpd_conn_count.fetch_add(1); }
extern "C" void decConnectionCount(void) { g_pn_httpd_conn_count.fetch_sub(1); }

extern "C" int set_cloexec_flag(int fd, int value) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0) return flags;
    return fcntl(fd, F_SETFD, value != 0 ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC));
}

extern "C" void pn_httpd_socket_path(char* out, size_t size) {
    if (out == nullptr || size == 0) return;
    const char* base = getenv("GEN_UNIX_PATH");
    if (base == nullptr) {
        snprintf(out, size, "%s", kDefaultPath);
    } else {
        snprintf(out, size, "%s%s", base, kSocketName);
    }
}

extern "C" int pn_httpd_main(void) {
    // Counted by pn_httpd_start before the task was created, so that a stop
    // issued at once already waits for this listener.
    struct sockaddr_un address;
    struct sockaddr_un peer;
    static_assert(sizeof(struct sockaddr_un) == 110, "Unix-domain address");
    memset(&address, 0, sizeof address);
    memset(&peer, 0, sizeof peer);
    address.sun_family = AF_UNIX;
    pn_httpd_socket_path(address.sun_path, sizeof address.sun_path);
    unlink(address.sun_path);

    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener < 0) {
        tracer(0, "cmp_ipp_httpmain: %s(%d): socket() failed.\n", "pn_httpd_main", 287);
        return leave(-1);
    }
    set_cloexec_flag(listener, 1);
    int one = 1;
    (void)setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
        tracer(0, "cmp_ipp_httpmain: %s(%d):  bind() failed.\n", "pn_httpd_main", 301);
        close(listener);
        return leave(-1);
    }
    if (!restrictSocketFile(address.sun_path)) {
        tracer(0, "cmp_ipp_httpmain: %s(%d):  chmod() failed.\n", "pn_httpd_main", 307);
        close(listener);
        unlink(address.sun_path);
        return leave(-1);
    }
    // poll() says when to accept; a connection that vanishes in between must not
    // leave the listener blocked in accept().
    setNonBlocking(listener);

    const bool canWake = pn_httpd_wake_prepare();
    int32_t connectionNumber = 0;
    while (!stopping()) {
        ++connectionNumber;
        if (listen(listener, kBacklog) != 0) {
            tracer(0, "cmp_ipp_httpmain: %s(%d):  listen() failed.\n", "pn_httpd_main", 318);
            close(listener);
            return leave(-1);
        }
        struct pollfd waits[2] = {{listener, POLLIN, 0}, {canWake ? g_wake[0].load() : -1, POLLIN, 0}};
        const int ready = poll(waits, canWake ? 2 : 1, -1);
        if (ready < 0) {
            if (errno != EINTR) IPP_ThreadDelay(50);
            continue;
        }
        if (canWake && (waits[1].revents & POLLIN) != 0) {
            if (stopping()) break;
            drainWake();
        }
        if ((waits[0].revents & (POLLIN | POLLERR | POLLHUP)) == 0) continue;

        socklen_t peerLength = sizeof peer;
        const int sock = accept(listener, reinterpret_cast<struct sockaddr*>(&peer), &peerLength);
        if (sock < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                tracer(0, "cmp_ipp_httpmain: %s(%d):  accept() failed.\n", "pn_httpd_main", 334);
            continue;
        }
        // Connections start in blocking mode, whatever the listening socket is in.
        int off = 0;
        (void)ioctl(sock, FIONBIO, &off);
        (void)setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        set_cloexec_flag(sock, 1);
        char fullName[32] = {};
        snprintf(fullName, sizeof fullName, "tHttpCmp-%ld", static_cast<long>(connectionNumber));
        char taskName[16];  // task names are cut to 15 characters
        memcpy(taskName, fullName, sizeof taskName - 1);
        taskName[sizeof taskName - 1] = '\0';

        // Entered in the table before the shutdown flag is tested: a stop either
        // finds this connection there or is seen here.
        const bool tracked = pn_httpd_conn_add(sock);
        if (!tracked || stopping() || getConnectionCount() > AHTTPD_MAX_CONNECTIONS - 1) {
            tracer(0, "cmp_ipp_httpmain: %s(%d): HTTP has reached the max open connections.  Closing new request.\n",
                   "pn_httpd_main", 349);
            ahttpdCloseSocketConnection(sock);
            if (stopping()) break;
            continue;
        }
        if (sock > INT16_MAX) {
            // The connection records keep the socket in 16 bits.
            tracer(0, "cmp_ipp_httpmain: %s(%d): socket %d does not fit the connection record.  Closing new request.\n",
                   "pn_httpd_main", 357, sock);
            ahttpdCloseSocketConnection(sock);
            continue;
        }
        ahttpdConnStart* start = static_cast<ahttpdConnStart*>(emwOSWSubAllocMem(sizeof(ahttpdConnStart)));
        if (start == nullptr) {
            tracer(0, "cmp_ipp_httpmain: %s(%d): pn_httpd_main(): malloc() failed.\n", "pn_httpd_main", 364);
            ahttpdCloseSocketConnection(sock);
            continue;
        }
        incConnectionCount();
        start->sock = sock;
        start->connectionNumber = connectionNumber;

        if (pn_httpd_create_task(pn_httpd_task, start, taskName, kConnectionStack) != 0) {
            decConnectionCount();
            ahttpdCloseSocketConnection(sock);
            emwOSWOrgFreeMemPart(0, start);
        }
    }
    close(listener);
    unlink(address.sun_path);
    return leave(0);
}
