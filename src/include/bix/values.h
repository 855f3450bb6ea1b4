// Core family: values of enumerations and flag sets, their text, XML and object queries.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Set's range rule: refused when the internal value (compared unsigned) lies beyond the
// literals that a variant up to the instance's knows. Used by enumeration set/set_value
// and by record fields of enumeration type alike.
bool enum_refuses(const TypeDesc &d, uint32_t user_value, int8_t variant);

// Enumerations
uint32_t enum_get_value(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst, uint32_t *err);
void enum_set_value(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t value,
                    uint32_t *err);
void enum_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, const void *src,
              uint32_t *err);
int32_t enum_compare(const void *a, const void *b);
const char *enum_literal_name(const TypeDesc &d, uint32_t user_value);
int enum_literal_value(const TypeDesc &d, const char *name, uint32_t *user_value);
uint32_t enum_hash(const void *inst, uint32_t seed);

// Flag sets
int32_t flags_get_value(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst,
                        uint32_t flag, uint32_t *err);
void flags_set_value(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t flag,
                     uint32_t on, uint32_t *err);
void flags_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, const void *src,
               uint32_t *err);
int32_t flags_compare(const TypeDesc &d, const void *a, const void *b);
uint32_t flags_hash(const TypeDesc &d, const void *inst, uint32_t seed);

// Both
void leaf_adjust_variant(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err);
int32_t leaf_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, uint32_t indent,
                   const char *name, const void *inst, uint32_t len, uint32_t *err);
int32_t leaf_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *name, char *buf,
                    const void *inst, uint32_t len, uint32_t *err);
void leaf_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *path, void *doc,
                   void *inst, uint32_t *err, char *msg, uint32_t msglen);

// Object queries shared by every type: no type here holds object ids or table references.
uint32_t get_oid_count(wex_handle *h, uint32_t ws, const void *inst, uint32_t *err);
void get_object_references(wex_handle *h, uint32_t ws, const void *inst, uint32_t *err);

// The _cr convention for text forms: 0 when an error is pending, -1 when one is after.
template <typename Fn>
int32_t cr_text(wex_handle *h, Fn &&fn) {
  if (h->error) return 0;
  int32_t n = fn(&h->error);
  return h->error ? -1 : n;
}

}  // namespace bix
