// The one call that brings the whole service up (IPP side and HTTP listener) and
// the one that takes the network side down.
#ifndef CMP_IPP_FACADE_H
#define CMP_IPP_FACADE_H

#include <stdint.h>

namespace orvane {

class cmp_ipp_facade {
public:
    // Null until the first cmp_ipp_get_instance; the instance is never destroyed.
    static cmp_ipp_facade* s_instance_;
    static cmp_ipp_facade* cmp_ipp_get_instance();

    // Starts the IPP side with the printer handle and the handler object, then the
    // HTTP listener; failures of either are only traced. Returns 0.
    int cmp_ipp_init(void* printer, void* handler);
    // Stops the HTTP side (the IPP side stays as it is; see pn_ipp_stop).
    // Returns 0, or 0x510a0002 when the HTTP server reports a failure to stop.
    int cmp_ipp_term();
};

}  // namespace orvane

extern "C" {
// What cmp_ipp_init returns (0).
int cmp_ipp_init_wrap(void* printer, void* handler);
}

#endif
