// Bounds on one IPP request, enforced while cmp_ipp_msg::decode reads it. A
// message past any of them is refused with CMP_IPP_LIMIT_STATUS and a Parse
// Error trace of its own (codes 610 to 613), and the decoder stops pulling body
// pieces through the request's port once the attribute part has passed its
// bound. Document data after the end-of-attributes tag is not bounded here.
//
// The figures leave room over what real messages carry: the Get-Printer-
// Attributes response of a feature-rich printer is about 14 kB in some 300
// attributes, a client's request stays below 4 kB, and no printer attribute
// lists a thousand values or nests collections more than four deep.
#ifndef CMP_IPP_LIMITS_H
#define CMP_IPP_LIMITS_H

#include <stdint.h>

// Bytes of the attribute part: the delimiter tags, the attributes and the
// end-of-attributes tag, everything between the 8-byte header and the
// document data. Parse Error 610.
constexpr uint32_t CMP_IPP_MAX_ATTRIBUTE_BYTES = 65536;

// Attributes of one message: every attribute field with a name, and every
// collection marker (begCollection, memberAttrName, endCollection). Additional
// values count as values of their attribute. Parse Error 611.
constexpr int32_t CMP_IPP_MAX_ATTRIBUTES = 2048;

// Values of one attribute, additional values included. Parse Error 612.
constexpr int32_t CMP_IPP_MAX_VALUES = 1024;

// Collections open at once (begCollection not yet closed by endCollection).
// Parse Error 613.
constexpr int32_t CMP_IPP_MAX_COLLECTION_DEPTH = 10;

// The status a message past a bound is refused with (RFC 8011 calls 0x0409
// client-error-request-value-too-long).
constexpr uint16_t CMP_IPP_LIMIT_STATUS = 0x0409;

#endif
