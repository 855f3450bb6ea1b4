// Type info records, registration with a handle, the module link, the variant dump and
// the manifest section of the built library file.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "elf_section.h"
#include "support.h"

using namespace bixtest;

namespace {

TEST(TypeInfo, RecordLayoutAndListOrder) {
  const wex_type_info &t = _wex_xcvr_presence_info_type_info_internal;
  const uint8_t *b = reinterpret_cast<const uint8_t *>(&t);
  static_assert(sizeof(wex_type_info) == 272);
  EXPECT_EQ(t.magic, 0xbeeff00du);
  EXPECT_EQ(b[4], 0x8f);
  EXPECT_EQ(b[19], 0xdd);
  EXPECT_STREQ(reinterpret_cast<const char *>(b + 20), "8f3fd8f32fa08d28bc785e2cc8f6cbdd");
  EXPECT_STREQ(reinterpret_cast<const char *>(b + 53), "wex_xcvr_presence_info");
  EXPECT_STREQ(reinterpret_cast<const char *>(b + 117), "bix_ipc_shim");
  EXPECT_STREQ(reinterpret_cast<const char *>(b + 181), "type");
  EXPECT_EQ(*reinterpret_cast<const uint32_t *>(b + 248), 0xFFFFFFFFu);
  EXPECT_EQ(*reinterpret_cast<const uint32_t *>(b + 264), 0u);
  EXPECT_STREQ(_ipc_shim_xcvr_msg_message_type_info_internal.kind, "message");
  EXPECT_STREQ(_ipc_shim_xcvr_msg_message_type_info_internal.type_name, "ipc_shim_xcvr_msg");
  EXPECT_STREQ(_wex_xcvr_status_bitmap_type_info_internal.kind, "flag");

  auto types = all_types();
  ASSERT_EQ(types.size(), 53u);
  EXPECT_STREQ(types[0]->type_name, "ipc_shim_data");
  EXPECT_STREQ(types[31]->type_name, "wex_ipc_shim_appl_id");
  EXPECT_STREQ(types[41]->type_name, "wex_bix_env_sensor_type");
  EXPECT_STREQ(types[52]->type_name, "ipc_shim_mgmt_rpc_reply");
  EXPECT_EQ(types[33]->variant_info->count, 2);  // wex_xcvr_rpc_req_type
}

TEST(TypeInfo, MessageObjects) {
  EXPECT_EQ(0, std::memcmp(message_bix_ipc_shim_msg_luid,
                           _bix_ipc_shim_msg_message_type_info_internal.luid, 16));
  EXPECT_STREQ(message_ipc_shim_xcvr_presence_info_luid_text, "fe0e6cf431dea5190fa169e7bf828c03");
  EXPECT_STREQ(message_bix_ipc_shim_msg_name, "message bix_ipc_shim_msg");
  EXPECT_EQ(message_bix_ipc_shim_msg_name[63], '\0');
}

struct Registry {
  uint32_t type_allocs = 0, fail_at = 0;
};

TEST(Registration, CopiesEveryRecordOnceAndAgainAllocatesNothing) {
  Handle h;
  h->types_indirect = 3;
  Registry reg;
  auto real_alloc = h->type_alloc;
  void *real_ctx = h->type_alloc_ctx;
  static thread_local std::pair<decltype(real_alloc), void *> real;
  real = {real_alloc, real_ctx};
  h->type_alloc_ctx = &reg;
  h->type_alloc = [](void *ctx, uint32_t ws, uint32_t size) -> void * {
    auto *r = static_cast<Registry *>(ctx);
    EXPECT_EQ(ws, 0xFFFFFFFFu);
    EXPECT_EQ(size, 288u);
    if (++r->type_allocs == r->fail_at) return nullptr;
    return real.first(real.second, ws, size);
  };
  uint32_t err = 0;
  bix_ipc_shim_typeinfo_initialize(h, 0, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(reg.type_allocs, 53u);
  for (const wex_type_info *t : all_types()) {
    const wex_type_info *copy = h->type_lookup(h->type_registry, 0, t->luid_text);
    ASSERT_NE(copy, nullptr);
    ASSERT_NE(copy, t);
    EXPECT_EQ(0, std::memcmp(copy, t, 248));
    EXPECT_EQ(copy->indirect, 3u);
    const uint8_t *tail = reinterpret_cast<const uint8_t *>(copy) + 272;
    EXPECT_EQ(std::count(tail, tail + 16, 0), 16);
  }
  bix_ipc_shim_typeinfo_initialize(h, 0, &err);
  EXPECT_EQ(reg.type_allocs, 53u);
  h->type_alloc_ctx = real_ctx;
  h->type_alloc = real_alloc;
}

TEST(Registration, OutOfMemoryStopsAtThatRecord) {
  Handle h;
  Registry reg;
  reg.fail_at = 5;
  static thread_local std::pair<decltype(h->type_alloc), void *> real;
  real = {h->type_alloc, h->type_alloc_ctx};
  h->type_alloc_ctx = &reg;
  h->type_alloc = [](void *ctx, uint32_t ws, uint32_t size) -> void * {
    auto *r = static_cast<Registry *>(ctx);
    if (++r->type_allocs == r->fail_at) return nullptr;
    return real.first(real.second, ws, size);
  };
  uint32_t err = 0;
  bix_ipc_shim_typeinfo_initialize(h, 0, &err);
  EXPECT_EQ(err, 12u);
  EXPECT_EQ(h->error, 12u);
  auto types = all_types();
  EXPECT_NE(h->type_lookup(h->type_registry, 0, types[3]->luid_text), nullptr);
  EXPECT_EQ(h->type_lookup(h->type_registry, 0, types[4]->luid_text), nullptr);
  h->type_alloc_ctx = real.second;
  h->type_alloc = real.first;
}

TEST(Module, LinkedOnceAtLoadAndUnlinkedAtUnload) {
  const wex_module_desc *ours = our_module();
  ASSERT_NE(ours, nullptr);
  EXPECT_EQ(ours->prev_link == &wex_module_tot_root.first || ours->prev_link != nullptr, true);
  EXPECT_EQ(*ours->prev_link, ours);
  uint32_t before = wex_module_tot_root.count;

  // A second copy of the file loads as a separate module: it links behind ours and
  // unlinks itself again at unload, leaving the list as it was.
  namespace fs = std::filesystem;
  fs::path copy = fs::temp_directory_path() / ("bix_copy_" + std::to_string(getpid()) + ".so");
  fs::copy_file(BIX_LIBRARY_FILE, copy, fs::copy_options::overwrite_existing);
  void *dl = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(dl, nullptr) << dlerror();
  EXPECT_EQ(wex_module_tot_root.count, before + 1);
  const wex_module_desc *last = ours;
  while (last->next) last = last->next;
  EXPECT_NE(last, ours);
  EXPECT_EQ(wex_module_tot_root.last_link, &const_cast<wex_module_desc *>(last)->next);
  dlclose(dl);
  fs::remove(copy);
  EXPECT_EQ(wex_module_tot_root.count, before);
  EXPECT_EQ(ours->next, nullptr);
  EXPECT_EQ(wex_module_tot_root.last_link, &const_cast<wex_module_desc *>(ours)->next);
}

std::string g_dump;
int capture(const char *fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  g_dump += buf;
  return n;
}

TEST(Module, VariantDumpPrintsEveryTable) {
  g_dump.clear();
  bix_ipc_shim_type_variant_dump(capture);
  EXPECT_EQ(std::count(g_dump.begin(), g_dump.end(), '\n'), 53 + 54);
  EXPECT_NE(g_dump.find("n_variants 2\nvariant 0 used length 16 alloc slop 0\n"
                        "variant 1 used length 16 alloc slop 0\n"),
            std::string::npos);
  EXPECT_EQ(g_dump.rfind("n_variants 1\nvariant 0 used length 1656 alloc slop 16\n", 0),
            std::string::npos);  // not the first entry
  EXPECT_NE(g_dump.find("n_variants 1\nvariant 0 used length 1656 alloc slop 16\n"), std::string::npos);
}

TEST(Module, TraceInitRegistersTheModuleOnce) {
  EXPECT_EQ(wex_bix_ipc_shim_trace_init(), 0);
  uint16_t id = g_wex_bix_ipc_shim_trace_module_id;
  EXPECT_NE(id, 0);
  EXPECT_STREQ(lumo_module_name(id), "wex_bix_ipc_shim");
  EXPECT_EQ(wex_bix_ipc_shim_trace_init(), 0);
  EXPECT_EQ(g_wex_bix_ipc_shim_trace_module_id, id);
  EXPECT_EQ(g_wex_bix_ipc_shim_stub_trace_module_id, 0);
}

TEST(Manifest, SectionOfTheBuiltFileHoldsEveryTypeLine) {
  std::string err;
  auto sec = bixipc::read_elf_section(BIX_LIBRARY_FILE, ".orvik", &err);
  ASSERT_TRUE(sec) << err;
  auto recs = bixipc::parse_manifest(*sec, &err);
  ASSERT_TRUE(recs) << err;
  ASSERT_EQ(recs->size(), 2u);
  EXPECT_EQ((*recs)[0].kind, 2u);
  EXPECT_EQ((*recs)[1].kind, 1u);
  std::istringstream text((*recs)[0].text);
  std::vector<std::string> lines;
  for (std::string l; std::getline(text, l);) lines.push_back(l);
  ASSERT_EQ(lines.size(), 54u);
  EXPECT_EQ(lines[0], "# bix_ipc_shim.brev");
  EXPECT_EQ(lines[1], "fe212c4a7e311d28d6bfd913a753dea8:d12732016145f2a35febcfd03b3d4ec0type000:00032N");
  EXPECT_EQ(lines[35], "8f3fd8f32fa08d28bc785e2cc8f6cbdd:7d0fd394c991ecb50f7c1945ed824aa8type000:00040N");
  EXPECT_EQ(lines[38], "8c143740dccd51f4378fb436c8e99ff1:95ed91c605c8a8d23a132df336d867b2enum001:00016N");
  EXPECT_EQ(lines[39], "a44a822a78db25e8707bdb944edc7bfb:709e3be2b23566daaec4c5850d055cb4flag000:00016N");
  EXPECT_EQ(lines[43], "1c715947728eb9dfee060b7f568848aa:d530dbc43c7c474a63181e94f8844c3amess000:00000N");
  EXPECT_EQ(lines[53], "fe0e6cf431dea5190fa169e7bf828c03:a33d0fbaf061598edda445ee330df48bmess000:00000N");
  EXPECT_EQ((*recs)[0].text.back(), '\n');
}

}  // namespace

namespace {

// The trace-point tables travel in the file: the decoder record, one LUID section per
// table, and the bzip2-compressed texts they index.
TEST(Manifest, TraceSectionsDecodeBackToTheTraceTexts) {
  std::string err;
  auto dec = bixipc::read_elf_section(BIX_LIBRARY_FILE, ".lumo_decoder", &err);
  ASSERT_TRUE(dec) << err;
  ASSERT_EQ(dec->size(), 30u);
  EXPECT_EQ(std::string(dec->begin(), dec->begin() + 8), "LUMODEC1");
  EXPECT_EQ((*dec)[10], 2);  // two tables
  auto bz = bixipc::read_elf_section(BIX_LIBRARY_FILE, ".lumo_format_strings", &err);
  ASSERT_TRUE(bz) << err;
  char *text = nullptr;
  size_t len = 0;
  ASSERT_EQ(lumo_decode_format_strings(bz->data(), bz->size(), &text, &len), 0);
  auto main = bixipc::read_elf_section(BIX_LIBRARY_FILE, ".lumo_luids_b1c0d2e3f4a5968778695a4b3c2d1e0f", &err);
  ASSERT_TRUE(main) << err;
  const uint8_t *rec = main->data() + 20;  // header, then 6-byte records
  // The first record of the main table is the corrupted-handle text.
  uint16_t tlen = static_cast<uint16_t>(rec[0] | rec[1] << 8);
  uint32_t off = rec[2] | rec[3] << 8 | rec[4] << 16 | static_cast<uint32_t>(rec[5]) << 24;
  ASSERT_LE(off + tlen, len + 1);
  EXPECT_STREQ(text + off, "Corrupted WEX Handle");
  EXPECT_EQ(tlen, sizeof("Corrupted WEX Handle"));
  free(text);
}

}  // namespace

namespace {

// The message table holds its shared texts, then one run of texts per message, in schema
// order, each with the message's own name in place.
TEST(Manifest, MessageTraceTableHasOneRunPerMessage) {
  std::string err;
  auto bz = bixipc::read_elf_section(BIX_LIBRARY_FILE, ".lumo_format_strings", &err);
  auto stub = bixipc::read_elf_section(BIX_LIBRARY_FILE,
                                       ".lumo_luids_5e1f0a9b8c7d6e5f40312a2b3c4d5e6f", &err);
  ASSERT_TRUE(bz && stub) << err;
  char *text = nullptr;
  size_t len = 0;
  ASSERT_EQ(lumo_decode_format_strings(bz->data(), bz->size(), &text, &len), 0);
  auto at = [&](size_t i) -> std::string {
    const uint8_t *rec = stub->data() + 20 + 6 * i;
    const uint32_t off = rec[2] | rec[3] << 8 | rec[4] << 16 | static_cast<uint32_t>(rec[5]) << 24;
    return off < len ? text + off : "";
  };
  std::vector<std::string> messages;
  for (const wex_type_info *t : bixtest::all_types())
    if (std::string(t->kind) == "message") messages.push_back(t->type_name);
  const size_t count = (*stub)[2] | (*stub)[3] << 8;
  size_t shared = 0;
  while (at(shared) != "Error present in call to message marshal: %s") ++shared;
  const size_t run = (count - shared) / messages.size();
  ASSERT_EQ(shared + run * messages.size(), count);
  for (size_t m = 0; m < messages.size(); ++m) {
    std::vector<std::string> texts;
    for (size_t k = 0; k < run; ++k) texts.push_back(at(shared + m * run + k));
    EXPECT_EQ(texts[0], "Error present in call to message marshal: %s");
    EXPECT_NE(std::find(texts.begin(), texts.end(),
                        "default bix_ipc_shim_" + messages[m] + "_message handler called"),
              texts.end());
    EXPECT_NE(std::find(texts.begin(), texts.end(),
                        "Error %d " + messages[m] + " message not recorded, xml len %d"),
              texts.end());
  }
  free(text);
}

}  // namespace
