// What the programs that run the library and the reference printer share:
// option values, the spool and socket directories, and the wait for the
// library's listener.
#ifndef CMP_IPP_APP_SETUP_H
#define CMP_IPP_APP_SETUP_H

#include <sys/types.h>

#include <string>

namespace cmp_ipp_app {

// The options of every program that runs the library with the reference printer.
struct ServiceOptions {
    std::string spoolDir = "spool";
    std::string socketDir;
    gid_t socketGroup = static_cast<gid_t>(-1);  // -1: the socket is for this user alone
    std::string name = "Reference Printer";
    int traceLevel = -1;  // -1: leave it to CMP_IPP_TRACE_LEVEL
    uint32_t processingMs = 2000;
};

// Takes getopt's option c and its argument when it is one of those: 'n' name,
// 'd' spool, 's' socket-dir, 'g' socket-group, 't' trace-level, 'm'
// processing-ms. 0 taken; 2 refused (said on standard error after argv0);
// -1 not one of them.
int parseServiceOption(int c, const char* arg, const char* argv0, ServiceOptions* o);

// A whole decimal number within [low, high].
bool parseNumber(const char* text, long low, long high, long* out);
// A group by number or name.
bool parseGroup(const char* text, gid_t* out);

// The library takes its socket directory from GEN_UNIX_PATH, written with a trailing "/".
std::string withSlash(std::string dir);

// Creates dir with exactly `mode` (whatever the umask) and, when group is not
// -1, of that group. A directory that is already there is used as it is.
bool ensureDirectory(const std::string& dir, mode_t mode, gid_t group = static_cast<gid_t>(-1));

// Documents are private: a spool directory created here is 0700. An existing
// one is used as it is, with a warning on standard error when others can read it.
bool prepareSpoolDir(const char* program, const std::string& dir);

// The directory of the library's socket: 0700, or 0710 and of `group` when
// the socket is shared with a group. An empty *dir makes a private directory
// under /tmp, stored in *dir, which the caller removes at exit (*created).
bool prepareSocketDir(const char* program, std::string* dir, gid_t group, bool* created);

// The listener binds, restricts and then listens on its socket from a thread
// of its own: true once `path` takes connections, false when it did not within
// timeoutMs.
bool waitForListener(const std::string& path, int timeoutMs);

}  // namespace cmp_ipp_app

#endif
