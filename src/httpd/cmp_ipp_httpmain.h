// Wake-up of the listener and the open-connection table, shared by the listener,
// the connection tasks and the stop routine.
#ifndef CMP_IPP_HTTPMAIN_H
#define CMP_IPP_HTTPMAIN_H

// Creates the wake-up pipe once per process; true when it is usable.
bool pn_httpd_wake_prepare();
// Makes every listener waiting for a connection look at the shutdown flag.
void pn_httpd_wake_listener();

// Open connection sockets, so that a stop can cut every one of them short.
// The listener adds a socket right after accepting it (false: the table is full);
// ahttpdCloseSocketConnection removes it and closes it in one step under the
// table's lock, so a stop never shuts down a number that was closed and reused.
bool pn_httpd_conn_add(int sock);
void pn_httpd_conn_close(int sock);
// Shuts every open connection down in both directions: each blocked receive,
// keep-alive wait and pause returns at once and the task ends through its
// socket-failure path. Returns how many were shut down.
int pn_httpd_conn_shutdown_all();
// True when a stop shut this open connection down (a receive of 0 bytes on it is
// then not the end of a body).
bool pn_httpd_conn_stopped(int sock);

#endif
