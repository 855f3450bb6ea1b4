#include "lumo.h"

#include <bzlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

namespace {

// ---- Module registration ----------------------------------------------------

TEST(LumoModules, StateWordDecidesNullArgumentsFailLongNamesAreCut) {
  uint16_t id = 0, other_id = 0;
  uint32_t state = 0, other_state = 0;
  ASSERT_EQ(lumo_module_init_fn("lumo-test-idempotent", &id, &state), 0);
  const uint16_t first = id;
  // Once marked, the state word alone decides: the id is not rewritten. The
  // same name under another state word gets the same id.
  id = 0xBEEF;
  EXPECT_EQ(std::tuple(state, first != 0, lumo_module_init_fn("lumo-test-idempotent", &id, &state),
                       lumo_module_init_fn("lumo-test-idempotent", &other_id, &other_state), id,
                       other_id),
            std::tuple(LUMO_REG_STATE_REGISTERED, true, 0, 0, 0xBEEF, first));
  state = 0;
  EXPECT_EQ(std::tuple(lumo_module_init_fn(nullptr, &id, &state),
                       lumo_module_init_fn("x", nullptr, &state),
                       lumo_module_init_fn("x", &id, nullptr), state),
            std::tuple(-1, -1, -1, 0u));
  ASSERT_EQ(lumo_module_init_fn(std::string(300, 'n').c_str(), &id, &state), 0);
  EXPECT_EQ(std::string(lumo_module_name(id)), std::string(LUMO_MODULE_NAME_MAX, 'n'));
}

// ---- Formatting, seen through a capturing sink -------------------------------

using Traces = std::vector<std::pair<uint32_t, std::string>>;
Traces g_traces;  // what the capturing sink received
const lumo_sink_fn capture = [](void *, uint32_t level, const char *text) {
  g_traces.emplace_back(level, text);
};

// Through the entry point that matches the arguments: integers or strings.
void emit(const lumo_trace_table *t, uint32_t level, const std::vector<uint32_t> &n,
          const std::vector<const char *> &s) {
  // clang-format off
  switch (s.empty() ? n.size() : 10 + s.size()) {
    case 0: return lumo_emit(t, 0, 1, level);
    case 1: return lumo_emit_i1(t, 0, 1, level, n[0]);
    case 2: return lumo_emit_i2(t, 0, 1, level, n[0], n[1]);
    case 3: return lumo_emit_i3(t, 0, 1, level, n[0], n[1], n[2]);
    case 11: return lumo_emit_s1(t, 0, 1, level, s[0]);
    case 12: return lumo_emit_s2(t, 0, 1, level, s[0], s[1]);
    default: return lumo_emit_s3(t, 0, 1, level, s[0], s[1], s[2]);
  }
  // clang-format on
}

TEST(LumoFormat, EntryPointsFillTheirArgumentsOddFormatsStayVerbatimBadIndexesAreNamed) {
  const std::string big(3000, 'x');
  // Integers are u32, read as signed for %d and %i; flags and widths apply;
  // length modifiers change nothing. The other kind of argument prints in
  // its own form; missing arguments, unknown conversions and '*' widths stay
  // verbatim; flags C leaves undefined for a conversion are dropped. Long
  // output is cut to the buffer; a huge width is clamped.
  // clang-format off
  const std::tuple<const char *, std::vector<uint32_t>, std::vector<const char *>, std::string>
      cases[] = {
      {"Corrupted WEX Handle", {}, {}, "Corrupted WEX Handle"},  {"%s/%s", {}, {"a", "b"}, "a/b"},
      {"%u", {~0u}, {}, "4294967295"},                           {"%c%c", {'o', 0x16B}, {}, "ok"},
      {"%d %i", {~0u, 0x80000000u}, {}, "-1 -2147483648"},       {"%d", {}, {"text"}, "text"},
      {"%x %X %o", {0xBEEFu, 0xBEEFu, 8}, {}, "beef BEEF 10"},   {"%s", {42}, {}, "42"},
      {"%08x|%-4u|%+d", {0x1F, 5, 3}, {}, "0000001f|5   |+3"},   {"%#d|%+u", {5, 5}, {}, "5|5"},
      {"%#x|%#o|% d", {255, 8, 2}, {}, "0xff|010| 2"}, {"[%s]", {}, {nullptr}, "[(null)]"},
      {"%lu %lld %hhx", {1, ~0u, 0x1FF}, {}, "1 -1 1ff"}, {"%s and %s", {}, {"one"}, "one and %s"},
      {"%n %p %f %*d", {1}, {}, "%n %p %f %*d"}, {"100%% done, 100%", {}, {}, "100% done, 100%"},
      {"[%05s|%#s|%.2s|%-3s]", {}, {"ab", "cd", "xyz"}, "[   ab|cd|xy|%-3s]"},
      {"<%s>", {}, {big.c_str()}, "<" + big.substr(0, LUMO_TEXT_MAX - 2)},
      {"%999999999999u", {1}, {}, std::string(LUMO_TEXT_MAX - 1, ' ')}};
  // clang-format on
  lumo_set_sink(capture, nullptr);
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto &[format, ints, strs, want] = cases[i];
    const char *formats[] = {format};
    const lumo_trace_table t = {{0}, 1, formats};
    g_traces.clear();
    const uint32_t level = static_cast<uint32_t>(i << 24 | i);  // any level word, unchanged
    emit(&t, level, ints, strs);
    EXPECT_EQ(g_traces, (Traces{{level, want}})) << format;
  }
  // Past the end, a NULL text, a NULL table or no texts at all.
  const char *formats[] = {"zero", nullptr};
  const lumo_trace_table t = {{0}, 2, formats}, no_formats = {{0}, 10, nullptr};
  const uint32_t E = LUMO_LEVEL_ERROR;
  g_traces.clear();
  lumo_emit_i1(&t, 2, 1, E, 9);
  lumo_emit(&t, 0xFFFFFFFFu, 1, E);
  lumo_emit(&t, 1, 1, E);
  lumo_emit_s1(nullptr, 5, 1, E, "a");
  lumo_emit(&no_formats, 0, 1, E);
  lumo_set_sink(nullptr, nullptr);
  // clang-format off
  EXPECT_EQ(g_traces, (Traces{{E, "bad trace index 2"}, {E, "bad trace index 4294967295"},
                              {E, "bad trace index 1"}, {E, "bad trace index 5"},
                              {E, "bad trace index 0"}}));
  // clang-format on
}

// ---- In a fresh process --------------------------------------------------------

// Ids are process-wide, so this runs in a child that re-executes only its
// test. Ids count from one by distinct name until all are taken; the default
// sink (back after a NULL sink) prints fatal and error lines only, the fatal
// one before the caller's abort().
void IdsRunOutAndTheDefaultSinkPrints() {
  uint16_t a = 0, b = 0, again = 0, id = 0;
  uint32_t sa = 0, sb = 0, s2 = 0, state = 0;
  bool ok = lumo_module_init_fn("wex_bix_ipc_shim", &a, &sa) == 0 &&
            lumo_module_init_fn("beta", &b, &sb) == 0 &&
            lumo_module_init_fn("wex_bix_ipc_shim", &again, &s2) == 0 && a == 1 && b == 2 &&
            again == 1 && std::string(lumo_module_name(2)) == "beta" && !lumo_module_name(3) &&
            !lumo_module_name(0);
  const char *formats[] = {"error %s", "info", "debug", "ends in newline\n",
                           "Corrupted WEX Handle"};
  const lumo_trace_table t = {{0}, 5, formats};
  lumo_set_sink(capture, nullptr);
  lumo_set_sink(nullptr, nullptr);
  lumo_emit_s1(&t, 0, a, LUMO_LEVEL_ERROR, "two");
  lumo_emit(&t, 1, a, LUMO_LEVEL_INFO);
  lumo_emit(&t, 2, a, LUMO_LEVEL_DEBUG);
  lumo_emit(&t, 3, a, LUMO_LEVEL_ERROR);
  lumo_emit(&t, 0, 0xFFFE, LUMO_LEVEL_ERROR);  // not registered yet
  for (unsigned i = 3; ok && i <= 0xFFFF; ++i, state = 0)
    ok = lumo_module_init_fn(("m" + std::to_string(i)).c_str(), &id, &state) == 0 && id == i;
  const bool full = lumo_module_init_fn("one-too-many", &id, &state) == -1 && state == 0;
  const bool known = lumo_module_init_fn("m7", &id, &state) == 0 && id == 7;  // still resolves
  if (ok && full && known && g_traces.empty()) lumo_emit(&t, 4, a, LUMO_LEVEL_FATAL);
  abort();
}

TEST(LumoDeathTest, IdsRunOutAndTheDefaultSinkPrintsFatalAndErrorLinesBeforeAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(IdsRunOutAndTheDefaultSinkPrints(),
               "^wex_bix_ipc_shim: error two\nwex_bix_ipc_shim: ends in newline\n"
               "module 65534: error %s\nwex_bix_ipc_shim: Corrupted WEX Handle\n$");
}

// ---- Trace sections -----------------------------------------------------------

// The generator lays these out byte by byte; pin the fields' offsets.
static_assert(offsetof(lumo_luids_header, luid) == 4 &&
              offsetof(lumo_luids_record, text_offset) == 2 &&
              offsetof(lumo_decoder_record, strings_size) == 12 &&
              offsetof(lumo_decoder_record, compression) == 20);

std::vector<uint8_t> bzip2(std::string plain) {
  std::vector<uint8_t> out(plain.size() + plain.size() / 100 + 600);
  unsigned len = static_cast<unsigned>(out.size());
  BZ2_bzBuffToBuffCompress(reinterpret_cast<char *>(out.data()), &len, plain.data(),
                           static_cast<unsigned>(plain.size()), 1, 0, 0);
  out.resize(len);
  return out;
}

// The answer and the text, which must end in a NUL; on failure NULL and 0.
std::pair<int, std::string> decode(const std::vector<uint8_t> &bz) {
  char *out = reinterpret_cast<char *>(1);
  size_t len = 99;
  const int rc = lumo_decode_format_strings(bz.data(), bz.size(), &out, &len);
  std::string text = !out ? std::string(len, '?') : out[len] ? "<no NUL>" : std::string(out, len);
  free(out);
  return {rc, text};
}

TEST(LumoSections, FormatStringsRoundTripAndMalformedOrHugeStreamsAreRejected) {
  const std::string blob("Corrupted WEX Handle\0tinfo is null or corrupted\0variant %u\0", 59);
  EXPECT_EQ(decode(bzip2(blob)), std::pair(LUMO_DECODE_OK, blob));

  const std::vector<uint8_t> good = bzip2(std::string(5000, 'q') + "tail");
  std::vector<uint8_t> truncated(good.begin(), good.end() - 8), trailing = good, garbage = good;
  trailing.push_back(0);
  garbage[good.size() / 2] ^= 0x55;
  for (const auto &bad :
       std::vector<std::vector<uint8_t>>{truncated, trailing, garbage, {}, {'B', 'Z', 'h', '9'}})
    EXPECT_EQ(decode(bad), std::pair(LUMO_DECODE_ECORRUPT, std::string()));
  char *out = nullptr;
  size_t len = 0;
  EXPECT_EQ(std::tuple(lumo_decode_format_strings(good.data(), good.size(), nullptr, &len),
                       lumo_decode_format_strings(good.data(), good.size(), &out, nullptr),
                       lumo_decode_format_strings(nullptr, 4, &out, &len)),
            std::tuple(LUMO_DECODE_EINVAL, LUMO_DECODE_EINVAL, LUMO_DECODE_EINVAL));

  // A few hundred bytes that expand past the cap must not be decoded whole.
  const std::vector<uint8_t> bomb = bzip2(std::string(LUMO_FORMAT_STRINGS_MAX + 1u, 'a'));
  const auto [rc, text] = decode(bzip2(std::string(LUMO_FORMAT_STRINGS_MAX, 'a')));
  EXPECT_EQ(std::tuple(rc, text.size(), bomb.size() < 4096, decode(bomb).first),
            std::tuple(LUMO_DECODE_OK, LUMO_FORMAT_STRINGS_MAX, true, LUMO_DECODE_ETOOBIG));
}

}  // namespace
