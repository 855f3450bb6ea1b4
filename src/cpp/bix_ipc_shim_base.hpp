// bix_ipc_shim_base.hpp: the type-independent part of the C++ API over libbix_ipc_shim.
// Include bix_ipc_shim.hpp (generated from the schema), which includes this one.
//
// Everything here is inline forwarding to the C ABI: no allocation or copy beyond what the C
// call itself makes, one error slot per call, checked right after it. A failed call throws a
// bix::error naming the C function; nothing is ever thrown through a C frame.
//
// Three kinds of object stand for an instance:
//   <type>         an owner: creates the instance with the type's create, destroys it with the
//                  type's destroy; movable, not copyable (clone() makes a copy through the
//                  library). The handle it was made on must outlive it.
//   <type>_ref     a mutable reference to an instance someone else owns (an embedded record,
//                  a union alternative, a message member); cheap to copy.
//   <type>_cref    the same, read-only: what a const owner or const reference hands out.
// References stay valid as long as the instance they name; a union alternative or message
// member that is replaced or detached takes its references with it.
#ifndef BIX_IPC_SHIM_BASE_HPP
#define BIX_IPC_SHIM_BASE_HPP

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "the C++ API of bix_ipc_shim needs C++17 or later"
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>
#if __cplusplus >= 202002L && defined(__has_include)
#if __has_include(<span>)
#include <span>
#define BIX_IPC_SHIM_STD_SPAN 1
#endif
#endif

#include "bix_ipc_shim.h"

#if defined(__GNUC__)
#define BIX_IPC_SHIM_COLD __attribute__((noinline, cold))
#else
#define BIX_IPC_SHIM_COLD
#endif

namespace bix {

// A failed library call: the error code the C function stored in its slot, the library's
// text for it and the C function's name.
class error : public std::runtime_error {
 public:
  error(uint32_t code, std::string_view call)
      : std::runtime_error(describe(code, call)), code_(code), call_length_(call.size()) {}
  uint32_t code() const noexcept { return code_; }
  // The library's own text for the code ("buffer too small" for 90).
  const char *name() const noexcept { return ::bix_ipc_shim_error_text(code_); }
  // The C function that failed, e.g. "wex_xcvr_status_info_marshal".
  std::string_view call() const noexcept { return std::string_view(what(), call_length_); }

 private:
  // "<call>: <text> (error <code>)"; call() is its prefix, so copies never allocate.
  static std::string describe(uint32_t code, std::string_view call) {
    std::string s(call);
    s += ": ";
    s += ::bix_ipc_shim_error_text(code);
    s += " (error " + std::to_string(code) + ")";
    return s;
  }
  uint32_t code_;
  std::size_t call_length_;
};

namespace detail {

// Out of line and cold: the forwarding functions stay a call and a test of the slot.
[[noreturn]] BIX_IPC_SHIM_COLD inline void fail(uint32_t code, std::string_view call) {
  throw error(code, call);
}
[[noreturn]] BIX_IPC_SHIM_COLD inline void fail(uint32_t code, const char *type, const char *op) {
  fail(code, std::string(type) + "_" + op);
}

}  // namespace detail

// A view of contiguous elements, for C++17 callers (std::span arrives with C++20, which
// converts both ways).
template <class T>
class span {
 public:
  using element_type = T;
  using value_type = std::remove_cv_t<T>;
  using size_type = std::size_t;
  using iterator = T *;

  constexpr span() noexcept = default;
  constexpr span(T *data, std::size_t size) noexcept : data_(data), size_(size) {}
  template <std::size_t N>
  constexpr span(T (&array)[N]) noexcept : data_(array), size_(N) {}
  // Any contiguous container of convertible elements; a temporary only for read-only views.
  template <class C, class E = std::remove_pointer_t<decltype(std::data(std::declval<C &>()))>,
            std::enable_if_t<std::is_convertible_v<E (*)[], T (*)[]> &&
                                 (std::is_const_v<T> || std::is_lvalue_reference_v<C>),
                             int> = 0>
  constexpr span(C &&c) noexcept : data_(std::data(c)), size_(std::size(c)) {}
  template <class U, std::enable_if_t<std::is_convertible_v<U (*)[], T (*)[]>, int> = 0>
  constexpr span(const span<U> &other) noexcept : data_(other.data()), size_(other.size()) {}
#ifdef BIX_IPC_SHIM_STD_SPAN
  template <class U, std::size_t N,
            std::enable_if_t<std::is_convertible_v<U (*)[], T (*)[]>, int> = 0>
  constexpr span(std::span<U, N> s) noexcept : data_(s.data()), size_(s.size()) {}
  constexpr operator std::span<T>() const noexcept {
    return {data_, size_};
  }
#endif

  constexpr T *data() const noexcept {
    return data_;
  }
  constexpr std::size_t size() const noexcept {
    return size_;
  }
  constexpr bool empty() const noexcept {
    return size_ == 0;
  }
  constexpr T &operator[](std::size_t i) const noexcept {
    return data_[i];
  }
  constexpr T *begin() const noexcept {
    return data_;
  }
  constexpr T *end() const noexcept {
    return data_ + size_;
  }

 private:
  T *data_ = nullptr;
  std::size_t size_ = 0;
};

// Whether a handle makes state-tracked instances: chosen once, when it is made.
enum class tracking : bool { off = false, on = true };

// Owns a runtime handle: wex_handle_new() on construction, wex_handle_free() on
// destruction. Every owner made on it must be gone before it is.
class handle {
 public:
  explicit handle(tracking mode = tracking::off) : h_(::wex_handle_new()) {
    if (!h_) detail::fail(WEX_ERR_NOMEM, "wex_handle_new");
    if (mode == tracking::on) ::wex_handle_set_tracking(h_, 1);
  }
  ~handle() {
    if (h_) ::wex_handle_free(h_);
  }
  handle(handle &&other) noexcept : h_(std::exchange(other.h_, nullptr)) {}
  handle &operator=(handle &&other) noexcept {
    if (this != &other) {
      if (h_) ::wex_handle_free(h_);
      h_ = std::exchange(other.h_, nullptr);
    }
    return *this;
  }
  handle(const handle &) = delete;
  handle &operator=(const handle &) = delete;

  wex_handle *get() const noexcept { return h_; }
  bool tracking_on() const noexcept {
    return h_ && h_->sttr_profile && h_->sttr_profile->tracking_mode == WEX_STTR_ON;
  }

 private:
  wex_handle *h_;
};

class app_sess_hdr;

// Tag of the constructors that take over an instance made through the C API.
struct adopt_t {
  explicit adopt_t() = default;
};
inline constexpr adopt_t adopt{};

namespace detail {

// The C functions of each record and message type, specialised by the generated header.
template <class C>
struct record_ops;
template <class C>
struct flag_ops;
template <class C>
struct message_ops;

// The workspace every call of this API passes: the handle's default, as the _cr forms do.
inline uint32_t ws_of(const wex_handle *h) noexcept {
  return h->default_ws;
}

// Calls Fn(args..., &slot) and throws when the slot is set afterwards.
template <auto Fn, class... A>
inline auto checked(const char *call, A... args) {
  uint32_t err = 0;
  if constexpr (std::is_void_v<std::invoke_result_t<decltype(Fn), A..., uint32_t *>>) {
    Fn(args..., &err);
    if (err) fail(err, call);
  } else {
    auto result = Fn(args..., &err);
    if (err) fail(err, call);
    return result;
  }
}

// Lengths cross the C ABI as int32_t. Nothing reads or writes past what the caller gave, so
// a longer buffer is offered as its first INT32_MAX bytes.
inline int32_t room_of(std::size_t n) noexcept {
  return n > static_cast<std::size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(n);
}
// An element count for set_mem: a count the C call cannot express is refused (22) instead of
// silently cut.
inline int32_t count_of(std::size_t n, const char *call) {
  if (n > static_cast<std::size_t>(INT32_MAX)) fail(WEX_ERR_INVALID, call);
  return static_cast<int32_t>(n);
}

// A text form into a std::string: write(buf, room, &err) is retried with twice the room
// while it reports 90. The 90s of those probes are not the caller's: the handle's error
// word is put back as it was once a probe fits.
template <class Write>
std::string render(wex_handle *h, std::size_t room, const char *type, const char *op,
                   Write &&write) {
  const uint32_t before = h->error;
  const std::size_t first = room < 256 ? 256 : room > (1u << 20) ? (1u << 20) : room;
  std::string text(first, '\0');
  for (bool grown = false;; grown = true) {
    uint32_t err = 0;
    const uint32_t n = static_cast<uint32_t>(text.size());
    const int32_t wrote = write(text.data(), n, &err);
    if (!err) {
      text.resize(wrote > 0 ? static_cast<std::size_t>(wrote) : 0);
      if (grown) h->error = before;
      return text;
    }
    if (err != WEX_ERR_NOROOM || n > UINT32_MAX / 2) fail(err, type, op);
    text.resize(text.size() * 2);
  }
}

// A new instance through Ops::create; what an owner's constructor throws when there is none.
template <class Ops>
auto *create_instance(wex_handle *h) {
  if (!h) fail(WEX_ERR_INVALID, Ops::name, "create");
  auto *p = Ops::create(h, ws_of(h));
  if (!p) fail(WEX_ERR_NOMEM, Ops::name, "create");
  return p;
}

// Ops::marshal of p into out; the bytes written.
template <class Ops, class C>
std::size_t encode_into(wex_handle *h, C *p, span<uint8_t> out) {
  uint32_t err = 0;
  const uint32_t n = Ops::marshal(h, ws_of(h), out.data(), p, room_of(out.size()), &err);
  if (err) fail(err, Ops::name, "marshal");
  return n;
}
// The whole encoding of p. len leaves out what it cannot know beforehand (with state
// tracking, a union's last state byte, which the encoder drops without an error when room
// runs short; the ra item of a record flagged 0x20), so the vector starts a little larger
// and grows while the encoder reports 90. Those 90s are not the caller's: the handle's
// error word is put back once the encoding fits.
template <class Ops, class C>
std::vector<uint8_t> encode_all(wex_handle *h, C *p) {
  const uint32_t before = h->error;
  std::vector<uint8_t> out(Ops::len(h, ws_of(h), p) + 16);
  for (bool grown = false;; grown = true) {
    uint32_t err = 0;
    const uint32_t n = Ops::marshal(h, ws_of(h), out.data(), p, room_of(out.size()), &err);
    if (!err) {
      out.resize(n);
      if (grown) h->error = before;
      return out;
    }
    if (err != WEX_ERR_NOROOM || out.size() > static_cast<std::size_t>(INT32_MAX) / 2)
      fail(err, Ops::name, "marshal");
    out.resize(out.size() * 2);
  }
}

template <class C, class Mutable, class Const>
using pick_t = std::conditional_t<std::is_const_v<C>, Const, Mutable>;

template <class C>
class owner;

// What every reference to a record (and the session header) can do; the generated
// <type>_fields templates add the typed accessors on top. C is const for a read-only view.
template <class C>
class ref {
 public:
  using c_type = C;
  using object_type = std::remove_const_t<C>;

  ref(wex_handle *h, C *instance) noexcept : h_(h), p_(instance) {}
  // A mutable reference reads as a read-only one.
  template <class U, std::enable_if_t<std::is_same_v<C, const U>, int> = 0>
  ref(const ref<U> &other) noexcept : h_(other.handle()), p_(other.get()) {}
  // From an owner: mutable only from a mutable owner; never from a temporary.
  template <class U = object_type, std::enable_if_t<std::is_same_v<U, C>, int> = 0>
  ref(owner<U> &o) noexcept : h_(o.handle()), p_(o.get()) {}
  template <class U = object_type, std::enable_if_t<!std::is_same_v<U, C>, int> = 0>
  ref(const owner<U> &o) noexcept : h_(o.handle()), p_(o.get()) {}
  template <class U = object_type>
  ref(const owner<U> &&) = delete;

  C *get() const noexcept { return p_; }
  wex_handle *handle() const noexcept { return h_; }

  // Bytes the encoding needs.
  std::size_t encoded_size() const { return ops::len(h_, ws(), p_); }
  // Encodes into out (90 when it is too small); the bytes written.
  std::size_t encode(span<uint8_t> out) const { return encode_into<ops>(h_, p_, out); }
  std::vector<uint8_t> encode() const { return encode_all<ops>(h_, p_); }
  // Decodes into this instance, reusing its variable storage where it fits; the bytes read.
  std::size_t decode(span<const uint8_t> in) {
    uint32_t err = 0;
    const uint32_t n = ops::unmarshal(h_, ws(), in.data(), writable(), room_of(in.size()), 1, &err);
    if (err) fail(err, ops::name, "unmarshal");
    return n;
  }
  // The text form, under the type's name.
  std::string to_text() const {
    return render(h_, 32 * encoded_size(), ops::name, "print",
                  [&](char *buf, uint32_t room, uint32_t *err) {
                    return ops::print(h_, ws(), buf, 0, ops::name, p_, room, err);
                  });
  }
  // The XML form: an element named after the type.
  std::string to_xml() const {
    return render(h_, 32 * encoded_size(), ops::name, "to_xml",
                  [&](char *buf, uint32_t room, uint32_t *err) {
                    return ops::to_xml(h_, ws(), ops::name, buf, p_, room, 0, err);
                  });
  }
  // Orders field by field in schema order (0: equal); hash folds every field into seed.
  int32_t compare(ref<const object_type> other) const noexcept {
    return ops::compare(p_, other.get());
  }
  uint32_t hash(uint32_t seed = 0) const noexcept { return ops::hash(p_, seed); }

 protected:
  using ops = record_ops<object_type>;
  uint32_t ws() const noexcept { return ws_of(h_); }
  // The C readers take a mutable pointer and never write through it.
  object_type *readable() const noexcept { return const_cast<object_type *>(p_); }
  object_type *writable() const noexcept {
    static_assert(!std::is_const_v<C>, "bix: a read-only reference (_cref) cannot be written");
    return p_;
  }
  template <auto Fn, class... A>
  auto read(const char *call, A... args) const {
    return checked<Fn>(call, h_, ws(), readable(), args...);
  }
  template <auto Fn, class... A>
  auto write(const char *call, A... args) {
    return checked<Fn>(call, h_, ws(), writable(), args...);
  }
  // The alternative Get answers when the selector (the member Selector) picks position and
  // the alternative is there, else 2. The selector is read from the instance itself, once
  // Get has vouched for the instance (an enumeration member holds its user value in .value):
  // one C call, like a C caller's.
  template <auto Get, auto Selector>
  auto alternative(const char *call, uint32_t position) const {
    auto *p = read<Get>(call);
    if (!p || (p_->*Selector).value != position) fail(WEX_ERR_ABSENT, call);
    return p;
  }
  template <auto Get, auto Selector>
  bool has_alternative(const char *call, uint32_t position) const {
    auto *p = read<Get>(call);
    return p && (p_->*Selector).value == position;
  }
  // Stores o's instance with Set (a union alternative) and takes it out of o once the
  // instance holds it, failure or not; the member Set replaced is destroyed, since the
  // library leaves it to the caller.
  template <auto Get, auto Set, class O>
  void hand_over(const char *get_call, const char *set_call, O &o) {
    using M = typename O::c_type;
    M *before = read<Get>(get_call);
    uint32_t err = 0;
    Set(h_, ws(), writable(), o.get(), &err);
    uint32_t ignored = 0;
    M *now = Get(h_, ws(), readable(), &ignored);
    if (now == o.get()) {
      o.release();
      if (before && before != now) record_ops<M>::destroy(h_, ws(), before);
    }
    if (err) fail(err, set_call);
  }

  wex_handle *h_;
  C *p_;
};

// clone(h, ws, src, &dst, buf, room, err) through the handle's scratch buffer, or a buffer of
// its own when the encoding does not fit there. NULL and *err set on failure.
template <class C>
C *clone_record(wex_handle *h, uint32_t ws, const C *src, uint32_t *err) {
  void *scratch = nullptr;
  uint32_t room = 0;
  ::wexlib_get_handle_ws(h, &scratch, &room);
  std::vector<uint8_t> own;
  const uint32_t need = record_ops<C>::len(h, ws, src);
  if (!scratch || need > room) {
    own.resize(need ? need : 1);
    scratch = own.data();
    room = static_cast<uint32_t>(own.size());
  }
  C *copy = nullptr;
  record_ops<C>::clone(h, ws, src, &copy, static_cast<uint8_t *>(scratch), room, err);
  return copy;
}

// Owns one instance of a record (or session header): what a <type> owner is made of.
template <class C>
class owner : public ref<C> {
  using ops = record_ops<C>;

 public:
  explicit owner(wex_handle *h) : ref<C>(h, create_instance<ops>(h)) {}
  explicit owner(const ::bix::handle &h) : owner(h.get()) {}
  owner(const ::bix::handle &&) = delete;
  // Takes over an instance of this type made on h (NULL: an empty owner).
  owner(adopt_t, wex_handle *h, C *instance) noexcept : ref<C>(h, instance) {}
  ~owner() { reset(); }
  owner(owner &&other) noexcept : ref<C>(other.h_, std::exchange(other.p_, nullptr)) {}
  owner &operator=(owner &&other) noexcept {
    if (this != &other) {
      reset();
      this->h_ = other.h_;
      this->p_ = std::exchange(other.p_, nullptr);
    }
    return *this;
  }
  owner(const owner &) = delete;
  owner &operator=(const owner &) = delete;

  // False once moved from, released or reset.
  explicit operator bool() const noexcept { return this->p_ != nullptr; }
  // Gives the instance up to the caller, who destroys it with the type's destroy.
  C *release() noexcept { return std::exchange(this->p_, nullptr); }
  void reset() noexcept {
    if (C *p = release()) ops::destroy(this->h_, ws_of(this->h_), p);
  }
  // A new instance with the same content, made by the type's clone.
  typename ops::owner clone() const {
    uint32_t err = 0;
    C *copy = clone_record<C>(this->h_, this->ws(), this->p_, &err);
    typename ops::owner out(adopt, this->h_, copy);
    if (err) fail(err, ops::name, "clone");
    if (!copy) fail(WEX_ERR_NOMEM, ops::name, "clone");
    return out;
  }

};

// The elements of a record array as references; operator[] refuses an index out of range
// with 2, as the C get does.
template <class Ref>
class records {
  using element = typename Ref::c_type;

 public:
  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Ref;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Ref;
    iterator(wex_handle *h, element *at) noexcept : h_(h), at_(at) {}
    Ref operator*() const noexcept { return Ref(h_, at_); }
    iterator &operator++() noexcept {
      ++at_;
      return *this;
    }
    iterator operator++(int) noexcept {
      iterator before = *this;
      ++at_;
      return before;
    }
    bool operator==(const iterator &o) const noexcept { return at_ == o.at_; }
    bool operator!=(const iterator &o) const noexcept { return at_ != o.at_; }

   private:
    wex_handle *h_;
    element *at_;
  };

  records(wex_handle *h, element *first, uint32_t count, const char *call) noexcept
      : h_(h), first_(first), count_(count), call_(call) {}
  uint32_t size() const noexcept { return count_; }
  Ref operator[](uint32_t index) const {
    if (index >= count_) fail(WEX_ERR_ABSENT, call_);
    return Ref(h_, first_ + index);
  }
  iterator begin() const noexcept { return iterator(h_, first_); }
  iterator end() const noexcept { return iterator(h_, first_ + count_); }

 private:
  wex_handle *h_;
  element *first_;
  uint32_t count_;
  const char *call_;
};

// An embedded flag set: test and change single flags by number.
template <class C>
class flag_set {
  using ops = flag_ops<std::remove_const_t<C>>;

 public:
  using c_type = C;
  using flag = typename ops::flag;

  flag_set(wex_handle *h, C *instance) noexcept : h_(h), p_(instance) {}
  template <class U, std::enable_if_t<std::is_same_v<C, const U>, int> = 0>
  flag_set(const flag_set<U> &other) noexcept : h_(other.handle()), p_(other.get()) {}

  C *get() const noexcept { return p_; }
  wex_handle *handle() const noexcept { return h_; }
  bool test(flag f) const {
    return checked<ops::get_value>(ops::get_call, h_, ws_of(h_), p_, static_cast<uint32_t>(f)) != 0;
  }
  // Through the flag set's own set_value: the holder's state byte is left as it is.
  void set(flag f, bool on = true) {
    static_assert(!std::is_const_v<C>, "bix: a read-only flag set cannot be written");
    checked<ops::set_value>(ops::set_call, h_, ws_of(h_), p_, static_cast<uint32_t>(f),
                            on ? 1u : 0u);
  }
  void reset(flag f) { set(f, false); }

 private:
  wex_handle *h_;
  C *p_;
};

// The session header every message carries first (the session-header library's type).
template <>
struct record_ops<::app_sess_hdr> {
  static constexpr const char *name = "app_sess_hdr";
  static ::app_sess_hdr *create(wex_handle *h, uint32_t ws) {
    return static_cast<::app_sess_hdr *>(::app_sess_hdr_create(h, ws));
  }
  static constexpr auto destroy = &::app_sess_hdr_destroy;
  static constexpr auto len = &::app_sess_hdr_len;
  static constexpr auto marshal = &::app_sess_hdr_marshal;
  static constexpr auto unmarshal = &::app_sess_hdr_unmarshal;
  static constexpr auto print = &::app_sess_hdr_print;
  static constexpr auto to_xml = &::app_sess_hdr_to_xml;
  // That library has no clone: a new header decodes the source's encoding.
  static void clone(wex_handle *h, uint32_t ws, const ::app_sess_hdr *src, ::app_sess_hdr **dst,
                    uint8_t *buf, uint32_t room, uint32_t *err) {
    const int32_t n = room_of(room);
    const uint32_t wrote = ::app_sess_hdr_marshal(h, ws, buf, src, n, err);
    if (*err) return;
    ::app_sess_hdr *copy = create(h, ws);
    if (!copy) {
      *err = WEX_ERR_NOMEM;
      return;
    }
    ::app_sess_hdr_unmarshal(h, ws, buf, copy, static_cast<int32_t>(wrote), 0, err);
    if (*err)
      ::app_sess_hdr_destroy(h, ws, copy);
    else
      *dst = copy;
  }
  using owner = ::bix::app_sess_hdr;
};

}  // namespace detail

template <class Base>
class app_sess_hdr_fields : public Base {
 public:
  using Base::Base;
  uint32_t session_id() const {
    return this->template read<&::app_sess_hdr_session_id_get_value>(
        "app_sess_hdr_session_id_get_value");
  }
  void set_session_id(uint32_t v) {
    this->template write<&::app_sess_hdr_session_id_set_value>("app_sess_hdr_session_id_set_value",
                                                               v);
  }
  uint32_t seq_num() const {
    return this->template read<&::app_sess_hdr_seq_num_get_value>("app_sess_hdr_seq_num_get_value");
  }
  void set_seq_num(uint32_t v) {
    this->template write<&::app_sess_hdr_seq_num_set_value>("app_sess_hdr_seq_num_set_value", v);
  }
  uint16_t flags() const {
    return this->template read<&::app_sess_hdr_flags_get_value>("app_sess_hdr_flags_get_value");
  }
  void set_flags(uint16_t v) {
    this->template write<&::app_sess_hdr_flags_set_value>("app_sess_hdr_flags_set_value", v);
  }
};
using app_sess_hdr_ref = app_sess_hdr_fields<detail::ref<::app_sess_hdr>>;
using app_sess_hdr_cref = app_sess_hdr_fields<detail::ref<const ::app_sess_hdr>>;
class app_sess_hdr final : public app_sess_hdr_fields<detail::owner<::app_sess_hdr>> {
 public:
  using app_sess_hdr_fields::app_sess_hdr_fields;
};

namespace detail {

// Copies src's member (Get) into dst's empty slot (Set) through the member type's clone.
// An empty slot stays empty.
template <auto Get, auto Set, class M>
void clone_member(wex_handle *h, uint32_t ws, M *src, M *dst, const char *get_call,
                  const char *set_call) {
  auto *from = checked<Get>(get_call, h, ws, src);
  if (!from) return;
  using T = std::remove_pointer_t<decltype(from)>;
  uint32_t err = 0;
  T *copy = clone_record<T>(h, ws, from, &err);
  if (err || !copy) fail(err ? err : WEX_ERR_NOMEM, record_ops<T>::name, "clone");
  Set(h, ws, dst, copy, &err);
  if (err) {
    record_ops<T>::destroy(h, ws, copy);
    fail(err, set_call);
  }
}

// Owns one message and its members: what a <msg>_message owner is made of.
template <class C>
class message {
  using ops = message_ops<C>;

 public:
  using c_type = C;
  using owner_type = typename message_ops<C>::owner;

  explicit message(wex_handle *h) : h_(h), p_(create_instance<ops>(h)) {}
  explicit message(const ::bix::handle &h) : message(h.get()) {}
  message(const ::bix::handle &&) = delete;
  // Takes over a message made on h (NULL: an empty owner).
  message(adopt_t, wex_handle *h, C *msg) noexcept : h_(h), p_(msg) {}
  ~message() { reset(); }
  message(message &&other) noexcept : h_(other.h_), p_(std::exchange(other.p_, nullptr)) {}
  message &operator=(message &&other) noexcept {
    if (this != &other) {
      reset();
      h_ = other.h_;
      p_ = std::exchange(other.p_, nullptr);
    }
    return *this;
  }
  message(const message &) = delete;
  message &operator=(const message &) = delete;

  C *get() const noexcept { return p_; }
  wex_handle *handle() const noexcept { return h_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  C *release() noexcept { return std::exchange(p_, nullptr); }
  void reset() noexcept {
    if (C *p = release()) ops::destroy(h_, ws_of(h_), p);
  }

  std::size_t encoded_size() const { return ops::len(h_, ws(), p_); }
  // Encodes into out: 52 when the handle's domain does not admit the message, 90 when out
  // is too small. The C call stamps the total length into the message's header record,
  // bookkeeping rather than content, hence const.
  std::size_t encode(span<uint8_t> out) const { return encode_into<ops>(h_, p_, out); }
  std::vector<uint8_t> encode() const { return encode_all<ops>(h_, p_); }
  // A new message decoded from in (its LUID is not checked: receive() picks the type by
  // it). *consumed, when given, receives the bytes read.
  static owner_type decode(wex_handle *h, span<const uint8_t> in, std::size_t *consumed = nullptr) {
    uint32_t err = 0;
    C *msg = nullptr;
    const uint32_t n = ops::unmarshal_only(h, ws_of(h), &msg, in.data(), room_of(in.size()), &err);
    owner_type out(adopt, h, msg);
    if (err) fail(err, ops::name, "unmarshal_only");
    if (consumed) *consumed = n;
    return out;
  }
  static owner_type decode(const ::bix::handle &h, span<const uint8_t> in,
                           std::size_t *consumed = nullptr) {
    return decode(h.get(), in, consumed);
  }
  std::string to_text() const {
    return render(h_, 32 * encoded_size(), ops::name, "print",
                  [&](char *buf, uint32_t room, uint32_t *err) {
                    return ops::print(h_, ws(), buf, p_, room, err);
                  });
  }
  std::string to_xml() const {
    return render(h_, 32 * encoded_size(), ops::name, "to_xml",
                  [&](char *buf, uint32_t room, uint32_t *err) {
                    return ops::to_xml(h_, ws(), buf, p_, room, err);
                  });
  }
  // A new message whose members are clones of these (an empty slot stays empty).
  owner_type clone() const {
    C *copy = ops::create_shallow(h_, ws());
    if (!copy) fail(WEX_ERR_NOMEM, ops::name, "create_shallow");
    owner_type out(adopt, h_, copy);
    ops::clone_members(h_, ws(), p_, copy);
    return out;
  }

 protected:
  uint32_t ws() const noexcept { return ws_of(h_); }
  template <auto Fn, class... A>
  auto call(const char *name, A... args) const {
    return checked<Fn>(name, h_, ws(), p_, args...);
  }
  // The member in a slot, or 2 when the slot is empty.
  template <auto Get>
  auto member(const char *name) const {
    auto *m = call<Get>(name);
    if (!m) fail(WEX_ERR_ABSENT, name);
    return m;
  }
  // Stores o's instance with free_and_set (which destroys the former member) and takes it
  // out of o once the message holds it.
  template <auto Get, auto FreeAndSet, class O>
  void replace(const char *name, O &o) {
    uint32_t err = 0;
    FreeAndSet(h_, ws(), p_, o.get(), &err);
    uint32_t ignored = 0;
    if (Get(h_, ws(), p_, &ignored) == o.get()) o.release();
    if (err) fail(err, name);
  }

  wex_handle *h_;
  C *p_;

};

// Function pointers join an overload set through a class with the same call operator.
template <class F>
struct as_overload {
  using type = F;
};
template <class R, class A>
struct as_overload<R (*)(A)> {
  struct type {
    R (*fn)(A);
    R operator()(A a) const { return fn(std::forward<A>(a)); }
  };
};
template <class... F>
struct overloaded : F... {
  using F::operator()...;
};

// Hands msg to fn as an owner of M when fn takes one; false when it does not. Either way the
// owner destroys the message at the end unless fn moved it away.
template <class M, class Fn>
bool deliver_as(wex_handle *h, void *msg, Fn &fn) {
  M owned(adopt, h, static_cast<typename M::c_type *>(msg));
  if constexpr (std::is_invocable_v<Fn &, M &>) {
    fn(owned);
    return true;
  } else {
    return false;
  }
}
// Defined by the generated header: deliver_as with msg's type, found by its LUID.
template <class Fn>
bool deliver_message(wex_handle *h, void *msg, Fn &fn);

template <class Fn>
struct receiver {
  Fn *fn;
  std::exception_ptr thrown;

  // The C handler: an exception from fn is kept for receive() to rethrow, never let through
  // the library's frames. A message no callable takes is reported as 38, as the library
  // reports one without any handler.
  static void deliver(wex_handle *h, uint32_t, uint64_t context, void *msg,
                      uint32_t *err) noexcept {
    auto *self = reinterpret_cast<receiver *>(static_cast<uintptr_t>(context));
    try {
      if (!deliver_message(h, msg, *self->fn)) *err = 38;
    } catch (...) {
      self->thrown = std::current_exception();
    }
  }
};

}  // namespace detail

// Decodes the message at the start of buffer (any of the library's messages, picked by its
// LUID), records it when the runtime's recorder is on, and calls the handler that takes it:
// handlers are callables taking a message owner by reference (`[](bix::<msg>_message &m)`),
// chosen like overloads, so a generic `[](auto &m)` catches what no typed one takes. The
// message is destroyed when the handler returns unless it moved the owner away. Returns the
// bytes consumed. Throws bix::error: 74 for a buffer too short, 2 for an unknown LUID, the
// decoder's code, 38 when no handler takes the message; an exception from a handler passes
// through unchanged.
template <class... F>
std::size_t receive(wex_handle *h, span<const uint8_t> buffer, F &&...handlers) {
  detail::overloaded<typename detail::as_overload<std::decay_t<F>>::type...> fn{
      {std::forward<F>(handlers)}...};
  detail::receiver<decltype(fn)> r{&fn, nullptr};
  uint32_t err = 0;
  const uint32_t n = ::bix_ipc_shim_message_receive(
      h, detail::ws_of(h), static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&r)), nullptr,
      buffer.data(), detail::room_of(buffer.size()), &detail::receiver<decltype(fn)>::deliver,
      &err);
  if (r.thrown) std::rethrow_exception(r.thrown);
  if (err) detail::fail(err, "bix_ipc_shim_message_receive");
  return n;
}
template <class... F>
std::size_t receive(const handle &h, span<const uint8_t> buffer, F &&...handlers) {
  return receive(h.get(), buffer, std::forward<F>(handlers)...);
}

}  // namespace bix

#endif  // BIX_IPC_SHIM_BASE_HPP
