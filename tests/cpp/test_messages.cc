// The C++ layer over every message, with state tracking off and on: owners and members,
// encoding and text forms against the C functions, decode, clone, and receive() dispatching
// each message to the handler that takes it, and the errors of all of them.
#include <functional>
#include <optional>
#include <stdexcept>

#include "cpp_support.h"

namespace {

using bixtest::expect_error;
using bixtest::Handle;

// Runs every member check of one message.
template <class Owner>
struct MemberChecks {
  Handle &h;
  Owner &m;
  const bixtest::Msg &c;
  size_t k = 0;

  template <class Get, class Set, class Detach>
  void member(const char *name, Get get, Set set, Detach detach) {
    const std::string get_call = c.name + "_message_" + name + "_get";
    auto *at = bixtest::member_of(c, m.get(), k++);
    EXPECT_EQ(get(std::as_const(m)).get(), at) << name;
    auto taken = detach(m);
    EXPECT_EQ(taken.get(), at) << name;
    expect_error([&] { get(m); }, 2, get_call);
    set(m, taken);  // back into the empty slot
    EXPECT_FALSE(taken) << name;
    EXPECT_EQ(get(m).get(), at) << name;
    // A new member replaces it; the replaced one is destroyed (the leak check sees it).
    decltype(detach(m)) fresh(h);
    auto *fresh_at = fresh.get();
    set(m, fresh);
    EXPECT_EQ(get(m).get(), fresh_at) << name;
  }
};

template <class Fn>
void for_each_message_in_each_mode(Fn &&fn) {
  for (uint32_t mode : {0u, WEX_STTR_ON})
    bixcpp::for_each_message([&](auto tag, const char *name, auto members) {
      SCOPED_TRACE(std::string(name) + (mode ? " tracked" : ""));
      using Owner = typename decltype(tag)::type;
      Handle h(mode);
      {
        const bixtest::Msg &c = bixtest::message(name);
        Owner m(h);
        bixtest::fill_message(h, c, m.get(), 7, 3);
        fn(h, c, m, members);
      }
      EXPECT_TRUE(h.live.empty()) << name << ": " << h.live.size() << " blocks left";
      EXPECT_EQ(h.allocs, h.releases) << name;
    });
}

TEST(CppMessages, OwnersMembersAndForms) {
  for_each_message_in_each_mode([](Handle &h, const bixtest::Msg &c, auto &m, auto members) {
    using Owner = std::decay_t<decltype(m)>;
    static_assert(!std::is_copy_constructible_v<Owner> &&
                  std::is_nothrow_move_constructible_v<Owner>);
    uint32_t err = 0;
    std::vector<uint8_t> want(c.len(h, 0, m.get()) + 64);  // len + 1 with a tracked union
    want.resize(c.marshal(h, 0, want.data(), m.get(), static_cast<int32_t>(want.size()), &err));
    ASSERT_EQ(err, 0u);
    const std::string text = bixtest::print_text(h, c, m.get());
    EXPECT_EQ(m.encode(), want);
    EXPECT_EQ(m.to_text(), text);
    EXPECT_EQ(m.to_xml(), bixtest::xml_text(h, c, m.get()));
    EXPECT_EQ(h->error, 0u);

    size_t consumed = 0;
    Owner decoded = Owner::decode(h, want, &consumed);
    EXPECT_EQ(consumed, want.size());
    EXPECT_EQ(decoded.to_text(), text);
    Owner copy = decoded.clone();
    EXPECT_EQ(copy.to_text(), text);
    for (size_t k = 0; k < c.members.size(); ++k)
      EXPECT_NE(bixtest::member_of(c, copy.get(), k), bixtest::member_of(c, decoded.get(), k));
    Owner moved(std::move(copy));
    EXPECT_FALSE(copy);
    EXPECT_EQ(moved.to_text(), text);

    MemberChecks<Owner> checks{h, m, c};
    members(checks);

    Handle failing(h->sttr_profile ? WEX_STTR_ON : 0);
    failing.fail_at = 2;  // a member: the message is taken apart again
    expect_error([&] { Owner never(failing); }, 12, c.name + "_message_create");
    EXPECT_TRUE(failing.live.empty());
  });
}

TEST(CppMessages, ReceiveHandsEachMessageToTheHandlerTakingIt) {
  for_each_message_in_each_mode([](Handle &h, const bixtest::Msg &c, auto &m, auto) {
    using Owner = std::decay_t<decltype(m)>;
    const std::vector<uint8_t> bytes = m.encode();
    const std::string text = m.to_text();

    // The typed handler beats the generic one; the message is gone when it returns.
    int typed = 0, generic = 0;
    std::string got;
    EXPECT_EQ(bix::receive(
                  h, bytes,
                  [&](Owner &msg) {
                    ++typed;
                    got = msg.to_text();
                  },
                  [&](auto &) { ++generic; }),
              bytes.size());
    EXPECT_EQ(typed, 1);
    EXPECT_EQ(generic, 0);
    EXPECT_EQ(got, text);

    // A generic handler alone sees the message as its own type.
    std::string seen;
    bix::receive(h, bytes, [&](auto &msg) {
      seen = bix::detail::message_ops<typename std::decay_t<decltype(msg)>::c_type>::name;
    });
    EXPECT_EQ(seen, c.name + "_message");

    // A handler keeps the message by moving it away.
    std::optional<Owner> kept;
    bix::receive(h, bytes, [&](Owner &msg) { kept.emplace(std::move(msg)); });
    ASSERT_TRUE(kept && *kept);
    EXPECT_EQ(kept->to_text(), text);
    kept.reset();

    // Nobody takes it: 38, as the library reports a message without handler; an exception
    // from a handler comes through as it was thrown. Either way the message is destroyed.
    expect_error([&] { bix::receive(h, bytes, [](bix::app_sess_hdr &) {}); }, 38,
                 "bix_ipc_shim_message_receive");
    EXPECT_THROW(bix::receive(h, bytes, [](Owner &) { throw std::range_error("handler"); }),
                 std::range_error);
  });
}

TEST(CppMessages, Errors) {
  Handle h;
  bix::ipc_shim_xcvr_presence_info_message m(h);
  std::vector<uint8_t> bytes = m.encode();
  auto nobody = [](auto &) {};
  const std::string receive = "bix_ipc_shim_message_receive";
  struct Case {
    const char *what;
    std::function<void()> run;
    uint32_t code;
    std::string call;
  };
  std::vector<uint8_t> unknown = bytes;
  unknown[30] ^= 0xFF;  // inside the LUID
  std::vector<uint8_t> cut(bytes.begin(), bytes.end() - 1);
  const Case cases[] = {
      {"receive of less than a header and LUID",
       [&] { bix::receive(h, bix::span<const uint8_t>(bytes.data(), 20), nobody); }, 74, receive},
      {"receive of an unknown LUID", [&] { bix::receive(h, unknown, nobody); }, 2, receive},
      {"receive of a message cut short", [&] { bix::receive(h, cut, nobody); }, 74, receive},
      {"decode of a message cut short",
       [&] { bix::ipc_shim_xcvr_presence_info_message::decode(h, cut); }, 74,
       "ipc_shim_xcvr_presence_info_message_unmarshal_only"},
      {"encode into too small a buffer", [&] { m.encode(cut); }, 90,
       "ipc_shim_xcvr_presence_info_message_marshal"},
      {"encode of a message the domain refuses",
       [&] {
         wex_domain_set_message_allowed(h, message_ipc_shim_xcvr_presence_info_luid_text, 0);
         m.encode();
       },
       52, "ipc_shim_xcvr_presence_info_message_marshal"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    expect_error(c.run, c.code, c.call);
  }
}

}  // namespace
