// Everything of the library, internals included: the public umbrella plus the
// HTTP task layer, its test knobs, the platform's fault hooks and the plain
// interface's state. For the library's own tests and tools; never installed.
#ifndef CMP_IPP_INTERNAL_H
#define CMP_IPP_INTERNAL_H

#include "cmp_ipp.h"

#include "platform/cmp_dbglog.h"
#include "platform/emw_osw_test.h"

#include "service/cmp_ipp_ippc_internal.h"

#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_pic.h"

#endif
