// Handles, errors, the type registry, domains, statistics, offsets, mappings
// and the recorder.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "wex_test_util.h"

namespace {

wex_variant_entry g_entries[2] = {{0, 33, 15}, {1, 40, 8}};
wex_variant_info g_two_variants = {2, {}, g_entries};

wex_type_info make_type(const char *luid_text, wex_variant_info *variants) {
  wex_type_info t{};
  t.magic = WEX_TYPE_INFO_MAGIC;
  for (int i = 0; i < 16; ++i) t.luid[i] = static_cast<uint8_t>(0xA0 + i);
  std::snprintf(t.luid_text, sizeof t.luid_text, "%s", luid_text);
  std::snprintf(t.type_name, sizeof t.type_name, "test_type");
  t.reg_marker = 0xFFFFFFFFu;
  t.variant_info = variants;
  return t;
}

// An instance as generated records lay it out: type pointer, variant,
// initial variant, flags.
struct Instance {
  wex_type_info *type;
  int8_t variant;
  int8_t initial_variant;
  uint8_t flags;
  uint8_t fields[21];
};

class WexHandle : public ::testing::Test {
 protected:
  wex_test::Handle h = wex_test::make_handle();
  uint32_t err = 0;
};

TEST_F(WexHandle, NewHandleDefaults) {
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->sttr_profile, nullptr);
  EXPECT_EQ(h->default_ws, 0u);
  EXPECT_STREQ(h->domain_name, "default");
  EXPECT_EQ(wexlib_suppress_messages_enabled(h.get()), 0);
  // The module list root starts empty, its tail link at its head.
  EXPECT_EQ(wex_module_tot_root.count, 0u);
  EXPECT_EQ(wex_module_tot_root.last_link, &wex_module_tot_root.first);
}

TEST_F(WexHandle, ErrorStoreKeepsHandleSlotAndLastErrorApart) {
  wex_store_epoch_err(h.get(), WEX_ERR_VARIANT, &err);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
  EXPECT_EQ(wex_get_last_error(h.get()), WEX_ERR_VARIANT);
  EXPECT_EQ(h->error, 0u);
  wex_store_err(h.get(), WEX_ERR_NOMEM);
  EXPECT_EQ(h->error, WEX_ERR_NOMEM);
  EXPECT_EQ(wex_get_last_error(h.get()), WEX_ERR_NOMEM);
  wex_clear_last_error(h.get());
  EXPECT_EQ(wex_get_last_error(h.get()), 0u);
  EXPECT_EQ(h->error, WEX_ERR_NOMEM);
  wex_store_epoch_err(h.get(), WEX_ERR_DOMAIN, nullptr);
  EXPECT_EQ(wex_get_last_error(h.get()), WEX_ERR_DOMAIN);
}

TEST_F(WexHandle, AllocationLimitRefusesLargeRequests) {
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, WEX_DEFAULT_ALLOC_LIMIT + 1), nullptr);
  wex_handle_set_alloc_limit(h.get(), 100);
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, 101), nullptr);
  void *p = h->allocate(h->alloc_ctx, 0, 100);
  EXPECT_NE(p, nullptr);
  h->release(h->alloc_ctx, 0, p);
}

TEST_F(WexHandle, DefaultAllocatorToleratesAForeignContext) {
  // Observing the hooks means owning alloc_ctx; allocation must go on.
  wex_test::WriteLog log;
  log.attach(h.get());
  void *u8 = u_int8_create(h.get(), 0);
  ASSERT_NE(u8, nullptr);
  EXPECT_EQ(*static_cast<uint8_t *>(u8), 0);
  u_int8_destroy(h.get(), 0, u8);
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, WEX_DEFAULT_ALLOC_LIMIT + 1), nullptr);
}

TEST_F(WexHandle, ScratchBufferIsPerHandleAndStable) {
  void *a = nullptr, *b = nullptr;
  uint32_t len = 0;
  wexlib_get_handle_ws(h.get(), &a, &len);
  ASSERT_NE(a, nullptr);
  std::memset(a, 0x5A, len);  // the whole length is usable
  wexlib_get_handle_ws(h.get(), &b, &len);
  EXPECT_EQ(a, b);
  EXPECT_EQ(len, WEX_HANDLE_WS_SIZE);
}

// ---- Registry ---------------------------------------------------------------------

int g_init_calls = 0;
wex_type_info g_registered_type = make_type("00112233445566778899aabbccddeeff", &g_two_variants);

void register_module(wex_handle *h, uint32_t ws, uint32_t *) {
  ++g_init_calls;
  auto *copy = static_cast<wex_type_info *>(
      h->type_alloc(h->type_alloc_ctx, 0xFFFFFFFFu, WEX_TYPE_INFO_COPY_SIZE));
  ASSERT_NE(copy, nullptr);
  std::memcpy(copy, &g_registered_type, sizeof g_registered_type);
  copy->variant_info = nullptr;
  h->type_register(h->type_registry, ws, copy->luid_text, copy);
  wex_update_variant_info(h, ws, copy, &g_registered_type, 1);
}

TEST_F(WexHandle, TypeInfoPtrGetRegistersOnceAndReturnsTheCopy) {
  g_init_calls = 0;
  wex_type_info *copy = wex_type_info_ptr_get(h.get(), 0, &g_registered_type, register_module);
  EXPECT_EQ(g_init_calls, 1);
  ASSERT_NE(copy, &g_registered_type);
  EXPECT_STREQ(copy->luid_text, g_registered_type.luid_text);
  EXPECT_EQ(copy->variant_info, &g_two_variants) << "the copy shares the static variant table";
  EXPECT_EQ(wex_type_info_ptr_get(h.get(), 0, &g_registered_type, register_module), copy);
  EXPECT_EQ(g_init_calls, 1);
  EXPECT_EQ(h->type_lookup(h->type_registry, 0, "00112233445566778899aabbccddeeff"), copy);

  // Another handle has its own registry.
  auto other = wex_test::make_handle();
  EXPECT_EQ(other->type_lookup(other->type_registry, 0, g_registered_type.luid_text), nullptr);
  // Without a module function the static record stands in.
  EXPECT_EQ(wex_type_info_ptr_get(other.get(), 0, &g_registered_type, nullptr), &g_registered_type);
}

TEST_F(WexHandle, TypeAllocIsBoundedByTheLimit) {
  wex_handle_set_alloc_limit(h.get(), 100);
  EXPECT_EQ(h->type_alloc(h->type_alloc_ctx, 0xFFFFFFFFu, WEX_TYPE_INFO_COPY_SIZE), nullptr);
}

// ---- Domains and instances ------------------------------------------------------

TEST_F(WexHandle, DomainVariantDefaultsToLatestAndCanBeOverridden) {
  wex_type_info two = make_type("0123456789abcdef0123456789abcdef", &g_two_variants);
  wex_type_info bare = make_type("fedcba9876543210fedcba9876543210", nullptr);
  EXPECT_EQ(wex_domain_lookup_variant(h.get(), &h->domain, &two, &err), 1);
  EXPECT_EQ(wex_domain_lookup_variant(h.get(), &h->domain, &bare, &err), 0);
  wex_domain_set_variant(h.get(), two.luid_text, -1);
  wex_domain_set_variant(h.get(), bare.luid_text, 1000);
  EXPECT_EQ(wex_domain_lookup_variant(h.get(), &h->domain, &two, &err), -1);
  EXPECT_EQ(wex_domain_lookup_variant(h.get(), &h->domain, &bare, &err), 127);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(wex_domain_lookup_variant(h.get(), &h->domain, nullptr, &err), -1);
  EXPECT_EQ(err, WEX_ERR_INVALID);

  err = 0;
  EXPECT_NE(wex_domain_lookup_message_ok(h.get(), &h->domain, &two, &err), 0);
  wex_domain_set_message_allowed(h.get(), two.luid_text, 0);
  EXPECT_EQ(wex_domain_lookup_message_ok(h.get(), &h->domain, &two, &err), 0);
  EXPECT_NE(wex_domain_lookup_message_ok(h.get(), &h->domain, &bare, &err), 0);
  wex_domain_set_message_allowed(h.get(), two.luid_text, 1);
  EXPECT_NE(wex_domain_lookup_message_ok(h.get(), &h->domain, &two, &err), 0);
  EXPECT_EQ(err, 0u);
}

TEST_F(WexHandle, InstanceHeaderQueries) {
  wex_type_info t = make_type("0123456789abcdef0123456789abcdef", &g_two_variants);
  Instance inst{&t, -2, 0, 0x28, {}};
  EXPECT_EQ(wex_get_instance_variant(&inst, 0, 1), -2);
  EXPECT_EQ(wex_get_instance_variant(nullptr, 1, 0), -1);
  EXPECT_EQ(wex_get_instance_obj_flag(&inst, 1, 0), 0x28);

  uint8_t luid[16] = {};
  EXPECT_EQ(wex_get_luid(h.get(), 0, &inst, luid, &err), 0u);
  EXPECT_EQ(0, std::memcmp(luid, t.luid, 16));
  EXPECT_EQ(wex_get_luid(h.get(), 0, nullptr, luid, &err), WEX_ERR_INVALID);
  EXPECT_EQ(err, WEX_ERR_INVALID);
  EXPECT_EQ(wex_get_luid(h.get(), 0, &inst, luid, &err), WEX_ERR_INVALID) << "pending slot";

  // adjust_variant only checks: one layout per type.
  err = 0;
  wexlib_adjust_variant(h.get(), 0, &inst, &t, 0, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(inst.variant, -2);
  wex_type_info corrupt = t;
  corrupt.magic = 0;
  wexlib_adjust_variant(h.get(), 0, &inst, &corrupt, 0, &err);
  EXPECT_EQ(err, WEX_ERR_INVALID);
}

TEST_F(WexHandle, StatisticsCountIntoTheVariantEntry) {
  wex_variant_entry entry{};
  wex_type_info t = make_type("0123456789abcdef0123456789abcdef", &g_two_variants);
  wexlib_type_stats_create_object(h.get(), 0, &t, &entry.created, &err);
  wexlib_type_stats_create_object(h.get(), 0, &t, &entry.created, &err);
  t.indirect = 1;  // registered copies of an indirect handle count plainly
  wexlib_type_stats_destroy_object(h.get(), 0, &t, &entry.created, &err);
  wexlib_type_stats_destroy_object(h.get(), 0, &t, nullptr, &err);
  EXPECT_EQ(entry.created, 2u);
  EXPECT_EQ(entry.destroyed, 1u);
  EXPECT_EQ(entry.reserved2, 0u);
}

TEST_F(WexHandle, SttrOffsetsAreRememberedPerInstanceAndFlagged) {
  Instance outer{}, member{};
  member.flags = WEX_OBJ_FLAG_NESTED;
  EXPECT_EQ(wexlib_get_sttr_offset(h.get(), 0, &member), 0u);
  wexlib_update_sttr_offset(h.get(), 0, &member, 37);
  EXPECT_EQ(member.flags, WEX_OBJ_FLAG_NESTED | WEX_OBJ_FLAG_STTR_OFFSET);
  EXPECT_EQ(wexlib_get_sttr_offset(h.get(), 0, &member), 37u);
  EXPECT_EQ(wexlib_get_sttr_offset(h.get(), 0, &outer), 0u);
  wexlib_update_sttr_offset(h.get(), 0, &member, 0xFFFFFFF0u);  // area before the member
  EXPECT_EQ(wexlib_get_sttr_offset(h.get(), 0, &member), 0xFFFFFFF0u);
  auto other = wex_test::make_handle();
  EXPECT_EQ(wexlib_get_sttr_offset(other.get(), 0, &member), 0u);
}

TEST_F(WexHandle, OidMappingHoldsWhileReferenced) {
  Instance inst{};
  EXPECT_NE(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u) << "no mapping";
  wex_oid_mapping_create(h.get(), &inst, 2);
  EXPECT_EQ(inst.flags, WEX_OBJ_FLAG_OID);
  EXPECT_EQ(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u);
  wex_oid_mapping_drop_ref(h.get(), &inst);
  EXPECT_EQ(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u);
  wex_oid_mapping_drop_ref(h.get(), &inst);
  EXPECT_TRUE(wex_oid_mapping_exists(h.get(), &inst));
  EXPECT_NE(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u);
  EXPECT_FALSE(wex_oid_mapping_exists(h.get(), &inst));
  EXPECT_EQ(inst.flags, 0);
  EXPECT_EQ(err, 0u);
}

TEST_F(WexHandle, MappingDestroysFailOnceWhenArmed) {
  Instance inst{};
  wex_oid_mapping_create(h.get(), &inst, 0);
  wex_mapping_fail_next(h.get(), 5);
  EXPECT_EQ(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u);
  EXPECT_EQ(err, 5u);
  EXPECT_EQ(wex_get_last_error(h.get()), 5u);
  EXPECT_TRUE(wex_oid_mapping_exists(h.get(), &inst));
  err = 0;
  EXPECT_NE(wex_request_oid_mapping_destroy(h.get(), 0, &inst, &err), 0u);

  wex_hd_mapping_create(h.get(), &inst);
  EXPECT_EQ(inst.flags, WEX_OBJ_FLAG_HD);
  wex_mapping_fail_next(h.get(), 16);
  EXPECT_EQ(wex_hd_mapping_destroy(h.get(), 0, &inst, &err), 16u);
  EXPECT_EQ(err, 16u);
  EXPECT_TRUE(wex_hd_mapping_exists(h.get(), &inst));
  err = 0;
  EXPECT_EQ(wex_hd_mapping_destroy(h.get(), 0, &inst, &err), 0u);
  EXPECT_FALSE(wex_hd_mapping_exists(h.get(), &inst));
  EXPECT_EQ(wex_hd_mapping_destroy(h.get(), 0, &inst, nullptr), 0u) << "already gone";
}

TEST(WexRecorder, HandsOutTheStreamWhileOn) {
  EXPECT_EQ(wexlib_msg_recorder_get_state(), 0);
  FILE *f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  wexlib_msg_recorder_start(f);
  EXPECT_NE(wexlib_msg_recorder_get_state(), 0);
  const char record[] = "<bix_ipc_shim></bix_ipc_shim>\n";
  std::fwrite(record, 1, sizeof record - 1, wexlib_msg_recorder_get_handle());
  wexlib_msg_recorder_stop();
  EXPECT_EQ(wexlib_msg_recorder_get_handle(), nullptr);
  std::rewind(f);
  char back[64] = {};
  EXPECT_EQ(std::fread(back, 1, sizeof back, f), sizeof record - 1);
  EXPECT_STREQ(back, record);
  std::fclose(f);

  wexlib_msg_recorder_start(nullptr);  // on, but nowhere to write
  EXPECT_NE(wexlib_msg_recorder_get_state(), 0);
  EXPECT_EQ(wexlib_msg_recorder_get_handle(), nullptr);
  wexlib_msg_recorder_stop();
}

}  // namespace
