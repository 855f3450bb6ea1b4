// The C++ layer over every record, with state tracking off and on: each field through its
// typed accessor against the C accessor of the same field, ownership and moves, clone, the
// encoding and the text forms against the C functions, and the errors they throw.
#include <string_view>
#include <utility>

#include "cpp_support.h"

namespace {

using bixtest::c_field_op;
using bixtest::expect_error;
using bixtest::Handle;

const uint32_t kModes[] = {0u, WEX_STTR_ON};

// Runs every field check of one record instance; the generated visitor calls one method per
// field, by kind.
template <class Owner>
struct FieldChecks {
  Handle &h;
  Owner &r;
  std::string type;
  bool tracked;
  uint32_t err = 0;

  std::string at(const char *f) const { return type + "." + f; }
  std::string call(const char *f, const char *suffix) const {
    return type + "_" + f + "_" + suffix;
  }
  void expect_state(const char *f, uint8_t want) {
    if (tracked) {
      EXPECT_EQ(c_field_op<bixtest::CStateFn>(type, f, "state_flag_get")(h, 0, r.get(), &err), want)
          << at(f);
    }
  }

  template <class Get, class Set>
  void scalar(const char *f, std::string_view kind, Get get, Set set) {
    using V = decltype(get(r));
    using Raw = std::conditional_t<std::is_enum_v<V>, uint32_t, V>;
    auto c_get =
        c_field_op<Raw (*)(wex_handle *, uint32_t, void *, uint32_t *)>(type, f, "get_value");
    auto c_set =
        c_field_op<void (*)(wex_handle *, uint32_t, void *, Raw, uint32_t *)>(type, f, "set_value");
    const char *member = bixtest::facts_field(type, f).member;
    const Raw a = kind == "Prim" ? static_cast<Raw>(0xA5C35A3Cu) : bixtest::literal_of(member, 1);
    const Raw b = kind == "Prim" ? static_cast<Raw>(0x3C5AC3A5u) : bixtest::literal_of(member, 0);
    set(r, static_cast<V>(a));
    EXPECT_EQ(c_get(h, 0, r.get(), &err), a) << at(f);
    expect_state(f, 2);
    c_set(h, 0, r.get(), b, &err);
    EXPECT_EQ(static_cast<Raw>(get(std::as_const(r))), b) << at(f);
    if constexpr (std::is_enum_v<V>) {
      const uint32_t unknown = 0x7777;
      expect_error([&] { set(r, static_cast<V>(unknown)); }, 43, call(f, "set_value"));
      EXPECT_EQ(static_cast<Raw>(get(r)), b) << at(f);
      V back{};
      ASSERT_TRUE(bix::literal_value(bix::literal_name(static_cast<V>(b)), back)) << at(f);
      EXPECT_EQ(static_cast<Raw>(back), b);
      EXPECT_EQ(bix::literal_name(static_cast<V>(unknown)), nullptr);
    }
    EXPECT_EQ(err, 0u) << at(f);
  }

  template <class Get>
  void count(const char *f, Get get) {
    using V = decltype(get(r));
    auto c_get =
        c_field_op<V (*)(wex_handle *, uint32_t, void *, uint32_t *)>(type, f, "get_value");
    EXPECT_EQ(get(r), c_get(h, 0, r.get(), &err)) << at(f);
  }

  template <class Get, class SetAll, class SetOne>
  void array(const char *f, std::string_view kind, Get get, SetAll set_all, SetOne set_one) {
    using E = std::remove_const_t<typename decltype(get(r))::element_type>;
    auto c_get = c_field_op<E (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *)>(
        type, f, "get_value");
    auto c_set = c_field_op<void (*)(wex_handle *, uint32_t, void *, uint32_t, E, uint32_t *)>(
        type, f, "set_value");
    auto c_at = c_field_op<bixtest::CElementFn>(type, f, "get");
    const bool var = kind == "VarArray";
    const uint32_t n = var ? 5 : bixtest::facts_field(type, f).count;
    std::vector<E> values(n);
    for (uint32_t i = 0; i < n; ++i) values[i] = static_cast<E>(i * 37 + 11);
    set_all(r, bix::span<const E>(values));
    auto got = get(std::as_const(r));
    ASSERT_EQ(got.size(), n) << at(f);
    EXPECT_EQ(got.data(), c_at(h, 0, r.get(), 0, &err)) << at(f);
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(c_get(h, 0, r.get(), i, &err), values[i]) << at(f);
    if (tracked) {
      EXPECT_EQ(c_field_op<bixtest::CStateFn>(type, f, "state_flag_whole_get")(h, 0, r.get(), &err),
                2);
    }
    set_one(r, n - 1, static_cast<E>(99));
    EXPECT_EQ(c_get(h, 0, r.get(), n - 1, &err), static_cast<E>(99)) << at(f);
    if (tracked) {
      EXPECT_EQ(
          c_field_op<bixtest::CIndexStateFn>(type, f, "state_flag_get")(h, 0, r.get(), n - 1, &err),
          2);
    }
    c_set(h, 0, r.get(), 0, static_cast<E>(7), &err);
    EXPECT_EQ(get(r)[0], static_cast<E>(7)) << at(f);
    if constexpr (sizeof(E) == 1) {
      set_all(r, std::string_view("AB"));
      EXPECT_EQ(c_get(h, 0, r.get(), 1, &err), static_cast<E>('B')) << at(f);
    }
    if (var) {
      set_one(r, n + 2, static_cast<E>(5));  // grows to reach it
      EXPECT_EQ(get(r).size(), n + 3) << at(f);
      set_all(r, bix::span<const E>());
      EXPECT_TRUE(get(r).empty()) << at(f);
    } else {
      values.push_back(0);
      expect_error([&] { set_all(r, bix::span<const E>(values)); }, 22, call(f, "set_mem"));
      expect_error([&] { set_one(r, n, static_cast<E>(1)); }, 2, call(f, "set_value"));
    }
    EXPECT_EQ(err, 0u) << at(f);
  }

  template <class Get, class Set>
  void record(const char *f, Get get, Set set) {
    EXPECT_EQ(get(std::as_const(r)).get(),
              c_field_op<bixtest::CMemberFn>(type, f, "get")(h, 0, r.get(), &err));
    bixtest::owner_of<decltype(get(r))> src(h);
    bixtest::fill(h, bixtest::facts_field(type, f).member, src.get(), 9);
    const std::string want = src.to_text();
    set(r, src);  // src gives up what it owns, and stays usable
    EXPECT_EQ(get(r).to_text(), want) << at(f);
    expect_state(f, 2);
    EXPECT_EQ(err, 0u) << at(f);
  }

  template <class Get, class Set>
  void flags(const char *f, Get get, Set set) {
    auto flags = get(r);
    EXPECT_EQ(flags.get(), c_field_op<bixtest::CMemberFn>(type, f, "get")(h, 0, r.get(), &err));
    using Flag = typename decltype(flags)::flag;
    using CFlags = std::remove_const_t<typename decltype(flags)::c_type>;
    const std::string flag_type = bixtest::facts_field(type, f).member;
    auto c_flag =
        bixtest::op<int32_t (*)(wex_handle *, uint32_t, const void *, uint32_t, uint32_t *)>(
            flag_type, "get_value");
    const uint32_t nflags = bixtest::facts_type(flag_type)->nliterals;
    for (uint32_t k = 0; k < nflags; ++k) {
      flags.set(static_cast<Flag>(k), k % 3 == 0);
      EXPECT_EQ(c_flag(h, 0, flags.get(), k, &err) != 0, k % 3 == 0) << at(f) << " flag " << k;
      EXPECT_EQ(get(std::as_const(r)).test(static_cast<Flag>(k)), k % 3 == 0) << at(f);
    }
    expect_error([&] { flags.test(static_cast<Flag>(nflags)); }, 43, flag_type + "_get_value");
    // set copies a whole flag set: here a standalone one with only flag 1 on.
    auto *other = static_cast<CFlags *>(
        bixtest::op<void *(*)(wex_handle *, uint32_t)>(flag_type, "create")(h, 0));
    bix::detail::flag_set<CFlags>(h, other).set(static_cast<Flag>(1));
    set(r, bix::detail::flag_set<const CFlags>(h, other));
    EXPECT_TRUE(flags.test(static_cast<Flag>(1)) && !flags.test(static_cast<Flag>(0))) << at(f);
    bixtest::op<void (*)(wex_handle *, uint32_t, void *)>(flag_type, "destroy")(h, 0, other);
    expect_state(f, 2);
    EXPECT_EQ(err, 0u) << at(f);
  }

  template <class Get, class SetOne>
  void records(const char *f, Get get, SetOne set_one) {
    auto range = get(r);
    const uint32_t n = bixtest::facts_field(type, f).count;
    ASSERT_EQ(range.size(), n) << at(f);
    uint32_t k = 0;
    for (auto element : get(std::as_const(r)))
      EXPECT_EQ(element.get(),
                c_field_op<bixtest::CElementFn>(type, f, "get")(h, 0, r.get(), k++, &err));
    EXPECT_EQ(k, n) << at(f);
    expect_error([&] { range[n]; }, 2, call(f, "get"));
    bixtest::owner_of<decltype(range[0])> src(h);
    bixtest::fill(h, bixtest::facts_field(type, f).member, src.get(), 4);
    const std::string want = src.to_text();
    set_one(r, n - 1, src);
    EXPECT_EQ(range[n - 1].to_text(), want) << at(f);
    if (tracked) {
      EXPECT_EQ(
          c_field_op<bixtest::CIndexStateFn>(type, f, "state_flag_get")(h, 0, r.get(), n - 1, &err),
          2);
    }
    EXPECT_EQ(err, 0u) << at(f);
  }

  template <class Has, class Get, class Set, class Emplace, class Detach>
  void alternative(const char *f, uint32_t position, Has has, Get get, Set set, Emplace emplace,
                   Detach detach) {
    using Member = bixtest::owner_of<decltype(emplace(r))>;
    auto c_alt = c_field_op<bixtest::CMemberFn>(type, f, "get");
    std::string selector;
    for (const auto &field : bixfacts::kFields)
      if (type == field.type && std::string_view(field.kind) == "Selector") selector = field.name;
    auto c_selector = c_field_op<uint32_t (*)(wex_handle *, uint32_t, void *, uint32_t *)>(
        type, selector, "get_value");

    EXPECT_FALSE(has(r)) << at(f);
    expect_error([&] { get(std::as_const(r)); }, 2, call(f, "get"));
    auto first = emplace(r);
    EXPECT_TRUE(has(r)) << at(f);
    EXPECT_EQ(c_alt(h, 0, r.get(), &err), first.get()) << at(f);
    EXPECT_EQ(c_selector(h, 0, r.get(), &err), position) << at(f);
    expect_state(f, 2);
    // A second member replaces the first, which is destroyed (the leak check would see it).
    Member second(h);
    auto *second_at = second.get();
    set(r, second);
    EXPECT_FALSE(second) << at(f);
    EXPECT_EQ(get(r).get(), second_at) << at(f);
    Member detached = detach(r);
    EXPECT_EQ(detached.get(), second_at) << at(f);
    EXPECT_FALSE(has(r)) << at(f);
    EXPECT_EQ(c_selector(h, 0, r.get(), &err), 0u) << at(f);
    EXPECT_FALSE(detach(r)) << at(f);
    EXPECT_EQ(err, 0u) << at(f);
  }
};

template <class Fn>
void for_each_record_in_each_mode(Fn &&fn) {
  for (uint32_t mode : kModes)
    bixcpp::for_each_record([&](auto tag, const char *type, auto fields) {
      SCOPED_TRACE(std::string(type) + (mode ? " tracked" : ""));
      Handle h(mode);
      fn(tag, type, fields, h);
      EXPECT_TRUE(h.live.empty()) << type << ": " << h.live.size() << " blocks left";
      EXPECT_EQ(h.allocs, h.releases) << type;
    });
}

TEST(CppRecords, EveryFieldThroughItsAccessor) {
  for_each_record_in_each_mode([](auto tag, const char *type, auto fields, Handle &h) {
    using Owner = typename decltype(tag)::type;
    Owner r(h);
    FieldChecks<Owner> checks{h, r, type, h->sttr_profile != nullptr};
    fields(checks);
  });
}

TEST(CppRecords, OwnersMoveAndCloneAndNeverLeak) {
  for_each_record_in_each_mode([](auto tag, const char *type, auto, Handle &h) {
    using Owner = typename decltype(tag)::type;
    using Ref = typename Owner::ref_type;
    using CRef = typename Owner::cref_type;
    static_assert(!std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner>);
    static_assert(std::is_nothrow_move_constructible_v<Owner> &&
                  std::is_nothrow_move_assignable_v<Owner>);
    // A const owner hands out read-only references only; nothing refers to a temporary.
    static_assert(std::is_constructible_v<Ref, Owner &> &&
                  !std::is_constructible_v<Ref, const Owner &>);
    static_assert(std::is_constructible_v<CRef, const Owner &> &&
                  !std::is_constructible_v<CRef, Owner &&>);

    Owner a(h);
    auto *at = a.get();
    Owner b(std::move(a));
    EXPECT_FALSE(a);
    EXPECT_EQ(b.get(), at);
    Owner c(h);
    c = std::move(b);  // c's own instance is destroyed
    EXPECT_EQ(c.get(), at);
    bixtest::fill(h, type, c.get(), 3, 4);
    Owner copy = c.clone();
    EXPECT_NE(copy.get(), c.get());
    EXPECT_EQ(copy.compare(c), 0);
    EXPECT_EQ(copy.hash(7), c.hash(7));
    EXPECT_EQ(copy.to_text(), c.to_text());
    bix::detail::record_ops<typename Owner::object_type>::destroy(h, 0, copy.release());
    EXPECT_FALSE(copy);

    Handle failing(h->sttr_profile ? WEX_STTR_ON : 0);
    failing.fail_at = 1;
    expect_error([&] { Owner never(failing); }, 12, std::string(type) + "_create");
  });
}

TEST(CppRecords, EncodingAndTextFormsAreTheCFunctions) {
  using MarshalFn =
      uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
  for_each_record_in_each_mode([](auto tag, const char *type, auto, Handle &h) {
    using Owner = typename decltype(tag)::type;
    Owner a(h);
    bixtest::fill(h, type, a.get(), 5, 2);
    uint32_t err = 0;
    // The complete encoding: with tracking, len leaves out a union's last state byte.
    std::vector<uint8_t> want(a.encoded_size() + 64);
    want.resize(bixtest::op<MarshalFn>(type, "marshal")(h, 0, want.data(), a.get(),
                                                        static_cast<int32_t>(want.size()), &err));
    std::vector<char> text(1 << 17);
    const int32_t n = bixtest::op<bixtest::PrintFn>(type, "print")(h, 0, text.data(), 0, type, a.get(),
                                                          static_cast<uint32_t>(text.size()), &err);
    std::vector<char> xml(1 << 17);
    const int32_t m = bixtest::op<bixtest::ToXmlFn>(type, "to_xml")(
        h, 0, type, xml.data(), a.get(), static_cast<uint32_t>(xml.size()), 0, &err);
    ASSERT_EQ(err, 0u);

    const std::vector<uint8_t> bytes = a.encode();
    EXPECT_EQ(bytes, want);
    EXPECT_EQ(a.to_text(), std::string(text.data(), static_cast<size_t>(n)));
    EXPECT_EQ(a.to_xml(), std::string(xml.data(), static_cast<size_t>(m)));
    EXPECT_EQ(h->error, 0u) << "to_text and to_xml leave the handle's error as it was";
    Owner b(h);
    EXPECT_EQ(b.decode(bytes), bytes.size());
    EXPECT_EQ(a.compare(b), 0);

    // One byte short. Untracked only: state bytes that find no room are left out without an
    // error, on either side, so a tracked encoding one short is still a valid one.
    if (!h->sttr_profile) {
      std::vector<uint8_t> short_buffer(bytes.size() - 1);
      expect_error([&] { a.encode(short_buffer); }, 90, std::string(type) + "_marshal");
      expect_error([&] { b.decode(bix::span<const uint8_t>(bytes.data(), short_buffer.size())); },
                   74, std::string(type) + "_unmarshal");
    }
  });
}

TEST(CppHandle, TrackingIsChosenAtConstruction) {
  for (bix::tracking mode : {bix::tracking::off, bix::tracking::on}) {
    bix::handle h(mode);
    bix::handle moved(std::move(h));
    EXPECT_EQ(h.get(), nullptr);
    EXPECT_EQ(moved.tracking_on(), mode == bix::tracking::on);
    bix::wex_xcvr_info info(moved);
    EXPECT_EQ((bixtest::flags_of(info.get()) & WEX_OBJ_FLAG_STTR) != 0, mode == bix::tracking::on);
  }
}

}  // namespace
