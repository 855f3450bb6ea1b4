// What the text and the XML form of a record show, and in which order: one walk over the
// field descriptors that both forms share, so they can never disagree on it.
#pragma once

#include <cstring>

#include "bix/core.h"

namespace bix {

// Longest element or alternative name a form builds ("temp[11]", "xcvr_type.sfp_sensors").
inline constexpr size_t kShownNameMax = 80;

// a, sep, b into out (kShownNameMax bytes), cut like a bounded snprintf would cut it.
inline void joined_name(char *out, const char *a, char sep, const char *b) {
  size_t n = 0;
  auto put = [&](const char *s, size_t len) {
    size_t k = len < kShownNameMax - 1 - n ? len : kShownNameMax - 1 - n;
    std::memcpy(out + n, s, k);
    n += k;
  };
  put(a, std::strlen(a));
  put(&sep, 1);
  put(b, std::strlen(b));
  out[n] = '\0';
}

// "%s[%d]": an array element's name, index counted from 0.
inline void element_name(char *out, const char *array, uint32_t k) {
  char digits[12];
  size_t d = sizeof digits;
  do {
    digits[--d] = static_cast<char>('0' + k % 10);
    k /= 10;
  } while (k);
  char index[14];
  size_t n = sizeof digits - d;
  std::memcpy(index, digits + d, n);
  index[n] = ']';
  index[n + 1] = '\0';
  joined_name(out, array, '[', index);
}

// Visits, in schema order, every field of a record (`field`), every element of its
// arrays (`element`: all of a fixed array, the current count of the variable array) and
// the union alternative its selector names when that one is present (`alternative`).
// Nothing more is visited once the error slot holds an error: every body would do
// nothing from there on anyway.
template <class Show>
void walk_shown(const TypeDesc &d, wex_handle *h, const uint8_t *inst, uint32_t *err, Show &show) {
  for (uint16_t i = 0; i < d.nfields && !*err; ++i) {
    const FieldDesc &f = d.fields[i];
    const uint8_t *at = inst + f.offset;
    switch (f.kind) {
      case FieldKind::FixedArray:
      case FieldKind::RecordArray:
        for (uint32_t k = 0; k < f.count && !*err; ++k) show.element(f, k, at + k * f.elem_size);
        break;
      case FieldKind::VarArray: {
        const uint32_t n = load<uint32_t>(inst + d.fields[f.link].offset);
        const uint8_t *data = load<const uint8_t *>(at);
        if (n && !data) {  // a count without storage: the instance is inconsistent
          store_err(h, err, 22);
          break;
        }
        for (uint32_t k = 0; k < n && !*err; ++k)
          show.element(f, k, data + size_t{k} * f.elem_size);
        break;
      }
      case FieldKind::UnionAlt: {
        const FieldDesc &sel = d.fields[f.link];
        if (load<uint32_t>(inst + sel.offset + kEnumValueOffset) != f.count) break;
        if (const void *alt = load<const void *>(at)) show.alternative(sel, f, alt);
        break;
      }
      default:
        show.field(f, at);
    }
  }
}

}  // namespace bix
