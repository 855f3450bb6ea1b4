// The operations of the eleven messages and of each of their members. Every line
// forwards to the one core body in src/messages/. $T is the message's struct name
// (<msg>_message), so the operations are named <msg>_message_<suffix>.
#include "ops.h"

namespace bixgen {

#define HWS "wex_handle *h, uint32_t ws"

std::vector<OpSpec> message_ops() {
  return {
      {kOnMessage, "create", "$T *", HWS,
       "return static_cast<$T *>(bix::message_create($D, h, ws));",
       "New message with all its members, or NULL (the null instance while h->cr_create is "
       "set). A member that cannot be created takes the message apart again: nothing leaks."},
      {kOnMessage, "create_cr", "$T *", "wex_handle *h",
       "return static_cast<$T *>(bix::message_create_cr($D, h));",
       "create with the handle's default_ws; the null instance on failure or pending error."},
      {kOnMessage, "create_unsafe", "$T *", HWS,
       "return static_cast<$T *>(bix::message_create($D, h, ws));",
       "The same operation as create."},
      {kOnMessage, "create_shallow", "$T *", HWS,
       "return static_cast<$T *>(bix::message_create_shallow($D, h, ws));",
       "New message without members (every member slot empty), or NULL; no error stored."},
      {kOnMessage, "destroy", "void", HWS ", $T *msg", "bix::message_destroy($D, h, ws, msg);",
       "Destroy the members still held, then the message. NULL and the null instance: nothing; "
       "a message of another type: 22 in the handle, nothing freed."},
      {kOnMessage, "destroy_cr", "void", "wex_handle *h, $T *msg",
       "bix::message_destroy($D, h, h->default_ws, msg);", "destroy with the handle's default_ws."},
      {kOnMessage, "destroy_unsafe", "void", HWS ", $T *msg",
       "bix::message_destroy($D, h, ws, msg);", "The same operation as destroy."},
      {kOnMessage, "is_valid_cr", "uint32_t", "wex_handle *h",
       "return bix::message_is_valid_cr($D, h);",
       "Nonzero when the handle's domain admits the message."},
      {kOnMessage, "len", "uint32_t", HWS ", const $T *msg",
       "return bix::message_len($D, h, ws, msg);",
       "Bytes the encoded message needs: 43 + the session header + the channel header + the "
       "body. An empty member slot counts nothing (marshal refuses it with 22)."},
      {kOnMessage, "len_cr", "uint32_t", "wex_handle *h, const $T *msg",
       "return h->error ? 0 : bix::message_len($D, h, h->default_ws, msg);",
       "len with the handle's default_ws; 0 while the handle's error is set."},
      {kOnMessage, "len_unsafe", "uint32_t", HWS ", const $T *msg",
       "return bix::message_len($D, h, ws, msg);", "The same operation as len."},
      {kOnMessage, "marshal", "uint32_t", HWS ", uint8_t *buf, $T *msg, int32_t len, uint32_t *err",
       "return bix::message_marshal($D, h, ws, buf, msg, len, err);",
       "Encode into buf (never past len): 27-byte message header, LUID, session header, "
       "channel header, body. The header, which carries the total length, is written last and "
       "only on success (until then bytes 0..26 are zero); 52 when the domain refuses the "
       "message (nothing written), 90 when buf is too small. Bytes written."},
      {kOnMessage, "marshal_cr", "uint32_t", "wex_handle *h, $T *msg, uint8_t *buf, int32_t len",
       "uint32_t n = bix::message_marshal($D, h, h->default_ws, buf, msg, len, &h->error); "
       "return h->error ? 0xFFFFFFFFu : n;",
       "marshal with default_ws and the handle's error; 0xFFFFFFFF when that is set afterwards."},
      {kOnMessage, "marshal_unsafe", "uint32_t",
       HWS ", uint8_t *buf, $T *msg, int32_t len, uint32_t *err",
       "return bix::message_marshal($D, h, ws, buf, msg, len, err);",
       "The same operation as marshal."},
      {kOnMessage, "unmarshal_only", "uint32_t",
       HWS ", $T **msg, const uint8_t *buf, int32_t len, uint32_t *err",
       "return bix::message_unmarshal_only($D, h, ws, reinterpret_cast<void **>(msg), buf, len, "
       "err);",
       "Decode a new message from buf (never past len; members are read within the total "
       "length its header carries). The LUID is not checked. The message goes to *msg, also "
       "when an error was stored on the way (the caller destroys it); with msg NULL it is "
       "destroyed here. Bytes consumed."},
      {kOnMessage, "unmarshal", "uint32_t",
       HWS ", uint64_t context, $T **msg, const uint8_t *buf, int32_t len, "
           "bix_ipc_shim_message_handler_fn handler, uint32_t *err",
       "return bix::message_unmarshal($D, h, ws, context, reinterpret_cast<void **>(msg), buf, "
       "len, "
       "handler, err);",
       "unmarshal_only, then, only without error: the message goes to *msg (msg may be NULL), "
       "is written to the runtime's recorder when it is on, and is handed to `handler`, else "
       "to the application's bix_ipc_shim_<msg>_message_handler, else 38 is stored. A decode "
       "that fails destroys the message (*msg stays NULL); so does 38 when msg is NULL, since "
       "nobody would own it. Bytes consumed."},
      {kOnMessage, "print", "int32_t",
       HWS ", char *buf, const $T *msg, uint32_t len, uint32_t *err",
       "return bix::message_print($D, h, ws, buf, msg, len, err);",
       "Text form: \"message@<msg>: {\" then each member at indentation 2, then \"}\". An error "
       "seen before a member becomes 90 and ends the member output. Characters written."},
      {kOnMessage, "print_cr", "int32_t", "wex_handle *h, const $T *msg, char *buf, uint32_t len",
       "return bix::cr_text(h, [&](uint32_t *e) { return bix::message_print($D, h, h->default_ws, "
       "buf, msg, len, e); });",
       "print with default_ws and the handle's error; 0 when that is set on entry, -1 when "
       "it is set afterwards."},
      {kOnMessage, "print_unsafe", "int32_t",
       HWS ", char *buf, const $T *msg, uint32_t len, uint32_t *err",
       "return bix::message_print($D, h, ws, buf, msg, len, err);", "The same operation as print."},
      {kOnMessage, "to_xml", "int32_t",
       HWS ", char *buf, const $T *msg, uint32_t len, uint32_t *err",
       "return bix::message_to_xml($D, h, ws, buf, msg, len, err);",
       "XML form: an element named after the message holding the member elements. Characters "
       "written."},
      {kOnMessage, "toxml_cr", "int32_t", "wex_handle *h, const $T *msg, char *buf, uint32_t len",
       "return bix::cr_text(h, [&](uint32_t *e) { return bix::message_to_xml($D, h, h->default_ws, "
       "buf, msg, len, e); });",
       "to_xml with default_ws and the handle's error; 0 when that is set on entry, -1 when "
       "it is set afterwards."},
      {kOnMessage, "to_xml_unsafe", "int32_t",
       HWS ", char *buf, const $T *msg, uint32_t len, uint32_t *err",
       "return bix::message_to_xml($D, h, ws, buf, msg, len, err);",
       "The same operation as to_xml."},
      {kOnMessage, "from_xml", "$T *",
       HWS ", void *doc, uint32_t *err, char *msgbuf, uint32_t msglen",
       "return static_cast<$T *>(bix::message_from_xml($D, h, ws, doc, err, msgbuf, msglen));",
       "A new message filled from a parsed document: each member from the element named "
       "after it anywhere in the document (an absent one keeps its created values). 12 when "
       "the message cannot be created; a member that fails otherwise destroys the message "
       "again and returns NULL with that error."},
      {kOnMessage, "from_xml_unsafe", "$T *",
       HWS ", void *doc, uint32_t *err, char *msgbuf, uint32_t msglen",
       "return static_cast<$T *>(bix::message_from_xml($D, h, ws, doc, err, msgbuf, msglen));",
       "The same operation as from_xml."},
  };
}

std::vector<MemberOpSpec> member_ops() {
  return {
      {"get", "$MT *", HWS ", $T *msg, uint32_t *err",
       "return static_cast<$MT *>(bix::message_member_get($D, $MI, h, ws, msg, err, false));",
       "The member, left in the message (NULL when the slot is empty)."},
      {"get_detach", "$MT *", HWS ", $T *msg, uint32_t *err",
       "return static_cast<$MT *>(bix::message_member_get($D, $MI, h, ws, msg, err, true));",
       "The member; the slot is emptied and the caller owns the member."},
      {"set", "void", HWS ", $T *msg, $MT *member, uint32_t *err",
       "bix::message_member_set($D, $MI, h, ws, msg, member, err, false);",
       "Store member (NULL empties the slot); the former member is not destroyed. 22 for a "
       "member of another type."},
      {"free_and_set", "void", HWS ", $T *msg, $MT *member, uint32_t *err",
       "bix::message_member_set($D, $MI, h, ws, msg, member, err, true);",
       "Destroy the former member, then store member as set does."},
  };
}

}  // namespace bixgen
