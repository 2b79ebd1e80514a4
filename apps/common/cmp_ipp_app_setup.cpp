#include "cmp_ipp_app_setup.h"

#include <errno.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace cmp_ipp_app {

bool parseNumber(const char* text, long low, long high, long* out) {
    char* end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < low || v > high) return false;
    *out = v;
    return true;
}

bool parseGroup(const char* text, gid_t* out) {
    long v = 0;
    if (parseNumber(text, 0, 0x7FFFFFFE, &v)) {
        *out = static_cast<gid_t>(v);
        return true;
    }
    const struct group* g = getgrnam(text);
    if (g == nullptr) return false;
    *out = g->gr_gid;
    return true;
}

std::string withSlash(std::string dir) {
    if (dir.empty() || dir.back() != '/') dir += '/';
    return dir;
}

bool ensureDirectory(const std::string& dir, mode_t mode, gid_t group) {
    if (mkdir(dir.c_str(), 0700) == 0) {
        if (group != static_cast<gid_t>(-1) && chown(dir.c_str(), static_cast<uid_t>(-1), group) != 0) return false;
        return chmod(dir.c_str(), mode) == 0;
    }
    struct stat st;
    return errno == EEXIST && stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool prepareSpoolDir(const char* program, const std::string& dir) {
    if (!ensureDirectory(dir, 0700)) {
        fprintf(stderr, "%s: cannot use spool directory %s\n", program, dir.c_str());
        return false;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) == 0 && (st.st_mode & 077) != 0)
        fprintf(stderr, "%s: warning: spool directory %s is open to other users (mode %03o)\n", program,
                dir.c_str(), static_cast<unsigned>(st.st_mode & 0777));
    return true;
}

bool prepareSocketDir(const char* program, std::string* dir, gid_t group, bool* created) {
    const bool grouped = group != static_cast<gid_t>(-1);
    const mode_t mode = grouped ? 0710 : 0700;
    *created = false;
    if (dir->empty()) {
        char made[] = "/tmp/cmp-ipp-printer-XXXXXX";  // created 0700
        if (mkdtemp(made) == nullptr) {
            fprintf(stderr, "%s: cannot create a socket directory under /tmp\n", program);
            return false;
        }
        if (grouped && (chown(made, static_cast<uid_t>(-1), group) != 0 || chmod(made, mode) != 0)) {
            rmdir(made);
            fprintf(stderr, "%s: cannot create a socket directory under /tmp\n", program);
            return false;
        }
        *dir = made;
        *created = true;
        return true;
    }
    if (!ensureDirectory(*dir, mode, group)) {
        fprintf(stderr, "%s: cannot use socket directory %s\n", program, dir->c_str());
        return false;
    }
    return true;
}

namespace {

// Linux lists listening Unix sockets in /proc/net/unix (flag __SO_ACCEPTCON).
// Reading that costs the library nothing, where a trial connection would start
// a connection task that only sees the connection close; the trial connection
// is the fallback where the list cannot be read.
bool listedAsListening(const std::string& path, bool* readable) {
    FILE* f = fopen("/proc/net/unix", "re");
    *readable = f != nullptr;
    if (f == nullptr) return false;
    char line[512];
    bool found = false;
    while (!found && fgets(line, sizeof line, f) != nullptr) {
        // Num RefCount Protocol Flags Type St Inode Path, split by hand: the
        // scanf family would page in code the program uses nowhere else.
        const char* field[8] = {};
        int count = 0;
        for (char* save = nullptr; count < 8; ++count) {
            field[count] = strtok_r(count == 0 ? line : nullptr, " \t\n", &save);
            if (field[count] == nullptr) break;
        }
        if (count < 8) continue;
        const unsigned long flags = strtoul(field[3], nullptr, 16);
        found = (flags & 0x10000UL) != 0 && path == field[7];
    }
    fclose(f);
    return found;
}

bool takesConnections(const std::string& path) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    memcpy(addr.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool listening = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return listening;
}

}  // namespace

bool waitForListener(const std::string& path, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += 10) {
        bool readable = false;
        if (listedAsListening(path, &readable)) return true;
        if (!readable && takesConnections(path)) return true;
        usleep(10 * 1000);
    }
    return false;
}

int parseServiceOption(int c, const char* arg, const char* argv0, ServiceOptions* o) {
    long v = 0;
    switch (c) {
    case 'n': o->name = arg; return 0;
    case 'd': o->spoolDir = arg; return 0;
    case 's': o->socketDir = arg; return 0;
    case 'g':
        if (parseGroup(arg, &o->socketGroup)) return 0;
        fprintf(stderr, "%s: unknown group: %s\n", argv0, arg);
        return 2;
    case 't':
        if (parseNumber(arg, 0, 9, &v)) {
            o->traceLevel = static_cast<int>(v);
            return 0;
        }
        fprintf(stderr, "%s: bad trace level: %s\n", argv0, arg);
        return 2;
    case 'm':
        if (parseNumber(arg, 0, 3600000, &v)) {
            o->processingMs = static_cast<uint32_t>(v);
            return 0;
        }
        fprintf(stderr, "%s: bad processing time: %s\n", argv0, arg);
        return 2;
    default: return -1;
    }
}

}  // namespace cmp_ipp_app
