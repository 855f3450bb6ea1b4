// Messages on the wire: len, marshal (domain admission, bundle checks, the header written
// last), unmarshal_only, and unmarshal with recording and dispatch; receive by LUID.
//
// Encoded message: [0,27) message header (the runtime's layout, from the message's
// header record), [27,43) the message LUID, then the session header, the channel header
// (where the message has one) and the body.
#include <cstdio>
#include <cstring>

#include "app_sess.h"
#include "bix/core.h"
#include "lumo.h"

namespace bix {

namespace {

constexpr int32_t kHeaderSize = WEX_MESSAGE_HEADER_SIZE;
constexpr int32_t kLuidEnd = kHeaderSize + 16;
// A record is at most this many bytes. Status, IDPROM and sensor messages render to far
// more XML than that: they are not recorded, with the not-recorded trace.
constexpr uint32_t kRecordSize = 4096;

const char *error_text(uint32_t code) {
  return std::strerror(static_cast<int>(code));
}

uint8_t *header_record(void *msg) {
  return bytes(msg) + kMsgHeaderRecord;
}

uint32_t member_len(const MemberDesc &m, wex_handle *h, uint32_t ws, const void *inst) {
  if (!inst) return 0;
  return m.type ? record_len(*m.type, h, ws, inst) : app_sess_hdr_len(h, ws, inst);
}

uint32_t member_marshal(const MemberDesc &m, wex_handle *h, uint32_t ws, uint8_t *buf,
                        const void *inst, int32_t room, uint32_t *err) {
  if (*err) return 0;  // members seeing an error write nothing
  if (!inst) {         // an empty slot (shallow create, get_detach) cannot be sent
    store_err(h, err, 22);
    return 0;
  }
  return m.type ? record_marshal(*m.type, h, ws, buf, inst, room, err, false)
                : app_sess_hdr_marshal(h, ws, buf, inst, room, err);
}

void *create_member_internal(const MemberDesc &m, wex_handle *h, uint32_t ws) {
  return m.type ? instance_create_internal(*m.type, h, ws) : app_sess_hdr_create_internal(h, ws);
}

uint32_t member_unmarshal(const MemberDesc &m, wex_handle *h, uint32_t ws, const uint8_t *buf,
                          void *inst, int32_t left, uint32_t *err) {
  return m.type ? record_unmarshal(*m.type, h, ws, buf, inst, left, 0, err)
                : app_sess_hdr_unmarshal(h, ws, buf, inst, left, 0, err);
}

// Reads the header, steps over the LUID and creates and decodes every member into msg.
// Members are read within the total length the header carries, so a message never
// consumes its successor's bytes. Returns the position reached.
uint32_t decode_members(const TypeDesc &d, wex_handle *h, uint32_t ws, void *msg,
                        const uint8_t *buf, int32_t len, uint32_t *err) {
  uint8_t *rec = header_record(msg);
  notify(h, ws, rec, WEX_MESSAGE_HEADER_RECORD_SIZE);
  uint32_t pos = _wex_message_header_unmarshal(h, ws, buf, rec, len, err);
  int32_t end = len;
  if (pos) {
    uint32_t total = 0;  // the runtime checked 27 <= total <= len
    std::memcpy(&total, rec + 12, sizeof total);
    if (total < static_cast<uint32_t>(end)) end = static_cast<int32_t>(total);
    if (end < kLuidEnd) {  // the LUID is not all there: stop at the end, never past it
      store_err(h, err, kErrShortInput);
      pos = static_cast<uint32_t>(end);
    } else {
      pos += 16;  // stepped over, not compared
    }
  }
  for (uint32_t m = 0; m < d.nmembers; ++m) {
    const MemberDesc &md = d.members[m];
    void *inst = create_member_internal(md, h, ws);
    if (!inst) {
      store_err(h, err, 12);
      continue;
    }
    void **slot = reinterpret_cast<void **>(bytes(msg) + md.offset);
    notify(h, ws, slot, sizeof *slot);
    std::memcpy(slot, &inst, sizeof inst);
    if (*err) continue;
    const int32_t left = end - static_cast<int32_t>(pos);
    // The input ends before this member: short input, not the decoders' "length below 1".
    if (left < 1) {
      store_err(h, err, kErrShortInput);
      continue;
    }
    pos += member_unmarshal(md, h, ws, buf + pos, inst, left, err);
  }
  return pos;
}

// The record: the message's XML inside a time-stamped bix_ipc_shim element.
int32_t build_record(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *msg, char *buf,
                     uint32_t size, uint32_t *e) {
  int32_t n = start_tag_timestamp(h, ws, buf, "bix_ipc_shim", static_cast<int32_t>(size), e);
  if (!*e) n += message_to_xml(d, h, ws, buf + n, msg, size - static_cast<uint32_t>(n), e);
  if (!*e) n += end_tag(h, ws, buf + n, "bix_ipc_shim", static_cast<int32_t>(size) - n, e);
  return n;
}

// A decoded message written to the runtime's recorder with one block write. Recording
// has an error slot of its own: a failed recording never fails the receive.
void record(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *msg) {
  if (!wexlib_msg_recorder_get_state()) return;
  char *buf = static_cast<char *>(wexlib_malloc(nullptr, ws, kRecordSize));
  if (!buf) fatal(d, Te::kRecordNoBuffer);
  uint32_t e = 0;
  const int32_t n = build_record(d, h, ws, msg, buf, kRecordSize, &e);
  if (!e) {
    if (std::FILE *f = wexlib_msg_recorder_get_handle())
      std::fwrite(buf, 1, static_cast<size_t>(n), f);
    else
      trace(d, Te::kRecordNoStream);
  } else {
    trace_u(d, Te::kRecordNotBuilt, e, static_cast<uint32_t>(n));
  }
  wexlib_free(nullptr, ws, buf);
  if (e) trace_u(d, Te::kRecordFailed, e);
}

}  // namespace

uint32_t message_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *msg) {
  if (!msg || foreign_instance(d, msg)) return 0;
  uint32_t n = static_cast<uint32_t>(kLuidEnd);
  for (uint32_t m = 0; m < d.nmembers; ++m)
    n += member_len(d.members[m], h, ws, message_member(d, msg, m));
  return n;
}

uint32_t message_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf, void *msg,
                         int32_t len, uint32_t *err) {
  uint32_t own = 0;
  // Marshal writes the message's header record: the shared null instance and messages of
  // another type are refused like every other writer refuses them.
  if (!message_begin(d, h, err, own, Te::kMarshalPending, false, msg, MsgUse::kWrites)) return 0;
  if (!buf && len > 0) {
    store_err(h, err, 22);
    return 0;
  }
  const wex_type_info *t = wex_get_manifested_type_info(msg);
  if (!wex_domain_lookup_message_ok(h, &h->domain, t, err)) {
    trace(d, Te::kDomainFail, d.name, t->luid_text, h->domain_name);
    wex_store_epoch_err(h, 52, err);
    return 0;
  }
  if (h->bundle) {
    bundle_message_validate_add(h, ws, d.msg_luid, d.msg_name, err);
    if (*err) {
      trace(d, Te::kBundleRefused, d.name, error_text(*err));
      return 0;
    }
  } else if (*err) {
    return 0;
  }

  uint32_t pos = 0;
  const bool header_room = len >= kHeaderSize;
  if (header_room) {
    std::memset(buf, 0, kHeaderSize);  // the header itself goes in last
    pos = kHeaderSize;
  } else {
    store_err(h, err, 90);
  }
  if (!*err) {
    if (len - kHeaderSize < 16) {
      store_err(h, err, 90);
    } else {
      std::memcpy(buf + pos, d.msg_luid, 16);
      pos = kLuidEnd;
    }
  }
  for (uint32_t m = 0; m < d.nmembers; ++m)
    pos += member_marshal(d.members[m], h, ws, buf + pos, message_member(d, msg, m),
                          len - static_cast<int32_t>(pos), err);
  if (*err) {
    trace(d, Te::kMarshalFailed, d.name, error_text(*err),
          wexlib_suppress_messages_enabled(h) ? LUMO_LEVEL_DEBUG : LUMO_LEVEL_ERROR);
    return pos;
  }
  if (h->bundle) {
    bundle_message_increment_count(h, d.msg_luid, err);
    if (*err) trace(d, Te::kBundleNotCounted, d.name, error_text(*err));
  }
  if (header_room && !*err) {
    uint8_t *rec = header_record(msg);
    notify(h, ws, rec + 8, 8);
    std::memcpy(rec + 8, &h->header_stamp, 4);
    std::memcpy(rec + 12, &pos, 4);
    _wex_message_header_marshal(h, ws, buf, rec, kHeaderSize, err);
  }
  return pos;
}

uint32_t message_unmarshal_only(const TypeDesc &d, wex_handle *h, uint32_t ws, void **out,
                                const uint8_t *buf, int32_t len, uint32_t *err) {
  uint32_t own = 0;
  if (!message_begin(d, h, err, own, Te::kUnmarshalOnlyPending, true)) return 0;
  ensure_trace_module();
  void *msg = message_create_shallow(d, h, ws);
  if (!msg) {
    store_err(h, err, 12);
    return 0;
  }
  const uint32_t pos = decode_members(d, h, ws, msg, buf, len, err);
  if (out)
    *out = msg;
  else
    message_destroy(d, h, ws, msg);  // nobody else could ever release it
  return pos;
}

uint32_t message_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint64_t context,
                           void **out, const uint8_t *buf, int32_t len, MessageHandler handler,
                           uint32_t *err) {
  uint32_t own = 0;
  if (!message_begin(d, h, err, own, Te::kUnmarshalPending, true)) return 0;
  if (out) *out = nullptr;
  void *msg = nullptr;
  const uint32_t n = message_unmarshal_only(d, h, ws, &msg, buf, len, err);
  if (*err) {
    // Neither handed out nor passed on: released here, so a refused message costs nothing.
    message_destroy(d, h, ws, msg);
    return n;
  }
  if (out) *out = msg;
  record(d, h, ws, msg);
  if (handler) {
    handler(h, ws, context, msg, err);
  } else if (d.app_handler) {
    d.app_handler(h, ws, context, msg, err);
  } else {
    store_err(h, err, 38);
    trace(d, Te::kDefaultHandler);
    if (!out) message_destroy(d, h, ws, msg);  // no owner at all
  }
  return n;
}

const TypeDesc *message_by_luid(const uint8_t *luid) {
  for (uint32_t i = 0; i < kAllTypesCount; ++i) {
    const TypeDesc *d = kAllTypes[i];
    if (d->kind == TypeKind::Message && std::memcmp(d->msg_luid, luid, 16) == 0) return d;
  }
  return nullptr;
}

}  // namespace bix

BIX_EXPORT uint32_t bix_ipc_shim_message_receive(wex_handle *h, uint32_t ws, uint64_t context,
                                                 void **message, const uint8_t *buffer,
                                                 int32_t length, bix::MessageHandler handler,
                                                 uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err) return 0;
  wex_clear_last_error(h);
  if (message) *message = nullptr;
  if (!buffer) {
    bix::store_err(h, err, 22);
    return 0;
  }
  if (length < bix::kLuidEnd) {
    bix::store_err(h, err, bix::kErrShortInput);
    return 0;
  }
  const bix::TypeDesc *d = bix::message_by_luid(buffer + bix::kHeaderSize);
  if (!d) {
    bix::store_err(h, err, 2);
    return 0;
  }
  return bix::message_unmarshal(*d, h, ws, context, message, buffer, length, handler, err);
}
