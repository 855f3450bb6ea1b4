// Core family: the eleven messages. One body per operation, driven by the message's
// descriptor (its members, LUID, name and the application's handler).
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// ---- objects (src/messages/object.cc) ----
void *message_create(const TypeDesc &d, wex_handle *h, uint32_t ws);
void *message_create_cr(const TypeDesc &d, wex_handle *h);
void *message_create_shallow(const TypeDesc &d, wex_handle *h, uint32_t ws);
void message_destroy(const TypeDesc &d, wex_handle *h, uint32_t ws, void *msg);
uint32_t message_is_valid_cr(const TypeDesc &d, wex_handle *h);
// get and get_detach of member m; detach empties the slot.
void *message_member_get(const TypeDesc &d, uint32_t m, wex_handle *h, uint32_t ws, void *msg,
                         uint32_t *err, bool detach);
// set and free_and_set of member m.
void message_member_set(const TypeDesc &d, uint32_t m, wex_handle *h, uint32_t ws, void *msg,
                        void *member, uint32_t *err, bool free_old);
// The member slot m of a message (the reference, possibly null).
void *message_member(const TypeDesc &d, const void *msg, uint32_t m);

// How an operation uses the message it is given, for the instance check of its entry.
enum class MsgUse { kNone, kReads, kWrites };
// The entry of every message operation with an error slot: a null slot becomes `own`; an
// error already pending ends the operation after the message's `pending` trace (whose
// arguments are the message's name when `named`, then the error's text); else the last
// error is cleared and, per `use`, a null message or one of another type (a writer also
// refuses the shared null instance) ends it with 22. True when the operation may run.
bool message_begin(const TypeDesc &d, wex_handle *h, uint32_t *&err, uint32_t &own, Te pending,
                   bool named, const void *msg = nullptr, MsgUse use = MsgUse::kNone);

// ---- wire form, recording and dispatch (src/messages/wire.cc) ----
uint32_t message_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *msg);
uint32_t message_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf, void *msg,
                         int32_t len, uint32_t *err);
uint32_t message_unmarshal_only(const TypeDesc &d, wex_handle *h, uint32_t ws, void **msg,
                                const uint8_t *buf, int32_t len, uint32_t *err);
uint32_t message_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint64_t context,
                           void **msg, const uint8_t *buf, int32_t len, MessageHandler handler,
                           uint32_t *err);
// The message whose LUID is the 16 bytes at luid, or null.
const TypeDesc *message_by_luid(const uint8_t *luid);

// ---- text and XML forms (src/messages/text.cc) ----
int32_t message_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, const void *msg,
                      uint32_t len, uint32_t *err);
int32_t message_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, const void *msg,
                       uint32_t len, uint32_t *err);
void *message_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, void *doc, uint32_t *err,
                       char *msgbuf, uint32_t msglen);

}  // namespace bix
