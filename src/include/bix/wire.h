// Core family: wire encoding and decoding.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Runtime code for input that ends before an item it announces.
inline constexpr uint32_t kErrShortInput = 74;

// After a versioned item: step to jump_base + jump when the sender wrote more than we
// read (a newer sender's appended fields). A jump that points past the input is
// reported as short input and the position stops at the end, so no caller ever reads
// beyond `len`. Returns the new position.
uint32_t jump_correct(wex_handle *h, uint32_t *err, uint32_t pos, uint32_t jump_base,
                      uint32_t jump, int32_t len);

// The common start of every encoder and decoder: nothing under a pending error, 12 for
// a length below 1, 22 for a missing instance or one of another type. A decoder
// (`writes`) also refuses a type's shared null instance, which is never written. True
// when the body may run.
bool codec_begin(const TypeDesc &d, wex_handle *h, uint32_t *err, const void *inst, int32_t len,
                 bool writes);

// Type info pointer a decoder stores: the registered copy when the handle asks for it.
wex_type_info *decoded_tinfo(wex_handle *h, uint32_t ws, const TypeDesc &d);

// Enumerations and flag sets.
uint32_t leaf_len(const TypeDesc &d);
uint32_t leaf_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                      const void *inst, int32_t len, uint32_t *err);
uint32_t leaf_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                        void *inst, int32_t len, uint32_t reuse, uint32_t *err);

// Records. `clone` skips the domain check for the record itself (members keep it).
// These take the generated fast path (fast.cc) when the runtime declares a byte form the
// library knows and the instance is the common case, and the walker otherwise.
uint32_t record_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst);
uint32_t record_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                        const void *inst, int32_t len, uint32_t *err, bool clone);
uint32_t record_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                          void *inst, int32_t len, uint32_t reuse, uint32_t *err);

// The walker: the reference for every case, one pass over the field descriptors (wire.cc).
// Its members go through the entry points above.
uint32_t walker_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst);
uint32_t walker_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                        const void *inst, int32_t len, uint32_t *err, bool clone);
uint32_t walker_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                          void *inst, int32_t len, uint32_t reuse, uint32_t *err);

// BIX_IPC_SHIM_NO_FAST=1 in the environment (read once) keeps every call on the walker.

// Whether the runtime's bulk array codecs are used (they are optional; the per-element
// path produces identical bytes). BIX_IPC_SHIM_NO_BULK=1 in the environment forces the
// per-element path, so both can be exercised against one runtime.
bool bulk_codecs_in_use();

}  // namespace bix
