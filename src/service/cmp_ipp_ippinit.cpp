// Start and stop of the IPP side, and the enabled switch.
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc_internal.h"
#include "service/cmp_ipp_manager.h"

std::atomic<int32_t> g_ippEnabled{0};

extern "C" int pn_ipp_start(void* printer, cmp_ipp_handler* handler) {
    if (IPP_Initialize(printer, handler) != 0) {
        orvane::cmp_dbglog::tracer(2, "[INFO  ]:cmp_ipp_ippinit::%s(%d) IPP PCM Initilaization Unsuccessful.\n",
                                   "pn_ipp_start", 58);
        return 0;
    }
    IPPCGI_EnableIPP(1);
    return 1;
}

extern "C" int pn_ipp_stop(int, void*) {
    IPPCGI_EnableIPP(0);
    IPP_Terminate();
    return 0;
}

extern "C" int IPP_Initialize(void* printer, cmp_ipp_handler* handler) {
    cmp_ipp_manager* manager = cmp_ipp_manager::get();
    void* const current = manager->m_printer.load();
    manager->init(current != nullptr ? current : printer);
    manager->m_handler.store(handler);
    return 0;
}

// The manager owns neither printer nor handler: ending its use releases nothing.
extern "C" void IPP_Terminate(void) { (void)cmp_ipp_manager::get(); }

extern "C" void IPPCGI_EnableIPP(int flag) { g_ippEnabled.store(flag); }

extern "C" int IPPCGI_Enabled(void) { return g_ippEnabled.load(); }
