// Message objects: create (full, shallow, _cr), destroy, the member accessors and the
// domain check. One body for all eleven messages, driven by the message's descriptor.
#include <cstring>

#include "app_sess.h"
#include "bix/core.h"

BIX_EXPORT void bix_ipc_shim_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err);

namespace bix {

namespace {

// The session header is the session-header library's record; this describes it just far
// enough for the instance checks.
const TypeDesc kSessionHeader = {
    .name = "app_sess_hdr", .kind = TypeKind::Record, .tinfo = &_app_sess_hdr_type_info_internal};

const TypeDesc &member_type(const MemberDesc &m) {
  return m.type ? *m.type : kSessionHeader;
}

void *create_member(const MemberDesc &m, wex_handle *h, uint32_t ws) {
  return m.type ? instance_create(*m.type, h, ws) : app_sess_hdr_create(h, ws);
}

void destroy_member(const MemberDesc &m, wex_handle *h, uint32_t ws, void *inst) {
  if (m.type)
    instance_destroy(*m.type, h, ws, inst);
  else
    app_sess_hdr_destroy(h, ws, inst);
}

void **slot_of(const TypeDesc &d, void *msg, uint32_t m) {
  return reinterpret_cast<void **>(bytes(msg) + d.members[m].offset);
}

// Announced store of a member reference.
void store_slot(const TypeDesc &d, wex_handle *h, uint32_t ws, void *msg, uint32_t m,
                void *member) {
  void **slot = slot_of(d, msg, m);
  notify(h, ws, slot, sizeof *slot);
  std::memcpy(slot, &member, sizeof member);
}

// A mode word other than the two known ones means the handle is corrupted.
bool tracking(wex_handle *h) {
  const wex_sttr_profile *p = h->sttr_profile;
  if (!p || p->tracking_mode == WEX_STTR_OFF) return false;
  if (p->tracking_mode == WEX_STTR_ON) return true;
  fatal(Ts::kMsgCorruptedHandle);
}

// Variant entry 0's counters: a table without entries counts nothing.
uint64_t *counter(const wex_type_info *t, bool destroyed) {
  if (!t->variant_info) fatal(Ts::kMsgVarinfoNull);
  const wex_variant_info *vi = t->variant_info;
  if (vi->count < 0) trace_u(Ts::kMsgVariantRange, 0, static_cast<uint32_t>(vi->count));
  if (vi->count < 1 || !vi->entries) return nullptr;
  return destroyed ? &vi->entries[0].destroyed : &vi->entries[0].created;
}

void count(wex_handle *h, uint32_t ws, const wex_type_info *t, bool destroyed) {
  if (uint64_t *c = counter(t, destroyed)) {
    h->notify_count(h->alloc_ctx, c, 1, ws);
    bump_counter(t, c);
  }
}

// Steps shared by the full and the shallow create once the instance is there: type
// pointer, counters, variant, header record, tracking flag.
void *finish_create(const TypeDesc &d, wex_handle *h, uint32_t ws, void *msg) {
  uint8_t *b = bytes(msg);
  wex_type_info *t = h->types_indirect
                         ? wex_type_info_ptr_get(h, ws, d.tinfo, bix_ipc_shim_typeinfo_initialize)
                         : d.tinfo;
  void **type_slot = reinterpret_cast<void **>(wex_get_manifested_type_info_ptr_mem(msg));
  notify(h, ws, type_slot, sizeof *type_slot);
  *type_slot = t;
  count(h, ws, t, false);
  notify(h, ws, b + kHdrVariant, 1);
  b[kHdrVariant] = 0;
  uint8_t *rec = b + kMsgHeaderRecord;
  notify(h, ws, rec, WEX_MESSAGE_HEADER_RECORD_SIZE);
  std::memset(rec, 0, WEX_MESSAGE_HEADER_RECORD_SIZE);
  rec[0] = 0xBC;
  std::memset(rec + 1, 0xFF, 6);
  if (tracking(h)) {
    notify(h, ws, b + kHdrFlags, 1);
    b[kHdrFlags] |= kFlagTracked;
    rec[7] = 1;
  }
  return msg;
}

}  // namespace

void *message_member(const TypeDesc &d, const void *msg, uint32_t m) {
  void *p = nullptr;
  std::memcpy(&p, bytes(msg) + d.members[m].offset, sizeof p);
  return p;
}

bool message_begin(const TypeDesc &d, wex_handle *h, uint32_t *&err, uint32_t &own, Te pending,
                   bool named, const void *msg, MsgUse use) {
  if (!err) err = &own;
  if (*err) {
    const char *why = std::strerror(static_cast<int>(*err));
    if (named)
      trace(d, pending, d.name, why);
    else
      trace(d, pending, why);
    return false;
  }
  wex_clear_last_error(h);
  const bool refused = use == MsgUse::kNone    ? false
                       : use == MsgUse::kReads ? !msg || foreign_instance(d, msg)
                                               : !msg || !is_instance_of(d, msg);
  if (refused) store_err(h, err, 22);
  return !refused;
}

void *message_create(const TypeDesc &d, wex_handle *h, uint32_t ws) {
  ensure_trace_module();
  void *holder = nullptr;
  if (!(h->cr_create && h->error)) holder = h->allocate(h->alloc_ctx, ws, d.fixed_size);
  if (holder) {
    std::memset(holder, 0, d.fixed_size);
  } else {
    if (!h->cr_create) return nullptr;
    if (!h->error) wex_store_err(h, 12);
    holder = d.null_instance;
  }
  // The null instance is shared by every caller: members are never stored into it. In
  // `_cr` mode with an error pending every member create yields its own null instance,
  // which destroy ignores, so nothing is lost by dropping them.
  const bool shared = holder == d.null_instance;
  for (uint32_t m = 0; m < d.nmembers; ++m) {
    void *member = create_member(d.members[m], h, ws);
    if (!member) {
      if (shared) return nullptr;
      for (uint32_t k = 0; k < m; ++k)
        destroy_member(d.members[k], h, ws, message_member(d, holder, k));
      h->release(h->alloc_ctx, ws, holder);
      return nullptr;
    }
    if (shared)
      destroy_member(d.members[m], h, ws, member);
    else
      store_slot(d, h, ws, holder, m, member);
  }
  return shared ? holder : finish_create(d, h, ws, holder);
}

void *message_create_cr(const TypeDesc &d, wex_handle *h) {
  h->cr_create = 1;
  void *msg = message_create(d, h, h->default_ws);
  h->cr_create = 0;
  return msg;
}

void *message_create_shallow(const TypeDesc &d, wex_handle *h, uint32_t ws) {
  void *msg = h->allocate(h->alloc_ctx, ws, d.fixed_size);
  if (!msg) return nullptr;
  std::memset(msg, 0, d.fixed_size);
  return finish_create(d, h, ws, msg);
}

void message_destroy(const TypeDesc &d, wex_handle *h, uint32_t ws, void *msg) {
  if (!msg || msg == d.null_instance) return;
  // The type is checked before anything is torn down: the members of a message of
  // another type lie elsewhere and are of other types.
  const wex_type_info *t = wex_get_manifested_type_info(msg);
  if (!t || t->magic != WEX_TYPE_INFO_MAGIC) fatal(Ts::kMsgTinfoCorrupted);
  if (!is_instance_of(d, msg)) {
    wex_store_err(h, 22);
    return;
  }
  for (uint32_t m = 0; m < d.nmembers; ++m) {
    if (void *member = message_member(d, msg, m)) {
      destroy_member(d.members[m], h, ws, member);
      store_slot(d, h, ws, msg, m, nullptr);
    }
  }
  count(h, ws, t, true);
  notify(h, ws, msg, 8);
  std::memset(msg, 0, 8);
  h->release(h->alloc_ctx, ws, msg);
}

uint32_t message_is_valid_cr(const TypeDesc &d, wex_handle *h) {
  return wex_domain_lookup_message_ok(h, &h->domain, d.tinfo, &h->error) ? 1 : 0;
}

void *message_member_get(const TypeDesc &d, uint32_t m, wex_handle *h, uint32_t ws, void *msg,
                         uint32_t *err, bool detach) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err || !msg) {
    const char *why = std::strerror(static_cast<int>(*err));
    if (detach)
      trace(Ts::kMsgGetDetachError, d.members[m].name, d.name, why);
    else
      trace(Ts::kMsgGetError, d.members[m].name, why);
    return nullptr;
  }
  wex_clear_last_error(h);
  // Reading the shared null instance is fine (its slots are empty); emptying a slot of it
  // or of a message of another type is not.
  if (detach ? !is_instance_of(d, msg) : foreign_instance(d, msg)) {
    store_err(h, err, 22);
    return nullptr;
  }
  void *member = message_member(d, msg, m);
  if (detach && member) store_slot(d, h, ws, msg, m, nullptr);
  return member;
}

void message_member_set(const TypeDesc &d, uint32_t m, wex_handle *h, uint32_t ws, void *msg,
                        void *member, uint32_t *err, bool free_old) {
  uint32_t local = 0;
  if (!err) err = &local;
  const MemberDesc &md = d.members[m];
  if (*err || !msg) {
    trace(free_old ? Ts::kMsgFreeSetError : Ts::kMsgSetError, md.name,
          std::strerror(static_cast<int>(*err)));
    return;
  }
  wex_clear_last_error(h);
  // The message would later encode, print and destroy the member as md's type: anything
  // else (or a type's shared null instance) is refused before the old member goes.
  if (!is_instance_of(d, msg) || (member && !is_instance_of(member_type(md), member))) {
    store_err(h, err, 22);
    return;
  }
  void *old = message_member(d, msg, m);
  if (free_old && old && old != member) destroy_member(md, h, ws, old);
  store_slot(d, h, ws, msg, m, member);
}

}  // namespace bix

// The bundle handler registered last through this library. Written without
// synchronisation: concurrent registration is the application's to serialise.
BIX_EXPORT app_sess_bundle_handler_fn bix_ipc_shim_bundle_registered_handler;
app_sess_bundle_handler_fn bix_ipc_shim_bundle_registered_handler = nullptr;

BIX_EXPORT app_sess_bundle_handler_fn
bix_ipc_shim_bundle_handler_register(app_sess_bundle_handler_fn handler, void *ctx) {
  app_sess_bundle_handler_fn before = bix_ipc_shim_bundle_registered_handler;
  bix_ipc_shim_bundle_registered_handler = handler;
  app_sess_bundle_handler_register(handler, ctx);
  return before;
}

BIX_EXPORT app_sess_bundle_handler_fn bix_ipc_shim_bundle_handler_unregister(void) {
  app_sess_bundle_handler_fn before = bix_ipc_shim_bundle_registered_handler;
  bix_ipc_shim_bundle_registered_handler = nullptr;
  app_sess_bundle_handler_unregister();
  return before;
}
