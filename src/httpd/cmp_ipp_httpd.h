// The HTTP server on the Unix-domain socket, all of it: the records, the
// listener, the connection task and IPP over HTTP, each with a header of its own.
#ifndef CMP_IPP_HTTPD_H
#define CMP_IPP_HTTPD_H

#include "httpd/cmp_ipp_http_ipp.h"
#include "httpd/cmp_ipp_httpd_listener.h"
#include "httpd/cmp_ipp_httprec.h"
#include "httpd/cmp_ipp_httptask.h"

#endif
