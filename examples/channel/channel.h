/* What the carrier-card simulator and the host manager share: the framing on the
 * socket and a few helpers around the library's C API. */
#ifndef CHANNEL_H
#define CHANNEL_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "bix_ipc_shim.h"

/* Frames on the stream socket: a 4-byte big-endian length, then one encoded message. */
#define CHANNEL_MAX_FRAME (1u << 20)

/* Channel addresses of the two ends, carried in every channel header. */
#define CHANNEL_HOST_ADDR 0x0100u
#define CHANNEL_CARD_ADDR 0x0201u
#define CHANNEL_SESSION 0x5a17u

/* 0 on success; -1 on a write error. */
int channel_send(int fd, const uint8_t *frame, uint32_t len);
/* The frame's length, 0 at end of stream, -1 on error. *frame is malloc'ed. */
int64_t channel_recv(int fd, uint8_t **frame);

/* Sets the session and channel headers every message of the demo carries. */
void channel_set_headers(wex_handle *h, app_sess_hdr *session, wex_ipc_shim_hdr *hdr, uint32_t src,
                         uint32_t dst, uint32_t seq, uint32_t transaction_id, uint32_t *err);

/* Copies a text into a byte array of `cap` bytes, zero-padded (no terminator is kept
 * when it fills the array). setter is the array's _set_mem accessor. */
#define CHANNEL_SET_TEXT(h, setter, inst, cap, text, err)                                          \
  do {                                                                                             \
    uint8_t text_buf_[cap] = {0};                                                                  \
    const char *text_src_ = (text);                                                                \
    for (size_t i_ = 0; i_ < (cap) && text_src_[i_]; ++i_) text_buf_[i_] = (uint8_t)text_src_[i_]; \
    setter((h), 0, (inst), (const void *)text_buf_, (int32_t)(cap), (err));                        \
  } while (0)

/* Encodes msg, a NAME message, and sends it as one frame; rc becomes 0 on success. */
#define CHANNEL_SEND(rc, fd, h, msg, NAME)                                                       \
  do {                                                                                           \
    uint32_t need_ = NAME##_message_len((h), 0, (msg)), err_ = 0;                                \
    uint8_t *buf_ = (uint8_t *)malloc(need_);                                                    \
    uint32_t n_ = buf_ ? NAME##_message_marshal((h), 0, buf_, (msg), (int32_t)need_, &err_) : 0; \
    (rc) = (!buf_ || err_) ? -1 : channel_send((fd), buf_, n_);                                  \
    free(buf_);                                                                                  \
  } while (0)

#endif
