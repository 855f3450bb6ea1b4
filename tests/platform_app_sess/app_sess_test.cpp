// The session header record and bundles.
#include "app_sess.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Codes = std::vector<uint32_t>;
wex_type_info *const kType = &_app_sess_hdr_type_info_internal;
const Bytes kGolden{0, 0, 0, 0, 0, 0x0E, 1, 2, 3, 4, 0x0A, 0x0B, 0x0C, 0x0D, 0xBE, 0xEF};

class AppSess : public ::testing::Test {
 protected:
  std::unique_ptr<wex_handle, decltype(&wex_handle_free)> owner{wex_handle_new(), wex_handle_free};
  wex_handle *h = owner.get();
  uint32_t err = 0;
  uint8_t buf[64] = {};
  static Codes fields(const app_sess_hdr &x) { return {x.session_id, x.seq_num, x.flags}; }
};

TEST_F(AppSess, CreateCountsRegistersIndirectCopiesAndFallsBackToTheNullInstance) {
  wex_variant_entry &entry = kType->variant_info->entries[0];
  const uint64_t created = entry.created, destroyed = entry.destroyed;
  auto *plain = static_cast<app_sess_hdr *>(app_sess_hdr_create(h, 0));
  h->types_indirect = 1;
  auto *hdr = static_cast<app_sess_hdr *>(app_sess_hdr_create_internal(h, 0));
  wex_type_info *copy = h->type_lookup(h->type_registry, 0, kType->luid_text);
  ASSERT_NE(copy, nullptr);
  // An indirect handle's instances point at its registered copy; both count.
  EXPECT_EQ(std::tuple(plain->type_info, hdr->type_info, copy->indirect, copy->variant_info),
            std::tuple(kType, copy, 1u, kType->variant_info));
  hdr->type_info = nullptr;
  EXPECT_DEATH(app_sess_hdr_destroy(h, 0, hdr), "tinfo is null or corrupted");
  hdr->type_info = copy;
  app_sess_hdr_destroy(h, 0, hdr);
  app_sess_hdr_destroy(h, 0, plain);
  // The variant entry spans the instance.
  EXPECT_EQ(std::tuple(entry.created, entry.destroyed, entry.used_length + entry.alloc_slop),
            std::tuple(created + 2, destroyed + 2, app_sess_hdr_sizeof(h)));

  // While cr_create is set, a pending error or a failed allocation (12)
  // yields the shared null instance, which destroy ignores.
  h->cr_create = 1;
  h->error = 22;
  void *null_instance = app_sess_hdr_create(h, 0);
  app_sess_hdr_destroy(h, 0, null_instance);
  h->error = 0;
  wex_handle_set_alloc_limit(h, 8);
  EXPECT_EQ(std::tuple(null_instance != nullptr, app_sess_hdr_create(h, 0), h->error),
            std::tuple(true, null_instance, 12u));
  h->cr_create = h->error = 0;
  EXPECT_EQ(std::tuple(app_sess_hdr_create(h, 0), h->error), std::tuple(nullptr, 0u));
}

TEST_F(AppSess, WireGoldenBytesRoundTripNewerSendersAndRefusals) {
  app_sess_hdr hdr{kType, 0, 0, 0, 0, 0, 0x0A0B0C0D, 0xBEEF}, back{kType, 0, 0, 0, 0, 9, 9, 9};
  // Flags 0x28: a ra item follows, and a state byte after every field; two
  // bytes of a newer field trail the known ones; a newer variant reads as ours.
  const Bytes wire{5, 0x28, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0,    0,    0x13, 0,
                   0, 0,    7, 2, 0, 0, 0, 8, 2, 0, 9, 2, 0xEE, 0xEE, 0x77};
  EXPECT_EQ(app_sess_hdr_unmarshal(h, 0, wire.data(), &back, int32_t(wire.size()), 0, &err), 30u);
  EXPECT_EQ(std::tuple(err, back.variant, fields(back)), std::tuple(0u, 0, Codes{7, 8, 9}));
  app_sess_hdr_session_id_set_value(h, 0, &hdr, 0x01020304, &err);
  EXPECT_EQ((Codes{app_sess_hdr_len(h, 0, &hdr), app_sess_hdr_marshal(h, 0, buf, &hdr, 16, &err),
                   app_sess_hdr_unmarshal(h, 0, buf, &back, 16, 0, &err), err}),
            (Codes{16, 16, 16, 0}));
  EXPECT_EQ(std::tuple(Bytes(buf, buf + 16), fields(back)),
            std::tuple(kGolden, Codes{0x01020304, 0x0A0B0C0D, 0xBEEF}));
  uint32_t e[4] = {};
  EXPECT_EQ((Codes{app_sess_hdr_marshal(h, 0, buf, &hdr, 0, &e[0]), e[0],
                   app_sess_hdr_marshal(h, 0, buf, &hdr, 15, &e[1]), e[1],
                   app_sess_hdr_unmarshal(h, 0, kGolden.data(), &back, 0, 0, &e[2]), e[2],
                   app_sess_hdr_unmarshal(h, 0, kGolden.data(), nullptr, 16, 0, &e[3]), e[3]}),
            (Codes{0, WEX_ERR_NOMEM, 14, WEX_ERR_NOROOM, 0, WEX_ERR_NOMEM, 0, WEX_ERR_INVALID}));

  // A domain that does not know the type, and a header whose own variant is
  // negative: only the prefix, and 43 where the fields are wanted.
  const Bytes prefix{0xFF, 0, 0, 0, 0, 4};
  wex_domain_set_variant(h, kType->luid_text, -1);
  EXPECT_EQ((Codes{app_sess_hdr_marshal(h, 0, buf, &hdr, 32, &err), err}), (Codes{6, 43}));
  EXPECT_EQ(Bytes(buf, buf + 6), prefix);
  wex_domain_set_variant(h, kType->luid_text, 0);
  hdr.variant = -1;
  err = 0;
  EXPECT_EQ(
      (Codes{app_sess_hdr_len(h, 0, &hdr), app_sess_hdr_marshal(h, 0, buf, &hdr, 32, &err),
             app_sess_hdr_unmarshal(h, 0, prefix.data(), &back, 6, 0, &err), uint8_t(back.variant),
             back.session_id, app_sess_hdr_session_id_get_value(h, 0, &back, &err), err}),
      (Codes{6, 6, 6, 0xFF, 0x01020304, 0, WEX_ERR_VARIANT}));

  // A jump shorter than itself, past the input, or ending inside the fields
  // (those inside are read) is 74; the answer is the bytes read.
  auto jump = [&](uint8_t to, int32_t len) {
    Bytes bad = kGolden;
    bad[5] = to;
    app_sess_hdr fresh{kType};
    uint32_t e = 0;
    return Codes{app_sess_hdr_unmarshal(h, 0, bad.data(), &fresh, len, 0, &e), e, fresh.session_id};
  };
  EXPECT_EQ((std::vector<Codes>{jump(3, 16), jump(15, 16), jump(14, 15), jump(10, 16)}),
            (std::vector<Codes>{{6, 74, 0}, {6, 74, 0}, {6, 74, 0}, {12, 74, 0x01020304}}));
}

TEST_F(AppSess, PrintXmlTextsAndXmlRoundTrip) {
  app_sess_hdr hdr{kType, 0, 0, 0, 0, 7, 9, 1}, back{kType};
  char text[256];
  EXPECT_EQ(app_sess_hdr_print(h, 0, text, 2, "app_sess_hdr", &hdr, sizeof text, &err), 102);
  EXPECT_STREQ(text,
               "  app_sess_hdr@app_sess_hdr: {\n    session_id@u_int32:7\n"
               "    seq_num@u_int32:9\n    flags@u_int16:1\n  }\n");
  // Too little room: cut, and 90.
  EXPECT_EQ(app_sess_hdr_to_xml(h, 0, "app_sess_hdr", text, &hdr, 40, 0, &err), 39);
  EXPECT_EQ(std::tuple(std::string(text), err),
            std::tuple("<app_sess_hdr>\n<session_id>7</session_i", WEX_ERR_NOROOM));
  err = 0;
  EXPECT_EQ(app_sess_hdr_to_xml(h, 0, "app_sess_hdr", text, &hdr, sizeof text, 0, &err), 96);
  EXPECT_STREQ(text,
               "<app_sess_hdr>\n<session_id>7</session_id>\n<seq_num>9</seq_num>\n"
               "<flags>1</flags>\n</app_sess_hdr>\n");
  const std::string xml = "<msg><bad><session_id>x</session_id><seq_num>6</seq_num></bad>" +
                          std::string(text) + "<partial><seq_num>5</seq_num></partial></msg>";
  hdr.variant = -1;  // a header without fields
  app_sess_hdr_to_xml(h, 0, "s", text, &hdr, sizeof text, 2, &err);
  EXPECT_STREQ(text, "<s state=\"2\">\n</s>\n");

  // Back from XML; missing fields keep their values, a missing element is 2,
  // a bad field stops the parse and says why.
  std::unique_ptr<void, decltype(&wex_xml_doc_free)> doc(wex_xml_doc_parse(xml.data(), xml.size()),
                                                         wex_xml_doc_free);
  app_sess_hdr_from_xml(h, 0, "//app_sess_hdr", doc.get(), &back, &err, nullptr, 0);
  app_sess_hdr_from_xml(h, 0, "//partial", doc.get(), &back, &err, nullptr, 0);
  EXPECT_EQ(std::tuple(err, fields(back)), std::tuple(0u, Codes{7, 5, 1}));
  app_sess_hdr_from_xml(h, 0, "//bad", doc.get(), &back, &err, text, sizeof text);
  EXPECT_EQ(std::tuple(err, fields(back), std::string(text)),
            std::tuple(WEX_ERR_INVALID, Codes{7, 5, 1},
                       "Not a decimal u_int32 at //bad/session_id: \"x\""));
  err = 0;
  app_sess_hdr_from_xml(h, 0, "//nowhere", doc.get(), &back, &err, nullptr, 0);
  EXPECT_EQ((Codes{err, h->error}), (Codes{WEX_ERR_ABSENT, WEX_ERR_ABSENT}));
}

const uint8_t kLuidA[16] = {1, 2, 3}, kLuidB[16] = {9, 8, 7};

// A bundle counts messages validated (by the registered handler too) and
// then counted with the same LUID, up to its maximum.
TEST_F(AppSess, BundlesCountValidatedMessagesAndRefuseWhenFullOrTold) {
  auto add = [&](const uint8_t *counted) {
    uint32_t e = 0;
    return Codes{bundle_message_validate_add(h, 0, kLuidA, "message a", &e),
                 bundle_message_increment_count(h, counted, &e), e};
  };
  EXPECT_EQ(add(kLuidA), (Codes{WEX_ERR_INVALID, 0, WEX_ERR_INVALID})) << "no bundle yet";
  EXPECT_NE(app_sess_bundle_begin(h, 0), 0u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(add(kLuidA), (Codes{0, 0, 0}));
  EXPECT_EQ((Codes{bundle_message_increment_count(h, kLuidA, &err), app_sess_bundle_count(h)}),
            (Codes{WEX_ERR_ABSENT, 3}));
  EXPECT_EQ(add(kLuidB), (Codes{0, WEX_ERR_ABSENT, WEX_ERR_ABSENT}));
  EXPECT_EQ(std::tuple(app_sess_bundle_end(h), h->bundle), std::tuple(3u, 0u));

  // The handler refuses the first message it is asked about.
  auto handler = [](void *ctx, wex_handle *, uint32_t, const uint8_t *, const char *name) {
    auto *asked = static_cast<std::vector<std::string> *>(ctx);
    asked->push_back(name);
    return asked->size() == 1 ? 95u : 0u;
  };
  std::vector<std::string> asked;
  app_sess_bundle_begin(h, 1);
  EXPECT_EQ(app_sess_bundle_handler_register(handler, &asked), nullptr);
  EXPECT_EQ(std::tuple(add(kLuidA), h->error), std::tuple(Codes{95, 0, 95}, 95u));
  EXPECT_EQ(add(kLuidA), (Codes{0, 0, 0}));
  EXPECT_EQ(add(kLuidA), (Codes{APP_SESS_ERR_BUNDLE_FULL, 0, APP_SESS_ERR_BUNDLE_FULL}));
  EXPECT_EQ(asked, (std::vector<std::string>{"message a", "message a"})) << "not asked when full";
  EXPECT_EQ(std::tuple(app_sess_bundle_handler_unregister(), app_sess_bundle_end(h)),
            std::tuple(+handler, 1u));
}

}  // namespace
