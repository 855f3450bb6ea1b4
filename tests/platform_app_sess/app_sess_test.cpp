// The session header record and bundles.
#include "app_sess.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

struct HandleDeleter {
  void operator()(wex_handle *h) const { wex_handle_free(h); }
};
struct DocDeleter {
  void operator()(void *d) const { wex_xml_doc_free(d); }
};

class AppSessHdr : public ::testing::Test {
 protected:
  std::unique_ptr<wex_handle, HandleDeleter> h{wex_handle_new()};
  uint32_t err = 0;

  app_sess_hdr *make(uint32_t session, uint32_t seq, uint16_t flags) {
    auto *hdr = static_cast<app_sess_hdr *>(app_sess_hdr_create(h.get(), 0));
    app_sess_hdr_session_id_set_value(h.get(), 0, hdr, session, &err);
    app_sess_hdr_seq_num_set_value(h.get(), 0, hdr, seq, &err);
    app_sess_hdr_flags_set_value(h.get(), 0, hdr, flags, &err);
    return hdr;
  }
  void TearDown() override {
    for (void *p : made) app_sess_hdr_destroy(h.get(), 0, p);
  }
  std::vector<void *> made;
  app_sess_hdr *keep(app_sess_hdr *p) {
    made.push_back(p);
    return p;
  }
};

const Bytes kGolden{0x00, 0x00, 0x00, 0x00, 0x00, 0x0E, 0x01, 0x02,
                    0x03, 0x04, 0x0A, 0x0B, 0x0C, 0x0D, 0xBE, 0xEF};

TEST_F(AppSessHdr, CreateInitialisesHeaderAndCountsInstances) {
  wex_variant_entry &entry = _app_sess_hdr_type_info_internal.variant_info->entries[0];
  const uint64_t created = entry.created, destroyed = entry.destroyed;
  auto *hdr = static_cast<app_sess_hdr *>(app_sess_hdr_create(h.get(), 0));
  ASSERT_NE(hdr, nullptr);
  EXPECT_EQ(hdr->type_info, &_app_sess_hdr_type_info_internal);
  EXPECT_EQ(hdr->variant, 0);
  EXPECT_EQ(hdr->session_id, 0u);
  EXPECT_EQ(entry.created, created + 1);
  app_sess_hdr_destroy(h.get(), 0, hdr);
  EXPECT_EQ(entry.destroyed, destroyed + 1);

  // The record's LUID text is its LUID, and its variant spans the instance.
  const wex_type_info &t = _app_sess_hdr_type_info_internal;
  EXPECT_EQ(entry.used_length + entry.alloc_slop, app_sess_hdr_sizeof(h.get()));
  char text[33];
  for (int i = 0; i < 16; ++i) std::snprintf(text + 2 * i, 3, "%02x", t.luid[i]);
  EXPECT_STREQ(text, t.luid_text);
}

TEST_F(AppSessHdr, IndirectHandlesPointAtTheRegisteredCopy) {
  h->types_indirect = 1;
  auto *hdr = keep(static_cast<app_sess_hdr *>(app_sess_hdr_create_internal(h.get(), 0)));
  ASSERT_NE(hdr, nullptr);
  wex_type_info *copy =
      h->type_lookup(h->type_registry, 0, _app_sess_hdr_type_info_internal.luid_text);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(hdr->type_info, copy);
  EXPECT_EQ(copy->indirect, 1u);
  EXPECT_EQ(copy->variant_info, _app_sess_hdr_type_info_internal.variant_info);
}

TEST_F(AppSessHdr, CrCreateFallsBackToTheNullInstance) {
  h->cr_create = 1;
  h->error = 22;
  void *null_instance = app_sess_hdr_create(h.get(), 0);
  ASSERT_NE(null_instance, nullptr);
  EXPECT_EQ(app_sess_hdr_create(h.get(), 0), null_instance);
  app_sess_hdr_destroy(h.get(), 0, null_instance);  // ignored

  h->error = 0;
  wex_handle_set_alloc_limit(h.get(), 8);
  EXPECT_EQ(app_sess_hdr_create(h.get(), 0), null_instance);
  EXPECT_EQ(h->error, WEX_ERR_NOMEM);
  h->cr_create = 0;
  h->error = 0;
  EXPECT_EQ(app_sess_hdr_create(h.get(), 0), nullptr);
  EXPECT_EQ(h->error, 0u) << "a plain create fails quietly";
}

TEST_F(AppSessHdr, DestroyOfACorruptedHeaderAborts) {
  auto *hdr = static_cast<app_sess_hdr *>(app_sess_hdr_create(h.get(), 0));
  hdr->type_info = nullptr;
  EXPECT_DEATH(app_sess_hdr_destroy(h.get(), 0, hdr), "tinfo is null or corrupted");
  hdr->type_info = &_app_sess_hdr_type_info_internal;
  app_sess_hdr_destroy(h.get(), 0, hdr);
}

TEST_F(AppSessHdr, MarshalGoldenBytesAndRoundTrip) {
  auto *hdr = keep(make(0x01020304, 0x0A0B0C0D, 0xBEEF));
  ASSERT_EQ(app_sess_hdr_len(h.get(), 0, hdr), 16u);
  std::array<uint8_t, 32> buf{};
  ASSERT_EQ(app_sess_hdr_marshal(h.get(), 0, buf.data(), hdr, 16, &err), 16u);
  ASSERT_EQ(err, 0u);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 16), kGolden);

  auto *back = keep(static_cast<app_sess_hdr *>(app_sess_hdr_create(h.get(), 0)));
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, buf.data(), back, 16, 0, &err), 16u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(app_sess_hdr_session_id_get_value(h.get(), 0, back, &err), 0x01020304u);
  EXPECT_EQ(app_sess_hdr_seq_num_get_value(h.get(), 0, back, &err), 0x0A0B0C0Du);
  EXPECT_EQ(app_sess_hdr_flags_get_value(h.get(), 0, back, &err), 0xBEEF);
}

TEST_F(AppSessHdr, MarshalReportsRoomAndVariantProblems) {
  auto *hdr = keep(make(1, 2, 3));
  std::array<uint8_t, 32> buf{};
  EXPECT_EQ(app_sess_hdr_marshal(h.get(), 0, buf.data(), hdr, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_NOMEM);
  err = 0;
  EXPECT_EQ(app_sess_hdr_marshal(h.get(), 0, buf.data(), hdr, 15, &err), 14u);
  EXPECT_EQ(err, WEX_ERR_NOROOM);

  // A domain that does not know the type: only the prefix, and 43.
  err = 0;
  wex_domain_set_variant(h.get(), _app_sess_hdr_type_info_internal.luid_text, -1);
  EXPECT_EQ(app_sess_hdr_marshal(h.get(), 0, buf.data(), hdr, 32, &err), 6u);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 6), (Bytes{0xFF, 0, 0, 0, 0, 4}));
  wex_domain_set_variant(h.get(), _app_sess_hdr_type_info_internal.luid_text, 0);

  err = 0;
  hdr->variant = -1;
  EXPECT_EQ(app_sess_hdr_len(h.get(), 0, hdr), 6u);
  EXPECT_EQ(app_sess_hdr_marshal(h.get(), 0, buf.data(), hdr, 32, &err), 6u);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 6), (Bytes{0xFF, 0, 0, 0, 0, 4}));
  auto *back = keep(make(9, 9, 9));
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, buf.data(), back, 6, 0, &err), 6u);
  EXPECT_EQ(back->variant, -1);
  EXPECT_EQ(back->session_id, 9u);
  EXPECT_EQ(app_sess_hdr_session_id_get_value(h.get(), 0, back, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
}

TEST_F(AppSessHdr, UnmarshalTakesNewerAndTrackingSenders) {
  // Flags 0x28: a ra item follows, and a state byte after every field; two
  // bytes of a newer field trail the known ones.
  const Bytes wire{0x05, 0x28, 1,    2,    3,    4,    5,    6,    7,    8,    9,
                   0x00, 0x00, 0x00, 0x13, 0x00, 0x00, 0x00, 0x07, 0x02, 0x00, 0x00,
                   0x00, 0x08, 0x02, 0x00, 0x09, 0x02, 0xEE, 0xEE, 0x77};
  auto *hdr = keep(make(0, 0, 0));
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, wire.data(), hdr, static_cast<int32_t>(wire.size()),
                                   0, &err),
            30u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(hdr->variant, 0) << "a newer variant reads as ours";
  EXPECT_EQ(hdr->session_id, 7u);
  EXPECT_EQ(hdr->seq_num, 8u);
  EXPECT_EQ(hdr->flags, 9u);
}

TEST_F(AppSessHdr, UnmarshalRejectsBadJumpsAndShortInput) {
  auto *hdr = keep(make(1, 2, 3));
  Bytes wire = kGolden;
  wire[5] = 3;  // jump shorter than itself
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, wire.data(), hdr, 16, 0, &err), 6u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  err = 0;
  wire[5] = 15;  // reaches past the input
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, wire.data(), hdr, 16, 0, &err), 6u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  err = 0;
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, kGolden.data(), hdr, 15, 0, &err), 6u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  err = 0;
  wire[5] = 10;  // a jump that ends inside the fields
  app_sess_hdr_unmarshal(h.get(), 0, wire.data(), hdr, 16, 0, &err);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  EXPECT_EQ(hdr->session_id, 0x01020304u) << "fields inside the jump are read";
  err = 0;
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, kGolden.data(), hdr, 0, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_NOMEM);
  err = 0;
  EXPECT_EQ(app_sess_hdr_unmarshal(h.get(), 0, kGolden.data(), nullptr, 16, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_INVALID);
}

TEST_F(AppSessHdr, PrintAndXmlTexts) {
  auto *hdr = keep(make(7, 9, 1));
  char buf[256];
  int32_t n = app_sess_hdr_print(h.get(), 0, buf, 2, "app_sess_hdr", hdr, sizeof buf, &err);
  EXPECT_STREQ(buf,
               "  app_sess_hdr@app_sess_hdr: {\n"
               "    session_id@u_int32:7\n"
               "    seq_num@u_int32:9\n"
               "    flags@u_int16:1\n"
               "  }\n");
  EXPECT_EQ(n, static_cast<int32_t>(std::strlen(buf)));
  n = app_sess_hdr_to_xml(h.get(), 0, "app_sess_hdr", buf, hdr, sizeof buf, 0, &err);
  EXPECT_STREQ(buf,
               "<app_sess_hdr>\n<session_id>7</session_id>\n<seq_num>9</seq_num>\n"
               "<flags>1</flags>\n</app_sess_hdr>\n");
  EXPECT_EQ(n, static_cast<int32_t>(std::strlen(buf)));
  EXPECT_EQ(err, 0u);

  hdr->variant = -1;
  app_sess_hdr_print(h.get(), 0, buf, 0, "s", hdr, sizeof buf, &err);
  EXPECT_STREQ(buf, "s@app_sess_hdr: {\n}\n");
  app_sess_hdr_to_xml(h.get(), 0, "s", buf, hdr, sizeof buf, 2, &err);
  EXPECT_STREQ(buf, "<s state=\"2\">\n</s>\n");

  // Too little room: cut, 90, and the element still closed where it fits.
  hdr->variant = 0;
  n = app_sess_hdr_to_xml(h.get(), 0, "app_sess_hdr", buf, hdr, 40, 0, &err);
  EXPECT_EQ(err, WEX_ERR_NOROOM);
  EXPECT_LT(n, 40);
  EXPECT_EQ(std::string(buf).substr(0, 15), "<app_sess_hdr>\n");
}

TEST_F(AppSessHdr, XmlRoundTripAndAbsentElements) {
  auto *hdr = keep(make(123456, 42, 65535));
  char xml[512];
  int32_t n = std::snprintf(xml, sizeof xml, "<msg>");
  n += app_sess_hdr_to_xml(h.get(), 0, "app_sess_hdr", xml + n, hdr, sizeof xml - n, 0, &err);
  n += std::snprintf(xml + n, sizeof xml - n, "<partial><seq_num>5</seq_num></partial></msg>");
  std::unique_ptr<void, DocDeleter> doc(wex_xml_doc_parse(xml, static_cast<size_t>(n)));
  ASSERT_NE(doc, nullptr);

  auto *back = keep(make(0, 0, 0));
  app_sess_hdr_from_xml(h.get(), 0, "//app_sess_hdr", doc.get(), back, &err, nullptr, 0);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(back->session_id, 123456u);
  EXPECT_EQ(back->seq_num, 42u);
  EXPECT_EQ(back->flags, 65535);

  // Missing fields keep their values; a missing element is 2.
  app_sess_hdr_from_xml(h.get(), 0, "//partial", doc.get(), back, &err, nullptr, 0);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(back->session_id, 123456u);
  EXPECT_EQ(back->seq_num, 5u);
  app_sess_hdr_from_xml(h.get(), 0, "//nowhere", doc.get(), back, &err, nullptr, 0);
  EXPECT_EQ(err, WEX_ERR_ABSENT);
  EXPECT_EQ(h->error, WEX_ERR_ABSENT);
}

TEST_F(AppSessHdr, BadFieldTextStopsTheParse) {
  const char xml[] = "<h><session_id>x</session_id><seq_num>5</seq_num></h>";
  std::unique_ptr<void, DocDeleter> doc(wex_xml_doc_parse(xml, sizeof xml - 1));
  auto *hdr = keep(make(1, 1, 1));
  char msg[64] = {};
  app_sess_hdr_from_xml(h.get(), 0, "/h", doc.get(), hdr, &err, msg, sizeof msg);
  EXPECT_EQ(err, WEX_ERR_INVALID);
  EXPECT_EQ(hdr->seq_num, 1u);
  EXPECT_STREQ(msg, "Not a decimal u_int32 at /h/session_id: \"x\"");
}

TEST_F(AppSessHdr, AccessorsCheckTheInstance) {
  app_sess_hdr_session_id_set_value(h.get(), 0, nullptr, 1, &err);
  EXPECT_EQ(err, WEX_ERR_INVALID);
  EXPECT_EQ(app_sess_hdr_seq_num_get_value(h.get(), 0, nullptr, &err), 0u);
}

// ---- Bundles ------------------------------------------------------------------

const uint8_t kLuidA[16] = {1, 2, 3};
const uint8_t kLuidB[16] = {9, 8, 7};

struct Refusals {
  int calls = 0;
  uint32_t code = 0;
  std::string last_name;
  static uint32_t handler(void *ctx, wex_handle *, uint32_t, const uint8_t *, const char *name) {
    auto *self = static_cast<Refusals *>(ctx);
    ++self->calls;
    self->last_name = name;
    return self->code;
  }
};

class AppSessBundle : public AppSessHdr {
 protected:
  void TearDown() override {
    app_sess_bundle_handler_unregister();
    app_sess_bundle_end(h.get());
    AppSessHdr::TearDown();
  }
};

TEST_F(AppSessBundle, CountsValidatedMessages) {
  EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidA, "message a", &err), WEX_ERR_INVALID)
      << "no bundle under construction";
  err = 0;
  h->error = 0;
  uint32_t id = app_sess_bundle_begin(h.get(), 0);
  ASSERT_NE(id, 0u);
  EXPECT_EQ(h->bundle, id);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidA, "message a", &err), 0u);
    EXPECT_EQ(bundle_message_increment_count(h.get(), kLuidA, &err), 0u);
  }
  EXPECT_EQ(app_sess_bundle_count(h.get()), 3u);
  // Counting needs the message validated just before.
  EXPECT_EQ(bundle_message_increment_count(h.get(), kLuidA, &err), WEX_ERR_ABSENT);
  err = 0;
  bundle_message_validate_add(h.get(), 0, kLuidA, "message a", &err);
  EXPECT_EQ(bundle_message_increment_count(h.get(), kLuidB, &err), WEX_ERR_ABSENT);
  EXPECT_EQ(app_sess_bundle_end(h.get()), 3u);
  EXPECT_EQ(h->bundle, 0u);
}

TEST_F(AppSessBundle, PendingErrorIsLeftAlone) {
  app_sess_bundle_begin(h.get(), 0);
  err = 7;
  EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidA, "message a", &err), 0u);
  EXPECT_EQ(bundle_message_increment_count(h.get(), kLuidA, &err), 0u);
  EXPECT_EQ(err, 7u);
  EXPECT_EQ(app_sess_bundle_count(h.get()), 0u);
  EXPECT_EQ(h->error, 0u);
}

TEST_F(AppSessBundle, RefusesWhenFullOrWhenTheHandlerSaysNo) {
  app_sess_bundle_begin(h.get(), 1);
  Refusals refusals;
  EXPECT_EQ(app_sess_bundle_handler_register(Refusals::handler, &refusals), nullptr);
  refusals.code = 95;
  EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidA, "message a", &err), 95u);
  EXPECT_EQ(err, 95u);
  EXPECT_EQ(h->error, 95u);
  EXPECT_EQ(refusals.last_name, "message a");
  err = 0;
  refusals.code = 0;
  EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidB, "message b", &err), 0u);
  EXPECT_EQ(bundle_message_increment_count(h.get(), kLuidB, &err), 0u);
  EXPECT_EQ(bundle_message_validate_add(h.get(), 0, kLuidB, "message b", &err),
            APP_SESS_ERR_BUNDLE_FULL);
  EXPECT_EQ(refusals.calls, 2);
  EXPECT_EQ(app_sess_bundle_handler_unregister(), &Refusals::handler);
  EXPECT_EQ(app_sess_bundle_handler_unregister(), nullptr);
}

}  // namespace
