#include "channel.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static int write_all(int fd, const uint8_t *p, size_t n) {
  while (n) {
    ssize_t k = write(fd, p, n);
    if (k < 0 && errno == EINTR) continue;
    if (k <= 0) return -1;
    p += k;
    n -= (size_t)k;
  }
  return 0;
}

/* 1 when n bytes were read, 0 at a clean end of stream, -1 otherwise. */
static int read_all(int fd, uint8_t *p, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t k = read(fd, p + got, n - got);
    if (k < 0 && errno == EINTR) continue;
    if (k < 0) return -1;
    if (k == 0) return got == 0 ? 0 : -1;
    got += (size_t)k;
  }
  return 1;
}

int channel_send(int fd, const uint8_t *frame, uint32_t len) {
  const uint8_t prefix[4] = {(uint8_t)(len >> 24), (uint8_t)(len >> 16), (uint8_t)(len >> 8),
                             (uint8_t)len};
  return write_all(fd, prefix, 4) || write_all(fd, frame, len) ? -1 : 0;
}

int64_t channel_recv(int fd, uint8_t **frame) {
  uint8_t prefix[4];
  int r = read_all(fd, prefix, 4);
  if (r <= 0) return r;
  uint32_t len =
      (uint32_t)prefix[0] << 24 | (uint32_t)prefix[1] << 16 | (uint32_t)prefix[2] << 8 | prefix[3];
  if (len == 0 || len > CHANNEL_MAX_FRAME || !(*frame = malloc(len))) return -1;
  if (read_all(fd, *frame, len) != 1) {
    free(*frame);
    return -1;
  }
  return len;
}

void channel_set_headers(wex_handle *h, app_sess_hdr *session, wex_ipc_shim_hdr *hdr, uint32_t src,
                         uint32_t dst, uint32_t seq, uint32_t transaction_id, uint32_t *err) {
  app_sess_hdr_session_id_set_value(h, 0, session, CHANNEL_SESSION, err);
  app_sess_hdr_seq_num_set_value(h, 0, session, seq, err);
  app_sess_hdr_flags_set_value(h, 0, session, 0, err);
  if (!hdr) return;
  wex_ipc_shim_hdr_version_set_value(h, 0, hdr, 1, err);
  wex_ipc_shim_hdr_src_addr_set_value(h, 0, hdr, src, err);
  wex_ipc_shim_hdr_dst_addr_set_value(h, 0, hdr, dst, err);
  wex_ipc_shim_hdr_transaction_id_set_value(h, 0, hdr, transaction_id, err);
}
