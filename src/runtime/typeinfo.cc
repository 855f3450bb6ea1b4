// Registration of the type info records with a handle, the module's link into the
// runtime's module list, and the variant-table dump.
#include "bix/core.h"

namespace bix {
namespace {

constexpr uint32_t kRegisteredCopySize = 288;
constexpr uint32_t kTypeAllocWs = 0xFFFFFFFFu;

wex_module_desc g_module = {"bix_ipc_shim", kRecordList, nullptr, nullptr};
bool g_linked_once = false;

// Appends our descriptor to the runtime's tail queue of modules, once per load.
__attribute__((constructor)) void module_link() {
  if (g_linked_once) return;
  wex_module_root &root = wex_module_tot_root;
  g_module.next = nullptr;
  g_module.prev_link = root.last_link;
  *root.last_link = &g_module;
  root.last_link = &g_module.next;
  root.count += 1;
  g_linked_once = true;
}

__attribute__((destructor)) void module_unlink() {
  if (!g_module.next && !g_module.prev_link) return;
  wex_module_root &root = wex_module_tot_root;
  if (g_module.next)
    g_module.next->prev_link = g_module.prev_link;
  else
    root.last_link = g_module.prev_link;
  *g_module.prev_link = g_module.next;
  g_module.next = nullptr;
  g_module.prev_link = nullptr;
  root.count -= 1;
}

}  // namespace
}  // namespace bix

// Does not look at err first: the runtime calls it to (re)register unconditionally.
BIX_EXPORT void bix_ipc_shim_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err) {
  for (wex_type_info *const *p = bix::kRecordList; *p; ++p) {
    wex_type_info *rec = *p;
    wex_type_info *copy = h->type_lookup(h->type_registry, ws, rec->luid_text);
    uint32_t is_new = 0;
    if (!copy) {
      void *mem = h->type_alloc(h->type_alloc_ctx, bix::kTypeAllocWs, bix::kRegisteredCopySize);
      if (!mem) {
        bix::store_err(h, err, 12);
        return;
      }
      std::memcpy(mem, rec, sizeof(wex_type_info));
      std::memset(bix::bytes(mem) + sizeof(wex_type_info), 0,
                  bix::kRegisteredCopySize - sizeof(wex_type_info));
      copy = static_cast<wex_type_info *>(mem);
      copy->indirect = h->types_indirect;
      copy->reg_marker = 0xFFFFFFFFu;
      h->type_register(h->type_registry, ws, copy->luid_text, copy);
      is_new = 1;
    }
    if (rec->variant_info) wex_update_variant_info(h, ws, copy, rec, is_new);
  }
}

BIX_EXPORT void bix_ipc_shim_type_variant_dump(int (*print)(const char *fmt, ...)) {
  for (wex_type_info *const *p = bix::kRecordList; *p; ++p) {
    const wex_variant_info *vi = (*p)->variant_info;
    if (!vi) {
      bix::trace(bix::Tm::kDumpNoVarinfo);
      continue;
    }
    print("n_variants %d\n", vi->count);
    for (int i = 0; i < vi->count; ++i)
      print("variant %d used length %d alloc slop %d\n", i, vi->entries[i].used_length,
            vi->entries[i].alloc_slop);
  }
}
