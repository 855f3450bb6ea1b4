// Core family: the text form and the XML form of records.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Text form: the record as a block "name@type: {" ... "}" at `indent`, one line or
// nested block per field, array elements as "name[k]". Characters written.
int32_t record_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, uint32_t indent,
                     const char *name, const void *inst, uint32_t len, uint32_t *err);

// XML form: the element `name` (start tag carrying `state`) with one child per field;
// field state flags are shown while the handle tracks state. Characters written.
int32_t record_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *name, char *buf,
                      const void *inst, uint32_t len, uint8_t state, uint32_t *err);

// Fills inst from the element at `path` of a parsed document. Absent children leave
// their fields as they are; 2 when the element itself is absent.
void record_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *path, void *doc,
                     void *inst, uint32_t *err, char *msg, uint32_t msglen);

}  // namespace bix
