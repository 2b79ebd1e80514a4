// The one "write everything" loop of the programs around the library, for
// files and sockets alike.
#ifndef CMP_IPP_WRITE_ALL_H
#define CMP_IPP_WRITE_ALL_H

#include <errno.h>
#include <stddef.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cmp_ipp_app {

// Writes all n bytes to fd, resuming after partial writes and EINTR. A socket
// is written with MSG_NOSIGNAL, so a peer that went away is a false result,
// not a SIGPIPE; anything else (a file) with write(). False on any error.
inline bool writeAll(int fd, const void* data, size_t n) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    bool socket = true;
    while (n > 0) {
        ssize_t w = socket ? send(fd, p, n, MSG_NOSIGNAL) : write(fd, p, n);
        if (w < 0 && socket && errno == ENOTSOCK) {
            socket = false;
            continue;
        }
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

}  // namespace cmp_ipp_app

#endif
