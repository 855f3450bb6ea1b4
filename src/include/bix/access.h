// Core family: access. Declarations only; nothing here is exported.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {}  // namespace bix
