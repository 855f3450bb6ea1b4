/* Change tracking: with tracking on, every accessor write marks its field's state byte
 * with 2, the marks travel with the encoding, and the receiver reads back what changed. */
#include <stdio.h>

#include "bix_ipc_shim.h"

int main(void) {
  wex_handle *h = wex_handle_new();
  wex_handle_set_tracking(h, 1); /* before any instance is created */
  uint32_t err = 0;
  wex_ipc_shim_hdr *hdr = wex_ipc_shim_hdr_create(h, 0);
  wex_ipc_shim_hdr_src_addr_set_value(h, 0, hdr, 0x0a000001, &err);
  wex_ipc_shim_hdr_transaction_id_set_value(h, 0, hdr, 42, &err);
  hdr->version = 3; /* a direct store: not tracked */

  uint8_t wire[128];
  uint32_t n = wex_ipc_shim_hdr_marshal(h, 0, wire, hdr, (int32_t)sizeof wire, &err);
  wex_ipc_shim_hdr *got = wex_ipc_shim_hdr_create(h, 0);
  wex_ipc_shim_hdr_unmarshal(h, 0, wire, got, (int32_t)n, 0, &err);
  printf("%u bytes with state bytes; changed: src_addr %u, transaction_id %u, version %u\n", n,
         wex_ipc_shim_hdr_src_addr_state_flag_get(h, 0, got, &err),
         wex_ipc_shim_hdr_transaction_id_state_flag_get(h, 0, got, &err),
         wex_ipc_shim_hdr_version_state_flag_get(h, 0, got, &err));
  /* Done with the changes: clear every mark at once. */
  wex_ipc_shim_hdr_set_all_state_tracking_flag(h, 0, got, 0);
  printf("after clearing: transaction_id %u; error %u (%s)\n",
         wex_ipc_shim_hdr_transaction_id_state_flag_get(h, 0, got, &err), err,
         bix_ipc_shim_error_text(err));
  wex_ipc_shim_hdr_destroy(h, 0, hdr);
  wex_ipc_shim_hdr_destroy(h, 0, got);
  wex_handle_free(h);
  return err != 0;
}
