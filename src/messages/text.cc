// Text and XML forms of messages: a block or element holding each member in order, and
// a message built from a parsed XML document.
#include <climits>
#include <cstdio>
#include <cstring>

#include "app_sess.h"
#include "bix/core.h"

namespace bix {

namespace {

// Empty member slots (a shallow or detached message) are left out of both forms.
int32_t print_member(const MemberDesc &m, wex_handle *h, uint32_t ws, char *buf, const void *inst,
                     uint32_t room, uint32_t *err) {
  if (!inst) return 0;
  return m.type ? record_print(*m.type, h, ws, buf, 2, m.name, inst, room, err)
                : app_sess_hdr_print(h, ws, buf, 2, m.name, inst, room, err);
}

int32_t member_to_xml(const MemberDesc &m, wex_handle *h, uint32_t ws, char *buf, const void *inst,
                      uint32_t room, uint32_t *err) {
  if (!inst) return 0;
  return m.type ? record_to_xml(*m.type, h, ws, m.name, buf, inst, room, 0, err)
                : app_sess_hdr_to_xml(h, ws, m.name, buf, inst, room, 0, err);
}

}  // namespace

int32_t message_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, const void *msg,
                      uint32_t len, uint32_t *err) {
  uint32_t own = 0;
  if (!message_begin(d, h, err, own, Te::kPrintPending, false, msg, MsgUse::kReads)) return 0;
  if (len > INT32_MAX) len = INT32_MAX;  // the writers count in int32
  uint32_t n = 0;
  auto room = [&] { return static_cast<int32_t>(len - n); };
  n += static_cast<uint32_t>(wex_print_space(h, ws, buf, 0, room(), err));
  n += static_cast<uint32_t>(wex_snprintf(h, ws, buf + n, room(), err, "message@%s: {\n", d.name));
  for (uint32_t m = 0; m < d.nmembers; ++m) {
    // An error before a member (a full buffer, typically) is reported as 90 and ends
    // the member output; one left by the last member stands as it is.
    if (*err) {
      store_err(h, err, 90);
      break;
    }
    n += static_cast<uint32_t>(
        print_member(d.members[m], h, ws, buf + n, message_member(d, msg, m), len - n, err));
  }
  n += static_cast<uint32_t>(wex_print_space(h, ws, buf + n, 0, room(), err));
  n += static_cast<uint32_t>(wex_snprintf(h, ws, buf + n, room(), err, "%s", "}\n"));
  return static_cast<int32_t>(n);
}

int32_t message_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, const void *msg,
                       uint32_t len, uint32_t *err) {
  uint32_t own = 0;
  if (!message_begin(d, h, err, own, Te::kToXmlPending, false, msg, MsgUse::kReads)) return 0;
  if (len > INT32_MAX) len = INT32_MAX;
  uint32_t n =
      static_cast<uint32_t>(start_tag(h, ws, buf, d.name, static_cast<int32_t>(len), 0, err));
  for (uint32_t m = 0; m < d.nmembers && !*err; ++m)
    n += static_cast<uint32_t>(
        member_to_xml(d.members[m], h, ws, buf + n, message_member(d, msg, m), len - n, err));
  n += static_cast<uint32_t>(end_tag(h, ws, buf + n, d.name, static_cast<int32_t>(len - n), err));
  return static_cast<int32_t>(n);
}

void *message_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, void *doc, uint32_t *err,
                       char *msgbuf, uint32_t msglen) {
  uint32_t own = 0;
  if (!message_begin(d, h, err, own, Te::kFromXmlPending, false)) return nullptr;
  if (!doc) {
    store_err(h, err, 22);
    return nullptr;
  }
  void *msg = message_create(d, h, ws);
  if (!msg || msg == d.null_instance) {
    store_err(h, err, 12);
    return nullptr;
  }
  for (uint32_t m = 0; m < d.nmembers; ++m) {
    const MemberDesc &md = d.members[m];
    char path[256];
    std::snprintf(path, sizeof path, "//%s", md.name);
    void *inst = message_member(d, msg, m);
    if (md.type)
      record_from_xml(*md.type, h, ws, path, doc, inst, err, msgbuf, msglen);
    else
      app_sess_hdr_from_xml(h, ws, path, doc, inst, err, msgbuf, msglen);
    if (*err == 2) {  // absent: the member keeps the values it was created with
      *err = 0;
    } else if (*err) {
      message_destroy(d, h, ws, msg);  // never handed out: released, not leaked
      return nullptr;
    }
  }
  return msg;
}

}  // namespace bix
