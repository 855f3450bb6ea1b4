// The exported operation families. Each entry yields a prototype in the public header
// and a one-line forwarding function in the type's unit. Placeholders in ret, params
// and body: $T type name (a message: its struct name <msg>_message), $D its descriptor;
// in field operations also $F field name, $FD the field's descriptor, $E the field's C
// value type; in message member operations $M the member's name, $MT its C type and
// $MI its position. In a record's ops, also the scalars that get_all reads and set_all
// writes, in schema order: $GET_ALL_PARAMS and $SET_ALL_PARAMS (", <type> name" per
// field: out pointers, values), $GET_ALL_OUTS and $SET_ALL_INS (an array initialiser of
// them, never empty), $GET_ALL_NAMES and $SET_ALL_NAMES (their names, for doc comments).
#pragma once

#include <vector>

#include "model.h"

namespace bixgen {

enum : unsigned {
  kOnRecord = 1,
  kOnEnum = 2,
  kOnFlags = 4,
  kOnLeaf = kOnEnum | kOnFlags,
  kOnAll = 7,  // every type but messages
  kOnMessage = 8,
};

struct OpSpec {
  unsigned kinds;  // which kinds of type get it
  const char *suffix;
  const char *ret;
  const char *params;
  const char *body;
  const char *doc;
};

// Field operations: generated for every field whose kind is in `field_kinds`.
inline constexpr unsigned field_bit(FieldKind k) { return 1u << static_cast<unsigned>(k); }
struct FieldOpSpec {
  unsigned field_kinds;
  const char *suffix;
  const char *ret;
  const char *params;
  const char *body;
  const char *doc;
};

// Operations on each member of a message: named <msg>_message_<member>_<suffix>.
struct MemberOpSpec {
  const char *suffix;
  const char *ret;
  const char *params;
  const char *body;
  const char *doc;
};

// One function per family, each in its own file; ops.cc concatenates them in order.
std::vector<OpSpec> lifecycle_ops();   // ops_lifecycle.cc
std::vector<OpSpec> value_ops();       // ops_values.cc: enumerations and flag sets
std::vector<OpSpec> access_ops();      // ops_fields.cc: whole-record get/set
std::vector<FieldOpSpec> field_ops();  // ops_fields.cc: per-field accessors
std::vector<OpSpec> wire_ops();        // ops_wire.cc: len/marshal/unmarshal
std::vector<OpSpec> whole_ops();       // ops_whole.cc: get_all/set_all, compare, hash
std::vector<OpSpec> clone_ops();       // ops_clone.cc: clone, copy, post-copy, offset_remove
std::vector<OpSpec> text_ops();        // ops_text.cc: print, to_xml, from_xml
std::vector<OpSpec> message_ops();      // ops_messages.cc: the operations of a message
std::vector<MemberOpSpec> member_ops(); // ops_messages.cc: per message member

const std::vector<OpSpec> &type_ops();
// Operations of a type that the type runtime and generated code call rather than
// applications (initialisation in place, offsets, variant plumbing, _unsafe twins, ...):
// the header lists them after the application-facing ones.
bool runtime_facing_op(const char *suffix);
const std::vector<FieldOpSpec> &all_field_ops();
const std::vector<MemberOpSpec> &all_member_ops();

}  // namespace bixgen
