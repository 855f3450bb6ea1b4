/* SuperFastHash: Paul Hsieh's published 32-bit hash, with a seed.
 *
 * The published function starts from hash = len; this one starts from
 * hash = seed, so SuperFastHash(d, n, n) equals the published hash of (d, n)
 * and callers can chain hashes by passing one result as the next seed.
 *
 * Faithful to the published reference in two details callers can observe:
 *  - the one or three tail bytes past the last 4-byte block are read as
 *    signed char, so bytes >= 0x80 there are sign-extended before mixing;
 *  - a zero length or a null data pointer returns 0, whatever the seed.
 * Blocks are read little-endian, as the reference does on the machines it
 * was published for, so results do not depend on the host's byte order.
 */
#ifndef SUPERFASTHASH_H
#define SUPERFASTHASH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(SUPERFASTHASH_BUILDING)
#define SUPERFASTHASH_API __attribute__((visibility("default")))
#else
#define SUPERFASTHASH_API
#endif

SUPERFASTHASH_API uint32_t SuperFastHash(const void *data, uint32_t len, uint32_t seed);

#ifdef __cplusplus
}
#endif

#endif /* SUPERFASTHASH_H */
