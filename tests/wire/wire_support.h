// What the wire tests share: the record operations by name.
#pragma once

#include <string>
#include <vector>

#include "fill.h"

namespace bixtest {

using CreateFn = void *(*)(wex_handle *, uint32_t);
using DestroyFn = void (*)(wex_handle *, uint32_t, void *);
using LenFn = uint32_t (*)(wex_handle *, uint32_t, const void *);
using MarshalFn = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t,
                               uint32_t *);
using UnmarshalFn = uint32_t (*)(wex_handle *, uint32_t, const uint8_t *, void *, int32_t, uint32_t,
                                 uint32_t *);
using Bytes = std::vector<uint8_t>;

}  // namespace bixtest
