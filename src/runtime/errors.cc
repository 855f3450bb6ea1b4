// The meaning of each error code the library or the runtime stores in a slot. They are
// errno numbers so that any program can carry them, but strerror() would name 43 "Identifier
// removed": this is what they mean here.
#include <cstdint>

#include "bix/desc.h"

namespace {

struct ErrorText {
  uint32_t code;
  const char *text;
};

constexpr ErrorText kErrorTexts[] = {
    {0, "no error"},
    {2, "not found: a field, element, union alternative or XML element is absent"},
    {12, "out of memory, or a length below 1 given to an encoder or decoder"},
    {22, "invalid instance or argument, or state tracking not available for it"},
    {34, "XML value out of range for the field"},
    {38, "no handler for a decoded message"},
    {43, "value or variant not allowed"},
    {52, "message not admitted by the domain"},
    {74, "truncated or malformed input"},
    {90, "buffer too small"},
};

}  // namespace

BIX_EXPORT const char *bix_ipc_shim_error_text(uint32_t code) {
  for (const ErrorText &e : kErrorTexts)
    if (e.code == code) return e.text;
  return "unknown error code";
}
