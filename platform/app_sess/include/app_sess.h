/*
 * app_sess.h - reference session-header library.
 *
 * The session header `app_sess_hdr` that every message carries first, the
 * bundle checks made while a message joins a bundle, and the registration
 * of the application's bundle handler.
 *
 * app_sess_hdr
 * ------------
 * Instance (24 bytes, never with a state-tracking area): the usual 11-byte
 * instance header (type info pointer, variant, initial variant, flags),
 * then session_id (u32 at 12), seq_num (u32 at 16), flags (u16 at 20).
 *
 * Wire form (16 bytes, integers in network byte order):
 *   0  variant (1)     1  flags (1, written as 0)
 *   2  jump (4): bytes from the jump to the end of the header, 14
 *   6  session_id (4)  10 seq_num (4)  14 flags (2)
 * A header with a negative variant is the 6-byte prefix alone. The decoder
 * also takes a sender's ra item (flags 0x20) and state bytes (flags 0x08,
 * one after each field), and steps to the end the jump gives; a jump below
 * 4 or beyond the bytes given is 74.
 *
 * Text form (print), at indentation I:
 *   <I blanks>name@app_sess_hdr: {
 *   <I+2>session_id@u_int32:7
 *   <I+2>seq_num@u_int32:9
 *   <I+2>flags@u_int16:1
 *   <I blanks>}
 * XML form: <name>\n<session_id>7</session_id>\n<seq_num>9</seq_num>\n
 *           <flags>1</flags>\n</name>\n  (start tag with state="S" when S != 0)
 *
 * Errors follow the runtime's conventions (wex.h): a pending *err makes an
 * operation do nothing; this library's own failures go into *err and
 * through wex_store_err, those of the runtime's codecs stay in *err.
 *   12 room/length below 1, allocation failed
 *   22 NULL instance or argument, no bundle under construction
 *   43 negative variant reached by an accessor, or a variant above the domain's
 *    2 XML element absent; increment without a validated message
 *   74 malformed or truncated input
 *   90 encode room too small
 *  105 APP_SESS_ERR_BUNDLE_FULL: the bundle holds its maximum of messages
 */
#ifndef APP_SESS_H
#define APP_SESS_H

#include <stddef.h>
#include <stdint.h>

#include "wex.h"

#ifdef __cplusplus
extern "C" {
#endif

#define APP_SESS_HDR_SIZE 24u
#define APP_SESS_HDR_WIRE_SIZE 16u
#define APP_SESS_ERR_BUNDLE_FULL 105u

typedef struct app_sess_hdr {
  wex_type_info *type_info;
  int8_t variant;
  int8_t initial_variant;
  uint8_t obj_flags;
  uint8_t pad11;
  uint32_t session_id;
  uint32_t seq_num;
  uint16_t flags;
  uint8_t pad22[2];
} app_sess_hdr;

WEX_STATIC_ASSERT(sizeof(app_sess_hdr) == APP_SESS_HDR_SIZE, "app_sess_hdr is 24 bytes");
WEX_STATIC_ASSERT(offsetof(app_sess_hdr, variant) == 8, "variant at 8");
WEX_STATIC_ASSERT(offsetof(app_sess_hdr, obj_flags) == 10, "flags byte at 10");
WEX_STATIC_ASSERT(offsetof(app_sess_hdr, session_id) == 12, "session_id at 12");
WEX_STATIC_ASSERT(offsetof(app_sess_hdr, seq_num) == 16, "seq_num at 16");
WEX_STATIC_ASSERT(offsetof(app_sess_hdr, flags) == 20, "flags at 20");

/* Type "app_sess_hdr", module "app_sess", kind "type", one variant. */
WEX_API extern wex_type_info _app_sess_hdr_type_info_internal;

/* Registers a copy of the record with the handle's type registry (the
 * module function handed to wex_type_info_ptr_get). 12 when type_alloc fails. */
WEX_API void app_sess_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err);

/* A zeroed, initialised header from the handle's allocator, or NULL. */
WEX_API void *app_sess_hdr_create_internal(wex_handle *h, uint32_t ws);
/* As create_internal; while h->cr_create is set it never returns NULL: with
 * an error pending, or when allocation fails (12 stored), it returns the
 * shared null instance, which destroy ignores. */
WEX_API void *app_sess_hdr_create(wex_handle *h, uint32_t ws);
/* Aborts the process when the instance's type pointer is not a type info record. */
WEX_API void app_sess_hdr_destroy(wex_handle *h, uint32_t ws, void *inst);
WEX_API uint32_t app_sess_hdr_sizeof(wex_handle *h);
/* 16, or 6 for a negative variant. */
WEX_API uint32_t app_sess_hdr_len(wex_handle *h, uint32_t ws, const void *inst);
WEX_API uint32_t app_sess_hdr_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *inst,
                                      int32_t room, uint32_t *err);
/* reuse is ignored: the header holds no separate storage. */
WEX_API uint32_t app_sess_hdr_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *inst,
                                        int32_t len, uint32_t reuse, uint32_t *err);
WEX_API int32_t app_sess_hdr_print(wex_handle *h, uint32_t ws, char *buf, uint32_t indent,
                                   const char *name, const void *inst, uint32_t len, uint32_t *err);
WEX_API int32_t app_sess_hdr_to_xml(wex_handle *h, uint32_t ws, const char *name, char *buf,
                                    const void *inst, uint32_t len, uint8_t state, uint32_t *err);
/* 2 when the element at path is absent; absent fields keep their values. */
WEX_API void app_sess_hdr_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc,
                                   void *inst, uint32_t *err, char *msgbuf, uint32_t msglen);

WEX_API uint32_t app_sess_hdr_session_id_get_value(wex_handle *h, uint32_t ws, const void *inst,
                                                   uint32_t *err);
WEX_API void app_sess_hdr_session_id_set_value(wex_handle *h, uint32_t ws, void *inst,
                                               uint32_t value, uint32_t *err);
WEX_API uint32_t app_sess_hdr_seq_num_get_value(wex_handle *h, uint32_t ws, const void *inst,
                                                uint32_t *err);
WEX_API void app_sess_hdr_seq_num_set_value(wex_handle *h, uint32_t ws, void *inst, uint32_t value,
                                            uint32_t *err);
WEX_API uint16_t app_sess_hdr_flags_get_value(wex_handle *h, uint32_t ws, const void *inst,
                                              uint32_t *err);
WEX_API void app_sess_hdr_flags_set_value(wex_handle *h, uint32_t ws, void *inst, uint16_t value,
                                          uint32_t *err);

/* ---- Bundles ---------------------------------------------------------------
 * A bundle collects messages marshalled on one handle between begin and
 * end. Each message is first validated (bundle_message_validate_add: the
 * bundle exists, has room, and the registered handler accepts it), then,
 * once encoded, counted (bundle_message_increment_count, which needs the
 * validated message's LUID). */

/* Accepts (0) or refuses (an error code) a message joining a bundle. */
typedef uint32_t (*app_sess_bundle_handler_fn)(void *ctx, wex_handle *h, uint32_t bundle,
                                               const uint8_t msg_luid[16], const char *msg_name);

/* Returns the handler registered before (NULL if none). Process-wide. */
WEX_API app_sess_bundle_handler_fn
app_sess_bundle_handler_register(app_sess_bundle_handler_fn handler, void *ctx);
WEX_API app_sess_bundle_handler_fn app_sess_bundle_handler_unregister(void);

/* Starts a bundle on the handle (replacing one in progress) and sets
 * h->bundle to its nonzero id. max_messages 0: no limit. 0 on OOM. */
WEX_API uint32_t app_sess_bundle_begin(wex_handle *h, uint32_t max_messages);
/* Ends the handle's bundle, clears h->bundle; returns the messages counted. */
WEX_API uint32_t app_sess_bundle_end(wex_handle *h);
WEX_API uint32_t app_sess_bundle_count(wex_handle *h);

/* msg_luid: the message's 16 LUID bytes; msg_name: e.g. "message x_msg".
 * Both return 0 or the code they wrote into *err (0 with an error pending). */
WEX_API uint32_t bundle_message_validate_add(wex_handle *h, uint32_t ws, const uint8_t *msg_luid,
                                             const char *msg_name, uint32_t *err);
WEX_API uint32_t bundle_message_increment_count(wex_handle *h, const uint8_t *msg_luid,
                                                uint32_t *err);

#ifdef __cplusplus
}
#endif

#endif /* APP_SESS_H */
