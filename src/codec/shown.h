// What the text and the XML form of a record show, and in which order: one walk over the
// field descriptors that both forms share, so they can never disagree on it.
#pragma once

#include <climits>
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

// "%s[%d]" names of one array's elements, cut at `cap` bytes as a bounded snprintf would
// cut them. The "name[" part is written once per array; the index after it counts up in
// place from one element to the next.
class ElementNames {
 public:
  // Element names go at `at`, which has room for `cap` bytes (at least 1).
  void place(char *at, size_t cap) {
    at_ = at;
    cap_ = cap;
    array_ = nullptr;
  }
  const char *name(const char *array, uint32_t k) {
    if (array == array_ && k == k_ + 1 && k_ != UINT32_MAX && length_ + 2 < cap_ && next()) {
      k_ = k;
      return at_;
    }
    if (array != array_) {
      array_ = array;
      size_t n = std::strlen(array);
      prefix_ = n < cap_ - 1 ? n : cap_ - 1;
      std::memcpy(at_, array, prefix_);
      if (prefix_ < cap_ - 1) at_[prefix_++] = '[';
    }
    k_ = k;
    char digits[12];
    size_t d = sizeof digits;
    digits[--d] = ']';
    do {
      digits[--d] = static_cast<char>('0' + k % 10);
      k /= 10;
    } while (k);
    size_t n = sizeof digits - d;
    if (n > cap_ - 1 - prefix_) n = cap_ - 1 - prefix_;
    std::memcpy(at_ + prefix_, digits + d, n);
    length_ = prefix_ + n;
    at_[length_] = '\0';
    return at_;
  }
  size_t length() const { return length_; }  // of the last name

 private:
  // Adds one to the whole (uncut) "k]" standing after the prefix; false when it was cut.
  bool next() {
    char *last = at_ + length_ - 1;
    if (length_ <= prefix_ || *last != ']') return false;
    char *p = last - 1;
    for (; p >= at_ + prefix_ && *p == '9'; --p) *p = '0';
    if (p >= at_ + prefix_) {
      ++*p;
      return true;
    }
    // 9...9 became 0...0: one digit more
    std::memmove(at_ + prefix_ + 1, at_ + prefix_, length_ - prefix_);
    at_[prefix_] = '1';
    at_[++length_] = '\0';
    return true;
  }

  char *at_ = nullptr;
  size_t cap_ = 0;
  const char *array_ = nullptr;
  size_t prefix_ = 0;
  size_t length_ = 0;
  uint32_t k_ = 0;
};

// The start of both forms. False, with nothing to write, under a pending error, and with
// 22 for an instance of another type (a cast in the caller): its memory is not laid out
// as d says. Counts are signed on the way out, so a longer buffer is used up to what
// they can say.
inline bool begin_shown(const TypeDesc &d, wex_handle *h, const void *inst, uint32_t *err,
                        uint32_t *len) {
  if (*err) return false;
  wex_clear_last_error(h);
  if (wex_get_manifested_type_info(inst) && !is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return false;
  }
  if (*len > INT32_MAX) *len = INT32_MAX;
  return true;
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
