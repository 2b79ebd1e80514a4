// The default IPP dictionary: the attribute, alternate-type, 1setOf, operation
// and status tables that a printer build installs into the library's registry
// before it starts the IPP service. The tables are constant data with static
// storage, so installing them allocates nothing and they outlive every request.
#ifndef CMP_IPP_DICTIONARY_H
#define CMP_IPP_DICTIONARY_H

#include <stdint.h>

#include "attr/cmp_ipp_ipptable.h"

#ifdef __cplusplus
extern "C" {
#endif

// Writes the five table pointers and counts into the registry singleton.
// Call once, before the service starts: the lookups read the tables without
// locks. Calling it again installs the same tables and changes nothing.
void cmp_ipp_dictionary_install(void);

// The tables themselves, each with its row count stored through count.
const cmp_ipp_attr_row_t* cmp_ipp_dictionary_attr_table(int16_t* count);
const cmp_ipp_alt_type_row_t* cmp_ipp_dictionary_alt_type_table(int16_t* count);
const uint16_t* cmp_ipp_dictionary_onesetof_table(int16_t* count);
const cmp_ipp_operation_row_t* cmp_ipp_dictionary_operation_table(int16_t* count);
const cmp_ipp_status_row_t* cmp_ipp_dictionary_status_table(int16_t* count);

#ifdef __cplusplus
}
#endif

#endif
