// The library's core: every operation family written once over descriptors.
// Generated per-type units forward here; nothing in this header is exported.
#pragma once

#include <cstdint>
#include <cstring>

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// ---- traces ----
enum class Tm : uint32_t {
#define BIX_TRACE_TABLE(name, luid)
#define BIX_TRACE(id, level, text) id,
#include "trace_main.def"
#undef BIX_TRACE
#undef BIX_TRACE_TABLE
};
// Message traces shared by every message, then those each message has a copy of.
enum class Ts : uint32_t {
#define BIX_TRACE_TABLE(name, luid)
#define BIX_TRACE(id, level, text) id,
#define BIX_TRACE_EACH(id, level, text)
#include "trace_stub.def"
  kSharedCount
#undef BIX_TRACE_EACH
#undef BIX_TRACE
#undef BIX_TRACE_TABLE
};
enum class Te : uint32_t {
#define BIX_TRACE_TABLE(name, luid)
#define BIX_TRACE(id, level, text)
#define BIX_TRACE_EACH(id, level, text) id,
#include "trace_stub.def"
  kRunLength
#undef BIX_TRACE_EACH
#undef BIX_TRACE
#undef BIX_TRACE_TABLE
};

void trace(Tm id);
void trace(Tm id, const char *a);
void trace(Tm id, const char *a, const char *b);
void trace_u(Tm id, uint32_t a, uint32_t b);
void trace_u(Tm id, uint32_t a, uint32_t b, uint32_t c);
void trace(Ts id, const char *a);
void trace(Ts id, const char *a, const char *b);
void trace(Ts id, const char *a, const char *b, const char *c);
void trace_u(Ts id, uint32_t a, uint32_t b);
// A message's own copy of a trace point (its run in the table). The level is the
// table's unless one is given.
void trace(const TypeDesc &msg, Te id);
void trace(const TypeDesc &msg, Te id, const char *a);
void trace(const TypeDesc &msg, Te id, const char *a, const char *b, uint32_t level = ~0u);
void trace(const TypeDesc &msg, Te id, const char *a, const char *b, const char *c);
void trace_u(const TypeDesc &msg, Te id, uint32_t a);
void trace_u(const TypeDesc &msg, Te id, uint32_t a, uint32_t b);
// Emits a fatal trace point and aborts: the handle or a type info record is unusable.
[[noreturn]] void fatal(Tm id);
[[noreturn]] void fatal(Ts id);
[[noreturn]] void fatal(const TypeDesc &msg, Te id);
// Registers the library's trace module; cheap after the first call.
int ensure_trace_module();

// ---- small helpers over raw instances ----
inline uint8_t *bytes(void *p) { return static_cast<uint8_t *>(p); }
inline const uint8_t *bytes(const void *p) { return static_cast<const uint8_t *>(p); }
inline uint8_t hdr_flags(const void *inst) { return bytes(inst)[kHdrFlags]; }
inline int8_t hdr_variant(const void *inst) { return static_cast<int8_t>(bytes(inst)[kHdrVariant]); }

// Announces a store of len bytes at addr through the handle's hook.
inline void notify(wex_handle *h, uint32_t ws, void *addr, uint32_t len) {
  h->notify_write(h->alloc_ctx, addr, len, ws);
}

// Error-slot convention: records the code in the slot and the handle.
inline void store_err(wex_handle *h, uint32_t *err, uint32_t code) {
  if (err) *err = code;
  wex_store_err(h, code);
}

// True when the handle asks for state tracking; a corrupted mode word is fatal.
bool tracking_on(wex_handle *h);

// True when inst is an instance of d: its type info record is d's static record or the
// runtime's registered copy of it (same LUID). False for a null pointer and for a type's
// null instance, whose header is all zero. Every operation that writes or frees an
// instance asks this first, so a cast in the caller cannot make it write past the end.
bool is_instance_of(const TypeDesc &d, const void *inst);
// An instance whose type pointer names another type than d: its memory is not laid out
// as d says, so even reading it at d's offsets may leave its allocation. A type's null
// instance has no type pointer and is not foreign: readers treat it as an instance.
bool foreign_instance(const TypeDesc &d, const void *inst);

// A type info record that every reader may trust, or a fatal trace.
wex_type_info *checked_tinfo(const void *inst);
wex_variant_info *checked_varinfo(const wex_type_info *t);
// The variant entry to count an instance of variant v in (capped, never out of the table).
wex_variant_entry *variant_entry(const TypeDesc &d, wex_variant_info *vi, int8_t v);
void bump_counter(const wex_type_info *t, uint64_t *counter);

// ---- lifecycle of records, enumerations and flag sets ----
void *instance_create(const TypeDesc &d, wex_handle *h, uint32_t ws);
void *instance_create_cr(const TypeDesc &d, wex_handle *h);
void *instance_create_internal(const TypeDesc &d, wex_handle *h, uint32_t ws);
void instance_initialize(const TypeDesc &d, wex_handle *h, uint32_t ws, void *mem,
                         wex_type_info *tinfo, uint32_t notify_on, uint32_t skip_stats,
                         uint8_t flags, void *sttr_base, uint32_t *err);
uint32_t instance_sizeof(const TypeDesc &d, wex_handle *h);
void instance_destroy(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst);
void instance_destroy_internal(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                               uint32_t free_it);
void instance_set_embedded(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst);
int8_t variant_cap(const TypeDesc &d, int8_t v);
uint32_t record_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t n);
uint32_t enum_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t value);
uint32_t flags_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t flag);
// Places the state-tracking area of every record embedded in inst inside the area that
// starts at sttr_base. False, with 12 (the runtime ran out of memory) or 22 in the slot
// and the handle, when the runtime did not take a placement: the member then must not
// be used with tracking on.
bool record_offset_update(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                          uint8_t *sttr_base, uint32_t *err);
// Tells the runtime that inst (of type d) keeps its state-tracking area at `area`, and
// checks that it took it (flag 0x40 and the same offset back); else false as above.
bool place_sttr_area(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint8_t *area,
                     uint32_t *err);

// The internal (wire) value of an enumeration's user value.
uint32_t enum_to_internal(const TypeDesc &d, uint32_t user);

}  // namespace bix

// Further families, one header each.
#include "bix/access.h"
#include "bix/message.h"
#include "bix/text.h"
#include "bix/values.h"
#include "bix/whole.h"
#include "bix/wire.h"
