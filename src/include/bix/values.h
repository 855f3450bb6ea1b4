// Core family: values of enumerations and flag sets.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Set's range rule: refused when the internal value (compared unsigned) lies beyond the
// literals that a variant up to the instance's knows. Used by enumeration set/set_value
// and by record fields of enumeration type alike.
bool enum_refuses(const TypeDesc &d, uint32_t user_value, int8_t variant);

}  // namespace bix
