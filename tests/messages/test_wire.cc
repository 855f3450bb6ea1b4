// Messages on the wire: golden bytes, round trips of all eleven in both tracking modes,
// short buffers, domain and bundle checks, the _cr forms, hostile input, failing
// allocations, and receive by LUID.
#include <gtest/gtest.h>

#include <random>

#include "msg_support.h"

namespace bixtest {
namespace {

const uint32_t kOff = WEX_STTR_OFF, kOn = WEX_STTR_ON;

// Bodies ending in a union leave their last state byte out of an exact-length buffer.
bool ends_in_union(const Msg &m) {
  const std::string b = m.body()->type;
  return b == "wex_xcvr_status_info" || b == "wex_xcvr_idprom_info";
}

std::vector<uint8_t> marshal(wex_handle *h, const Msg &m, void *msg, uint32_t *err) {
  std::vector<uint8_t> out(m.len(h, 0, msg));
  out.resize(m.marshal(h, 0, out.data(), msg, static_cast<int32_t>(out.size()), err));
  return out;
}

TEST(MessageWire, GoldenBytesOfAPlainMessage) {
  const Msg &m = message("bix_ipc_shim_msg");
  Handle h(kOff);
  h->header_stamp = 0x01020304;
  auto *msg = static_cast<bix_ipc_shim_msg_message *>(m.create(h, 0));
  uint32_t err = 0;
  app_sess_hdr_session_id_set_value(h, 0, msg->app_sess_hdr, 7, &err);
  app_sess_hdr_seq_num_set_value(h, 0, msg->app_sess_hdr, 9, &err);
  app_sess_hdr_flags_set_value(h, 0, msg->app_sess_hdr, 1, &err);
  ipc_shim_data_slot_set_value(h, 0, msg->ipc_shim_data, 1, &err);
  ipc_shim_data_subslot_set_value(h, 0, msg->ipc_shim_data, 2, &err);
  for (uint32_t i = 0; i < 3; ++i)
    ipc_shim_data_data_set_value(h, 0, msg->ipc_shim_data, i, 0xA1 + i, &err);
  ASSERT_EQ(m.len(h, 0, msg), 43u + 16 + 21);
  const std::vector<uint8_t> want = {
      0xBC, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x01, 0x00, 0x1B,  // header: record, version,
                                                                         // 27
      0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x50,                    // stamp, total 80
      0,    0,    0,    0,    0,    0,    0,    0,                       // reserved
      0x1c, 0x71, 0x59, 0x47, 0x72, 0x8e, 0xb9, 0xdf, 0xee, 0x06, 0x0b, 0x7f,
      0x56, 0x88, 0x48, 0xaa, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0E, 0,    0,
      0,    7,    0,    0,    0,    9,    0x00, 0x01,  // session header
      0x00, 0x00, 0x00, 0x00, 0x00, 0x13, 0,    0,    0,    1,    0,    0,
      0,    2,    0,    0,    0,    3,  // ipc_shim_data
      0xA1, 0xA2, 0xA3};
  EXPECT_EQ(marshal(h, m, msg, &err), want);
  EXPECT_EQ(err, 0u);
  // The header record now carries the stamp and the total.
  uint32_t stamp, total;
  std::memcpy(&stamp, msg->header_record + 8, 4);
  std::memcpy(&total, msg->header_record + 12, 4);
  EXPECT_EQ(stamp, 0x01020304u);
  EXPECT_EQ(total, 80u);
  m.destroy(h, 0, msg);
}

// Every message, both tracking modes at each end: decoding gives the values back, and
// decoding and encoding again on the same side is stable.
TEST(MessageWire, EveryMessageRoundTripsInEveryTrackingMode) {
  for (const Msg &m : messages()) {
    for (uint32_t send_mode : {kOff, kOn}) {
      for (uint32_t recv_mode : {kOff, kOn}) {
        SCOPED_TRACE(m.name + (send_mode == kOn ? " sender tracks" : "") +
                     (recv_mode == kOn ? " receiver tracks" : ""));
        Handle tx(send_mode), rx(recv_mode);
        const uint8_t seed = static_cast<uint8_t>(m.name.size());
        Encoded e = encode(tx, m, seed, 1 + seed % 7);
        const uint32_t len = m.len(tx, 0, e.msg);
        EXPECT_EQ(e.wire.size() + (send_mode == kOn && ends_in_union(m)), len);
        EXPECT_EQ(e.wire[7], send_mode == kOn);  // the sender's tracking byte
        void *back = nullptr;
        uint32_t err = 0;
        EXPECT_EQ(m.unmarshal_only(rx, 0, &back, e.wire.data(), static_cast<int32_t>(e.wire.size()),
                                   &err),
                  e.wire.size());
        ASSERT_EQ(err, 0u);
        EXPECT_EQ(print_text(rx, m, back), print_text(tx, m, e.msg));
        std::vector<uint8_t> again = marshal(rx, m, back, &err);
        ASSERT_EQ(err, 0u);
        void *third = nullptr;
        m.unmarshal_only(rx, 0, &third, again.data(), static_cast<int32_t>(again.size()), &err);
        EXPECT_EQ(marshal(rx, m, third, &err), again);
        if (send_mode == recv_mode) {
          EXPECT_EQ(again, e.wire);
        }
        for (void *p : {e.msg, back, third})
          m.destroy(p == e.msg ? static_cast<wex_handle *>(tx) : rx, 0, p);
        EXPECT_TRUE(tx.live.empty() && rx.live.empty());
      }
    }
  }
}

// Room below the encoded length: nothing past the room, the header area stays zero after
// a failure, and below 27 bytes nothing at all is written (90).
TEST(MessageWire, ShortBuffersAreNeverWrittenPastTheirEnd) {
  for (const Msg &m : messages()) {
    for (uint32_t mode : {kOff, kOn}) {
      Handle h(mode);
      Encoded e = encode(h, m, 3, 6);
      const uint32_t len = m.len(h, 0, e.msg);
      std::vector<uint8_t> buf(len + 8);
      for (uint32_t room = 0; room <= len; ++room) {
        std::fill(buf.begin(), buf.end(), 0xAA);
        uint32_t err = 0;
        uint32_t n = m.marshal(h, 0, buf.data(), e.msg, static_cast<int32_t>(room), &err);
        SCOPED_TRACE(m.name + " room " + std::to_string(room));
        ASSERT_LE(n, room);
        ASSERT_TRUE(
            std::all_of(buf.begin() + room, buf.end(), [](uint8_t b) { return b == 0xAA; }));
        if (room < 27) {
          ASSERT_EQ(n, 0u);
          ASSERT_EQ(err, 90u);
          ASSERT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0xAA; }));
        } else if (err) {
          ASSERT_TRUE(std::all_of(buf.begin(), buf.begin() + 27, [](uint8_t b) { return b == 0; }));
        }
        if (!err) {  // trailing state bytes are clipped silently: what was written decodes
          void *back = nullptr;
          uint32_t e2 = 0;
          ASSERT_EQ(m.unmarshal_only(h, 0, &back, buf.data(), static_cast<int32_t>(n), &e2), n);
          ASSERT_EQ(e2, 0u);
          m.destroy(h, 0, back);
        }
        if (room == len) {  // the exact length holds the whole message
          ASSERT_EQ(err, 0u);
          ASSERT_TRUE(std::equal(e.wire.begin(), e.wire.end(), buf.begin()));
        }
      }
      m.destroy(h, 0, e.msg);
    }
  }
}

TEST(MessageWire, TheDomainRefusesBeforeAnythingIsWritten) {
  for (const Msg &m : messages()) {
    Handle h;
    Traces t;
    Encoded e = encode(h, m, 1);
    wex_domain_set_message_allowed(h, m.luid_text, 0);
    std::vector<uint8_t> buf(e.wire.size(), 0xAA);
    uint32_t err = 0;
    EXPECT_EQ(m.marshal(h, 0, buf.data(), e.msg, static_cast<int32_t>(buf.size()), &err), 0u);
    EXPECT_EQ(err, 52u);
    EXPECT_EQ(wex_get_last_error(h), 52u);
    EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0xAA; }));
    EXPECT_TRUE(t.has(LUMO_LEVEL_ERROR, "domainfail: Message " + m.name + " (" + m.luid_text +
                                            ") is not allowed for the current domain (default)"));
    m.destroy(h, 0, e.msg);
  }
}

TEST(MessageWire, CrFormsAndAPendingError) {
  for (const Msg &m : messages()) {
    Handle h;
    Traces t;
    Encoded e = encode(h, m, 2);
    std::vector<uint8_t> buf(e.wire.size());
    EXPECT_EQ(m.marshal_cr(h, e.msg, buf.data(), static_cast<int32_t>(buf.size())), e.wire.size());
    EXPECT_EQ(m.len_cr(h, e.msg), m.len(h, 0, e.msg));
    EXPECT_EQ(m.marshal_cr(h, e.msg, buf.data(), 30), 0xFFFFFFFFu);  // fails: 90 stays
    EXPECT_EQ(h->error, 90u);
    EXPECT_EQ(m.len_cr(h, e.msg), 0u);
    EXPECT_EQ(m.marshal_cr(h, e.msg, buf.data(), static_cast<int32_t>(buf.size())), 0xFFFFFFFFu);
    EXPECT_TRUE(
        t.has(LUMO_LEVEL_ERROR, "Message " + m.name + " failed to marshal: " + std::strerror(90)));
    EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG, "Error present in call to message marshal: " +
                                            std::string(std::strerror(90))));
    // Suppressed messages make the failure a debug trace.
    h->error = 0;
    wex_set_suppress_messages(h, 1);
    uint32_t err = 0;
    m.marshal(h, 0, buf.data(), e.msg, 40, &err);
    EXPECT_EQ(t.lines.back(),
              std::make_pair(LUMO_LEVEL_DEBUG, "Message " + m.name + " failed to marshal: " +
                                                   std::string(std::strerror(90))));
    m.destroy(h, 0, e.msg);
  }
}

// An empty member slot cannot be sent; the message of another type and the null
// instance are not written (marshal stores into the header record).
TEST(MessageWire, MarshalRefusesIncompleteAndForeignMessages) {
  for (const Msg &m : messages()) {
    Handle h;
    uint8_t buf[256];
    uint32_t err = 0;
    void *shallow = m.create_shallow(h, 0);
    EXPECT_EQ(m.len(h, 0, shallow), 43u);
    m.marshal(h, 0, buf, shallow, sizeof buf, &err);
    EXPECT_EQ(err, 22u);
    const Msg &other =
        message(m.name == "bix_ipc_shim_msg" ? "ipc_shim_xcvr_msg" : "bix_ipc_shim_msg");
    void *foreign = other.create_shallow(h, 0);
    err = 0;
    EXPECT_EQ(m.marshal(h, 0, buf, foreign, sizeof buf, &err), 0u);
    EXPECT_EQ(err, 22u);
    h->error = 1;
    void *null_msg = m.create_cr(h);
    err = 0;
    EXPECT_EQ(m.marshal(h, 0, buf, null_msg, sizeof buf, &err), 0u);
    EXPECT_EQ(err, 22u);
    m.destroy(h, 0, shallow);
    other.destroy(h, 0, foreign);
    EXPECT_TRUE(h.live.empty());
  }
}

// The LUID is stepped over, not checked, by unmarshal_only.
TEST(MessageWire, UnmarshalOnlyDecodesWhateverLuidItCarries) {
  const Msg &m = message("ipc_shim_xcvr_presence_info");
  Handle h;
  Encoded e = encode(h, m, 4);
  std::memcpy(e.wire.data() + 27, message("ipc_shim_xcvr_msg").luid, 16);
  void *back = nullptr;
  uint32_t err = 0;
  EXPECT_EQ(m.unmarshal_only(h, 0, &back, e.wire.data(), static_cast<int32_t>(e.wire.size()), &err),
            e.wire.size());
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(print_text(h, m, back), print_text(h, m, e.msg));
  m.destroy(h, 0, back);
  m.destroy(h, 0, e.msg);
}

int g_handled = 0;
void counting_handler(wex_handle *, uint32_t, uint64_t, void *, uint32_t *) {
  ++g_handled;
}

// Cut short at every length, a message is refused, never read past its end (the input is
// an exact-size copy, checked under AddressSanitizer), never handed to a handler, and
// leaves nothing allocated.
TEST(MessageWire, EveryTruncationIsRefusedCleanly) {
  for (const Msg &m : messages()) {
    for (uint32_t mode : {kOff, kOn}) {
      Handle tx(mode), rx(mode);
      Encoded e = encode(tx, m, 5, 3);
      for (size_t k = 0; k < e.wire.size(); ++k) {
        std::unique_ptr<uint8_t[]> cut(new uint8_t[k ? k : 1]);
        std::memcpy(cut.get(), e.wire.data(), k);
        void *out = &out;
        uint32_t err = 0;
        g_handled = 0;
        uint32_t n = bix_ipc_shim_message_receive(rx, 0, 0, &out, cut.get(),
                                                  static_cast<int32_t>(k), counting_handler, &err);
        ASSERT_LE(n, k);
        ASSERT_NE(err, 0u) << m.name << " cut at " << k;
        ASSERT_EQ(out, nullptr);
        ASSERT_EQ(g_handled, 0);
        ASSERT_TRUE(rx.live.empty());
      }
      m.destroy(tx, 0, e.msg);
    }
  }
}

// A valid header and LUID followed by random bytes, and random bytes altogether.
TEST(MessageWire, HostileBodiesAreRefusedOrDecodedWithoutHarm) {
  std::mt19937 rng(11);
  for (const Msg &m : messages()) {
    Handle h(kOn);
    Encoded e = encode(h, m, 6);
    for (int round = 0; round < 200; ++round) {
      std::vector<uint8_t> bytes = e.wire;
      for (size_t i = round % 2 ? 43 : 0; i < bytes.size(); ++i)
        if (rng() % 4 == 0) bytes[i] = static_cast<uint8_t>(rng());
      std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
      std::memcpy(copy.get(), bytes.data(), bytes.size());
      void *out = nullptr;
      uint32_t err = 0;
      uint32_t n = m.unmarshal(h, 0, 0, &out, copy.get(), static_cast<int32_t>(bytes.size()),
                               counting_handler, &err);
      ASSERT_LE(n, bytes.size());
      ASSERT_EQ(out != nullptr, err == 0);
      m.destroy(h, 0, out);
    }
    m.destroy(h, 0, e.msg);
    EXPECT_TRUE(h.live.empty());
  }
}

// Every allocation of a decode failing in turn: 12 or success, and no leak.
TEST(MessageWire, UnmarshalSurvivesEveryFailingAllocation) {
  for (const Msg &m : messages()) {
    for (uint32_t mode : {kOff, kOn}) {
      Handle tx(mode);
      Encoded e = encode(tx, m, 7, 2);
      for (uint32_t k = 1;; ++k) {
        Handle rx(mode);
        rx.fail_at = k;
        void *out = nullptr;
        uint32_t err = 0;
        m.unmarshal(rx, 0, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()),
                    counting_handler, &err);
        ASSERT_TRUE(err == 12 || (err == 0 && rx.allocs < k))
            << m.name << " allocation " << k << " err " << err;
        m.destroy(rx, 0, out);
        ASSERT_TRUE(rx.live.empty());
        if (err == 0) break;
      }
      m.destroy(tx, 0, e.msg);
    }
  }
}

TEST(MessageWire, ReceivePicksTheMessageByLuid) {
  for (const Msg &m : messages()) {
    Handle h;
    Encoded e = encode(h, m, 8);
    void *out = nullptr;
    uint32_t err = 0;
    g_handled = 0;
    EXPECT_EQ(
        bix_ipc_shim_message_receive(h, 0, 0, &out, e.wire.data(),
                                     static_cast<int32_t>(e.wire.size()), counting_handler, &err),
        e.wire.size());
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(g_handled, 1);
    ASSERT_TRUE(out);
    EXPECT_STREQ((*static_cast<wex_type_info **>(out))->type_name, m.name.c_str());
    EXPECT_EQ(print_text(h, m, out), print_text(h, m, e.msg));
    m.destroy(h, 0, out);
    // An unknown LUID: 2. Too short for a LUID: 74. Neither calls the handler.
    e.wire[30] ^= 0x55;
    out = &out;
    EXPECT_EQ(
        bix_ipc_shim_message_receive(h, 0, 0, &out, e.wire.data(),
                                     static_cast<int32_t>(e.wire.size()), counting_handler, &err),
        0u);
    EXPECT_EQ(err, 2u);
    EXPECT_EQ(out, nullptr);
    err = 0;
    out = &out;
    EXPECT_EQ(
        bix_ipc_shim_message_receive(h, 0, 0, &out, e.wire.data(), 42, counting_handler, &err), 0u);
    EXPECT_EQ(err, 74u);
    EXPECT_EQ(out, nullptr);
    // An error already in the slot: nothing at all.
    out = &out;
    EXPECT_EQ(
        bix_ipc_shim_message_receive(h, 0, 0, &out, e.wire.data(),
                                     static_cast<int32_t>(e.wire.size()), counting_handler, &err),
        0u);
    EXPECT_EQ(out, &out);
    EXPECT_EQ(err, 74u);
    EXPECT_EQ(g_handled, 1);
    m.destroy(h, 0, e.msg);
    EXPECT_TRUE(h.live.empty());
  }
}

// A bundle validates each message before it is encoded and counts it afterwards.
uint32_t refuse_status(void *ctx, wex_handle *, uint32_t, const uint8_t *, const char *name) {
  ++*static_cast<int *>(ctx);
  return std::string(name) == "message ipc_shim_xcvr_status_info" ? 95 : 0;
}
uint32_t accept_all(void *, wex_handle *, uint32_t, const uint8_t *, const char *) {
  return 0;
}

TEST(MessageWire, BundlesValidateAndCountEachMessage) {
  int calls = 0;
  EXPECT_EQ(bix_ipc_shim_bundle_handler_register(refuse_status, &calls), nullptr);
  Handle h;
  Traces t;
  ASSERT_NE(app_sess_bundle_begin(h, 0), 0u);
  uint32_t counted = 0;
  for (const Msg &m : messages()) {
    Encoded e = encode(h, m, 9);  // encoded inside the bundle
    const bool refused = m.name == "ipc_shim_xcvr_status_info";
    EXPECT_EQ(e.wire.empty(), refused);
    counted += !refused;
    m.destroy(h, 0, e.msg);
  }
  EXPECT_EQ(calls, 11);
  EXPECT_EQ(app_sess_bundle_end(h), counted);
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_ERROR, "Message ipc_shim_xcvr_status_info is not valid for bundle: " +
                                  std::string(std::strerror(95))));
  // Registration order: each call answers the handler registered before.
  EXPECT_EQ(bix_ipc_shim_bundle_handler_register(accept_all, nullptr), refuse_status);
  EXPECT_EQ(bix_ipc_shim_bundle_registered_handler, accept_all);
  EXPECT_EQ(bix_ipc_shim_bundle_handler_unregister(), accept_all);
  EXPECT_EQ(bix_ipc_shim_bundle_registered_handler, nullptr);
  EXPECT_EQ(bix_ipc_shim_bundle_handler_unregister(), nullptr);
}

}  // namespace
}  // namespace bixtest
