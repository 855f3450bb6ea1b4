// Core families: whole-record operations (get_all/set_all, the state-flag sweep, compare,
// hash) and clone, copy, post-copy clean-up and offset removal of records.
//
// Choices where the contract leaves room:
// - compare and hash are readers without an error slot. An instance whose type pointer is
//   set but names another type (a cast in the caller) is never read at this type's offsets:
//   compare and hash treat it as a null instance (it orders first; its hash is the seed).
//   The same holds for a union alternative of the wrong type. A type's shared null instance
//   is zero-filled at this type's size and is read like any instance.
// - compare and hash of a variable array whose count claims elements but whose storage is
//   missing treat the missing storage as ordered first and as no bytes; nothing is read.
// - get_all refuses a foreign instance with 22 and writes no output; null outputs are
//   skipped. set_all and every other writer refuse with 22 an instance that is not of the
//   type (a type's null instance included); set_all_state_tracking_flag, which has no
//   slot, records 22 with the handle only.
// - set_all leaves the state bytes alone: it stores through the runtime's primitive setters
//   and the enumerations' own range rule, as get_all reads through the primitive getters.
// - set_all_state_tracking_flag treats a corrupted tracking mode word as every other reader
//   of the mode does: fatal "Corrupted WEX Handle".
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// get_all: out[i] receives the i-th field marked in_get_all, at that field's width (4 bytes
// for enumerations). set_all: in[i] holds the i-th field marked in_set_all, as a u32
// (signed kinds sign-extended).
void record_get_all(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst,
                    void *const *out, uint32_t *err);
void record_set_all(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, const uint32_t *in,
                    uint32_t *err);
// Sets every state byte the instance owns, its embedded records' and record-array elements'
// areas and the variable array's element states to the low byte of value. Union
// alternatives keep theirs. Nothing while the handle does not track.
void record_set_all_sttr_flag(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                              uint32_t value);
int32_t record_compare(const TypeDesc &d, const void *a, const void *b);
uint32_t record_hash(const TypeDesc &d, const void *inst, uint32_t seed);

// The clone group. Choices:
// - clone_internal into an existing destination decodes into it; what it held and the
//   decode replaces (variable storage) is released, what the encoding does not reach
//   (unselected alternatives) stays owned by it. A destination that cannot take the
//   encoding's state bytes (untracked while the handle tracks) is refused with 22 before
//   anything is encoded, instead of the decoder's fatal mismatch.
// - copy_cr refuses a null destination with 2, as clone_internal refuses a null destination
//   address. When its decode fails, the destination (still the caller's) is neither
//   destroyed nor freed: it stays a valid instance holding the source's values for what
//   was decoded before the failure and its own for the rest, and owns all it owned.
// - A buffer length above INT32_MAX is used as INT32_MAX: the encoder's room is signed.
void record_clone_internal(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *src,
                           void **dst_ref, uint8_t *buf, uint32_t buflen, uint32_t *err);
void record_clone(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *src, void **dst_ref,
                  uint8_t *buf, uint32_t buflen, uint32_t *err);
void *record_clone_cr(const TypeDesc &d, wex_handle *h, const void *src);
void record_copy_cr(const TypeDesc &d, wex_handle *h, const void *src, void *dst);

// After the runtime copied the bytes of source into target: embedded records are set from
// the source's, and what the source refers to (alternatives, variable storage with its
// count and element states) now belongs to the target alone. A reference is taken from the
// source only when the target holds the same one, so nothing is ever owned twice or lost;
// this step runs even when setting a member reported an error.
void record_post_copyout_cleanup(const TypeDesc &d, wex_handle *h, uint32_t ws, void *target,
                                 void *source, uint32_t *err);
// Drops the handle-data mapping of every embedded record, nested ones included.
void record_offset_remove(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err);

}  // namespace bix
