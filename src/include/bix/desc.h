// Descriptors the generator emits for every type; every operation family in the
// core walks these instead of having per-type code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wex.h"

#define BIX_EXPORT extern "C" __attribute__((visibility("default")))

namespace bix {

// Instance header: type info pointer, variant, variant given at initialise, flags.
inline constexpr uint32_t kHdrVariant = 8;
inline constexpr uint32_t kHdrInitVariant = 9;
inline constexpr uint32_t kHdrFlags = 10;
inline constexpr uint32_t kHdrSize = 11;

inline constexpr uint8_t kFlagOidMapped = 0x01;
inline constexpr uint8_t kFlagEmbedded = 0x02;
inline constexpr uint8_t kFlagNested = 0x04;
inline constexpr uint8_t kFlagTracked = 0x08;
inline constexpr uint8_t kFlagHandleData = 0x20;
inline constexpr uint8_t kFlagSttrOffset = 0x40;
inline constexpr uint8_t kFlagOwnsTypeBlock = 0x80;

inline constexpr uint32_t kEnumValueOffset = 12;
inline constexpr uint32_t kFlagBitsOffset = 11;

enum class Prim : uint8_t { I8, U8, I16, U16, I32, U32 };

constexpr uint32_t prim_size(Prim p) {
  switch (p) {
    case Prim::I8:
    case Prim::U8: return 1;
    case Prim::I16:
    case Prim::U16: return 2;
    default: return 4;
  }
}

enum class FieldKind : uint8_t {
  Prim,         // primitive integer
  Count,        // read-only element count of a variable array
  Enum,         // embedded enumeration instance
  Flags,        // embedded flag-set instance
  Record,       // embedded record instance
  FixedArray,   // fixed array of a primitive
  VarArray,     // variable array of a primitive (pointer to separate storage)
  RecordArray,  // fixed array of embedded record instances
  Selector,     // enumeration field that selects a union alternative
  UnionAlt,     // reference to a separately allocated alternative
};

enum class TypeKind : uint8_t { Record, Enum, Flags, Message };

struct TypeDesc;
namespace fast {
struct FastOps;
}

struct FieldDesc {
  const char *name;
  FieldKind kind;
  Prim prim;              // element primitive of Prim, Count, FixedArray, VarArray
  uint16_t index;         // schema position
  uint32_t offset;        // byte offset inside the instance
  uint32_t count;         // element count of arrays; alternative position (1..7) of UnionAlt
  uint32_t elem_size;     // element size of arrays (primitive width or record fixed size)
  uint32_t sttr;          // the field's own state byte, relative to the area start
  uint32_t sttr_elems;    // first per-element state byte (arrays), or first byte of an
                          // embedded record's own area (Record)
  uint32_t sttr_areas;    // first element area of a RecordArray
  uint32_t sttr_ptr;      // VarArray: offset of the element-state buffer pointer in the area
  const TypeDesc *type;   // member type of Enum, Flags, Record, RecordArray, Selector, UnionAlt
  int16_t link;           // Selector->first alternative index; UnionAlt->selector; VarArray->count
  bool in_get_all;
  bool in_set_all;
  // Fields from this one on that lie back to back in memory with the same primitive
  // (scalars and fixed arrays): without state bytes their encodings are one run of
  // run_elems elements, which a bulk codec handles in one call. 1 when no run starts here.
  uint16_t run_fields;
  uint32_t run_elems;
};

struct LiteralDesc {
  const char *name;
  uint32_t user;
  int8_t since;  // first variant that knows the literal
};

struct MemberDesc {
  const char *name;      // member operation prefix: app_sess_hdr, wex_ipc_shim_hdr, body type
  uint32_t offset;       // offset of the member reference in the message instance
  const TypeDesc *type;  // null for the session header (owned by app_sess)
};

// What a decoded message is handed to: (handle, ws, context, message, error slot).
using MessageHandler = void (*)(wex_handle *, uint32_t, uint64_t, void *, uint32_t *);

// Offset of the 16-byte header record inside every message instance.
inline constexpr uint32_t kMsgHeaderRecord = 16;

struct TypeDesc {
  const char *name;
  TypeKind kind;
  wex_type_info *tinfo;   // the library's static type info record
  void *null_instance;    // zero-filled, never allocated or freed
  uint32_t fixed_size;    // allocation size with tracking off
  uint32_t sttr_size;     // bytes of the state-tracking area
  int8_t latest_variant;
  bool has_embedded;      // holds embedded records whose state areas live in ours
  const FieldDesc *fields;
  uint16_t nfields;
  // enumerations and flag sets
  const LiteralDesc *literals;
  uint16_t nliterals;
  bool shifted;           // wire value = user value - 1 for literal values
  uint8_t nflag_bytes;
  // messages
  const MemberDesc *members;
  uint8_t nmembers;
  // records: encoded length with state bytes off and on, when it does not depend on the
  // instance (no variable array or union anywhere inside); 0 otherwise
  uint32_t wire_len_off;
  uint32_t wire_len_on;
  // messages: the exported message objects, the application's handler (a weak
  // reference, null unless the application defines it) and the message's position
  // among the messages, which selects its run in the message trace table
  const uint8_t *msg_luid;
  const char *msg_name;
  MessageHandler app_handler;
  uint16_t msg_index;
  uint16_t id;                // position in kAllTypes
  const fast::FastOps *fast;  // records: the generated fast path of the wire codec
};

// Generated: every type in registration-list order, null-terminated record list.
extern const TypeDesc *const kAllTypes[];
extern const uint32_t kAllTypesCount;
extern wex_type_info *const kRecordList[];

}  // namespace bix
