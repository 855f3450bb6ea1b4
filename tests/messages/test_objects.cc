// Message objects: create in every form, members and their ownership, destroy, the
// instance checks of every writer. Each case runs over the eleven messages.
#include <gtest/gtest.h>

#include "msg_support.h"

namespace bixtest {
namespace {

const uint32_t kModes[] = {0, WEX_STTR_OFF, WEX_STTR_ON};

uint64_t counter(const Msg &m, bool destroyed) {
  auto *t = static_cast<const wex_type_info *>(
      dlsym(RTLD_DEFAULT, ("_" + m.name + "_message_type_info_internal").c_str()));
  return destroyed ? t->variant_info->entries[0].destroyed : t->variant_info->entries[0].created;
}

// The whole message ABI: 24 operations per message and 4 per member, 392 in all, plus
// the module's bundle handler registration.
TEST(MessageObject, EveryOperationIsExported) {
  const char *const ops[] = {"create",     "create_cr",      "create_unsafe",  "create_shallow",
                             "destroy",    "destroy_cr",     "destroy_unsafe", "is_valid_cr",
                             "len",        "len_cr",         "len_unsafe",     "marshal",
                             "marshal_cr", "marshal_unsafe", "unmarshal",      "unmarshal_only",
                             "print",      "print_cr",       "print_unsafe",   "to_xml",
                             "toxml_cr",   "to_xml_unsafe",  "from_xml",       "from_xml_unsafe"};
  size_t found = 0;
  for (const Msg &m : messages()) {
    for (const char *op : ops)
      found += dlsym(RTLD_DEFAULT, (m.name + "_message_" + op).c_str()) != nullptr;
    for (const Member &mem : m.members)
      for (const char *op : {"get", "get_detach", "set", "free_and_set"})
        found +=
            dlsym(RTLD_DEFAULT, (m.name + "_message_" + mem.name + "_" + op).c_str()) != nullptr;
  }
  EXPECT_EQ(found, 392u);
  for (const char *f :
       {"bix_ipc_shim_bundle_handler_register", "bix_ipc_shim_bundle_handler_unregister",
        "bix_ipc_shim_bundle_registered_handler", "bix_ipc_shim_message_receive"})
    EXPECT_TRUE(dlsym(RTLD_DEFAULT, f)) << f;
}

TEST(MessageObject, CreateMakesEveryMemberAndTheHeaderRecord) {
  for (uint32_t mode : kModes) {
    for (const Msg &m : messages()) {
      SCOPED_TRACE(m.name + " mode " + std::to_string(mode));
      Handle h(mode);
      const uint64_t created = counter(m, false);
      void *msg = m.create(h, 0);
      ASSERT_TRUE(msg);
      // Nothing but the message and one instance per member.
      EXPECT_EQ(h.allocs, 1 + m.members.size());
      EXPECT_EQ(counter(m, false), created + 1);
      EXPECT_EQ(h.counts.back(), &static_cast<wex_type_info *>(*static_cast<void **>(msg))
                                      ->variant_info->entries[0]
                                      .created);
      const uint8_t *b = static_cast<const uint8_t *>(msg);
      const bool on = mode == WEX_STTR_ON;
      EXPECT_EQ(b[8], 0);
      EXPECT_EQ(b[10], on ? 0x08 : 0x00);
      const uint8_t record[16] = {0xBC, 0xFF, 0xFF, 0xFF,
                                  0xFF, 0xFF, 0xFF, static_cast<uint8_t>(on)};
      EXPECT_EQ(std::memcmp(b + 16, record, 16), 0);
      for (size_t k = 0; k < m.members.size(); ++k) {
        uint32_t err = 0;
        void *member = m.get(h, msg, k, &err);
        ASSERT_TRUE(member) << m.members[k].name;
        EXPECT_EQ(err, 0u);
        const char *type = m.members[k].type ? m.members[k].type : "app_sess_hdr";
        EXPECT_STREQ((*static_cast<wex_type_info **>(member))->type_name, type);
      }
      const uint64_t destroyed = counter(m, true);
      m.destroy(h, 0, msg);
      EXPECT_EQ(counter(m, true), destroyed + 1);
      EXPECT_TRUE(h.live.empty());
    }
  }
}

TEST(MessageObject, ShallowCreateHasEmptySlots) {
  for (const Msg &m : messages()) {
    Handle h;
    void *msg = m.create_shallow(h, 0);
    ASSERT_TRUE(msg);
    EXPECT_EQ(h.allocs, 1u);
    for (size_t k = 0; k < m.members.size(); ++k) {
      uint32_t err = 0;
      EXPECT_EQ(m.get(h, msg, k, &err), nullptr);
      EXPECT_EQ(err, 0u);
    }
    m.destroy(h, 0, msg);
    EXPECT_TRUE(h.live.empty());
  }
}

// A failing allocation anywhere in create: NULL, and whatever was made is released.
TEST(MessageObject, CreateSurvivesEveryFailingAllocation) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    for (const Msg &m : messages()) {
      for (uint32_t k = 1; k <= 1 + m.members.size(); ++k) {
        Handle h(mode);
        h.fail_at = k;
        EXPECT_EQ(m.create(h, 0), nullptr) << m.name << " allocation " << k;
        EXPECT_EQ(h->error, 0u);
        EXPECT_TRUE(h.live.empty()) << m.name << " allocation " << k;
        h.fail_at = 0;
        // _cr: never NULL. The message's own allocation failing gives the null instance;
        // a member's gives its type's null instance in the slot. 12 either way, and
        // nothing left behind after destroy.
        h.fail_at = h.allocs + k;
        void *msg = m.create_cr(h);
        ASSERT_TRUE(msg);
        EXPECT_EQ(h->error, 12u);
        EXPECT_EQ(h->cr_create, 0u);
        m.destroy_cr(h, msg);
        EXPECT_TRUE(h.live.empty());
      }
    }
  }
}

TEST(MessageObject, CreateCrWithErrorPendingReturnsTheNullInstance) {
  for (const Msg &m : messages()) {
    Handle h;
    h->error = 5;
    void *msg = m.create_cr(h);
    ASSERT_TRUE(msg);
    EXPECT_EQ(h.allocs, 0u);
    EXPECT_EQ(*static_cast<void **>(msg), nullptr);  // the shared, all-zero instance
    m.destroy_cr(h, msg);
    m.destroy(h, 0, msg);
    EXPECT_EQ(h->error, 5u);
    EXPECT_EQ(h.releases, 0u);
    // Nothing of this Part writes it.
    h->error = 0;
    uint32_t err = 0;
    void *member = m.create(h, 0);
    m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(0, "set")(
        h, 0, msg, nullptr, &err);
    EXPECT_EQ(err, 22u);
    m.destroy(h, 0, member);
  }
}

TEST(MessageObject, DetachSetAndFreeAndSetTransferOwnership) {
  for (const Msg &m : messages()) {
    SCOPED_TRACE(m.name);
    for (size_t k = 0; k < m.members.size(); ++k) {
      Handle h;
      uint32_t err = 0;
      auto detach =
          m.member_op<void *(*)(wex_handle *, uint32_t, void *, uint32_t *)>(k, "get_detach");
      auto set =
          m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(k, "set");
      auto free_set = m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(
          k, "free_and_set");
      void *msg = m.create(h, 0);
      void *first = detach(h, 0, msg, &err);
      ASSERT_TRUE(first);
      EXPECT_EQ(m.get(h, msg, k, &err), nullptr);
      EXPECT_EQ(err, 0u);
      // set: the message takes the member; the former one (none now) is not touched.
      set(h, 0, msg, first, &err);
      EXPECT_EQ(m.get(h, msg, k, &err), first);
      void *other = m.create(h, 0);
      void *second = detach(h, 0, other, &err);
      m.destroy(h, 0, other);
      set(h, 0, msg, second, &err);  // `first` stays alive, owned by nobody
      EXPECT_TRUE(h.live.count(first));
      free_set(h, 0, msg, first, &err);  // destroys `second`
      EXPECT_FALSE(h.live.count(second));
      free_set(h, 0, msg, first, &err);  // the same member again: kept, not freed
      EXPECT_TRUE(h.live.count(first));
      EXPECT_EQ(err, 0u);
      detach(h, 0, msg, &err);
      m.destroy(h, 0, msg);  // leaves the detached member alive
      EXPECT_TRUE(h.live.count(first));
      set(h, 0, msg = m.create_shallow(h, 0), first, &err);
      m.destroy(h, 0, msg);
      EXPECT_TRUE(h.live.empty());
    }
  }
}

TEST(MessageObject, MemberOperationsWithAnErrorPendingTraceAndDoNothing) {
  const Msg &m = message("ipc_shim_xcvr_msg");
  Handle h;
  Traces t;
  void *msg = m.create(h, 0);
  void *hdr = member_of(m, msg, 1);
  uint32_t err = 12;
  EXPECT_EQ(m.get(h, msg, 1, &err), nullptr);
  m.member_op<void *(*)(wex_handle *, uint32_t, void *, uint32_t *)>(0, "get_detach")(h, 0, msg,
                                                                                      &err);
  m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(1, "set")(
      h, 0, msg, nullptr, &err);
  m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(2, "free_and_set")(
      h, 0, msg, nullptr, &err);
  err = 0;
  EXPECT_EQ(m.get(h, nullptr, 2, &err), nullptr);
  EXPECT_EQ(member_of(m, msg, 1), hdr);
  EXPECT_EQ(member_of(m, msg, 0) != nullptr, true);
  const std::string oom = std::strerror(12);
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_DEBUG, "Error present when getting value for wex_ipc_shim_hdr: " + oom));
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_DEBUG,
            "Error present getting detached app_sess_hdr value for ipc_shim_xcvr_msg: " + oom));
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_DEBUG, "Error present when setting value for wex_ipc_shim_hdr: " + oom));
  EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG,
                    "Error present when freeing and setting value for ipc_shim_xcvr_data: " + oom));
  EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG, "Error present when getting value for ipc_shim_xcvr_data: " +
                                          std::string(std::strerror(0))));
  m.destroy(h, 0, msg);
}

TEST(MessageObject, OnlyTheChannelMessagesHaveAChannelHeader) {
  for (const Msg &m : messages()) {
    const bool plain = m.name == "bix_ipc_shim_msg";
    EXPECT_EQ(m.members.size(), plain ? 2u : 3u);
    EXPECT_EQ(m.members[0].name, "app_sess_hdr");
    EXPECT_EQ(dlsym(RTLD_DEFAULT, (m.name + "_message_wex_ipc_shim_hdr_get").c_str()) == nullptr,
              plain);
  }
  EXPECT_EQ(message("bix_ipc_shim_msg").members[1].name, "ipc_shim_data");
}

// Writers refuse what is not theirs: a message of another type, a member of the wrong
// type, the null instance of a member type.
TEST(MessageObject, WritersRefuseInstancesOfAnotherType) {
  for (const Msg &m : messages()) {
    const Msg &other =
        message(m.name == "ipc_shim_xcvr_msg" ? "ipc_shim_envm_rpc_req" : "ipc_shim_xcvr_msg");
    Handle h;
    void *msg = m.create(h, 0);
    void *foreign = other.create(h, 0);
    const size_t live = h.live.size();
    uint32_t err = 0;
    auto set = m.member_op<void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *)>(
        m.members.size() - 1, "free_and_set");
    set(h, 0, foreign, nullptr, &err);
    EXPECT_EQ(err, 22u);
    err = 0;
    set(h, 0, msg, member_of(other, foreign, other.members.size() - 1), &err);  // another body type
    EXPECT_EQ(err, 22u);
    err = 0;
    h->error = 1;  // makes create_cr answer with the body type's null instance
    void *null_body = op<void *(*)(wex_handle *)>(m.body()->type, "create_cr")(h);
    h->error = 0;
    set(h, 0, msg, null_body, &err);
    EXPECT_EQ(err, 22u);
    err = 0;
    EXPECT_EQ(m.get(h, foreign, 0, &err), nullptr);
    EXPECT_EQ(err, 22u);
    h->error = 0;
    m.destroy(h, 0, foreign);
    EXPECT_EQ(h->error, 22u);
    EXPECT_EQ(h.live.size(), live);
    other.destroy(h, 0, foreign);
    m.destroy(h, 0, msg);
    EXPECT_TRUE(h.live.empty());
  }
}

TEST(MessageObject, IsValidFollowsTheDomain) {
  for (const Msg &m : messages()) {
    Handle h;
    EXPECT_EQ(m.is_valid_cr(h), 1u);
    wex_domain_set_message_allowed(h, m.luid_text, 0);
    EXPECT_EQ(m.is_valid_cr(h), 0u);
  }
}

}  // namespace
}  // namespace bixtest
