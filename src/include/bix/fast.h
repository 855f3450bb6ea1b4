// The record codec's fast path: per-type plans that the generator compiles from the schema,
// executed by the templates below, which each record's unit instantiates with its own
// plans so that every offset, count and width is a constant in straight-line code.
//
// A plan covers one wire layout of a record (state bytes off or on) at the latest variant,
// where every byte of the encoding sits at an offset known when the library is built. The
// walker (wire.cc) stays the reference: the fast path hands a call back to it (Bail)
// whenever what it finds is not that common case, before it did anything the walker would
// not have done the same way. See docs/performance.md.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include "bix/core.h"

// Optional parts of the runtime: a runtime without them gets the walker for every call.
#pragma weak wex_byte_form_get
#pragma weak wex_domain_generation

namespace bix::fast {

enum class Op : uint8_t {
  Bytes,     // n 8-bit primitives, copied
  Be16,      // n 16-bit primitives: host order in the instance, big-endian on the wire
  Be32,      // n 32-bit primitives
  Enum,      // an embedded enumeration: variant byte, internal value
  Flags,     // an embedded flag set: variant byte, jump, n flag bytes
  Members,   // n embedded records (a record field or a record array), each a whole record
  States,    // n state bytes of the frame's area, from byte `area` on
  VarArray,  // the count at src and the variable array `field` after it (whole calls only)
  Union,     // n alternatives after the selector whose value is at src; their references
             // from `stride` on, their state bytes from `area` on (whole calls only)
};

struct Plan;

struct Step {
  Op op;
  uint16_t field;        // VarArray: the array's field index; Union: the first alternative's
  uint32_t n;            // elements, bytes or alternatives
  uint32_t src;          // offset in the frame's instance
  uint32_t dst;          // offset on the wire from the frame's cursor
  uint32_t area;         // States, Union: first byte in the frame's state-tracking area
  uint32_t stride;       // Members: instance bytes per element; Union: first reference
  uint32_t wire;         // Members: wire bytes per element
  uint32_t tail;         // VarArray, Union: wire bytes after the item, to the record's end
  const TypeDesc *type;  // Enum, Flags, Members: member type; VarArray, Union: the record
  const Plan *plan;      // Members: the member type's plan of the same layout
};

struct Plan {
  const Step *steps;
  uint32_t nsteps;
  uint32_t len;    // wire bytes of the record, prefix included; dynamic: without the
                   // variable part of its variable item
  uint32_t end;    // wire bytes from the last cursor move (after a dynamic item) to the end
  bool states;     // the layout with state bytes
  bool dynamic;    // holds a variable array or a union: handled only as a whole call
  bool supported;  // false: the walker handles every call
  int8_t latest;   // the record's latest variant
};

enum class Result : uint8_t {
  Ok,
  Bail,  // hand the whole call to the walker; everything written so far is what it writes too
  Stop,  // a union alternative could not be created (12 stored): finish the record as the walker
         // does
  Fail,  // variable storage could not be taken (12 stored): the call returns 0, as the walker's
};

// Marshal: where the room ends and whether state bytes are written.
struct Enc {
  wex_handle *h;
  uint32_t ws;
  uint8_t *end;
};

// Unmarshal of one call.
struct Dec {
  wex_handle *h;
  uint32_t ws;
  uint32_t *err;
  uint32_t reuse;
  const uint8_t *buf;      // the record's first byte
  const uint8_t *end;      // one past the input
  uint32_t jump;           // the top record's jump, checked before anything is allocated
  const uint8_t *stop_at;  // Result::Stop: the position the walker would have reached
};

// What the receiving handle does with state: it does not track (received state bytes are
// stepped over), it tracks and none were sent, or it tracks and copies the ones sent.
enum class Recv : uint8_t { Plain, Tracking, Copy };

// Every record's entry points, generated per type (see ops() below): the whole calls, fast
// path or walker, which the record's exported functions call directly and the core's
// record_len / record_marshal / record_unmarshal reach through the descriptor.
struct FastOps {
  uint32_t (*len)(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst);
  uint32_t (*marshal)(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf, const void *inst,
                      int32_t len, uint32_t *err, bool clone);
  uint32_t (*unmarshal)(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                        void *inst, int32_t len, uint32_t reuse, uint32_t *err);
  // The record as a union alternative, in the layout of the call; null: Bail.
  uint8_t *(*marshal_member)(Enc &e, bool states, const TypeDesc &d, const uint8_t *inst,
                             uint8_t *at);
  Result (*unmarshal_member)(Dec &dc, bool states, Recv recv, const TypeDesc &d,
                             wex_type_info *tinfo, uint8_t *inst, const uint8_t *at);
};

// Zero bytes standing in for the area of an untracked instance while state bytes are
// written. The generator checks that every area fits.
inline constexpr uint32_t kZeroAreaSize = 4096;
extern const uint8_t kZeroArea[kZeroAreaSize];

// The type info pointer a decoder stores (the registered copy when the handle asks).
inline wex_type_info *decoded_tinfo_of(wex_handle *h, uint32_t ws, const TypeDesc &d) {
  return h->types_indirect ? decoded_tinfo(h, ws, d) : d.tinfo;
}

#define BIX_FAST_INLINE inline __attribute__((always_inline))

// ---- bytes ----

template <typename T>
BIX_FAST_INLINE T ld(const void *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <typename T>
BIX_FAST_INLINE void st(void *p, T v) {
  std::memcpy(p, &v, sizeof v);
}
BIX_FAST_INLINE uint16_t swap_be(uint16_t v) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap16(v);
  return v;
}
BIX_FAST_INLINE uint32_t swap_be(uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
  return v;
}
// Eight bytes of 16- or 32-bit big-endian lanes to host order, or back.
template <typename T>
BIX_FAST_INLINE uint64_t swap_lanes(uint64_t x) {
  if constexpr (std::endian::native != std::endian::little) return x;
  if constexpr (sizeof(T) == 2)
    return (x >> 8 & 0x00FF00FF00FF00FFull) | (x & 0x00FF00FF00FF00FFull) << 8;
  else
    return std::rotr(__builtin_bswap64(x), 32);
}
template <typename T, size_t... K>
BIX_FAST_INLINE void swap_each(uint8_t *to, const uint8_t *from, std::index_sequence<K...>) {
  (st<T>(to + K * sizeof(T), swap_be(ld<T>(from + K * sizeof(T)))), ...);
}
template <typename T, size_t... K>
BIX_FAST_INLINE void swap_words(uint8_t *to, const uint8_t *from, std::index_sequence<K...>) {
  (st<uint64_t>(to + K * 8, swap_lanes<T>(ld<uint64_t>(from + K * 8))), ...);
}
// N primitives of type T, eight bytes at a time.
template <typename T, uint32_t N>
BIX_FAST_INLINE void swap_run(uint8_t *to, const uint8_t *from) {
  constexpr uint32_t words = N * sizeof(T) / 8, done = words * 8;
  if constexpr (words <= 16) {
    swap_words<T>(to, from, std::make_index_sequence<words>{});
  } else {
    for (uint32_t k = 0; k < words; ++k)
      st<uint64_t>(to + k * 8, swap_lanes<T>(ld<uint64_t>(from + k * 8)));
  }
  swap_each<T>(to + done, from + done,
               std::make_index_sequence<(N * sizeof(T) - done) / sizeof(T)>{});
}

// N bytes in 16-byte moves (the last one overlapping), or fewer and smaller for short
// runs: the compiler may otherwise expand a constant-size copy in a large function as a
// string instruction that starts slowly.
template <size_t... K>
BIX_FAST_INLINE void copy_chunks(uint8_t *to, const uint8_t *from, std::index_sequence<K...>) {
  (std::memcpy(to + 16 * K, from + 16 * K, 16), ...);
}
template <uint32_t N>
BIX_FAST_INLINE void copy_run(uint8_t *to, const uint8_t *from) {
  if constexpr (N >= 16) {
    if constexpr (N / 16 <= 64)
      copy_chunks(to, from, std::make_index_sequence<N / 16>{});
    else
      for (uint32_t k = 0; k < N / 16; ++k) std::memcpy(to + 16 * k, from + 16 * k, 16);
    if constexpr (N % 16) std::memcpy(to + N - 16, from + N - 16, 16);
  } else if constexpr (N >= 8 || N >= 4 || N >= 2) {
    constexpr uint32_t w = N >= 8 ? 8 : N >= 4 ? 4 : 2;
    std::memcpy(to, from, w);
    if constexpr (N > w) std::memcpy(to + N - w, from + N - w, w);
  } else if constexpr (N == 1) {
    *to = *from;
  }
}

// A primitive step's N values from one side to the other (instance to wire or back: the
// swap is its own inverse).
template <Op O, uint32_t N>
BIX_FAST_INLINE void move_run(uint8_t *to, const uint8_t *from) {
  if constexpr (O == Op::Bytes)
    copy_run<N>(to, from);
  else if constexpr (O == Op::Be16)
    swap_run<uint16_t, N>(to, from);
  else
    swap_run<uint32_t, N>(to, from);
}
constexpr bool is_primitive(Op o) {
  return o == Op::Bytes || o == Op::Be16 || o == Op::Be32;
}

// An instance of d: its type pointer is d's record or the runtime's copy of it.
BIX_FAST_INLINE bool of_type(const TypeDesc &d, const void *inst) {
  return ld<const wex_type_info *>(inst) == d.tinfo || is_instance_of(d, inst);
}
// Not an instance of another type (a null type pointer is no type at all).
BIX_FAST_INLINE bool not_foreign(const TypeDesc &d, const void *inst) {
  const wex_type_info *t = ld<const wex_type_info *>(inst);
  return t == d.tinfo || !t || is_instance_of(d, inst);
}
BIX_FAST_INLINE uint32_t enum_internal(const TypeDesc &d, uint32_t user) {
  return (d.shifted && user >= 1 && user <= d.nliterals) ? user - 1 : user;
}
BIX_FAST_INLINE uint32_t enum_user(const TypeDesc &d, uint32_t internal) {
  return (d.shifted && internal < d.nliterals) ? internal + 1 : internal;
}
BIX_FAST_INLINE int8_t capped(const TypeDesc &d, uint8_t wire_variant) {
  const auto v = static_cast<int8_t>(wire_variant);
  return v > d.latest_variant ? d.latest_variant : v;
}
// The handle's state-tracking mode; a corrupted mode word is left to the fatal check.
BIX_FAST_INLINE bool tracks(wex_handle *h) {
  const wex_sttr_profile *p = h->sttr_profile;
  if (!p || p->tracking_mode == WEX_STTR_OFF) return false;
  return p->tracking_mode == WEX_STTR_ON || tracking_on(h);
}

// ---- marshal ----

struct MFrame {
  const uint8_t *in;    // the record instance
  uint8_t *out;         // the cursor the steps' wire offsets count from
  const uint8_t *area;  // its state-tracking area, or kZeroArea
};

template <const Plan &P>
BIX_FAST_INLINE uint8_t *marshal_record(Enc &e, const TypeDesc &d, const wex_type_info *tinfo,
                                        const uint8_t *inst, uint8_t *at);

// The chosen alternative of a union step (its selector's user value is its position
// 1..n), or null.
BIX_FAST_INLINE const FieldDesc *chosen(const Step &s, uint32_t sel) {
  return sel - 1 < s.n ? s.type->fields + s.field + (sel - 1) : nullptr;
}
BIX_FAST_INLINE uint32_t wire_len(const TypeDesc &d, bool states) {
  return states ? d.wire_len_on : d.wire_len_off;
}

template <const Plan &P, size_t I>
BIX_FAST_INLINE bool marshal_step(Enc &e, MFrame &f) {
  constexpr Step s = P.steps[I];
  if constexpr (is_primitive(s.op)) {
    move_run<s.op, s.n>(f.out + s.dst, f.in + s.src);
  } else if constexpr (s.op == Op::States) {
    copy_run<s.n>(f.out + s.dst, f.area + s.area);
  } else if constexpr (s.op == Op::Enum || s.op == Op::Flags) {
    const TypeDesc &m = *s.type;
    const uint8_t *leaf = f.in + s.src;
    const auto v = static_cast<int8_t>(leaf[kHdrVariant]);
    // Above the latest variant the domain would have to be asked: the walker's case.
    if (!of_type(m, leaf) || v > m.latest_variant) return false;
    uint8_t *w = f.out + s.dst;
    w[0] = static_cast<uint8_t>(v);
    if constexpr (s.op == Op::Enum) {
      st(w + 1, swap_be(enum_internal(m, ld<uint32_t>(leaf + kEnumValueOffset))));
    } else {
      st(w + 1, swap_be(uint32_t{4 + s.n}));
      std::memcpy(w + 5, leaf + kFlagBitsOffset, s.n);
    }
  } else if constexpr (s.op == Op::Members) {
    const wex_type_info *t = s.type->tinfo;  // read once: the stores below may alias it
    for (uint32_t k = 0; k < s.n; ++k)
      if (!marshal_record<*s.plan>(e, *s.type, t, f.in + s.src + k * s.stride,
                                   f.out + s.dst + k * s.wire))
        return false;
  } else if constexpr (s.op == Op::VarArray) {
    const FieldDesc &fa = s.type->fields[s.field];
    const uint32_t k = ld<uint32_t>(f.in + s.src);
    uint8_t *w = f.out + s.dst;
    st(w, swap_be(k));
    w += 4;
    if (k) {
      const auto *data = ld<const uint8_t *>(f.in + fa.offset);
      const uint64_t bytes = uint64_t{k} * fa.elem_size;
      const uint64_t extra = bytes + (P.states ? 1 + uint64_t{k} : 0);
      // A count without storage is the walker's error; too little room its partial copy.
      if (!data || static_cast<uint64_t>(e.end - w) < extra + s.tail) return false;
      std::memcpy(w, data, bytes);
      w += bytes;
      if constexpr (P.states) {
        *w++ = f.area[fa.sttr];
        if (const auto *es = ld<const uint8_t *>(f.area + fa.sttr_ptr))
          std::memcpy(w, es, k);
        else
          std::memset(w, 0, k);
        w += k;
      }
    }
    f.out = w;
  } else if constexpr (s.op == Op::Union) {
    const uint32_t sel = ld<uint32_t>(f.in + s.src);
    const FieldDesc *alt = chosen(s, sel);
    uint8_t *w = f.out + s.dst;
    // A union's state byte wants two bytes of room: with room for the whole record only
    // the last one can be left out, and with less the walker leaves out more.
    const uint64_t need =
        s.tail + (P.states ? s.n : 0) + (alt ? wire_len(*alt->type, P.states) : 0);
    if (static_cast<uint64_t>(e.end - w) < need) return false;
    // State bytes follow each position: those before the chosen alternative come first.
    const uint32_t before = P.states ? (alt ? sel - 1 : s.n - 1) : 0;
    std::memcpy(w, f.area + s.area, before);
    w += before;
    if (alt) {
      const auto *inst = ld<const uint8_t *>(f.in + s.stride + 8 * (sel - 1));
      const FastOps *ops = alt->type->fast;
      if (!inst || !ops->marshal_member ||
          !(w = ops->marshal_member(e, P.states, *alt->type, inst, w)))
        return false;
    }
    if constexpr (P.states) {
      const uint32_t rest = s.n - before - 1;
      std::memcpy(w, f.area + s.area + before, rest);
      w += rest;
      if (e.end - w >= 2) *w++ = f.area[s.area + s.n - 1];
    }
    f.out = w;
  }
  return true;
}

template <const Plan &P, size_t... I>
BIX_FAST_INLINE bool marshal_steps(Enc &e, MFrame &f, std::index_sequence<I...>) {
  return (marshal_step<P, I>(e, f) && ...);
}

// Header bytes 8 to 11 (variant, initial variant, flags, first field byte) in one load.
inline constexpr bool kLittle = std::endian::native == std::endian::little;
inline constexpr uint32_t kVariantMask = kLittle ? 0xFFu : 0xFFu << 24;
inline constexpr uint32_t kFlagsShift = kLittle ? 16 : 8;

// One whole record at `at` (room already checked for its fixed part); the end of its
// encoding, or null to hand the call to the walker.
template <const Plan &P>
BIX_FAST_INLINE uint8_t *marshal_record(Enc &e, const TypeDesc &d, const wex_type_info *tinfo,
                                        const uint8_t *inst, uint8_t *at) {
  constexpr auto latest = static_cast<uint8_t>(P.latest);
  constexpr uint32_t mask = kVariantMask | uint32_t{kFlagHandleData} << kFlagsShift;
  constexpr uint32_t want = kLittle ? latest : uint32_t{latest} << 24;
  // Another variant, an ra item or another type: the walker's cases.
  if ((ld<uint32_t>(inst + kHdrVariant) & mask) != want ||
      (ld<const wex_type_info *>(inst) != tinfo && !of_type(d, inst)))
    return nullptr;
  constexpr uint8_t flags = P.states ? kFlagTracked : 0;
  st(at, static_cast<uint16_t>(kLittle ? latest | flags << 8 : latest << 8 | flags));
  MFrame f{inst, at, kZeroArea};
  if constexpr (P.states) {
    if (inst[kHdrFlags] & kFlagTracked)
      if (const uint8_t *a = sttr_area(e.h, e.ws, d, const_cast<uint8_t *>(inst))) f.area = a;
  }
  if (!marshal_steps<P>(e, f, std::make_index_sequence<P.nsteps>{})) return nullptr;
  uint8_t *end = f.out + P.end;
  if constexpr (P.dynamic)
    st(at + 2, swap_be(static_cast<uint32_t>(end - (at + 2))));
  else
    st(at + 2, swap_be(uint32_t{P.len - 2}));
  return end;
}

// ---- unmarshal ----

struct UFrame {
  uint8_t *in;        // the record instance
  const uint8_t *at;  // the cursor the steps' wire offsets count from
  uint8_t *area;      // its state-tracking area while state bytes are copied
};

template <const Plan &P, Recv R>
BIX_FAST_INLINE Result unmarshal_record(Dec &dc, const TypeDesc &d, wex_type_info *tinfo,
                                        uint8_t *inst, const uint8_t *at);

template <const Plan &P, Recv R, size_t I>
BIX_FAST_INLINE Result unmarshal_step(Dec &dc, UFrame &f) {
  constexpr Step s = P.steps[I];
  if constexpr (is_primitive(s.op)) {
    move_run<s.op, s.n>(f.in + s.src, f.at + s.dst);
  } else if constexpr (s.op == Op::States) {
    if constexpr (R == Recv::Copy) copy_run<s.n>(f.area + s.area, f.at + s.dst);
  } else if constexpr (s.op == Op::Enum || s.op == Op::Flags) {
    const TypeDesc &m = *s.type;
    uint8_t *leaf = f.in + s.src;
    const uint8_t *w = f.at + s.dst;
    if (!of_type(m, leaf)) return Result::Bail;
    if constexpr (s.op == Op::Flags) {
      // Another jump moves the position (or is a newer sender's): the walker's case.
      if (ld<uint32_t>(w + 1) != swap_be(uint32_t{4 + s.n})) return Result::Bail;
      std::memcpy(leaf + kFlagBitsOffset, w + 5, s.n);
    } else {
      st(leaf + kEnumValueOffset, enum_user(m, swap_be(ld<uint32_t>(w + 1))));
    }
    leaf[kHdrVariant] = static_cast<uint8_t>(capped(m, w[0]));
    st(leaf, dc.h->types_indirect ? decoded_tinfo_of(dc.h, dc.ws, m) : m.tinfo);
  } else if constexpr (s.op == Op::Members) {
    const TypeDesc &m = *s.type;
    wex_type_info *t = dc.h->types_indirect ? decoded_tinfo_of(dc.h, dc.ws, m) : m.tinfo;
    for (uint32_t k = 0; k < s.n; ++k) {
      Result r = unmarshal_record<*s.plan, R>(dc, m, t, f.in + s.src + k * s.stride,
                                              f.at + s.dst + k * s.wire);
      if (r != Result::Ok) return r;
    }
  } else if constexpr (s.op == Op::VarArray) {
    const TypeDesc &d = *s.type;
    const FieldDesc &fa = d.fields[s.field];
    uint8_t *count_at = f.in + s.src;
    const uint8_t *w = f.at + s.dst;
    const uint32_t k = swap_be(ld<uint32_t>(w));
    w += 4;
    const uint64_t bytes = uint64_t{k} * fa.elem_size;
    const uint64_t extra = k ? bytes + (P.states ? 1 + uint64_t{k} : 0) : 0;
    // Short input, or a jump that does not end where this record does: the walker's cases,
    // decided before anything is allocated.
    if (static_cast<uint64_t>(dc.end - w) < extra + s.tail ||
        static_cast<uint64_t>(w + extra + s.tail - (dc.buf + 2)) != dc.jump)
      return Result::Bail;
    if (k) {
      const uint32_t k0 = ld<uint32_t>(count_at);
      if (!(dc.reuse && k == k0 && ld<uint8_t *>(f.in + fa.offset)) &&
          !var_array_resize(dc.h, dc.ws, d, f.in, fa, k, dc.err))
        return Result::Fail;
      std::memcpy(ld<uint8_t *>(f.in + fa.offset), w, bytes);
      if constexpr (R == Recv::Copy) {
        // Every element state is received, so none is left stale.
        if (auto *es = ld<uint8_t *>(f.area + fa.sttr_ptr)) std::memcpy(es, w + bytes + 1, k);
        f.area[fa.sttr] = w[bytes];
      }
    }
    st(count_at, k);
    f.at = w + extra;
  } else if constexpr (s.op == Op::Union) {
    const uint32_t sel = ld<uint32_t>(f.in + s.src);
    const FieldDesc *alt = chosen(s, sel);
    const uint8_t *w = f.at + s.dst;
    uint64_t need = s.tail + (P.states ? s.n : 0) + (alt ? wire_len(*alt->type, P.states) : 0);
    // A sender whose room ended one byte early left the last state byte out (it wants two
    // bytes of room), and state bytes are read only while input is left.
    const auto avail = static_cast<uint64_t>(dc.end - w);
    const bool last_state = !(P.states && s.tail == 0 && avail + 1 == need);
    if (!last_state) --need;
    if (avail < need || static_cast<uint64_t>(w + need - (dc.buf + 2)) != dc.jump)
      return Result::Bail;
    // State bytes follow each position: those before the chosen alternative come first.
    const uint32_t before = P.states ? (alt ? sel - 1 : s.n - 1) : 0;
    if constexpr (R == Recv::Copy) std::memcpy(f.area + s.area, w, before);
    w += before;
    if (alt) {
      const TypeDesc &m = *alt->type;
      uint8_t *slot = f.in + s.stride + 8 * (sel - 1);
      auto *inst = ld<uint8_t *>(slot);
      if (!inst) {
        notify(dc.h, dc.ws, slot, 8);
        if (!(inst = static_cast<uint8_t *>(instance_create_internal(m, dc.h, dc.ws)))) {
          store_err(dc.h, dc.err, 12);
          dc.stop_at = w;
          return Result::Stop;
        }
        st(slot, inst);
      }
      if (!m.fast->unmarshal_member) return Result::Bail;
      notify(dc.h, dc.ws, inst + kHdrSize, m.fixed_size - kHdrSize);
      wex_type_info *t = dc.h->types_indirect ? decoded_tinfo_of(dc.h, dc.ws, m) : m.tinfo;
      Result r = m.fast->unmarshal_member(dc, P.states, R, m, t, inst, w);
      if (r != Result::Ok) return r;
      w += wire_len(m, P.states);
    }
    if constexpr (P.states) {
      const uint32_t rest = s.n - before - (last_state ? 0 : 1);
      if constexpr (R == Recv::Copy) std::memcpy(f.area + s.area + before, w, rest);
      w += rest;
    }
    f.at = w;
  }
  return Result::Ok;
}

template <const Plan &P, Recv R, size_t... I>
BIX_FAST_INLINE Result unmarshal_steps(Dec &dc, UFrame &f, std::index_sequence<I...>) {
  Result r = Result::Ok;
  (void)(((r = unmarshal_step<P, R, I>(dc, f)) == Result::Ok) && ...);
  return r;
}

// One fixed-size record at `at`, whose bytes the caller has found present.
template <const Plan &P, Recv R>
BIX_FAST_INLINE Result unmarshal_record(Dec &dc, const TypeDesc &d, wex_type_info *tinfo,
                                        uint8_t *inst, const uint8_t *at) {
  // The variant and flags bytes in one load: a negative variant, or framing other than the
  // call's (the top record's), is the walker's case.
  constexpr uint16_t mask = kLittle ? 0x80 | (kFlagTracked | kFlagHandleData) << 8
                                    : 0x8000 | (kFlagTracked | kFlagHandleData);
  constexpr uint16_t framing = P.states ? (kLittle ? kFlagTracked << 8 : kFlagTracked) : 0;
  // So are another jump (a newer sender's fields), another type, and an instance untracked
  // under a tracking handle or without a locatable area.
  if ((ld<uint16_t>(at) & mask) != framing ||
      ld<uint32_t>(at + 2) != swap_be(uint32_t{P.len - 2}) ||
      (ld<const wex_type_info *>(inst) != tinfo && !of_type(d, inst)))
    return Result::Bail;
  if constexpr (R != Recv::Plain)
    if (!(inst[kHdrFlags] & kFlagTracked)) return Result::Bail;
  UFrame f{inst, at, nullptr};
  if constexpr (R == Recv::Copy)
    if (!(f.area = sttr_area(dc.h, dc.ws, d, inst))) return Result::Bail;
  Result r = unmarshal_steps<P, R>(dc, f, std::make_index_sequence<P.nsteps>{});
  if (r != Result::Ok) return r;
  // A variant above the latest is stored as the latest (the sign bit is clear here).
  if constexpr (P.latest == 0)
    inst[kHdrVariant] = 0;
  else
    inst[kHdrVariant] =
        static_cast<int8_t>(at[0]) > P.latest ? static_cast<uint8_t>(P.latest) : at[0];
  // A tracking handle merges 0x08, which the instance carries already.
  st(inst, tinfo);
  return Result::Ok;
}

// ---- len ----

// True when every embedded record (and each of theirs) has fields and is of its type, so
// the record's length is the plan's.
template <const Plan &P>
bool members_measurable(const uint8_t *inst);

template <const Plan &P, size_t I>
BIX_FAST_INLINE bool measurable_step(const uint8_t *inst) {
  constexpr Step s = P.steps[I];
  if constexpr (s.op == Op::Members) {
    for (uint32_t k = 0; k < s.n; ++k) {
      const uint8_t *m = inst + s.src + k * s.stride;
      if (static_cast<int8_t>(m[kHdrVariant]) < 0 || !not_foreign(*s.type, m) ||
          !members_measurable<*s.plan>(m))
        return false;
    }
  }
  return true;
}

template <const Plan &P, size_t... I>
BIX_FAST_INLINE bool measurable_steps(const uint8_t *inst, std::index_sequence<I...>) {
  return (measurable_step<P, I>(inst) && ...);
}

template <const Plan &P>
bool members_measurable(const uint8_t *inst) {
  return measurable_steps<P>(inst, std::make_index_sequence<P.nsteps>{});
}

// ---- the entry points of one record type ----

// Bytes a variable item adds to the plan's length.
uint64_t variable_len(const Plan &p, const TypeDesc &d, wex_handle *h, uint32_t ws,
                      const uint8_t *inst);

template <const Plan &Off, const Plan &On>
BIX_FAST_INLINE uint32_t len_call(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst) {
  const auto *b = static_cast<const uint8_t *>(inst);
  if (!members_measurable<Off>(b)) return 0;
  const Plan &p = tracks(h) ? On : Off;
  const uint64_t n = p.len + (p.dynamic ? variable_len(p, d, h, ws, b) : 0);
  return n > UINT32_MAX ? 0 : static_cast<uint32_t>(n);
}

template <const Plan &Off, const Plan &On>
BIX_FAST_INLINE bool marshal_call(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                                  const void *inst, int32_t len, uint32_t &out) {
  Enc e{h, ws, buf + len};
  const auto *b = static_cast<const uint8_t *>(inst);
  uint8_t *end;
  if (tracks(h))
    end = len >= static_cast<int32_t>(On.len) ? marshal_record<On>(e, d, d.tinfo, b, buf) : nullptr;
  else
    end =
        len >= static_cast<int32_t>(Off.len) ? marshal_record<Off>(e, d, d.tinfo, b, buf) : nullptr;
  if (!end) return false;
  out = static_cast<uint32_t>(end - buf);
  return true;
}

template <const Plan &P, Recv R>
BIX_FAST_INLINE bool unmarshal_top(Dec &dc, const TypeDesc &d, uint8_t *inst, int32_t len, uint32_t &out) {
  if (len < static_cast<int32_t>(P.len) || (!P.dynamic && dc.jump != P.len - 2)) return false;
  UFrame f{inst, dc.buf, nullptr};
  if constexpr (R == Recv::Copy)
    if (!(f.area = sttr_area(dc.h, dc.ws, d, inst))) return false;
  notify(dc.h, dc.ws, inst + kHdrSize, d.fixed_size - kHdrSize);
  Result r = unmarshal_steps<P, R>(dc, f, std::make_index_sequence<P.nsteps>{});
  uint32_t pos = static_cast<uint32_t>(f.at + P.end - dc.buf);
  switch (r) {
    case Result::Bail:
      return false;
    case Result::Fail:
      out = 0;
      return true;
    case Result::Stop:
      pos = jump_correct(dc.h, dc.err, static_cast<uint32_t>(dc.stop_at - dc.buf), 2, dc.jump, len);
      break;
    case Result::Ok:
      break;
  }
  inst[kHdrVariant] = static_cast<uint8_t>(capped(d, dc.buf[0]));
  if constexpr (R != Recv::Plain) inst[kHdrFlags] |= kFlagTracked;
  st(inst, decoded_tinfo_of(dc.h, dc.ws, d));
  out = pos;
  return true;
}

template <const Plan &Off, const Plan &On>
BIX_FAST_INLINE bool unmarshal_call(const TypeDesc &d, wex_handle *h, uint32_t ws,
                                    const uint8_t *buf, void *inst, int32_t len, uint32_t reuse,
                                    uint32_t *err, uint32_t &out) {
  if (len < 6) return false;
  auto *b = static_cast<uint8_t *>(inst);
  const uint8_t flags = buf[1];
  const bool tracking = tracks(h);
  // A negative variant, an ra item, or an untracked instance under a tracking handle (which
  // the walker refuses fatally): the walker's cases.
  if (static_cast<int8_t>(buf[0]) < 0 || (flags & kFlagHandleData) ||
      (tracking && !(b[kHdrFlags] & kFlagTracked)))
    return false;
  Dec dc{h, ws, err, reuse, buf, buf + len, swap_be(ld<uint32_t>(buf + 2)), nullptr};
  if (flags & kFlagTracked)
    return tracking ? unmarshal_top<On, Recv::Copy>(dc, d, b, len, out)
                    : unmarshal_top<On, Recv::Plain>(dc, d, b, len, out);
  return tracking ? unmarshal_top<Off, Recv::Tracking>(dc, d, b, len, out)
                  : unmarshal_top<Off, Recv::Plain>(dc, d, b, len, out);
}

template <const Plan &Off, const Plan &On>
uint8_t *marshal_member(Enc &e, bool states, const TypeDesc &d, const uint8_t *inst, uint8_t *at) {
  return states ? marshal_record<On>(e, d, d.tinfo, inst, at)
                : marshal_record<Off>(e, d, d.tinfo, inst, at);
}

template <const Plan &Off, const Plan &On>
Result unmarshal_member(Dec &dc, bool states, Recv recv, const TypeDesc &d, wex_type_info *tinfo,
                        uint8_t *inst, const uint8_t *at) {
  if (states)
    return recv == Recv::Copy ? unmarshal_record<On, Recv::Copy>(dc, d, tinfo, inst, at)
                              : unmarshal_record<On, Recv::Plain>(dc, d, tinfo, inst, at);
  return recv == Recv::Tracking ? unmarshal_record<Off, Recv::Tracking>(dc, d, tinfo, inst, at)
                                : unmarshal_record<Off, Recv::Plain>(dc, d, tinfo, inst, at);
}

// ---- whether a call may take the fast path ----

// The byte form last found known (a runtime answers with one static declaration), and the
// domain answers per type under their generation (fast.cc).
extern std::atomic<const wex_byte_form *> g_known_form;
bool learn_form(const wex_byte_form *f);  // true when known; then remembered
inline constexpr uint32_t kCachedTypes = 256;
extern std::atomic<uint64_t> g_admits[kCachedTypes];
bool admits_uncached(const TypeDesc &d, wex_handle *h);  // asks the domain, remembers

// The handle's runtime declares the byte form this library writes and reads itself.
BIX_FAST_INLINE bool usable(wex_handle *h) {
  const wex_byte_form *f = wex_byte_form_get ? wex_byte_form_get(h) : nullptr;
  return f && (f == g_known_form.load(std::memory_order_relaxed) || learn_form(f));
}

// The domain admits at least the latest variant of d and of every type d holds, so no
// instance at the latest variant is capped: one cached answer per call instead of a
// question per record (see docs/performance.md).
BIX_FAST_INLINE bool admits(const TypeDesc &d, wex_handle *h) {
  if (wex_domain_generation && d.id < kCachedTypes) {
    const uint64_t gen = wex_domain_generation(h, &h->domain) & (UINT64_MAX >> 2);
    const uint64_t seen = g_admits[d.id].load(std::memory_order_relaxed);
    if ((seen & 2) && (seen >> 2) == gen) return seen & 1;
  }
  return admits_uncached(d, h);
}

// The entry checks every codec body starts with (codec_begin), decided inline when they
// pass at a glance: no pending error, room, and an instance whose type pointer is the
// type's own record.
BIX_FAST_INLINE bool begin(const TypeDesc &d, wex_handle *h, uint32_t *err, const void *inst,
                           int32_t len, bool writes) {
  if (!*err && len >= 1 && inst && ld<const wex_type_info *>(inst) == d.tinfo) {
    wex_clear_last_error(h);
    return true;
  }
  return codec_begin(d, h, err, inst, len, writes);
}

// ---- the whole calls of one record type ----

template <const Plan &Off, const Plan &On>
uint32_t len_entry(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst) {
  if constexpr (Off.supported && On.supported) {
    // No instance, a negative variant or another type measure as the prefix: the walker's.
    if (usable(h) && inst &&
        static_cast<int8_t>(static_cast<const uint8_t *>(inst)[kHdrVariant]) >= 0 &&
        not_foreign(d, inst))
      if (const uint32_t n = len_call<Off, On>(d, h, ws, inst)) return n;
  }
  return walker_len(d, h, ws, inst);
}

template <const Plan &Off, const Plan &On>
uint32_t marshal_entry(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                       const void *inst, int32_t len, uint32_t *err, bool clone) {
  if constexpr (Off.supported && On.supported) {
    if (usable(h)) {
      if (!begin(d, h, err, inst, len, false)) return 0;
      uint32_t n = 0;
      // The clone form skips the domain check of the record itself only; the fast path asks
      // the same of every type either way, so a clone the domain caps is the walker's. So is
      // the null instance (no type pointer).
      if (ld<const wex_type_info *>(inst) && admits(d, h) &&
          marshal_call<Off, On>(d, h, ws, buf, inst, len, n))
        return n;
    }
  }
  return walker_marshal(d, h, ws, buf, inst, len, err, clone);
}

template <const Plan &Off, const Plan &On>
uint32_t unmarshal_entry(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                         void *inst, int32_t len, uint32_t reuse, uint32_t *err) {
  if constexpr (Off.supported && On.supported) {
    if (usable(h)) {
      if (!begin(d, h, err, inst, len, true)) return 0;
      uint32_t n = 0;
      if (unmarshal_call<Off, On>(d, h, ws, buf, inst, len, reuse, err, n)) return n;
    }
  }
  return walker_unmarshal(d, h, ws, buf, inst, len, reuse, err);
}

// What a record's unit defines from its two plans. Variable items are handled in whole
// calls only, never as a member or alternative.
template <const Plan &Off, const Plan &On>
constexpr FastOps ops() {
  constexpr bool members = Off.supported && On.supported && !Off.dynamic;
  if constexpr (members)
    return FastOps{&len_entry<Off, On>, &marshal_entry<Off, On>, &unmarshal_entry<Off, On>,
                   &marshal_member<Off, On>, &unmarshal_member<Off, On>};
  else
    return FastOps{&len_entry<Off, On>, &marshal_entry<Off, On>, &unmarshal_entry<Off, On>, nullptr,
                   nullptr};
}

}  // namespace bix::fast
