// Fuzz target: arbitrary bytes into the decoder of every type, in every state a caller can
// put the destination in. Asserts the decoder's invariants (docs/security.md): it stays
// inside the input, allocates no more than the input justifies, fails cleanly when an
// allocation fails, leaks nothing, leaves an instance every accessor can read, and
// anything it accepts re-encodes, into a buffer of exactly len bytes, to a stable string.
// Every input is decoded (and re-encoded) twice: by the fast path and by the walker, which
// must agree on results, allocations and the decoded instance.
//
// Input: [type][options][encoding...]
//   type     the type is byte % N; with option 0x80, byte / N + 1 is the allocation that
//            fails (counted from the first decode)
//   options  0x01 the decoding handle tracks state
//            0x02 the destination is created by a tracking handle (always when 0x01)
//            0x04 decode with reuse 1
//            0x08 the destination already holds content, storage and an alternative
//            0x10 both handles point instances at the runtime's registered type copies
//            0x20 decode the same bytes a second time into the same instance
//            0x40 read every field back through the accessors
//            0x80 fail one allocation
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../tests/wire/snapshot.h"
#include "fuzz_support.h"
#include "lumo.h"

namespace {

using bixfuzz::Counting;
using bixfuzz::counting_handle;
using bixfuzz::free_handle;
using bixfuzz::require;

// The last `len` bytes before a page that is not mapped: an encoder that writes one byte
// past the room it was given faults at once.
uint8_t *guarded(uint32_t len) {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  static const size_t room = 64 * 1024;
  static uint8_t *base = [] {
    void *m = mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) std::abort();
    mprotect(static_cast<uint8_t *>(m) + room, page, PROT_NONE);
    return static_cast<uint8_t *>(m);
  }();
  return len <= room ? base + room - len : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Error traces are expected here by the thousand; printing them would be the run.
  static const bool quiet = (lumo_set_sink([](void *, uint32_t, const char *) {}, nullptr), true);
  (void)quiet;
  if (size < 2 || size > (1u << 20)) return 0;
  const auto &types = bixfuzz::types();
  const bixfuzz::TypeOps &t = types[data[0] % types.size()];
  const uint8_t opt = data[1];
  const bool tracks = opt & 0x01, create_tracked = tracks || (opt & 0x02), indirect = opt & 0x10;
  const bool is_record = bixtest::facts_type(t.name)->kind == std::string("type");
  wex_sttr_profile decode_profile{tracks ? 0xEEEEu : 0xDDDDu};
  wex_sttr_profile create_profile{create_tracked ? 0xEEEEu : 0xDDDDu};
  Counting c;
  wex_handle *h = counting_handle(c, &decode_profile, indirect);
  wex_handle *maker = counting_handle(c, &create_profile, indirect);

  const size_t len = size - 2;
  // An exact-size heap copy: any read past the input is caught by the address sanitizer.
  std::unique_ptr<uint8_t[]> input(new uint8_t[len ? len : 1]);
  std::memcpy(input.get(), data + 2, len);

  // The instance decoded into, and its twin that the walker decodes into: the fast path
  // and the walker must leave both alike, with the same results.
  void *inst = t.create(maker, 0), *twin = t.create(maker, 0);
  require(inst && twin, "create", t.name);
  if ((opt & 0x08) && is_record) {
    bixtest::fill(maker, t.name, inst, data[0], 1 + data[0] % 7);
    bixtest::fill(maker, t.name, twin, data[0], 1 + data[0] % 7);
  }
  const uint32_t reuse = (opt & 0x04) ? 1 : 0;
  struct Decoded {
    uint32_t used = 0, err = 0, used2 = 0, err2 = 0, refused = 0;
    uint64_t bytes = 0;
    bool operator==(const Decoded &) const = default;
  };
  auto decode = [&](void *target, bool fast) {
    wex_handle_declare_byte_form(h, fast);
    Decoded r;
    const uint64_t bytes = c.bytes;
    const uint32_t refused = c.refused;
    if (opt & 0x80) c.fail_at = c.allocs + 1 + data[0] / static_cast<uint32_t>(types.size());
    r.used = t.unmarshal(h, 0, input.get(), target, static_cast<int32_t>(len), reuse, &r.err);
    if (opt & 0x20)  // again, into what the first decode left
      r.used2 = t.unmarshal(h, 0, input.get(), target, static_cast<int32_t>(len), reuse, &r.err2);
    c.fail_at = 0;
    r.refused = c.refused - refused;
    r.bytes = c.bytes - bytes;
    wex_handle_declare_byte_form(h, 1);
    return r;
  };
  const Decoded got = decode(inst, true);
  require(got == decode(twin, false) &&
              bixtest::snapshot(maker, t.name, inst) == bixtest::snapshot(maker, t.name, twin),
          "the fast path and the walker decode differently", t.name);
  t.destroy(h, 0, twin);
  const uint32_t used = got.used;
  uint32_t err = got.err;
  require(used <= len, "decoder consumed more than it was given", t.name);
  // The refused allocation may fall in the second decode: then that one reports it.
  require(!got.refused || err || got.err2, "a refused allocation went unreported", t.name);
  require(got.used2 <= len, "second decode consumed more than it was given", t.name);
  // Alternatives are instances of a bounded size; everything else must be paid for by
  // input bytes (twice with a second decode).
  require(got.bytes <= 2 * (7u * 4096 + 2 * len), "allocation beyond what the input justifies",
          t.name);
  if (opt & 0x40) bixfuzz::read_back(h, t.name, inst);

  if (err == 0) {
    // len never counts the ra item that records flagged 0x20 carry; without it, a buffer
    // of exactly len bytes takes the whole encoding.
    const uint32_t need = t.len(h, 0, inst);
    std::vector<uint8_t> first(2 * need + 1024), second(2 * need + 1024);
    uint32_t e1 = 0, e2 = 0, e3 = 0, e4 = 0;
    uint32_t n1 = t.marshal(h, 0, first.data(), inst, static_cast<int32_t>(first.size()), &e1);
    {  // the walker writes the same
      std::vector<uint8_t> ref(first.size());
      uint32_t e0 = 0;
      wex_handle_declare_byte_form(h, 0);
      const uint32_t n0 = t.marshal(h, 0, ref.data(), inst, static_cast<int32_t>(ref.size()), &e0);
      const uint32_t need0 = t.len(h, 0, inst);
      wex_handle_declare_byte_form(h, 1);
      require(n0 == n1 && e0 == e1 && need0 == need && ref == first,
              "the fast path and the walker encode differently", t.name);
    }
    if (uint8_t *exact = guarded(need)) {
      uint32_t n0 = t.marshal(h, 0, exact, inst, static_cast<int32_t>(need), &e4);
      require(n0 <= need, "encoder wrote past the room it was given", t.name);
      if (e1 == 0 && n1 <= need) {  // else an ra item somewhere (len leaves it out)
        // A union's last state byte wants two bytes of room, so it may be left out (and
        // the jump is one less); everything else is the same encoding.
        require(e4 == 0 && n0 + 1 >= n1 && (n0 < n1 || std::memcmp(exact, first.data(), n0) == 0),
                "a buffer of exactly len bytes does not take the encoding", t.name);
      }
    }
    if (e1 == 0) {
      void *again = t.create(h, 0);
      uint32_t back = t.unmarshal(h, 0, first.data(), again, static_cast<int32_t>(n1), 0, &e2);
      require(e2 == 0 && back == n1, "own encoding does not decode", t.name);
      uint32_t n2 = t.marshal(h, 0, second.data(), again, static_cast<int32_t>(second.size()), &e3);
      require(e3 == 0 && n1 == n2 && std::memcmp(first.data(), second.data(), n1) == 0,
              "decode/encode is not stable", t.name);
      t.destroy(h, 0, again);
    }
  }
  t.destroy(h, 0, inst);
  require(c.live.empty(), "leak after destroy", t.name);
  free_handle(maker);
  free_handle(h);
  return 0;
}
