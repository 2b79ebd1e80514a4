// Start and stop of the HTTP side.
#include <string.h>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httpmain.h"
#include "httpd/cmp_ipp_pic.h"
#include "platform/cmp_dbglog.h"

namespace {

const uint32_t kListenerStack = 6144;
const int32_t kTaskPriorityLevel = 10;
const int kListenerPollMs = 1;
const int kGracePollMs = 2;
const int kGraceMs = 100;
const uint32_t kServiceFailure = 0x510a0002u;

void listenerEntry(void*) { (void)pn_httpd_main(); }

}  // namespace

extern "C" int httpd_start_wrap(void) {
    PN_PIC_Init();
    return pn_httpd_start();
}

extern "C" int pn_httpd_start(void) {
    (void)pn_httpd_wake_prepare();
    char name[16] = "HTTPLstnCmp";
    PN_PIC_TaskParam param;
    memset(&param, 0, sizeof param);
    param.priority = kTaskPriorityLevel;
    param.policy = PN_PIC_SCHED_RR;
    param.joinable = 0;
    param.entry = listenerEntry;
    param.arg = nullptr;
    param.name = name;
    param.stackSize = kListenerStack;
    // The listener is counted from here on, not from when it first runs: a stop
    // that follows at once must wait for it, or it would outlive the stop.
    g_pn_httpd_num_ports.fetch_add(1);
    if (PN_PIC_ThreadCreateB(&param) != 0) {
        g_pn_httpd_num_ports.fetch_sub(1);
        orvane::cmp_dbglog::tracer(0, "[ERROR ]:cmp_ipp_httpinit::%s(%d): PN_PIC_ThreadCreateB() failed.\n",
                                   "pn_httpd_start", 132);
        return static_cast<int>(kServiceFailure);
    }
    return 0;
}

extern "C" int httpd_stop_wrap(void) {
    pn_httpd_term();
    return 0;
}

// A stop never waits for a request: requests in flight are cut short instead.
//
// 1. Raise the shutdown flag and wake the listener, which closes and removes its
//    socket at once.
// 2. Shut every open connection down: each blocked receive, keep-alive wait or
//    pause returns, and its task ends through the path of a lost connection (an
//    upload in progress is aborted through the handler's abortRequest).
// 3. Wait until the listener has gone. It is always waited for, also when no
//    connection is open: one that missed the flag (cleared below) would outlive
//    the stop with its socket file. With the listener gone the wait is over,
//    whatever connections are still open.
// 4. Give the connections cut short in step 2 a moment to end, so that a stop
//    normally returns with none open; a task held inside a handler call is not
//    waited for (cmp_ipp_manager::unregisterHandler waits for it before the
//    handler may go away).
extern "C" void pn_httpd_term(void) {
    int32_t expected = 0;
    g_pn_httpd_shutdown.compare_exchange_strong(expected, 1);
    pn_httpd_wake_listener();
    (void)pn_httpd_conn_shutdown_all();
    while (g_pn_httpd_num_ports.load() != 0) IPP_ThreadDelay(kListenerPollMs);
    for (int waited = 0; getConnectionCount() != 0 && waited < kGraceMs; waited += kGracePollMs)
        IPP_ThreadDelay(kGracePollMs);
    g_pn_httpd_shutdown.store(0);
    g_pn_httpd_num_ports.store(0);
}
