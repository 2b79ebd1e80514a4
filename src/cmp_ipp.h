// Umbrella header: every public class and function of the IPP service library.
#ifndef CMP_IPP_H
#define CMP_IPP_H

#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

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

#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"
#include "service/cmp_ipp_manager.h"
#include "service/cmp_ipp_facade.h"

#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_pic.h"

#endif
