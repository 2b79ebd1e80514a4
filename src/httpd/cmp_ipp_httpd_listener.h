// The HTTP server's listener: its shared state, start and stop, and the socket.
#ifndef CMP_IPP_HTTPD_LISTENER_H
#define CMP_IPP_HTTPD_LISTENER_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "service/cmp_ipp_ippc.h"

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
// pn_httpd_set_socket_group and pn_httpd_socket_path: service/cmp_ipp_ippc.h.

}  // extern "C"

#endif
