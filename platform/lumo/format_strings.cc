// Decompression of a library's .lumo_format_strings section for tools.

#include <bzlib.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "lumo.h"

namespace {

// Feeds at most this much per call because bz_stream counts in unsigned int.
constexpr size_t kMaxChunk = UINT_MAX;

int decode(const uint8_t *bz, size_t bzlen, char **out, size_t *outlen) {
  bz_stream stream;
  memset(&stream, 0, sizeof stream);
  if (BZ2_bzDecompressInit(&stream, 0, 0) != BZ_OK) return LUMO_DECODE_ENOMEM;

  // Room for the cap plus one byte: filling that byte proves the blob is too
  // big without decompressing it all. Growth is geometric from a guess.
  size_t capacity = LUMO_FORMAT_STRINGS_MAX + 1u;
  if (bzlen < capacity / 4) capacity = bzlen < 1024 ? 4096 : bzlen * 4;
  char *buf = static_cast<char *>(malloc(capacity + 1));
  if (!buf) {
    BZ2_bzDecompressEnd(&stream);
    return LUMO_DECODE_ENOMEM;
  }

  size_t consumed = 0;
  size_t produced = 0;
  int result = LUMO_DECODE_ECORRUPT;
  for (;;) {
    if (stream.avail_in == 0 && consumed < bzlen) {
      size_t chunk = bzlen - consumed < kMaxChunk ? bzlen - consumed : kMaxChunk;
      stream.next_in = const_cast<char *>(reinterpret_cast<const char *>(bz + consumed));
      stream.avail_in = static_cast<unsigned>(chunk);
      consumed += chunk;
    }
    if (produced == capacity) {
      if (capacity > LUMO_FORMAT_STRINGS_MAX) {
        result = LUMO_DECODE_ETOOBIG;
        break;
      }
      size_t grown =
          capacity * 2 > LUMO_FORMAT_STRINGS_MAX + 1u ? LUMO_FORMAT_STRINGS_MAX + 1u : capacity * 2;
      char *bigger = static_cast<char *>(realloc(buf, grown + 1));
      if (!bigger) {
        result = LUMO_DECODE_ENOMEM;
        break;
      }
      buf = bigger;
      capacity = grown;
    }
    size_t room = capacity - produced;
    stream.next_out = buf + produced;
    stream.avail_out = static_cast<unsigned>(room < kMaxChunk ? room : kMaxChunk);
    unsigned before = stream.avail_out;
    int rc = BZ2_bzDecompress(&stream);
    produced += before - stream.avail_out;
    if (rc == BZ_STREAM_END) {
      // Exactly one stream: anything after it is not ours to ignore.
      bool trailing = stream.avail_in != 0 || consumed < bzlen;
      result = trailing ? LUMO_DECODE_ECORRUPT : LUMO_DECODE_OK;
      break;
    }
    if (rc == BZ_MEM_ERROR) {
      result = LUMO_DECODE_ENOMEM;
      break;
    }
    if (rc != BZ_OK) break;
    // Input exhausted with output room left and no stream end: truncated.
    if (stream.avail_in == 0 && consumed == bzlen && stream.avail_out != 0) break;
  }
  BZ2_bzDecompressEnd(&stream);

  if (result == LUMO_DECODE_OK && produced > LUMO_FORMAT_STRINGS_MAX) {
    result = LUMO_DECODE_ETOOBIG;
  }
  if (result != LUMO_DECODE_OK) {
    free(buf);
    return result;
  }
  buf[produced] = '\0';
  *out = buf;
  *outlen = produced;
  return LUMO_DECODE_OK;
}

}  // namespace

extern "C" int lumo_decode_format_strings(const uint8_t *bz, size_t bzlen, char **out,
                                          size_t *outlen) {
  if (out) *out = nullptr;
  if (outlen) *outlen = 0;
  if (!out || !outlen || (!bz && bzlen != 0)) return LUMO_DECODE_EINVAL;
  return decode(bz, bzlen, out, outlen);
}
