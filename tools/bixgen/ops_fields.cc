// Field accessors of records, by field kind, and the whole-record get/set. Each line
// forwards to the one core body of its kind in src/types/access*.cc. Besides the
// placeholders of ops.h, $S is what one element or member is stored as: the member
// type for enumeration, flag-set, record and alternative fields, else the primitive.
#include "ops.h"

namespace bixgen {

namespace {

constexpr unsigned bit(FieldKind k) { return field_bit(k); }

// Readable scalars: primitives, the count of a variable array, enumerations, selectors.
constexpr unsigned kScalar =
    bit(FieldKind::Prim) | bit(FieldKind::Count) | bit(FieldKind::Enum) | bit(FieldKind::Selector);
// Writable scalars: all of the above but the count, which only the array changes.
constexpr unsigned kScalarSet = kScalar & ~bit(FieldKind::Count);
// Fields with exactly one state byte of their own.
constexpr unsigned kOwnState =
    kScalarSet | bit(FieldKind::Flags) | bit(FieldKind::Record) | bit(FieldKind::UnionAlt);
// Arrays of primitives.
constexpr unsigned kPrimArray = bit(FieldKind::FixedArray) | bit(FieldKind::VarArray);
// Fields with a whole state byte and one state byte per element.
constexpr unsigned kElemState = kPrimArray | bit(FieldKind::RecordArray);

constexpr unsigned kVar = bit(FieldKind::VarArray);
constexpr unsigned kRecArray = bit(FieldKind::RecordArray);
constexpr unsigned kAlt = bit(FieldKind::UnionAlt);
constexpr unsigned kMember = bit(FieldKind::Flags) | bit(FieldKind::Record);

#define HWS "wex_handle *h, uint32_t ws, $T *inst"

}  // namespace

std::vector<OpSpec> access_ops() {
  return {
      {kOnRecord, "get", "$T *", "wex_handle *h, uint32_t ws, $T *inst, uint32_t *err",
       "(void)h; (void)ws; (void)err; return inst;",
       "The instance itself; no check, whatever the error slot holds."},
      {kOnRecord, "set", "void", "wex_handle *h, uint32_t ws, $T *dst, $T *src, uint32_t *err",
       "bix::record_set($D, h, ws, dst, src, err);",
       "Copy src over dst with its state bytes; dst takes over src's alternatives and "
       "variable storage. Runs whatever the error slot holds."},
  };
}

std::vector<FieldOpSpec> field_ops() {
  return {
      // scalars
      {kScalar, "get", "$S *", HWS ", uint32_t *err",
       "return static_cast<$S *>(bix::scalar_get($D, $FD, h, ws, inst, err));",
       "Address of the field (an enumeration field: its embedded instance), or NULL."},
      {kScalar, "get_value", "$E", HWS ", uint32_t *err",
       "return static_cast<$E>(bix::scalar_get_value($D, $FD, h, ws, inst, err));",
       "The field's value; 0 on failure."},
      {kScalarSet, "set", "void", HWS ", const $S *src, uint32_t *err",
       "bix::scalar_set($D, $FD, h, ws, inst, src, err);",
       "Store the value at src (an enumeration field: a whole enumeration instance)."},
      {kScalarSet, "set_value", "void", HWS ", $E value, uint32_t *err",
       "bix::scalar_set_value($D, $FD, h, ws, inst, static_cast<uint32_t>(value), err);",
       "Store value; enumerations refuse values their variant does not know (43)."},

      // embedded records and flag sets
      {kMember, "get", "$S *", HWS ", uint32_t *err",
       "return static_cast<$S *>(bix::member_get($D, $FD, h, ws, inst, err));",
       "Address of the embedded member, or NULL."},
      {bit(FieldKind::Record), "set", "void", HWS ", $S *src, uint32_t *err",
       "bix::member_set($D, $FD, h, ws, inst, src, err);",
       "Copy src into the member through its type's set (src gives up what it owns)."},
      {bit(FieldKind::Flags), "set", "void", HWS ", const $S *src, uint32_t *err",
       "bix::member_set($D, $FD, h, ws, inst, const_cast<$S *>(src), err);",
       "Copy the flag set at src into the member."},

      // union alternatives
      {kAlt, "get", "$S *", HWS ", uint32_t *err",
       "return static_cast<$S *>(bix::alt_get($D, $FD, h, ws, inst, err));",
       "The alternative as stored (possibly NULL), lent; the selector is not consulted."},
      {kAlt, "get_detach", "$S *", HWS ", uint32_t *err",
       "return static_cast<$S *>(bix::alt_get_detach($D, $FD, h, ws, inst, err));",
       "When selected: the alternative, now the caller's, and the selector reset to 0."},
      {kAlt, "set", "void", HWS ", $S *member, uint32_t *err",
       "bix::alt_set($D, $FD, h, ws, inst, member, err);",
       "Store member (now owned by inst) and select it; the slot's previous member is kept."},
      {kAlt, "set_cr", "uint32_t", "wex_handle *h, $T *inst, $S *member",
       "bix::alt_set($D, $FD, h, h->default_ws, inst, member, &h->error); return h->error;",
       "set with the handle's default_ws and error; returns that error."},

      // the field's own state byte
      {kOwnState, "state_flag_get", "uint8_t", HWS ", uint32_t *err",
       "return bix::state_get($D, $FD, h, ws, inst, err);", "The field's state byte."},
      {kOwnState, "state_flag_set", "void", HWS ", uint8_t value, uint32_t *err",
       "bix::state_set($D, $FD, h, ws, inst, value, err);", "Store value in the field's state byte."},

      // arrays of primitives
      {kPrimArray, "get", "$S *", HWS ", uint32_t index, uint32_t *err",
       "return static_cast<$S *>(bix::array_get($D, $FD, h, ws, inst, index, err));",
       "Address of element index, or NULL (2 when out of range)."},
      {kPrimArray, "get_value", "$E", HWS ", uint32_t index, uint32_t *err",
       "return static_cast<$E>(bix::array_get_value($D, $FD, h, ws, inst, index, err));",
       "Element index; 0 on failure."},
      {kPrimArray, "get_mem", "void", HWS ", $E *dst, int32_t n, uint32_t *err",
       "bix::array_get_mem($D, $FD, h, ws, inst, dst, n, err);",
       "Copy the first n elements to dst (22 when n exceeds the length)."},
      {kPrimArray, "set", "void", HWS ", uint32_t index, const $E *src, uint32_t *err",
       "bix::array_set($D, $FD, h, ws, inst, index, src, err);",
       "Store the value at src into element index (a variable array grows to reach it)."},
      {kPrimArray, "set_value", "void", HWS ", uint32_t index, $E value, uint32_t *err",
       "bix::array_set_value($D, $FD, h, ws, inst, index, static_cast<uint32_t>(value), err);",
       "Store value into element index (a variable array grows to reach it)."},
      {kPrimArray, "set_mem", "void", HWS ", const $E *src, int32_t n, uint32_t *err",
       "bix::array_set_mem($D, $FD, h, ws, inst, src, n, err);",
       "Write the first n elements (a variable array: replace it by these n)."},
      {kPrimArray, "set_mem_cr", "uint32_t", "wex_handle *h, $T *inst, const $E *src, int32_t n",
       "bix::array_set_mem($D, $FD, h, h->default_ws, inst, src, n, &h->error); return h->error;",
       "set_mem with the handle's default_ws and error; returns that error."},
      {kVar, "set_cr", "uint32_t", "wex_handle *h, $T *inst, uint32_t index, $E value",
       "bix::array_set($D, $FD, h, h->default_ws, inst, index, &value, &h->error); return h->error;",
       "set of value with the handle's default_ws and error; returns that error."},
      {kVar, "remove_elements", "void", HWS,
       "bix::var_array_remove($D, $FD, h, ws, inst);",
       "Release the element storage; the count becomes 0, state bytes stay."},

      // arrays of records
      {kRecArray, "get", "$S *", HWS ", uint32_t index, uint32_t *err",
       "return static_cast<$S *>(bix::record_array_get($D, $FD, h, ws, inst, index, err));",
       "Element index in place, or NULL (2 when out of range)."},
      {kRecArray, "set", "void", HWS ", uint32_t index, $S *src, uint32_t *err",
       "bix::record_array_set($D, $FD, h, ws, inst, index, src, err);",
       "Copy src into element index through the element type's set; NULL src: nothing."},

      // per-element and whole state bytes of arrays
      {kElemState, "state_flag_get", "uint8_t", HWS ", uint32_t index, uint32_t *err",
       "return bix::elem_state_get($D, $FD, h, ws, inst, index, err);",
       "State byte of element index."},
      {kElemState, "state_flag_set", "void", HWS ", uint32_t index, uint8_t value, uint32_t *err",
       "bix::elem_state_set($D, $FD, h, ws, inst, index, value, err);",
       "Store value in the state byte of element index."},
      {kElemState, "state_flag_get_arr", "void", HWS ", uint8_t **out, uint32_t *err",
       "bix::elem_state_get_arr($D, $FD, h, ws, inst, out, err);",
       "Store the address of the element state bytes in *out."},
      {kElemState, "state_flag_set_arr", "void", HWS ", const uint8_t *src, uint32_t n, uint32_t *err",
       "bix::elem_state_set_arr($D, $FD, h, ws, inst, src, n, err);",
       "Copy exactly one state byte per element from src (2 for any other n)."},
      {kElemState, "state_flag_whole_get", "uint8_t", HWS ", uint32_t *err",
       "return bix::whole_state_get($D, $FD, h, ws, inst, err);", "The array's whole state byte."},
      {kElemState, "state_flag_whole_set", "void", HWS ", uint8_t value, uint32_t *err",
       "bix::whole_state_set($D, $FD, h, ws, inst, value, err);",
       "Store value in the array's whole state byte."},
  };
}

#undef HWS

}  // namespace bixgen
