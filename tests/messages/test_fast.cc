// Messages take the record codec's fast path for their members: through it and through the
// walker (the handle withholding its byte form), every message in both tracking modes must
// encode to the same bytes and results at every buffer length, and decode every cut of its
// encoding to the same results and members.
#include <gtest/gtest.h>

#include <memory>

#include "../wire/snapshot.h"
#include "msg_support.h"

using namespace bixtest;

namespace {

struct Outcome {
  uint32_t n, err;
  std::vector<uint8_t> bytes;
  bool operator==(const Outcome &) const = default;
};

Outcome marshal_with(wex_handle *h, bool fast, const Msg &m, void *msg, int32_t room) {
  wex_handle_declare_byte_form(h, fast);
  std::vector<uint8_t> buf(static_cast<size_t>(room) + 16, 0xA5);
  uint32_t err = 0;
  const uint32_t n = m.marshal(h, 0, buf.data(), msg, room, &err);
  wex_handle_declare_byte_form(h, 1);
  return {n, err, buf};
}

// What a decoded message holds: each record member's state and the session header's bytes.
std::vector<uint8_t> contents(wex_handle *h, const Msg &m, const void *msg) {
  std::vector<uint8_t> out;
  for (size_t k = 0; k < m.members.size(); ++k) {
    const void *inst = member_of(m, msg, k);
    if (!inst) {
      out.push_back(0xEE);
    } else if (!m.members[k].type) {
      uint8_t hdr[256];
      uint32_t err = 0;
      out.insert(out.end(), hdr, hdr + app_sess_hdr_marshal(h, 0, hdr, inst, sizeof hdr, &err));
    } else {
      snapshot_into(h, m.members[k].type, inst, out);
    }
  }
  return out;
}

Outcome unmarshal_with(wex_handle *h, bool fast, const Msg &m, const std::vector<uint8_t> &wire,
                       size_t cut) {
  wex_handle_declare_byte_form(h, fast);
  std::unique_ptr<uint8_t[]> exact(new uint8_t[cut ? cut : 1]);
  std::memcpy(exact.get(), wire.data(), cut);
  void *msg = nullptr;
  uint32_t err = 0;
  const uint32_t n = m.unmarshal_only(h, 0, &msg, exact.get(), static_cast<int32_t>(cut), &err);
  wex_handle_declare_byte_form(h, 1);
  Outcome r{n, err, msg ? contents(h, m, msg) : std::vector<uint8_t>()};
  if (msg) m.destroy(h, 0, msg);
  return r;
}

TEST(MessageFastPath, EveryMessageEncodesAndDecodesAsWithTheWalker) {
  const char *off = std::getenv("BIX_IPC_SHIM_NO_FAST");
  if (off && *off && *off != '0') GTEST_SKIP() << "fast path switched off";
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const Msg &m : messages()) {
      for (uint32_t alt : {1u, 6u}) {
        Encoded e = encode(h, m, static_cast<uint8_t>(alt * 7), alt);
        ASSERT_FALSE(e.wire.empty()) << m.name;
        const auto full = static_cast<int32_t>(e.wire.size());
        for (int32_t room = 0; room <= full + 1; ++room)
          ASSERT_EQ(marshal_with(h, true, m, e.msg, room), marshal_with(h, false, m, e.msg, room))
              << m.name << " mode " << mode << " room " << room;
        for (size_t cut = 0; cut <= e.wire.size(); ++cut)
          ASSERT_EQ(unmarshal_with(h, true, m, e.wire, cut),
                    unmarshal_with(h, false, m, e.wire, cut))
              << m.name << " mode " << mode << " cut " << cut;
        m.destroy(h, 0, e.msg);
      }
    }
    EXPECT_TRUE(h.live.empty());
  }
}

}  // namespace
