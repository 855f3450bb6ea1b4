/*
 * wex.h - reference type runtime.
 *
 * The runtime underneath generated message libraries: the handle with its
 * allocator and hooks, the error store, the type registry, domains and
 * variants, instance statistics, state-tracking offsets, object mappings,
 * the byte form of instance prefix items, the message header and the six
 * primitive integer codecs, text and XML writers, XML document queries
 * (libxml2) and the message recorder.
 *
 * Conventions
 * -----------
 * - Every operation with an error slot (`uint32_t *err`) does nothing and
 *   returns its neutral result (0 / NULL) when *err is already nonzero.
 *   Exceptions, which work on and never replace a pending code with their
 *   own: end_tag, so that XML rendered up to a failure stays well formed,
 *   the four instance prefix items (variant, flags, ra, jump), so that
 *   a record keeps its framing after a failure, and <prim>_set_value, so
 *   that a record's set_all still stores the fields after a refused one.
 * - The runtime's own failures go into the slot and into the handle's
 *   private last-error store; only wex_store_err() writes `h->error`.
 * - Nothing reads or writes outside the given room/length.
 *
 * Error codes (errno numbers, so strerror() renders them)
 * -------------------------------------------------------
 *   2  WEX_ERR_ABSENT     XML element or path absent
 *  12  WEX_ERR_NOMEM      allocation failed
 *  22  WEX_ERR_INVALID    null/invalid argument, malformed XML path, bad XML text
 *  34  WEX_ERR_RANGE      XML value out of range for the primitive's width
 *  43  WEX_ERR_VARIANT    (library) variant not usable
 *  52  WEX_ERR_DOMAIN     (library) message not admitted by the domain
 *  74  WEX_ERR_TRUNCATED  decoder input shorter than the item, or malformed header
 *  90  WEX_ERR_NOROOM     encoder / writer room too small
 *
 * Wire forms (integers in network byte order)
 * -------------------------------------------
 *   variant item   1 byte, signed
 *   flags item     1 byte
 *   jump item      4 bytes, u32
 *   ra item        9 bytes: u64 value, then one byte
 *   int8/u_int8 1 byte, int16/u_int16 2 bytes, int32/u_int32 4 bytes
 *     (signed values in two's complement)
 *
 * Message header (27 bytes), written from / read into the 16-byte header
 * record that every message object carries (record bytes: 0 marker 0xBC,
 * 1..6 0xFF, 7 tracking flag, 8..11 stamp and 12..15 total length, the
 * last two u32 in host order, not necessarily aligned):
 *
 *   offset width content
 *    0      1    record byte 0 (marker)
 *    1      6    record bytes 1..6
 *    7      1    record byte 7 (sender tracks state: 1, else 0)
 *    8      1    header format version, WEX_MESSAGE_HEADER_VERSION (1)
 *    9      2    header length, 27 (u16)
 *   11      4    stamp (u32)
 *   15      4    total message length, header included (u32)
 *   19      8    reserved, zero
 *
 * The decoder rejects (74) a header whose version or header length differ,
 * or whose total length is below 27 or beyond the bytes given.
 *
 * Text forms
 * ----------
 *   wex_print_space(n)    n blanks
 *   <prim>_print          <indent blanks>name@<prim>:<decimal>\n
 *                         e.g. "  is_present@u_int8:1\n", "  t@int16:-5\n"
 *   start_tag             <name>\n            state 0
 *                         <name state="S">\n  state S != 0
 *   end_tag               </name>\n
 *   start_tag_timestamp   <name timestamp="YYYY-MM-DDThh:mm:ss.uuuuuuZ">\n (UTC)
 *   <prim>_to_xml         <name>V</name>\n or <name state="S">V</name>\n
 *   xml_enum_print        the text as given
 * All writers NUL-terminate when room > 0 and return the characters stored
 * (never more than room - 1). When the text does not fit they store what
 * fits and report 90.
 *
 * XML queries
 * -----------
 * Paths are XPath over documents from wex_xml_doc_parse(); the library
 * uses "a/b", "a/b[k]" (k counted from 1) and a leading "//". Element text
 * is the node's text content. <prim>_from_xml accepts optional blanks
 * around an optional '-' and decimal digits; anything else is 22, a value
 * outside the width is 34, an absent element 2; on 22/34 a description is
 * written into the caller's message buffer.
 */
#ifndef WEX_H
#define WEX_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(__GNUC__)
#define WEX_API __attribute__((visibility("default")))
#define WEX_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define WEX_API
#define WEX_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
#define WEX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define WEX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define WEX_TYPE_INFO_MAGIC 0xbeeff00du
#define WEX_STTR_ON 0xEEEEu
#define WEX_STTR_OFF 0xDDDDu

#define WEX_ERR_ABSENT 2u
#define WEX_ERR_NOMEM 12u
#define WEX_ERR_INVALID 22u
#define WEX_ERR_RANGE 34u
#define WEX_ERR_VARIANT 43u
#define WEX_ERR_DOMAIN 52u
#define WEX_ERR_TRUNCATED 74u
#define WEX_ERR_NOROOM 90u

/* Instance header flag bits (byte 10). */
#define WEX_OBJ_FLAG_OID 0x01u
#define WEX_OBJ_FLAG_EMBEDDED 0x02u
#define WEX_OBJ_FLAG_NESTED 0x04u
#define WEX_OBJ_FLAG_STTR 0x08u
#define WEX_OBJ_FLAG_HD 0x20u
#define WEX_OBJ_FLAG_STTR_OFFSET 0x40u
#define WEX_OBJ_FLAG_OWNS_TYPE 0x80u

#define WEX_INSTANCE_VARIANT_SIZE 1u
#define WEX_INSTANCE_OBJ_FLAG_SIZE 1u
#define WEX_INSTANCE_RA_DATA_SIZE 9u
#define WEX_VARIANT_JUMP_SIZE 4u
#define WEX_MESSAGE_HEADER_SIZE 27u
#define WEX_MESSAGE_HEADER_RECORD_SIZE 16u
#define WEX_MESSAGE_HEADER_VERSION 1u

/* Registered copies of type info records are this large (272 + 16 zero). */
#define WEX_TYPE_INFO_COPY_SIZE 288u
/* Single requests above this are refused by the default allocator. */
#define WEX_DEFAULT_ALLOC_LIMIT (64u * 1024u * 1024u)
/* Size of the per-handle scratch buffer of wexlib_get_handle_ws(). */
#define WEX_HANDLE_WS_SIZE (64u * 1024u)

/* ---- Records shared with generated libraries ---------------------------- */

typedef struct wex_sttr_profile {
  uint32_t tracking_mode; /* WEX_STTR_ON or WEX_STTR_OFF */
} wex_sttr_profile;

typedef struct wex_variant_entry {
  uint32_t variant;
  uint32_t used_length;
  uint32_t alloc_slop;
  uint32_t reserved;
  uint64_t created;
  uint64_t destroyed;
  uint64_t reserved2;
} wex_variant_entry;

typedef struct wex_variant_info {
  int8_t count;
  uint8_t pad[7];
  wex_variant_entry *entries;
} wex_variant_info;

typedef struct wex_type_info {
  uint32_t magic; /* WEX_TYPE_INFO_MAGIC */
  uint8_t luid[16];
  char luid_text[33]; /* 32 lower-case hex digits, NUL */
  char type_name[64];
  char module_name[64];
  char kind[64]; /* "type", "enum", "flag", "message" */
  uint8_t zero245[3];
  uint32_t reg_marker; /* 0xFFFFFFFF */
  uint32_t zero252;
  wex_variant_info *variant_info;
  uint32_t indirect; /* registered copies: the handle's types_indirect */
  uint32_t zero268;
} wex_type_info;

typedef struct wex_module_desc {
  const char *name;
  wex_type_info *const *types; /* NULL-terminated */
  struct wex_module_desc *next;
  struct wex_module_desc **prev_link;
} wex_module_desc;

/* Tail queue of linked modules; last_link is &first while empty. */
typedef struct wex_module_root {
  uint32_t count;
  uint32_t pad;
  wex_module_desc *first;
  wex_module_desc **last_link;
} wex_module_root;

WEX_API extern wex_module_root wex_module_tot_root;

/* Which variant of each type a handle speaks and which messages it admits. */
struct wex_domain_state;
typedef struct wex_domain {
  struct wex_domain_state *state; /* owned by the handle; NULL: defaults */
} wex_domain;

typedef struct wex_handle {
  void *(*allocate)(void *alloc_ctx, uint32_t ws, uint32_t size);
  void (*release)(void *alloc_ctx, uint32_t ws, void *p);
  void (*notify_write)(void *alloc_ctx, void *addr, uint32_t len, uint32_t ws);
  void (*notify_count)(void *alloc_ctx, void *addr, uint32_t one, uint32_t ws);
  void *alloc_ctx;
  void *(*type_alloc)(void *type_alloc_ctx, uint32_t ws, uint32_t size);
  void *type_alloc_ctx;
  wex_type_info *(*type_lookup)(void *type_registry, uint32_t ws, const char *luid_text);
  void (*type_register)(void *type_registry, uint32_t ws, const char *luid_text,
                        wex_type_info *rec);
  void *type_registry;
  uint32_t types_indirect;
  wex_domain domain;
  uint32_t error;
  uint32_t default_ws;
  uint32_t cr_create;
  wex_sttr_profile *sttr_profile;
  uintptr_t hd_mapping;
  uint32_t bundle;
  uint32_t header_stamp;
  const char *domain_name;
  /* Runtime-private state (last error, offsets, mappings, scratch buffer,
   * allocation limit). NULL in handles not made by wex_handle_new(); such
   * handles get no last-error store, offsets, mappings or scratch buffer.
   * Without an offset store, wexlib_update_sttr_offset places nothing: a
   * library that nests state-tracking areas (records embedded in records)
   * must then refuse to create such records with tracking on. Use
   * wex_handle_new() and change its members instead of building a handle. */
  void *priv;
} wex_handle;

WEX_STATIC_ASSERT(sizeof(wex_variant_entry) == 40, "variant entry is 40 bytes");
WEX_STATIC_ASSERT(sizeof(wex_variant_info) == 16, "variant info is 16 bytes");
WEX_STATIC_ASSERT(offsetof(wex_variant_info, entries) == 8, "entries at 8");
WEX_STATIC_ASSERT(sizeof(wex_type_info) == 272, "type info is 272 bytes");
WEX_STATIC_ASSERT(offsetof(wex_type_info, luid) == 4, "luid at 4");
WEX_STATIC_ASSERT(offsetof(wex_type_info, luid_text) == 20, "luid_text at 20");
WEX_STATIC_ASSERT(offsetof(wex_type_info, type_name) == 53, "type_name at 53");
WEX_STATIC_ASSERT(offsetof(wex_type_info, module_name) == 117, "module_name at 117");
WEX_STATIC_ASSERT(offsetof(wex_type_info, kind) == 181, "kind at 181");
WEX_STATIC_ASSERT(offsetof(wex_type_info, zero245) == 245, "zero245 at 245");
WEX_STATIC_ASSERT(offsetof(wex_type_info, reg_marker) == 248, "reg_marker at 248");
WEX_STATIC_ASSERT(offsetof(wex_type_info, zero252) == 252, "zero252 at 252");
WEX_STATIC_ASSERT(offsetof(wex_type_info, variant_info) == 256, "variant_info at 256");
WEX_STATIC_ASSERT(offsetof(wex_type_info, indirect) == 264, "indirect at 264");
WEX_STATIC_ASSERT(offsetof(wex_type_info, zero268) == 268, "zero268 at 268");
WEX_STATIC_ASSERT(sizeof(wex_module_desc) == 32, "module descriptor is 32 bytes");
WEX_STATIC_ASSERT(offsetof(wex_module_root, first) == 8, "first at 8");
WEX_STATIC_ASSERT(offsetof(wex_module_root, last_link) == 16, "last_link at 16");

/* ---- Handle control ----------------------------------------------------- */

/* A handle with malloc-based allocate/release, no-op hooks, its own type
 * registry (copies freed by wex_handle_free), a default domain named
 * "default", no state-tracking profile and default_ws 0. NULL on OOM.
 * alloc_ctx may be pointed at the caller's own data (to observe the hooks)
 * while keeping the default allocate; that one then applies the default
 * limit instead of the handle's. */
WEX_API wex_handle *wex_handle_new(void);
WEX_API void wex_handle_free(wex_handle *h);
/* Change tracking on (nonzero) or off for everything made through the
 * handle from now on: points h->sttr_profile at a profile the handle owns
 * (freed with it). Call it right after wex_handle_new(), before creating
 * any instance: an instance keeps the mode it was created in, so one made
 * untracked has no state bytes and, once tracking is on, its setters store
 * the value and then fail with 22. With tracking on, every accessor write
 * (set, set_value, set_mem, ...) marks the field's state byte with 2, a
 * decode copies the sender's state bytes when the sender tracked too, and
 * the state_flag_* operations read or set the bytes directly; writing a
 * struct member directly is not tracked. A handle not made by
 * wex_handle_new() is left as it is. */
WEX_API void wex_handle_set_tracking(wex_handle *h, int on);
/* The default allocate returns NULL for single requests above `bytes`
 * (0 restores WEX_DEFAULT_ALLOC_LIMIT). Also bounds type_alloc. */
WEX_API void wex_handle_set_alloc_limit(wex_handle *h, uint32_t bytes);
/* What wex_domain_lookup_variant answers for the type (clamped to -128..127). */
WEX_API void wex_domain_set_variant(wex_handle *h, const char *type_luid_text, int variant);
/* Default: every message is allowed. */
WEX_API void wex_domain_set_message_allowed(wex_handle *h, const char *msg_luid_text, int allowed);
/* Answer of wexlib_suppress_messages_enabled(); default 0. */
WEX_API void wex_set_suppress_messages(wex_handle *h, int enabled);

/* Object mappings, as the runtime would set them up for an instance. */
/* Sets flag 0x01 in byte 10 and remembers `refs` outstanding references. */
WEX_API void wex_oid_mapping_create(wex_handle *h, void *inst, uint32_t refs);
WEX_API void wex_oid_mapping_drop_ref(wex_handle *h, void *inst);
WEX_API int wex_oid_mapping_exists(wex_handle *h, const void *inst);
/* Sets flag 0x20 in byte 10 and remembers a handle-data mapping. */
WEX_API void wex_hd_mapping_create(wex_handle *h, void *inst);
WEX_API int wex_hd_mapping_exists(wex_handle *h, const void *inst);
/* The next oid or hd mapping destroy fails: it writes `code` into its
 * error slot, records it as last error and removes nothing. */
WEX_API void wex_mapping_fail_next(wex_handle *h, uint32_t code);
/* The n-th state-tracking offset store from now (1: the next one) fails as
 * if memory ran out; 0 disarms. */
WEX_API void wex_sttr_offset_fail_at(wex_handle *h, uint32_t n);

/* ---- Errors ------------------------------------------------------------- */

/* Clears the private last error only; h->error is left alone. */
WEX_API void wex_clear_last_error(wex_handle *h);
/* Records `code` as last error and writes it into h->error. */
WEX_API void wex_store_err(wex_handle *h, uint32_t code);
/* Records `code` as last error and writes it into *err (when err != NULL). */
WEX_API void wex_store_epoch_err(wex_handle *h, uint32_t code, uint32_t *err);
WEX_API uint32_t wex_get_last_error(wex_handle *h);

/* ---- Type info, variants and domains ------------------------------------ */

typedef void (*wex_module_init_fn)(wex_handle *h, uint32_t ws, uint32_t *err);

/* The registered copy of `static_rec` (looked up by its LUID text). When it
 * is missing, `module_init` (if any) is called once to register the module
 * and the lookup repeated; `static_rec` itself when still missing. */
WEX_API wex_type_info *wex_type_info_ptr_get(wex_handle *h, uint32_t ws, wex_type_info *static_rec,
                                             wex_module_init_fn module_init);
/* Bytes 0..7 of the instance; NULL for a NULL instance. */
WEX_API wex_type_info *wex_get_manifested_type_info(const void *instance);
/* Address of that word; NULL for a NULL instance. */
WEX_API wex_type_info **wex_get_manifested_type_info_ptr_mem(void *instance);
/* The variant set with wex_domain_set_variant for the type's LUID text,
 * else the type's latest (variant count - 1; 0 without a table).
 * NULL tinfo: 22 and -1. Answers whatever *err holds. */
WEX_API int8_t wex_domain_lookup_variant(wex_handle *h, wex_domain *domain,
                                         const wex_type_info *tinfo, uint32_t *err);
/* Nonzero unless refused with wex_domain_set_message_allowed. NULL tinfo: 22, 0. */
WEX_API int wex_domain_lookup_message_ok(wex_handle *h, wex_domain *domain,
                                         const wex_type_info *tinfo, uint32_t *err);
/* Byte 8 of the instance (any a, b); -1 for a NULL instance. */
WEX_API int8_t wex_get_instance_variant(const void *instance, uint32_t a, uint32_t b);
/* Byte 10 of the instance (any a, b); 0 for a NULL instance. */
WEX_API uint8_t wex_get_instance_obj_flag(const void *instance, uint32_t a, uint32_t b);
/* One layout per type here: checks its arguments (22 for a type info
 * record without magic) and leaves the instance as it is. NULL instance:
 * nothing. */
WEX_API void wexlib_adjust_variant(wex_handle *h, uint32_t ws, void *instance,
                                   const wex_type_info *tinfo, int8_t latest, uint32_t *err);
/* Points the registered copy at the static record's variant table, so the
 * counters read through either record are the same ones. */
WEX_API void wex_update_variant_info(wex_handle *h, uint32_t ws, wex_type_info *registered,
                                     const wex_type_info *static_rec, uint32_t is_new);
/* Copies the 16 LUID bytes of the instance's type info record. Returns 0,
 * or the code also written to *err: 22 for a NULL instance/output or a
 * type pointer without magic; a pending *err is returned unchanged. */
WEX_API uint32_t wex_get_luid(wex_handle *h, uint32_t ws, const void *instance,
                              uint8_t luid_out[16], uint32_t *err);
/* The handle's scratch buffer (WEX_HANDLE_WS_SIZE bytes, allocated on first
 * use, freed with the handle). *buf NULL and *len 0 when unavailable. */
WEX_API void wexlib_get_handle_ws(wex_handle *h, void **buf, uint32_t *len);

/* ---- Statistics, state tracking and object mappings --------------------- */

/* Count one creation / destruction in the u64 at `counters` (destroyed is
 * the u64 right after it). Atomic unless tinfo->indirect is nonzero. NULL
 * counters: nothing. Counting does not depend on *err. */
WEX_API void wexlib_type_stats_create_object(wex_handle *h, uint32_t ws, const wex_type_info *tinfo,
                                             void *counters, uint32_t *err);
WEX_API void wexlib_type_stats_destroy_object(wex_handle *h, uint32_t ws,
                                              const wex_type_info *tinfo, void *counters,
                                              uint32_t *err);
/* The offset remembered for the instance, 0 when none. */
WEX_API uint32_t wexlib_get_sttr_offset(wex_handle *h, uint32_t ws, const void *instance);
/* Remembers the offset and sets flag 0x40 in the member's byte 10. When it
 * cannot (out of memory: last error WEX_ERR_NOMEM; a handle without offset
 * store: nothing recorded) the flag is not set, which is how a caller
 * tells: it must check the flag afterwards. */
WEX_API void wexlib_update_sttr_offset(wex_handle *h, uint32_t ws, void *member, uint32_t offset);
/* Nonzero when the mapping was removed (or there was none, the flag 0x01
 * is then cleared), 0 while references remain. */
WEX_API uint32_t wex_request_oid_mapping_destroy(wex_handle *h, uint32_t ws, void *instance,
                                                 uint32_t *err);
/* Removes the instance's handle-data mapping, if any. Returns 0 or the
 * code written into *err. */
WEX_API uint32_t wex_hd_mapping_destroy(wex_handle *h, uint32_t ws, void *instance, uint32_t *err);

/* ---- Instance prefix items and message header ---------------------------
 * Writers take (handle, ws, where to write, value address, room, err) and
 * return the bytes written: 0 and 90 when the room is too small, 22 for
 * NULL pointers. Readers take (handle, ws, where to read, value address,
 * bytes left, err) and return the bytes read: 0 and 74 when too few
 * bytes are left. The prefix items work whatever *err holds (see the
 * conventions above); the message header does not. */
WEX_API uint32_t _wex_instance_variant_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                               const int8_t *variant, int32_t room, uint32_t *err);
WEX_API uint32_t _wex_instance_variant_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                                 int8_t *variant, int32_t len, uint32_t *err);
WEX_API uint32_t _wex_instance_obj_flag_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                                const uint8_t *flags, int32_t room, uint32_t *err);
WEX_API uint32_t _wex_instance_obj_flag_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                                  uint8_t *flags, int32_t len, uint32_t *err);
WEX_API uint32_t _wex_instance_ra_data_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                               const uint64_t *value, const uint8_t *byte,
                                               int32_t room, uint32_t *err);
WEX_API uint32_t _wex_instance_ra_data_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                                 uint64_t *value, uint8_t *byte, int32_t len,
                                                 uint32_t *err);
WEX_API uint32_t _wex_variant_jump_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                           const uint32_t *jump, int32_t room, uint32_t *err);
WEX_API uint32_t _wex_variant_jump_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                             uint32_t *jump, int32_t len, uint32_t *err);
/* header_record: the 16-byte record described at the top of this file. */
WEX_API uint32_t _wex_message_header_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                             const void *header_record, int32_t room,
                                             uint32_t *err);
WEX_API uint32_t _wex_message_header_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                               void *header_record, int32_t len, uint32_t *err);

/* ---- Byte form (optional capability) -------------------------------------
 * What the items above look like, declared so that a generated library may
 * write and read whole records itself instead of calling the writers and
 * readers item by item. A library that finds no declaration (an older
 * runtime, or wex_byte_form_get() answering NULL), or one whose form it does
 * not know, keeps calling the items; both give the same bytes. Libraries
 * refer to wex_byte_form_get and wex_domain_generation weakly.
 *
 * This runtime declares: network byte order, variant and flags items of one
 * byte, a 4-byte jump, a 9-byte ra item, primitives of 1, 1, 2, 2, 4 and 4
 * bytes in two's complement, and instance headers read directly
 * (wex_get_instance_variant and wex_get_instance_obj_flag answer header bytes
 * 8 and 10, wex_get_manifested_type_info_ptr_mem the instance address).
 */
#define WEX_BYTE_FORM_VERSION 1u
#define WEX_BYTE_ORDER_BIG 1u
#define WEX_BYTE_ORDER_LITTLE 2u

typedef struct wex_byte_form {
  uint32_t version;        /* WEX_BYTE_FORM_VERSION */
  uint8_t byte_order;      /* of every multi-byte item and primitive */
  uint8_t variant_size;    /* WEX_INSTANCE_VARIANT_SIZE */
  uint8_t flags_size;      /* WEX_INSTANCE_OBJ_FLAG_SIZE */
  uint8_t jump_size;       /* WEX_VARIANT_JUMP_SIZE */
  uint8_t ra_size;         /* WEX_INSTANCE_RA_DATA_SIZE */
  uint8_t prim_size[6];    /* int8, u_int8, int16, u_int16, int32, u_int32 */
  uint8_t twos_complement; /* signed primitives */
  uint8_t header_direct;   /* instance header queries read bytes 0..10 */
  uint8_t reserved[3];
} wex_byte_form;

/* The byte form of the handle's items; NULL while the handle withholds it
 * (wex_handle_declare_byte_form). Handles not made by wex_handle_new() get
 * the form too. */
WEX_API const wex_byte_form *wex_byte_form_get(const wex_handle *h);
/* Test control: 0 makes the handle withhold its byte form (a library then
 * behaves as on a runtime without the capability), nonzero declares it
 * again. Default: declared. */
WEX_API void wex_handle_declare_byte_form(wex_handle *h, int declare);
/* An identity of what wex_domain_lookup_variant answers for the domain:
 * equal generations give equal answers for every type (a type is known by
 * its LUID), and every wex_domain_set_variant gives the domain a generation
 * no domain had before. Domains without variants set share generation 0.
 * A library may cache domain answers under it. */
WEX_API uint64_t wex_domain_generation(const wex_handle *h, const wex_domain *domain);

/* ---- Text and XML writers ----------------------------------------------- */

WEX_API int32_t wex_print_space(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                                int32_t room, uint32_t *err);
WEX_API int32_t wex_snprintf(wex_handle *h, uint32_t ws, char *pos, int32_t room, uint32_t *err,
                             const char *fmt, ...) WEX_PRINTF(6, 7);
WEX_API int32_t start_tag(wex_handle *h, uint32_t ws, char *pos, const char *name, int32_t room,
                          uint8_t state, uint32_t *err);
WEX_API int32_t end_tag(wex_handle *h, uint32_t ws, char *pos, const char *name, int32_t room,
                        uint32_t *err);
WEX_API int32_t start_tag_timestamp(wex_handle *h, uint32_t ws, char *pos, const char *name,
                                    int32_t room, uint32_t *err);
/* Copies textlen characters of text (fewer if text ends earlier). */
WEX_API int32_t xml_enum_print(wex_handle *h, uint32_t ws, char *pos, const char *text,
                               int32_t room, uint32_t textlen, uint32_t *err);

/* ---- XML documents and queries ------------------------------------------ */

/* NULL for malformed input. No network access, no entity substitution. */
WEX_API void *wex_xml_doc_parse(const char *text, size_t len);
WEX_API void wex_xml_doc_free(void *doc);
/* 0: found, value = text content of the first match (truncated to
 * value_len - 1, NUL-terminated; value may be NULL when value_len is 0);
 * 2: no match; 22: NULL doc/path or malformed path. flags: reserved, 0. */
WEX_API int xml_get_element_value(void *doc, const char *path, char *value, uint32_t value_len,
                                  uint32_t flags);
/* 0 with the number of matches in *count (0 when none); 22 as above. */
WEX_API int xml_get_element_nodecount(void *doc, const char *path, uint32_t *count);

/* ---- Recorder, message suppression, plain memory ------------------------ */

/* Recording on, into `stream` (may be NULL: on, without a stream). */
WEX_API void wexlib_msg_recorder_start(FILE *stream);
WEX_API void wexlib_msg_recorder_stop(void);
WEX_API int wexlib_msg_recorder_get_state(void);
WEX_API FILE *wexlib_msg_recorder_get_handle(void);
WEX_API int wexlib_suppress_messages_enabled(wex_handle *h);
WEX_API void *wexlib_malloc(void *null_ctx, uint32_t ws, size_t size);
WEX_API void wexlib_free(void *null_ctx, uint32_t ws, void *p);

/* ---- Primitive codecs -----------------------------------------------------
 * <prim>_get        field address, or NULL for a NULL field (no error)
 * <prim>_get_value  the value; 0 and 22 for a NULL field
 * <prim>_set        copies the value at src (notify_write first); 22 on NULL
 * <prim>_set_value  stores value (notify_write first), also while *err holds
 *                   a code (a record's set_all stores the fields after a
 *                   refused one); 22 for a NULL field unless a code is pending
 * <prim>_hash       32-bit mix of the value (sign-extended) with seed;
 *                   seed for a NULL field
 * <prim>_marshal    network order; 0 and 90 when room < width
 * <prim>_len        the width, whatever the field
 * <prim>_unmarshal  notify_write, then store; 0 and 74 when len < width;
 *                   reuse is ignored
 * <prim>_print, _to_xml, _from_xml  see "Text forms" / "XML queries".
 */
WEX_API void *int8_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API int8_t int8_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void int8_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void int8_set_value(wex_handle *h, uint32_t ws, void *field, int8_t value, uint32_t *err);
WEX_API uint32_t int8_hash(const void *field, uint32_t seed);
WEX_API uint32_t int8_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                              int32_t room, uint32_t *err);
WEX_API uint32_t int8_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t int8_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t int8_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent, const char *name,
                           const void *field, int32_t room, uint32_t *err);
WEX_API int32_t int8_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                            const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void int8_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                           uint32_t *err, char *msgbuf, uint32_t msglen);

WEX_API void *u_int8_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API uint8_t u_int8_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void u_int8_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void u_int8_set_value(wex_handle *h, uint32_t ws, void *field, uint8_t value,
                              uint32_t *err);
WEX_API uint32_t u_int8_hash(const void *field, uint32_t seed);
WEX_API uint32_t u_int8_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                                int32_t room, uint32_t *err);
WEX_API uint32_t u_int8_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t u_int8_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                  int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t u_int8_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                             const char *name, const void *field, int32_t room, uint32_t *err);
WEX_API int32_t u_int8_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                              const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void u_int8_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                             uint32_t *err, char *msgbuf, uint32_t msglen);
/* A standalone u8 (one byte, zeroed) from the handle's allocator; NULL on
 * failure. Used as a temporary element while parsing. */
WEX_API void *u_int8_create(wex_handle *h, uint32_t ws);
WEX_API void u_int8_destroy(wex_handle *h, uint32_t ws, void *inst);
WEX_API uint32_t u_int8_sizeof(wex_handle *h);

WEX_API void *int16_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API int16_t int16_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void int16_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void int16_set_value(wex_handle *h, uint32_t ws, void *field, int16_t value, uint32_t *err);
WEX_API uint32_t int16_hash(const void *field, uint32_t seed);
WEX_API uint32_t int16_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                               int32_t room, uint32_t *err);
WEX_API uint32_t int16_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t int16_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                 int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t int16_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                            const char *name, const void *field, int32_t room, uint32_t *err);
WEX_API int32_t int16_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                             const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void int16_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                            uint32_t *err, char *msgbuf, uint32_t msglen);

WEX_API void *u_int16_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API uint16_t u_int16_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void u_int16_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void u_int16_set_value(wex_handle *h, uint32_t ws, void *field, uint16_t value,
                               uint32_t *err);
WEX_API uint32_t u_int16_hash(const void *field, uint32_t seed);
WEX_API uint32_t u_int16_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                                 int32_t room, uint32_t *err);
WEX_API uint32_t u_int16_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t u_int16_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                   int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t u_int16_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                              const char *name, const void *field, int32_t room, uint32_t *err);
WEX_API int32_t u_int16_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                               const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void u_int16_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                              uint32_t *err, char *msgbuf, uint32_t msglen);

WEX_API void *int32_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API int32_t int32_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void int32_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void int32_set_value(wex_handle *h, uint32_t ws, void *field, int32_t value, uint32_t *err);
WEX_API uint32_t int32_hash(const void *field, uint32_t seed);
WEX_API uint32_t int32_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                               int32_t room, uint32_t *err);
WEX_API uint32_t int32_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t int32_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                 int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t int32_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                            const char *name, const void *field, int32_t room, uint32_t *err);
WEX_API int32_t int32_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                             const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void int32_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                            uint32_t *err, char *msgbuf, uint32_t msglen);

WEX_API void *u_int32_get(wex_handle *h, uint32_t ws, void *field, uint32_t *err);
WEX_API uint32_t u_int32_get_value(wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
WEX_API void u_int32_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
WEX_API void u_int32_set_value(wex_handle *h, uint32_t ws, void *field, uint32_t value,
                               uint32_t *err);
WEX_API uint32_t u_int32_hash(const void *field, uint32_t seed);
WEX_API uint32_t u_int32_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *field,
                                 int32_t room, uint32_t *err);
WEX_API uint32_t u_int32_len(wex_handle *h, uint32_t ws, const void *field);
WEX_API uint32_t u_int32_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field,
                                   int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t u_int32_print(wex_handle *h, uint32_t ws, char *pos, uint32_t indent,
                              const char *name, const void *field, int32_t room, uint32_t *err);
WEX_API int32_t u_int32_to_xml(wex_handle *h, uint32_t ws, const char *name, char *pos,
                               const void *field, int32_t room, uint8_t state, uint32_t *err);
WEX_API void u_int32_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field,
                              uint32_t *err, char *msgbuf, uint32_t msglen);

/* ---- Bulk primitive arrays ------------------------------------------------
 * Byte-identical to `count` per-element calls of <prim>_marshal/_unmarshal
 * on consecutive elements: as many whole elements as fit are handled, then
 * 90 (marshal) or 74 (unmarshal) if some did not. Unmarshal announces the
 * stored bytes with one notify_write. Returns the bytes handled. */
WEX_API uint32_t wex_int8_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *elems,
                                        uint32_t count, int32_t room, uint32_t *err);
WEX_API uint32_t wex_int8_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                          void *elems, uint32_t count, int32_t len, uint32_t *err);
WEX_API uint32_t wex_u_int8_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                          const void *elems, uint32_t count, int32_t room,
                                          uint32_t *err);
WEX_API uint32_t wex_u_int8_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                            void *elems, uint32_t count, int32_t len,
                                            uint32_t *err);
WEX_API uint32_t wex_int16_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                         const void *elems, uint32_t count, int32_t room,
                                         uint32_t *err);
WEX_API uint32_t wex_int16_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                           void *elems, uint32_t count, int32_t len, uint32_t *err);
WEX_API uint32_t wex_u_int16_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                           const void *elems, uint32_t count, int32_t room,
                                           uint32_t *err);
WEX_API uint32_t wex_u_int16_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                             void *elems, uint32_t count, int32_t len,
                                             uint32_t *err);
WEX_API uint32_t wex_int32_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                         const void *elems, uint32_t count, int32_t room,
                                         uint32_t *err);
WEX_API uint32_t wex_int32_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                           void *elems, uint32_t count, int32_t len, uint32_t *err);
WEX_API uint32_t wex_u_int32_array_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                           const void *elems, uint32_t count, int32_t room,
                                           uint32_t *err);
WEX_API uint32_t wex_u_int32_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                             void *elems, uint32_t count, int32_t len,
                                             uint32_t *err);

#ifdef __cplusplus
}
#endif

#endif /* WEX_H */
