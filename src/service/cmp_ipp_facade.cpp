#include "service/cmp_ipp_facade.h"

#include "httpd/cmp_ipp_httpd.h"
#include "containers/cmp_ipp_once.h"
#include "platform/emw_osw.h"
#include "service/cmp_ipp_ippc.h"

namespace orvane {

namespace {
const int kStopFailure = 0x510a0002;
}

cmp_ipp_facade* cmp_ipp_facade::s_instance_ = nullptr;

cmp_ipp_facade* cmp_ipp_facade::cmp_ipp_get_instance() {
    return cmp_ipp_once::instance(&s_instance_, [] { return new cmp_ipp_facade(); });
}

int cmp_ipp_facade::cmp_ipp_init(void* printer, void* handler) {
    (void)pn_ipp_start(printer, static_cast<cmp_ipp_handler*>(handler));
    (void)httpd_start_wrap();
    return 0;
}

int cmp_ipp_facade::cmp_ipp_term() { return httpd_stop_wrap() != 0 ? kStopFailure : 0; }

}  // namespace orvane

extern "C" int cmp_ipp_init_wrap(void* printer, void* handler) {
    return orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_init(printer, handler);
}
