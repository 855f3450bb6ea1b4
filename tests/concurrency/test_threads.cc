// Several threads, each on handles of its own, creating, filling, encoding, decoding and
// destroying every record, enumeration and flag set at once. Under ThreadSanitizer this
// finds any process-wide state the library writes without synchronisation (the trace
// module id, the instance counters, the once-only flags); in every build the instance
// counters must come out exact.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

#include "../wire/fill.h"

using namespace bixtest;

namespace {

using OidFn = uint32_t (*)(wex_handle *, uint32_t, const void *, uint32_t *);

// Instances created and destroyed per type (variant 0), read through the type info records.
using Counts = std::map<std::string, std::pair<uint64_t, uint64_t>>;
Counts counters() {
  Counts c;
  for (const wex_type_info *t : all_types()) {
    const wex_variant_entry &e = t->variant_info->entries[0];
    c[t->type_name] = {__atomic_load_n(&e.created, __ATOMIC_SEQ_CST), __atomic_load_n(&e.destroyed, __ATOMIC_SEQ_CST)};
  }
  return c;
}
Counts operator-(Counts a, const Counts &b) {
  for (auto &[name, n] : a) n.first -= b.at(name).first, n.second -= b.at(name).second;
  return a;
}

// One thread's work: every type, both tracking modes, through the exported C ABI only.
void work(int rounds, uint32_t seed, bool &ok) {
  for (int r = 0; r < rounds; ++r) {
    for (uint32_t mode : {WEX_STTR_OFF, WEX_STTR_ON}) {
      Handle h(mode);
      // Half the threads give their domain a generation of its own (admitting what the
      // default does), so the encoders' cache of domain answers sees competing entries.
      if (seed % 2)
        for (const wex_type_info *t : all_types()) wex_domain_set_variant(h, t->luid_text, t->variant_info->count - 1);
      // Leaf operations that trace, before this thread's first record create: they must
      // not read the trace module id while another thread's create registers it.
      for (const auto &t : bixfacts::kTypes) {
        uint32_t err = 0;
        if (t.kind == std::string("enum") || t.kind == std::string("flag"))
          op<OidFn>(t.name, "get_oid_count")(h, 0, nullptr, &err);
      }
      for (const auto &t : bixfacts::kTypes) {
        const std::string name = t.name, kind = t.kind;
        if (kind == "message") continue;
        uint32_t err = 0;
        void *src = op<CreateFn>(name, "create")(h, 0);
        if (kind == "type") fill(h, name, src, static_cast<uint8_t>(seed + r), 1 + (seed + r) % 7);
        std::vector<uint8_t> wire(op<LenFn>(name, "len")(h, 0, src) + 16);
        uint32_t n = op<MarshalFn>(name, "marshal")(h, 0, wire.data(), src, static_cast<int32_t>(wire.size()), &err);
        void *dst = op<CreateFn>(name, "create")(h, 0);
        uint32_t back = op<UnmarshalFn>(name, "unmarshal")(h, 0, wire.data(), dst, static_cast<int32_t>(n), 0, &err);
        if (err || back != n) ok = false;
        op<DestroyFn>(name, "destroy")(h, 0, src);
        op<DestroyFn>(name, "destroy")(h, 0, dst);
      }
      if (!h.live.empty()) ok = false;
    }
  }
}

TEST(Threads, EveryTypeOnItsOwnHandlesAtOnce) {
  std::atomic<uint32_t> traced{0};
  lumo_set_sink([](void *ctx, uint32_t, const char *) { static_cast<std::atomic<uint32_t> *>(ctx)->fetch_add(1); },
                &traced);
  constexpr int kThreads = 4, kRounds = 3;
  // A data reference keeps the library linked in (everything else is looked up by name)
  // without running any of it before the threads do.
  const auto types = all_types();
  ASSERT_NE(std::find(types.begin(), types.end(), &_wex_xcvr_rc_type_info_internal), types.end());
  const Counts before = counters();
  std::atomic<bool> go{false};
  bool ok[kThreads] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    ok[i] = true;
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      work(kRounds, static_cast<uint32_t>(i), ok[i]);
    });
  }
  go = true;
  for (auto &t : threads) t.join();
  const Counts together = counters() - before;
  for (int i = 0; i < kThreads; ++i) EXPECT_TRUE(ok[i]) << "thread " << i;

  // The same work once more, thread after thread: exactly the same counts.
  const Counts mark = counters();
  bool alone_ok = true;
  for (int i = 0; i < kThreads; ++i) work(kRounds, static_cast<uint32_t>(i), alone_ok);
  EXPECT_TRUE(alone_ok);
  EXPECT_EQ(together, counters() - mark);
  for (auto &[name, n] : together) EXPECT_EQ(n.first, n.second) << name;
  lumo_set_sink(nullptr, nullptr);
  EXPECT_GT(traced.load(), 0u);
}

}  // namespace
