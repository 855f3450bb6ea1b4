// Trace points of the library: the two runtime tables built from the same lists that
// bixgen turns into the trace sections, and the emit helpers the core calls.
#include <array>
#include <cstdlib>
#include <iterator>

#include "bix/core.h"
#include "lumo.h"

BIX_EXPORT uint16_t g_wex_bix_ipc_shim_trace_module_id;
uint16_t g_wex_bix_ipc_shim_trace_module_id = 0;
// Never registered or used; kept for binary compatibility with the stub table's users.
BIX_EXPORT uint16_t g_wex_bix_ipc_shim_stub_trace_module_id;
uint16_t g_wex_bix_ipc_shim_stub_trace_module_id = 0;

namespace bix {
namespace {

#define FATAL LUMO_LEVEL_FATAL
#define ERROR LUMO_LEVEL_ERROR
#define INFO LUMO_LEVEL_INFO
#define DEBUG LUMO_LEVEL_DEBUG

#define BIX_TRACE_TABLE(name, luid)
#define BIX_TRACE(id, level, text) text,
const char *const kMainFormats[] = {
#include "trace_main.def"
};
#undef BIX_TRACE
#define BIX_TRACE(id, level, text) level,
const uint32_t kMainLevels[] = {
#include "trace_main.def"
};
#undef BIX_TRACE
#undef BIX_TRACE_TABLE
// The message table as bixgen lays it out: shared points, then one run per message.
#define BIX_TRACE_TEXT(level, text) text,
const char *const kStubFormats[] = {
#include "trace_stub.inc"
};
#undef BIX_TRACE_TEXT
#define BIX_TRACE_TEXT(level, text) level,
const uint32_t kStubLevels[] = {
#include "trace_stub.inc"
};
#undef BIX_TRACE_TEXT
#define BIX_TRACE(id, level, text)
#define BIX_TRACE_EACH(id, level, text)
#define BIX_TRACE_TABLE(name, luid) luid
constexpr char kMainLuid[] =
#include "trace_main.def"
    ;
constexpr char kStubLuid[] =
#include "trace_stub.def"
    ;
#undef BIX_TRACE_EACH
#undef BIX_TRACE
#undef BIX_TRACE_TABLE
#undef FATAL
#undef ERROR
#undef INFO
#undef DEBUG

constexpr uint8_t hex_nibble(char c) {
  return static_cast<uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10);
}
template <size_t N>
constexpr lumo_trace_table make_table(const char *luid, const char *const (&formats)[N]) {
  static_assert(N > 0);
  lumo_trace_table t{};
  for (int i = 0; i < 16; ++i)
    t.luid[i] = static_cast<uint8_t>(hex_nibble(luid[2 * i]) << 4 | hex_nibble(luid[2 * i + 1]));
  t.count = N;
  t.formats = formats;
  return t;
}
static_assert(sizeof(kMainLuid) == 33 && sizeof(kStubLuid) == 33, "table LUIDs are 32 hex digits");

const lumo_trace_table kMainTable = make_table(kMainLuid, kMainFormats);
const lumo_trace_table kStubTable = make_table(kStubLuid, kStubFormats);

// Registration state handed to the trace facility: zero at load.
uint32_t g_trace_reg_state = 0;

// Every trace registers the module first: enumeration and flag-set operations trace
// without any record create having run, possibly while another thread registers. The
// registration's acquire makes the id written under it visible here.
uint16_t module_id() {
  ensure_trace_module();
  return g_wex_bix_ipc_shim_trace_module_id;
}
uint32_t idx(Tm id) { return static_cast<uint32_t>(id); }
uint32_t idx(Ts id) { return static_cast<uint32_t>(id); }
uint32_t idx(const TypeDesc &msg, Te id) {
  return static_cast<uint32_t>(Ts::kSharedCount) +
         msg.msg_index * static_cast<uint32_t>(Te::kRunLength) + static_cast<uint32_t>(id);
}
uint32_t stub_level(uint32_t i) {
  return i < std::size(kStubLevels) ? kStubLevels[i] : LUMO_LEVEL_ERROR;
}

}  // namespace

void trace(Tm id) { lumo_emit(&kMainTable, idx(id), module_id(), kMainLevels[idx(id)]); }
void trace(Tm id, const char *a) {
  lumo_emit_s1(&kMainTable, idx(id), module_id(), kMainLevels[idx(id)], a);
}
void trace(Tm id, const char *a, const char *b) {
  lumo_emit_s2(&kMainTable, idx(id), module_id(), kMainLevels[idx(id)], a, b);
}
void trace_u(Tm id, uint32_t a, uint32_t b) {
  lumo_emit_i2(&kMainTable, idx(id), module_id(), kMainLevels[idx(id)], a, b);
}
void trace_u(Tm id, uint32_t a, uint32_t b, uint32_t c) {
  lumo_emit_i3(&kMainTable, idx(id), module_id(), kMainLevels[idx(id)], a, b, c);
}
void trace(Ts id, const char *a) {
  lumo_emit_s1(&kStubTable, idx(id), module_id(), kStubLevels[idx(id)], a);
}
void trace(Ts id, const char *a, const char *b) {
  lumo_emit_s2(&kStubTable, idx(id), module_id(), kStubLevels[idx(id)], a, b);
}
void trace(Ts id, const char *a, const char *b, const char *c) {
  lumo_emit_s3(&kStubTable, idx(id), module_id(), kStubLevels[idx(id)], a, b, c);
}

void trace_u(Ts id, uint32_t a, uint32_t b) {
  lumo_emit_i2(&kStubTable, idx(id), module_id(), kStubLevels[idx(id)], a, b);
}
void trace(const TypeDesc &msg, Te id) {
  const uint32_t i = idx(msg, id);
  lumo_emit(&kStubTable, i, module_id(), stub_level(i));
}
void trace(const TypeDesc &msg, Te id, const char *a) {
  const uint32_t i = idx(msg, id);
  lumo_emit_s1(&kStubTable, i, module_id(), stub_level(i), a);
}
void trace(const TypeDesc &msg, Te id, const char *a, const char *b, uint32_t level) {
  const uint32_t i = idx(msg, id);
  lumo_emit_s2(&kStubTable, i, module_id(), level == ~0u ? stub_level(i) : level, a, b);
}
void trace(const TypeDesc &msg, Te id, const char *a, const char *b, const char *c) {
  const uint32_t i = idx(msg, id);
  lumo_emit_s3(&kStubTable, i, module_id(), stub_level(i), a, b, c);
}
void trace_u(const TypeDesc &msg, Te id, uint32_t a) {
  const uint32_t i = idx(msg, id);
  lumo_emit_i1(&kStubTable, i, module_id(), stub_level(i), a);
}
void trace_u(const TypeDesc &msg, Te id, uint32_t a, uint32_t b) {
  const uint32_t i = idx(msg, id);
  lumo_emit_i2(&kStubTable, i, module_id(), stub_level(i), a, b);
}

void fatal(Tm id) {
  trace(id);
  std::abort();
}
void fatal(Ts id) {
  const uint32_t i = idx(id);
  lumo_emit(&kStubTable, i, module_id(), kStubLevels[i]);
  std::abort();
}
void fatal(const TypeDesc &msg, Te id) {
  trace(msg, id);
  std::abort();
}

int ensure_trace_module() {
  // Every decode and create passes here: once lumo has marked the state word (its documented
  // LUMO_REG_STATE_REGISTERED), one acquire load here saves the call into lumo.
  if (__atomic_load_n(&g_trace_reg_state, __ATOMIC_ACQUIRE) == LUMO_REG_STATE_REGISTERED) return 0;
  return lumo_module_init_fn("wex_bix_ipc_shim", &g_wex_bix_ipc_shim_trace_module_id,
                             &g_trace_reg_state);
}

}  // namespace bix

BIX_EXPORT int wex_bix_ipc_shim_trace_init(void) { return bix::ensure_trace_module(); }
