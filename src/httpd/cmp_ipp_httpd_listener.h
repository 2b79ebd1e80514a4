// The HTTP server's listener: its shared state, start and stop, and the socket.
#ifndef CMP_IPP_HTTPD_LISTENER_H
#define CMP_IPP_HTTPD_LISTENER_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

extern "C" {

// ---- shared state -----------------------------------------------------------
extern std::atomic<int32_t> g_pn_httpd_num_ports;   // listeners started and not yet ended
extern std::atomic<int32_t> g_pn_httpd_shutdown;    // nonzero while a stop is in progress
extern std::atomic<int32_t> g_pn_httpd_conn_count;  // open connections

// ---- listener, start and stop -------------------------------------------------
int httpd_start_wrap(void);
int pn_httpd_start(void);
int pn_httpd_main(void);
int httpd_stop_wrap(void);
void pn_httpd_term(void);
int32_t getConnectionCount(void);
void incConnectionCount(void);
void decConnectionCount(void);
int set_cloexec_flag(int fd, int value);
// The socket file is created with mode 0600 whatever the umask; with a group id
// (0 or more) it belongs to that group and gets mode 0660. Takes effect when the
// listener next starts. Returns 0.
int pn_httpd_set_socket_group(int32_t gid);
// Fills `out` (108 bytes are enough) with the socket path: "/tmp/zyn_ipp_server", or
// $GEN_UNIX_PATH immediately followed by "zyn_ipp_server".
void pn_httpd_socket_path(char* out, size_t size);

}  // extern "C"

#endif
