#include "superfasthash.h"

#include <stddef.h>

static uint32_t load16le(const uint8_t *p) {
  return (uint32_t)p[0] | ((uint32_t)p[1] << 8);
}

/* The reference mixes tail bytes as signed char; doing the sign extension in
 * unsigned arithmetic keeps its results without its signed-shift overflow. */
static uint32_t tail_byte(uint8_t b) {
  return (uint32_t)(int32_t)(int8_t)b;
}

uint32_t SuperFastHash(const void *data, uint32_t len, uint32_t seed) {
  const uint8_t *p = (const uint8_t *)data;
  uint32_t hash = seed;

  if (len == 0 || p == NULL) return 0;

  for (uint32_t blocks = len >> 2; blocks > 0; --blocks, p += 4) {
    hash += load16le(p);
    uint32_t tmp = (load16le(p + 2) << 11) ^ hash;
    hash = (hash << 16) ^ tmp;
    hash += hash >> 11;
  }

  switch (len & 3) {
    case 3:
      hash += load16le(p);
      hash ^= hash << 16;
      hash ^= tail_byte(p[2]) << 18;
      hash += hash >> 11;
      break;
    case 2:
      hash += load16le(p);
      hash ^= hash << 11;
      hash += hash >> 17;
      break;
    case 1:
      hash += tail_byte(p[0]);
      hash ^= hash << 10;
      hash += hash >> 1;
      break;
    default:
      break;
  }

  /* Final avalanche of the last bits. */
  hash ^= hash << 3;
  hash += hash >> 5;
  hash ^= hash << 4;
  hash += hash >> 17;
  hash ^= hash << 25;
  hash += hash >> 6;
  return hash;
}
