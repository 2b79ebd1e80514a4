// Umbrella header: what a printer's software needs to embed the IPP service
// library. The HTTP task layer, its test knobs and the platform's fault hooks
// are internal and not included here (see cmp_ipp_internal.h in the source tree).
#ifndef CMP_IPP_H
#define CMP_IPP_H

#include "cmp_ipp_version.h"

#include "containers/cmp_ipp_buf.h"
#include "containers/cmp_ipp_if.h"
#include "containers/cmp_ipp_malloc.h"
#include "containers/cmp_ipp_string.h"
#include "containers/cmp_ipp_vector.h"

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_ipptable.h"

#include "msg/cmp_ipp_attrs.h"
#include "msg/cmp_ipp_ippmsg.h"
#include "msg/cmp_ipp_limits.h"
#include "msg/cmp_ipp_obj.h"
#include "msg/cmp_ipp_request.h"

#include "service/cmp_ipp_constants.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"
#include "service/cmp_ipp_manager.h"
#include "service/cmp_ipp_facade.h"

// The default dictionary is a library of its own (cmp_ipp_dictionary): its
// installer comes in wherever its header is on the include path.
#if defined(__has_include)
#if __has_include("cmp_ipp_dictionary.h")
#include "cmp_ipp_dictionary.h"
#endif
#endif

#endif
