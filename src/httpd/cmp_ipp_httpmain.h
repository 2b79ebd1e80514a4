// Wake-up of the listener and the open-connection table, shared by the listener,
// the connection tasks and the stop routine.
#ifndef CMP_IPP_HTTPMAIN_H
#define CMP_IPP_HTTPMAIN_H

#include <stdint.h>

#include "httpd/cmp_ipp_pic.h"

// Creates one of the server's tasks (the listener, a connection task): detached,
// round-robin at the server's priority. Returns what PN_PIC_ThreadCreateB returns.
int pn_httpd_create_task(PN_PIC_TaskEntry entry, void* arg, const char* name, uint32_t stackSize);

// Creates the wake-up pipe once per process; true when it is usable.
bool pn_httpd_wake_prepare();
// Makes every listener waiting for a connection look at the shutdown flag.
void pn_httpd_wake_listener();

// A stop's request that every running listener leave. It outlasts the stop (a
// stop may return before the listener has woken) and is withdrawn by the next
// start, which first waits until the listeners asked to leave have gone.
void pn_httpd_listeners_leave();
void pn_httpd_listener_starting();
// Called by a listener task (or by the start routine when the task could not be
// created) once the listener has closed and removed its socket.
void pn_httpd_listener_ended();

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

#endif
