// The C signatures of the operations every record has, for calling them through a symbol
// looked up by name: the tests, fuzzers and benchmarks share them.
#pragma once

#include <cstdint>

#include "bix_ipc_shim.h"

namespace bixfns {

using CreateFn = void *(*)(wex_handle *, uint32_t);
using DestroyFn = void (*)(wex_handle *, uint32_t, void *);
using LenFn = uint32_t (*)(wex_handle *, uint32_t, const void *);
using MarshalFn = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t,
                               uint32_t *);
using UnmarshalFn = uint32_t (*)(wex_handle *, uint32_t, const uint8_t *, void *, int32_t, uint32_t,
                                 uint32_t *);
using CloneCrFn = void *(*)(wex_handle *, const void *);
using CopyCrFn = void (*)(wex_handle *, const void *, void *);
using CompareFn = int32_t (*)(const void *, const void *);
using HashFn = uint32_t (*)(const void *, uint32_t);
using PrintFn = int32_t (*)(wex_handle *, uint32_t, char *, uint32_t, const char *, const void *,
                            uint32_t, uint32_t *);
using ToXmlFn = int32_t (*)(wex_handle *, uint32_t, const char *, char *, const void *, uint32_t,
                            uint8_t, uint32_t *);
using FromXmlFn = void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *,
                           uint32_t);

}  // namespace bixfns
