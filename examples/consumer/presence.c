/* A C program using the installed library: build a presence answer, encode it, decode
 * it again and print it. */
#include <stdio.h>

#include "bix_ipc_shim.h"

int main(void) {
  wex_handle *h = wex_handle_new();
  uint32_t err = 0;
  wex_xcvr_presence_info *sent = wex_xcvr_presence_info_create(h, 0);
  wex_xcvr_presence_info *got = wex_xcvr_presence_info_create(h, 0);
  wex_xcvr_presence_info_rc_set_value(h, 0, sent, WEX_XCVR_SUCCESS_RC, &err);
  wex_xcvr_presence_info_is_present_set_value(h, 0, sent, 1, &err);
  uint8_t wire[64];
  uint32_t n = wex_xcvr_presence_info_marshal(h, 0, wire, sent, sizeof wire, &err);
  wex_xcvr_presence_info_unmarshal(h, 0, wire, got, (int32_t)n, 0, &err);
  char text[256];
  printf("%u bytes, error %u, is_present %u\n", n, err,
         (unsigned)wex_xcvr_presence_info_is_present_get_value(h, 0, got, &err));
  wex_xcvr_rc_print_cr(h, &got->rc, text, sizeof text);
  fputs(text, stdout);
  wex_xcvr_presence_info_destroy(h, 0, sent);
  wex_xcvr_presence_info_destroy(h, 0, got);
  wex_handle_free(h);
  return err != 0;
}
