// Constant-time lookups into the registry's tables (private to the library).
// Every answer is the row a front-to-back scan would take first; a miss is null.
// The index behind them is built on first use and rebuilt whenever the ten
// table fields of the registry change or reindex() is called.
#ifndef CMP_IPP_IPPTABLE_INDEX_H
#define CMP_IPP_IPPTABLE_INDEX_H

#include <stddef.h>
#include <stdint.h>

#include "attr/cmp_ipp_ipptable.h"

namespace cmp_ipp_registry {

// First attribute row whose name is exactly the len bytes at name.
const cmp_ipp_attr_row_t* attrByName(const char* name, size_t len);
const cmp_ipp_attr_row_t* attrById(uint16_t id);
// First attribute row with this identifier and this value tag.
const cmp_ipp_attr_row_t* attrByIdTag(uint16_t id, int tag);
const cmp_ipp_alt_type_row_t* altTypeById(uint16_t id);
bool isOneSetOf(uint16_t id);
const cmp_ipp_operation_row_t* operationById(uint16_t id);
const cmp_ipp_status_row_t* statusByCode(uint16_t code);

// Changes whenever the index is rebuilt, so that anything holding answers of
// the registry (names of attributes, say) knows when to drop them.
uint32_t serial();

}  // namespace cmp_ipp_registry

#endif
