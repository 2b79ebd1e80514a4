// Start and stop of the HTTP side.
#include <string.h>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httpmain.h"
#include "httpd/cmp_ipp_pic.h"
#include "platform/cmp_dbglog.h"

namespace {

const uint32_t kListenerStack = 6144;
const int kStopPollMs = 50;
const uint32_t kServiceFailure = 0x510a0002u;

void listenerEntry(void*) {
    (void)pn_httpd_main();
    pn_httpd_listener_ended();
}

}  // namespace

extern "C" int httpd_start_wrap(void) {
    PN_PIC_Init();
    return pn_httpd_start();
}

extern "C" int pn_httpd_start(void) {
    (void)pn_httpd_wake_prepare();
    char name[16] = "HTTPLstnCmp";
    // The listener is counted from here on, not from when it first runs: a stop
    // that follows at once must find it.
    pn_httpd_listener_starting();
    g_pn_httpd_num_ports.fetch_add(1);
    if (pn_httpd_create_task(listenerEntry, nullptr, name, kListenerStack) != 0) {
        g_pn_httpd_num_ports.fetch_sub(1);
        pn_httpd_listener_ended();
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
// 1. Raise the shutdown flag, ask the listener to leave and wake it; it closes
//    and removes its socket at once.
// 2. Shut every open connection down: each blocked receive, keep-alive wait or
//    pause returns, and its task ends through the path of a lost connection (an
//    upload in progress is aborted through the handler's abortRequest).
// 3. Wait in 50 ms steps while a listener is counted and connections are open:
//    the wait ends when either count reaches 0. A task still ending, or held
//    inside a handler call, is not waited for: cmp_ipp_manager::unregisterHandler
//    waits for the handler's calls before the handler may go away, and whatever
//    else such a task touches belongs to the library and is never freed.
extern "C" void pn_httpd_term(void) {
    int32_t expected = 0;
    g_pn_httpd_shutdown.compare_exchange_strong(expected, 1);
    pn_httpd_listeners_leave();
    pn_httpd_wake_listener();
    (void)pn_httpd_conn_shutdown_all();
    while (g_pn_httpd_num_ports.load() != 0 && getConnectionCount() != 0) IPP_ThreadDelay(kStopPollMs);
    g_pn_httpd_shutdown.store(0);
    g_pn_httpd_num_ports.store(0);
}
