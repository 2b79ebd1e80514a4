// The one call that brings the whole service up (IPP side and HTTP listener) and
// the one that takes the network side down.
//
// Start, once the dictionary tables are installed and the printer object holds
// its attributes:
//
//   cmp_ipp_init_wrap(&printer, &handler);
//
// Stop, in this order, before the printer object or the handler go away:
//
//   orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term();  // network
//   pn_ipp_stop(0, nullptr);                                         // IPP off
//   cmp_ipp_manager::get()->unregisterHandler(&handler);             // no call left
//   cmp_ipp_manager::get()->unregisterPrinter(&printer);
//
// Nothing of the library is freed: the facade, the manager and the registry live
// until the process ends, and a later cmp_ipp_init_wrap starts the service again.
#ifndef CMP_IPP_FACADE_H
#define CMP_IPP_FACADE_H

#include <stdint.h>

namespace orvane {

class cmp_ipp_facade {
public:
    // Null until the first cmp_ipp_get_instance; the instance is never destroyed.
    // Safe to call from any task (created under OSW_Thread_Guard).
    static cmp_ipp_facade* s_instance_;
    static cmp_ipp_facade* cmp_ipp_get_instance();

    // Starts the IPP side with the printer handle (a cmp_ipp_obj*) and the handler
    // object (a cmp_ipp_handler*): pn_ipp_start, which registers both and switches
    // IPP on; then the HTTP listener task (httpd_start_wrap). Failures of either
    // are only traced (level 0), so the result is always 0; the listener binds
    // its socket from its own task, shortly after this returns. The library keeps
    // both pointers and owns neither: they must outlive the service (see the stop
    // above). A printer handle registered earlier stays; the handler is replaced.
    int cmp_ipp_init(void* printer, void* handler);
    // Stops the HTTP side without waiting for requests: the listener closes and
    // removes its socket, open connections are cut short (an upload under way is
    // aborted through the handler's abortRequest), and the call polls in 50 ms
    // steps until the listener has left or no connection is open. A connection
    // task still ending, or still inside a handler call, is not waited for: that
    // is what cmp_ipp_manager::unregisterHandler is for. The IPP side stays as it
    // is (see pn_ipp_stop). Returns 0, also when nothing was started, or
    // 0x510a0002 when the HTTP server reports a failure to stop.
    int cmp_ipp_term();
};

}  // namespace orvane

extern "C" {
// cmp_ipp_get_instance()->cmp_ipp_init(printer, handler): the start above, with
// plain C linkage for software that loads the library by symbol. Returns 0.
int cmp_ipp_init_wrap(void* printer, void* handler);
}

#endif
