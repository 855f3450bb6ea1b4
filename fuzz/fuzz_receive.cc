// Fuzz target: arbitrary bytes into bix_ipc_shim_message_receive, as a receiving program
// calls it, with state tracking off and on, the recorder off and on, the runtime's
// registered type copies, with and without a handler and an out argument, and one
// allocation failing. Asserts the invariants of docs/security.md for whole messages: the
// decoder stays inside the input, a refused message is neither handed out nor passed to
// a handler and costs nothing, a failed allocation is reported, nothing leaks, and an
// accepted message prints, renders as XML and re-encodes (into a buffer of exactly its
// len, ending at an unmapped page) to bytes that decode and encode again identically.
// Every input is received twice, by the record codec's fast path and by its walker (the
// handle withholding the runtime's byte form), which must agree on the bytes consumed,
// the error, the refused allocation, the handler's calls and the message decoded.
//
// Input: [options][fail][message bytes...]
//   options  0x01 the receiving handle tracks state
//            0x02 the recorder is on
//            0x04 instances point at the runtime's registered type copies
//            0x08 a handler is passed (else the library's default path: 38)
//            0x10 no out argument: the handler (or nobody) owns the message
//   fail     n > 0: the n-th allocation of the receive fails
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../tests/messages/msg_support.h"
#include "fuzz_support.h"
#include "lumo.h"

namespace {

using bixfuzz::Counting;
using bixfuzz::require;

struct Delivery {
  int calls = 0;
  bool owns = false;  // no out argument: the handler takes the message
  void *message = nullptr;
};

void handler(wex_handle *h, uint32_t ws, uint64_t context, void *message, uint32_t *) {
  auto *d = reinterpret_cast<Delivery *>(static_cast<uintptr_t>(context));
  ++d->calls;
  d->message = message;
  if (!d->owns) return;
  const std::string name = (*static_cast<wex_type_info **>(message))->type_name;
  bixtest::message(name).destroy(h, ws, message);
}

const bixtest::Msg &message_of(const void *msg) {
  return bixtest::message((*static_cast<wex_type_info *const *>(msg))->type_name);
}

std::vector<uint8_t> reencode(wex_handle *h, const bixtest::Msg &m, void *msg) {
  const uint32_t need = m.len(h, 0, msg);
  std::vector<uint8_t> out(need + 64);
  uint32_t err = 0;
  out.resize(m.marshal(h, 0, out.data(), msg, static_cast<int32_t>(out.size()), &err));
  require(err == 0, "a decoded message does not encode", m.name);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Error traces are expected here by the thousand; printing them would be the run.
  static const bool quiet = (lumo_set_sink([](void *, uint32_t, const char *) {}, nullptr), true);
  static std::FILE *sink = std::fopen("/dev/null", "w");
  (void)quiet;
  if (size < 2 || size > (1u << 20)) return 0;
  const uint8_t opt = data[0];
  wex_sttr_profile profile{(opt & 0x01) ? WEX_STTR_ON : WEX_STTR_OFF};
  Counting c;
  wex_handle *h = bixfuzz::counting_handle(c, &profile, opt & 0x04);
  const size_t len = size - 2;
  std::unique_ptr<uint8_t[]> input(new uint8_t[len ? len : 1]);  // reads past it are caught
  std::memcpy(input.get(), data + 2, len);

  // One receive; fast: through the record codec's fast path, else through the walker. The
  // allocation that fails is the same one counted from the start of either receive.
  const uint32_t first_alloc = c.allocs;
  struct Received {
    uint32_t used = 0, err = 0, refused = 0;
    int calls = 0;
    bool operator==(const Received &) const = default;
  };
  auto receive = [&](bool fast, Delivery &d, void **out) {
    Received r;
    wex_handle_declare_byte_form(h, fast);
    if (opt & 0x02) wexlib_msg_recorder_start(sink);
    const uint32_t refused = c.refused;
    c.fail_at = data[1] > first_alloc ? c.allocs + (data[1] - first_alloc) : 0;
    r.used = bix_ipc_shim_message_receive(
        h, 0, reinterpret_cast<uintptr_t>(&d), d.owns ? nullptr : out, input.get(),
        static_cast<int32_t>(len), (opt & 0x08) ? handler : nullptr, &r.err);
    wexlib_msg_recorder_stop();
    c.fail_at = 0;
    wex_handle_declare_byte_form(h, 1);
    r.refused = c.refused - refused;
    r.calls = d.calls;
    return r;
  };
  Delivery d, walker_d;
  d.owns = walker_d.owns = opt & 0x10;
  void *out = &out, *walker_out = &walker_out;
  const Received got = receive(true, d, &out);
  const bool same = got == receive(false, walker_d, &walker_out);
  const uint32_t used = got.used, err = got.err;
  const std::string what = "options " + std::to_string(opt);
  require(same, "the fast path and the walker receive differently", what);
  if (!d.owns && walker_out != &walker_out && walker_out != nullptr) {
    // The walker's message holds what the fast path's does.
    require(out != &out && out != nullptr, "only the walker decoded the message", what);
    const bixtest::Msg &m = message_of(walker_out);
    require(reencode(h, m, walker_out) == reencode(h, message_of(out), out),
            "the fast path and the walker decode different messages", m.name);
    m.destroy(h, 0, walker_out);
  }
  require(used <= len, "receive consumed more than it was given", what);
  require(!got.refused || err, "a refused allocation went unreported", what);
  if (!d.owns) require(out != &out, "the out argument was left unset", what);
  const bool decoded = err == 0 || (err == 38 && !(opt & 0x08));
  if (!decoded) {
    require(d.calls == 0 && (d.owns || out == nullptr), "a refused message was handed on", what);
  } else {
    require(d.calls == ((opt & 0x08) ? 1 : 0), "the handler was not called once", what);
    if (!d.owns) {
      require(out != nullptr, "a decoded message went missing", what);
      const bixtest::Msg &m = message_of(out);
      require(std::memcmp(m.luid, input.get() + 27, 16) == 0, "the message does not match its LUID",
              m.name);
      std::vector<char> text(1 << 20);
      uint32_t e = 0;
      m.print(h, 0, text.data(), out, static_cast<uint32_t>(text.size()), &e);
      e = 0;
      m.to_xml(h, 0, text.data(), out, static_cast<uint32_t>(text.size()), &e);
      // Re-encoded into exactly its length: nothing past it (the guard page faults).
      const uint32_t need = m.len(h, 0, out);
      if (uint8_t *exact = bixfuzz::guarded(need)) {
        e = 0;
        require(m.marshal(h, 0, exact, out, static_cast<int32_t>(need), &e) <= need,
                "marshal wrote past len", m.name);
      }
      // Accepted, it decodes and encodes again to the same bytes.
      const std::vector<uint8_t> first = reencode(h, m, out);
      void *again = nullptr;
      e = 0;
      require(m.unmarshal_only(h, 0, &again, first.data(), static_cast<int32_t>(first.size()),
                               &e) == first.size() &&
                  !e,
              "its own encoding does not decode", m.name);
      require(reencode(h, m, again) == first, "decode/encode is not stable", m.name);
      m.destroy(h, 0, again);
      m.destroy(h, 0, out);
    }
  }
  require(c.live.empty(), "leak", what);
  bixfuzz::free_handle(h);
  return 0;
}

// Seeds: every message, filled, from a sender tracking state or not, under a spread of
// options, and with the first allocations failing.
extern "C" int bixfuzz_make_seeds(const char *dir) {
  std::filesystem::create_directories(dir);
  uint8_t k = 0;
  for (const bixtest::Msg &m : bixtest::messages()) {
    for (uint8_t sender = 0; sender < 2; ++sender, ++k) {
      bixtest::Handle h(sender ? WEX_STTR_ON : WEX_STTR_OFF);
      bixtest::Encoded e = bixtest::encode(h, m, k, 1 + k % 7);
      std::vector<uint8_t> seed{static_cast<uint8_t>(k * 7 % 32),
                                static_cast<uint8_t>(k % 3 == 0 ? k % 5 + 1 : 0)};
      seed.insert(seed.end(), e.wire.begin(), e.wire.end());
      m.destroy(h, 0, e.msg);
      std::ofstream(std::filesystem::path(dir) / (m.name + (sender ? "_tracked" : "")),
                    std::ios::binary)
          .write(reinterpret_cast<const char *>(seed.data()),
                 static_cast<std::streamsize>(seed.size()));
    }
  }
  return 0;
}
