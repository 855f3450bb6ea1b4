// The public header is C11: build it as C and use a few of its names.
#include "wex.h"

uint32_t wex_c_header_check(wex_handle *h);

uint32_t wex_c_header_check(wex_handle *h) {
  wex_sttr_profile profile = {WEX_STTR_ON};
  uint32_t err = 0, v = 1;
  uint8_t out[4];
  h->sttr_profile = &profile;
  uint32_t n = u_int32_marshal(h, h->default_ws, out, &v, (int32_t)sizeof out, &err);
  h->sttr_profile = NULL;
  return n + err + (uint32_t)sizeof(wex_type_info);
}
