// The fast path of the record codec against the walker: for every record, tracking off and
// on, every content, every buffer length, every variant a domain can ask for and every
// hand-over case, both must give the same bytes, the same error codes and the same decoded
// instances. One handle serves both paths, declaring its byte form or withholding it, so
// that instances and their placed state areas are the same ones.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>

#include "snapshot.h"

using namespace bixtest;

// Counts the runtime's jump writer and reader: the walker frames every record through
// them, the fast path writes and reads whole records itself. Without this the comparisons
// below could pass with the fast path never taken.
namespace {
uint32_t g_jump_items = 0;
template <typename Fn>
Fn next_definition(const char *name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" uint32_t _wex_variant_jump_marshal(wex_handle *h, uint32_t ws, uint8_t *pos,
                                              const uint32_t *jump, int32_t room, uint32_t *err) {
  static const auto real = next_definition<decltype(&_wex_variant_jump_marshal)>(__func__);
  ++g_jump_items;
  return real(h, ws, pos, jump, room, err);
}

extern "C" uint32_t _wex_variant_jump_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos,
                                                uint32_t *jump, int32_t len, uint32_t *err) {
  static const auto real = next_definition<decltype(&_wex_variant_jump_unmarshal)>(__func__);
  ++g_jump_items;
  return real(h, ws, pos, jump, len, err);
}

namespace {

bool has_kind(const std::string &type, const char *kind) {
  for (const auto &f : bixfacts::kFields)
    if (type == f.type && std::string(f.kind) == kind) return true;
  return false;
}

// Every primitive byte, element and state byte of an instance (and its members) set.
void saturate(wex_handle *h, const std::string &type, void *inst) {
  const bixfacts::Type &t = *facts_type(type);
  auto *b = static_cast<uint8_t *>(inst);
  uint8_t *area = (b[10] & 0x08) && !(b[10] & 0x04) ? area_of(h, inst, t) : nullptr;
  if (area) std::memset(area, 0xFF, t.sttr_size);
  for (const auto &f : bixfacts::kFields) {
    if (type != f.type) continue;
    const std::string kind = f.kind, prim = f.prim;
    if (kind == "VarArray" && area) std::memset(area + f.sttr_ptr, 0, 8);  // no element states
    const uint32_t width = prim.ends_with("32") ? 4 : prim.ends_with("16") ? 2 : 1;
    if (kind == "Prim") std::memset(b + f.offset, 0xFF, width);
    if (kind == "FixedArray") std::memset(b + f.offset, 0xFF, width * f.count);
    if (kind == "Record") saturate(h, f.member, b + f.offset);
    if (kind == "RecordArray")
      for (uint32_t k = 0; k < f.count; ++k) saturate(h, f.member, b + f.offset + k * f.elem_size);
    if (kind == "Flags") std::memset(b + f.offset + 11, 0xFF, 2);
  }
}

// What a record is encoded from: zero (as created), saturated, or filled from a seed with
// a chosen union alternative (0 and 8: none) and variable-array length.
struct Content {
  std::string name;
  int seed;  // -1 zero, -2 saturated
  uint32_t alt, var_len;
};

std::vector<Content> contents(const std::string &type) {
  std::vector<Content> out = {
      {"zero", -1, 0, 0}, {"saturated", -2, 0, 0}, {"seed5", 5, 1, 3}, {"seed200", 200, 2, 1}};
  if (has_kind(type, "UnionAlt"))
    for (uint32_t alt : {0u, 3u, 4u, 5u, 6u, 7u, 8u})
      out.push_back({"alt" + std::to_string(alt), 17, alt, 0});
  if (has_kind(type, "VarArray")) out.push_back({"var9", 9, 1, 9});
  return out;
}

void *make(wex_handle *h, const std::string &type, const Content &c) {
  void *inst = op<CreateFn>(type, "create")(h, 0);
  if (c.seed >= 0) {
    fill(h, type, inst, static_cast<uint8_t>(c.seed), c.alt ? c.alt : 1, c.var_len ? c.var_len : 5);
    if (c.alt == 0 || c.alt == 8)  // a selector no alternative answers to
      for (const auto &f : bixfacts::kFields)
        if (type == f.type && std::string(f.kind) == "Selector")
          std::memcpy(static_cast<uint8_t *>(inst) + f.offset + 12, &c.alt, 4);
  } else if (c.seed == -2) {
    saturate(h, type, inst);
  }
  return inst;
}

struct Outcome {
  uint32_t n, err, handle_err, last_err;
  Bytes out;
  bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &o, const Outcome &r) {
  return o << "n " << r.n << " err " << r.err << " h->error " << r.handle_err << " last "
           << r.last_err;
}

Outcome marshal_with(Handle &h, bool fast, const std::string &type, const void *inst, int32_t room,
                     const char *form = "marshal") {
  wex_handle_declare_byte_form(h, fast);
  Bytes buf(static_cast<size_t>(std::max(room, 0)) + 16, 0xA5);
  h->error = 0;
  uint32_t err = 0;
  uint32_t n = op<MarshalFn>(type, form)(h, 0, buf.data(), inst, room, &err);
  wex_handle_declare_byte_form(h, 1);
  return {n, err, h->error, wex_get_last_error(h), buf};
}

Outcome unmarshal_with(Handle &h, bool fast, const std::string &type, const Bytes &wire, size_t cut,
                       void *dst, uint32_t reuse = 0) {
  wex_handle_declare_byte_form(h, fast);
  std::unique_ptr<uint8_t[]> exact(new uint8_t[cut ? cut : 1]);
  std::memcpy(exact.get(), wire.data(), cut);
  h->error = 0;
  uint32_t err = 0;
  uint32_t n = op<UnmarshalFn>(type, "unmarshal")(h, 0, exact.get(), dst, static_cast<int32_t>(cut),
                                                  reuse, &err);
  wex_handle_declare_byte_form(h, 1);
  return {n, err, h->error, wex_get_last_error(h), snapshot(h, type, dst)};
}

uint32_t len_with(Handle &h, bool fast, const std::string &type, const void *inst) {
  wex_handle_declare_byte_form(h, fast);
  uint32_t n = op<LenFn>(type, "len")(h, 0, inst);
  wex_handle_declare_byte_form(h, 1);
  return n;
}

// Decodes the first `cut` bytes into two instances made alike by `make_dst`, one on each
// path: results and decoded instances must be the same.
template <typename Make>
void expect_same_unmarshal(Handle &h, const std::string &type, const Bytes &wire, size_t cut,
                           Make &&make_dst, const std::string &what, uint32_t reuse = 0) {
  void *a = make_dst(), *b = make_dst();
  EXPECT_EQ(unmarshal_with(h, true, type, wire, cut, a, reuse),
            unmarshal_with(h, false, type, wire, cut, b, reuse))
      << what << " cut " << cut << " reuse " << reuse;
  op<DestroyFn>(type, "destroy")(h, 0, a);
  op<DestroyFn>(type, "destroy")(h, 0, b);
}

// Every buffer length from 0 to past the whole encoding.
void expect_same_marshal(Handle &h, const std::string &type, const void *inst,
                         const std::string &what) {
  ASSERT_EQ(len_with(h, true, type, inst), len_with(h, false, type, inst)) << what;
  const int32_t full = static_cast<int32_t>(len_with(h, false, type, inst));
  for (int32_t room = 0; room <= full + 2; ++room) {
    Outcome walker = marshal_with(h, false, type, inst, room),
            fast = marshal_with(h, true, type, inst, room);
    ASSERT_EQ(fast, walker) << what << " room " << room;
  }
  EXPECT_EQ(marshal_with(h, true, type, inst, full + 16, "marshal_for_clone"),
            marshal_with(h, false, type, inst, full + 16, "marshal_for_clone"))
      << what;
}

std::string luid_of(const std::string &type) {
  for (const wex_type_info *t : all_types())
    if (type == t->type_name) return t->luid_text;
  return {};
}

// The types a record holds, itself included: members, elements, alternatives, leaves.
void closure(const std::string &type, std::vector<std::string> &out) {
  if (std::find(out.begin(), out.end(), type) != out.end()) return;
  out.push_back(type);
  for (const auto &f : bixfacts::kFields)
    if (type == f.type && f.member) closure(f.member, out);
}

// The fast path switched off for the process (BIX_IPC_SHIM_NO_FAST): nothing to compare.
class FastPath : public ::testing::Test {
 protected:
  void SetUp() override {
    const char *off = std::getenv("BIX_IPC_SHIM_NO_FAST");
    if (off && *off && *off != '0') GTEST_SKIP() << "fast path switched off";
  }
};

TEST_F(FastPath, IsTakenForTheCommonCaseAndWithheldOnRequest) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const std::string &type : records()) {
      void *src = make(h, type, {"seed", 3, 6, 4});
      const uint32_t len = op<LenFn>(type, "len")(h, 0, src);
      Bytes buf(len + 16);
      for (bool fast : {true, false}) {
        wex_handle_declare_byte_form(h, fast);
        g_jump_items = 0;
        uint32_t err = 0;
        const uint32_t n = op<MarshalFn>(type, "marshal")(h, 0, buf.data(), src, len + 16, &err);
        EXPECT_EQ(g_jump_items == 0, fast) << type << " marshal " << mode;
        void *dst = op<CreateFn>(type, "create")(h, 0);
        g_jump_items = 0;
        op<UnmarshalFn>(type, "unmarshal")(h, 0, buf.data(), dst, static_cast<int32_t>(n), 0, &err);
        EXPECT_EQ(g_jump_items == 0, fast) << type << " unmarshal " << mode;
        EXPECT_EQ(err, 0u) << type;
        op<DestroyFn>(type, "destroy")(h, 0, dst);
      }
      wex_handle_declare_byte_form(h, 1);
      op<DestroyFn>(type, "destroy")(h, 0, src);
    }
    EXPECT_TRUE(h.live.empty());
  }
}

TEST_F(FastPath, MarshalAndLenMatchTheWalkerForEveryContentAndBufferLength) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const std::string &type : records()) {
      for (const Content &c : contents(type)) {
        void *src = make(h, type, c);
        expect_same_marshal(h, type, src, type + " " + c.name + " mode " + std::to_string(mode));
        op<DestroyFn>(type, "destroy")(h, 0, src);
      }
    }
    EXPECT_TRUE(h.live.empty());
  }
}

// Calls fn(rx, type, wire, what) with the encoding of every record and content (or one
// content), sent by a handle tracking state or not, for a receiving handle tracking or not.
template <typename Fn>
void for_each_encoding(bool every_content, Fn &&fn) {
  for (uint32_t send_mode : {0u, WEX_STTR_ON}) {
    for (uint32_t recv_mode : {0u, WEX_STTR_ON}) {
      Handle tx(send_mode), rx(recv_mode);
      for (const std::string &type : records()) {
        const std::vector<Content> all =
            every_content ? contents(type) : std::vector<Content>{{"seed40", 40, 7, 2}};
        for (const Content &c : all) {
          void *src = make(tx, type, c);
          Outcome enc = marshal_with(tx, false, type, src, 1 << 16);
          fn(rx, type, Bytes(enc.out.begin(), enc.out.begin() + enc.n),
             type + " " + c.name + " modes " + std::to_string(send_mode) + "/" +
                 std::to_string(recv_mode));
          op<DestroyFn>(type, "destroy")(tx, 0, src);
          if (::testing::Test::HasFailure()) return;
        }
      }
      EXPECT_TRUE(tx.live.empty());
      EXPECT_TRUE(rx.live.empty());
    }
  }
}

// Every cut of the encoding; fresh and reused destinations, empty and holding content.
TEST_F(FastPath, UnmarshalMatchesTheWalkerForEveryInputLength) {
  for_each_encoding(
      true, [](Handle &rx, const std::string &type, const Bytes &wire, const std::string &what) {
        auto fresh = [&] { return op<CreateFn>(type, "create")(rx, 0); };
        for (size_t cut = 0; cut <= wire.size() && !HasFailure(); ++cut)
          expect_same_unmarshal(rx, type, wire, cut, fresh, what);
        auto prefilled = [&] { return make(rx, type, {"prefilled", 77, 6, 9}); };
        for (uint32_t reuse : {0u, 1u})
          expect_same_unmarshal(rx, type, wire, wire.size(), prefilled, what + " prefilled", reuse);
      });
}

// Every byte of every encoding changed in the ways a newer or hostile sender changes the
// framing: a variant above or below ours, the state-bytes and ra flags, a jump.
TEST_F(FastPath, EveryChangedByteDecodesAsWithTheWalker) {
  for_each_encoding(
      false, [](Handle &rx, const std::string &type, const Bytes &wire, const std::string &what) {
        auto fresh = [&] { return op<CreateFn>(type, "create")(rx, 0); };
        for (size_t pos = 0; pos < wire.size() && !HasFailure(); ++pos) {
          for (uint8_t value : {uint8_t{3}, uint8_t{0x80}, static_cast<uint8_t>(wire[pos] ^ 0x08),
                                static_cast<uint8_t>(wire[pos] ^ 0x20)}) {
            Bytes changed = wire;
            changed[pos] = value;
            expect_same_unmarshal(
                rx, type, changed, changed.size(), fresh,
                what + " byte " + std::to_string(pos) + " = " + std::to_string(value));
          }
        }
      });
}

// Each type a record holds admitted at -1, 0, 1 and 2 in turn, on one handle: every change
// of the domain must reach the fast path's cached answers.
TEST_F(FastPath, EveryVariantTheDomainCanAskForMatchesTheWalker) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    for (const std::string &type : records()) {
      Handle h(mode);
      void *src = make(h, type, {"seed", 21, 6, 4});
      std::vector<std::string> held;
      closure(type, held);
      for (const std::string &member : held) {
        for (int v : {-1, 0, 1, 2, 0}) {
          wex_domain_set_variant(h, luid_of(member).c_str(), v);
          const std::string what = type + " with " + member + " at " + std::to_string(v);
          const int32_t room = static_cast<int32_t>(len_with(h, false, type, src)) + 16;
          for (const char *form : {"marshal", "marshal_for_clone"})
            ASSERT_EQ(marshal_with(h, true, type, src, room, form),
                      marshal_with(h, false, type, src, room, form))
                << what << " " << form;
        }
      }
      op<DestroyFn>(type, "destroy")(h, 0, src);
      EXPECT_TRUE(h.live.empty());
    }
  }
}

// What the fast path leaves to the walker: instances and members of another variant or
// type, ra items, untracked members, registered type copies, and what a newer or hostile
// sender frames differently.
TEST_F(FastPath, HandOverCasesMatchTheWalker) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    for (const std::string &type : records()) {
      struct Tweak {
        const char *name;
        uint32_t offset;  // of the instance or of its first embedded record or enumeration
        uint32_t byte;    // 8 variant, 10 flags, 0 type pointer
        uint8_t value;
      };
      std::vector<Tweak> tweaks = {
          {"variant -1", 0, 8, 0xFF}, {"variant 1", 0, 8, 1}, {"ra item", 0, 10, 0x20}};
      for (const auto &f : bixfacts::kFields) {
        const std::string kind = f.kind;
        if (type != f.type || (kind != "Record" && kind != "RecordArray" && kind != "Enum"))
          continue;
        tweaks.push_back({"member variant -1", f.offset, 8, 0xFF});
        tweaks.push_back({"member variant 3", f.offset, 8, 3});
        tweaks.push_back({"member ra item", f.offset, 10, 0x20});
        tweaks.push_back({"member of another type", f.offset, 0, 0});
        tweaks.push_back({"member untracked", f.offset, 10, 0});
        break;
      }
      for (bool indirect : {false, true}) {
        for (const Tweak &t : tweaks) {
          Handle h(mode);
          h->types_indirect = indirect;
          void *src = make(h, type, {"seed", 8, 2, 6});
          uint8_t *at = static_cast<uint8_t *>(src) + t.offset;
          wex_type_info *own = *reinterpret_cast<wex_type_info **>(at);
          if (t.byte == 0)
            *reinterpret_cast<wex_type_info **>(at) = &_wex_nosfp_dummy_type_info_internal;
          else if (std::string(t.name) == "member untracked")
            at[10] &= static_cast<uint8_t>(~0x08);
          else if (t.byte == 10)
            at[10] |= t.value;
          else
            at[t.byte] = t.value;
          const std::string what =
              type + " " + t.name + (indirect ? " indirect" : "") + " mode " + std::to_string(mode);
          expect_same_marshal(h, type, src, what);
          // Decode an untouched encoding into a twin carrying the same tweak, and the
          // tweaked encoding into fresh instances.
          if (std::string(t.name) != "member untracked" || !mode) {
            void *clean = make(h, type, {"seed", 8, 2, 6});
            Outcome enc = marshal_with(h, false, type, clean, 1 << 16);
            Bytes wire(enc.out.begin(), enc.out.begin() + enc.n);
            Outcome twisted = marshal_with(h, false, type, src, 1 << 16);
            Bytes odd(twisted.out.begin(), twisted.out.begin() + twisted.n);
            for (const Bytes *w : {&wire, &odd})
              expect_same_unmarshal(
                  h, type, *w, w->size(), [&] { return op<CreateFn>(type, "create")(h, 0); }, what);
            op<DestroyFn>(type, "destroy")(h, 0, clean);
          }
          *reinterpret_cast<wex_type_info **>(at) = own;
          op<DestroyFn>(type, "destroy")(h, 0, src);
        }
      }
    }
  }
}

// Every allocation a decode makes may fail; both paths must fail the same one the same way.
TEST_F(FastPath, AllocationFailureAtEveryStepMatchesTheWalker) {
  for (const std::string &type : records()) {
    if (!has_kind(type, "VarArray") && !has_kind(type, "UnionAlt")) continue;
    for (uint32_t mode : {0u, WEX_STTR_ON}) {
      Handle tx(mode);
      void *src = make(tx, type, {"seed", 1, 5, 7});
      Outcome enc = marshal_with(tx, false, type, src, 1 << 16);
      Bytes wire(enc.out.begin(), enc.out.begin() + enc.n);
      for (uint32_t k = 1; k <= 4; ++k) {
        Outcome got[2];
        for (bool fast : {false, true}) {
          Handle rx(mode);
          void *dst = op<CreateFn>(type, "create")(rx, 0);
          rx.allocs = 0;
          rx.fail_at = k;
          got[fast] = unmarshal_with(rx, fast, type, wire, wire.size(), dst);
          rx.fail_at = 0;
          op<DestroyFn>(type, "destroy")(rx, 0, dst);
          EXPECT_TRUE(rx.live.empty()) << type << " k " << k;
        }
        EXPECT_EQ(got[1], got[0]) << type << " fails allocation " << k << " mode " << mode;
      }
      op<DestroyFn>(type, "destroy")(tx, 0, src);
    }
  }
}

}  // namespace
