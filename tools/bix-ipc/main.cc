// bix-ipc: inspect the message library from the command line.
//   bix-ipc types            every type the loaded library registers, with its sizes
//   bix-ipc manifest FILE    the type manifest carried in a built library file
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bix_ipc_shim.h"
#include "elf_section.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: bix-ipc types\n"
               "       bix-ipc manifest LIBRARY_FILE\n");
  return 2;
}

const wex_module_desc *find_module(const char *name) {
  for (const wex_module_desc *m = wex_module_tot_root.first; m; m = m->next)
    if (std::strcmp(m->name, name) == 0) return m;
  return nullptr;
}

// Instance size under a handle whose tracking mode is `mode` (0: no profile).
uint32_t instance_size(const wex_type_info *t, uint32_t mode) {
  std::string fn = std::string(t->type_name) + "_sizeof";
  auto *sizeof_fn = reinterpret_cast<uint32_t (*)(wex_handle *)>(dlsym(RTLD_DEFAULT, fn.c_str()));
  if (!sizeof_fn) {  // messages: fixed size, no state-tracking area of their own
    const wex_variant_entry &e = t->variant_info->entries[0];
    return e.used_length + e.alloc_slop;
  }
  wex_handle *h = wex_handle_new();
  wex_sttr_profile profile = {mode};
  h->sttr_profile = mode ? &profile : nullptr;
  uint32_t size = sizeof_fn(h);
  h->sttr_profile = nullptr;
  wex_handle_free(h);
  return size;
}

int cmd_types() {
  const wex_module_desc *m = find_module("bix_ipc_shim");
  if (!m) {
    std::fprintf(stderr, "bix-ipc: the library did not link its module descriptor\n");
    return 1;
  }
  std::printf("%-8s %-32s %-32s %7s %7s %6s\n", "kind", "type", "luid", "sizeof", "tracked",
              "latest");
  int n = 0;
  for (wex_type_info *const *p = m->types; *p; ++p, ++n) {
    const wex_type_info *t = *p;
    int latest = t->variant_info ? t->variant_info->count - 1 : 0;
    std::printf("%-8s %-32s %-32s %7u %7u %6d\n", t->kind, t->type_name, t->luid_text,
                instance_size(t, 0), instance_size(t, WEX_STTR_ON), latest);
  }
  std::printf("%d types\n", n);
  return 0;
}

int cmd_manifest(const char *path) {
  std::string err;
  auto section = bixipc::read_elf_section(path, ".orvik", &err);
  if (!section) {
    std::fprintf(stderr, "bix-ipc: %s\n", err.c_str());
    return 1;
  }
  auto records = bixipc::parse_manifest(*section, &err);
  if (!records) {
    std::fprintf(stderr, "bix-ipc: %s: .orvik: %s\n", path, err.c_str());
    return 1;
  }
  for (const auto &r : *records) {
    const char *what = r.kind == bixipc::kManifestKindTypes       ? "type manifest"
                       : r.kind == bixipc::kManifestKindBuildInfo ? "build information"
                                                                  : "unknown record";
    std::printf("== record kind %u (%s), %zu bytes\n%s", r.kind, what, r.text.size() + 1,
                r.text.c_str());
    if (r.text.empty() || r.text.back() != '\n') std::printf("\n");
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  wex_bix_ipc_shim_trace_init();
  if (argc == 2 && std::strcmp(argv[1], "types") == 0) return cmd_types();
  if (argc == 3 && std::strcmp(argv[1], "manifest") == 0) return cmd_manifest(argv[2]);
  return usage();
}
