// Benchmark subjects: one filled instance of each measured record, its encoding, and a
// second instance to decode into. Shared by the timing benchmark and the instruction-count
// driver so both measure exactly the same work.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../tests/runtime/record_fns.h"
#include "bix_ipc_shim.h"

namespace bixbench {

using namespace bixfns;


// The record operations of one type, called directly (no lookup on the measured path).
struct Ops {
  const char *type;
  CreateFn create;
  DestroyFn destroy;
  LenFn len;
  MarshalFn marshal;
  UnmarshalFn unmarshal;
  CloneCrFn clone_cr;
  CopyCrFn copy_cr;
  CompareFn compare;
  HashFn hash;
  PrintFn print;
  ToXmlFn to_xml;
  FromXmlFn from_xml;
};

// What is measured: a record type, the union alternative its selectors pick (1..7) and
// the element count of its variable array, if it has one.
struct Case {
  const char *label;
  Ops ops;
  uint32_t alt;
  uint32_t var_len;
};

// status_info (QSFP alternative), envm_sensor_data (49 sensors), shim_data_1k.
const std::vector<Case> &cases();
const Case *find_case(const std::string &label_or_type);

// Bytes at a 64-byte boundary, so memcpy and the codecs see the same, repeatable
// alignment from run to run.
class Buffer {
 public:
  void assign(const uint8_t *from, size_t n);
  uint8_t *data() { return p_; }
  const uint8_t *data() const { return p_; }
  size_t size() const { return n_; }

 private:
  std::vector<uint8_t> mem_;
  uint8_t *p_ = nullptr;
  size_t n_ = 0;
};

// A handle, a filled source instance, its encoding and a destination instance that has
// already decoded it once (so later decodes reuse its storage, as a receive loop would).
// With `walker`, the handle withholds the runtime's byte form, so every call takes the
// library's reference walker instead of its fast path: the before of every after.
class Subject {
 public:
  Subject(const Case &c, bool tracking, bool walker = false);
  ~Subject();
  Subject(const Subject &) = delete;
  Subject &operator=(const Subject &) = delete;

  const Case &c;
  const bool tracking;
  const bool walker;
  wex_handle *h = nullptr;
  void *src = nullptr;
  void *dst = nullptr;
  Buffer wire;  // the encoding of src
  // The bytes compare and hash walk: src's fixed part, then the fixed part of its selected
  // alternative, if any; twice, so memcmp has two copies to compare.
  Buffer flat, flat_copy;
  Buffer out;         // where marshal writes
  uint32_t room = 0;  // what len() answers: the room marshal is given
  std::string error;  // why the subject is unusable; empty when it is fine
  // The text forms of src: what print and to_xml write (into text_out, with room for
  // either and its NUL), the XML's elements, and the path from_xml reads src's element at.
  std::string text, xml, path;
  std::vector<char> text_out;
  uint32_t xml_elements = 0;

  uint32_t len() const { return c.ops.len(h, 0, src); }
  // The bytes written; *err receives the error code.
  uint32_t marshal(uint32_t *err) {
    *err = 0;
    return c.ops.marshal(h, 0, out.data(), src, static_cast<int32_t>(room), err);
  }
  // Decodes the encoding into dst, reusing dst's storage; returns the bytes read.
  uint32_t unmarshal(uint32_t *err) {
    *err = 0;
    return c.ops.unmarshal(h, 0, wire.data(), dst, static_cast<int32_t>(wire.size()), 1, err);
  }
  // What a receiver does per message: a new instance, the decode, and its destruction.
  uint32_t create_unmarshal_destroy(uint32_t *err) {
    *err = 0;
    void *fresh = c.ops.create(h, 0);
    const uint32_t n =
        fresh ? c.ops.unmarshal(h, 0, wire.data(), fresh, static_cast<int32_t>(wire.size()), 0, err)
              : 0;
    c.ops.destroy(h, 0, fresh);
    return n;
  }

  // The whole-object operations, each beside its baseline. The clone forms and their
  // baseline answer an error code; compare and memcmp of the equal copies answer 0.
  // marshal + unmarshal: what a clone does by hand (encode src, decode into dst).
  uint32_t marshal_unmarshal() {
    uint32_t err = 0;
    marshal(&err);
    if (!err) unmarshal(&err);
    return err;
  }
  // A new copy through the handle's scratch buffer, destroyed again.
  uint32_t clone_destroy() {
    h->error = 0;
    void *copy = c.ops.clone_cr(h, src);
    if (copy) c.ops.destroy(h, 0, copy);
    return copy ? h->error : 1;
  }
  // src decoded into the existing dst.
  uint32_t copy() {
    h->error = 0;
    c.ops.copy_cr(h, src, dst);
    return h->error;
  }
  uint32_t compare() { return static_cast<uint32_t>(c.ops.compare(src, dst)); }
  uint32_t memcmp_flat();
  uint32_t hash() { return c.ops.hash(src, 0x5eed); }
  uint32_t superfasthash_flat();

  // The text forms; the characters written.
  int32_t print(uint32_t *err) {
    *err = 0;
    return c.ops.print(h, 0, text_out.data(), 0, c.ops.type, src, text_room(), err);
  }
  int32_t to_xml(uint32_t *err) {
    *err = 0;
    return c.ops.to_xml(h, 0, c.ops.type, text_out.data(), src, text_room(), 0, err);
  }
  // A document of `xml`, as from_xml is handed one (wex_xml_doc_free when done).
  void *parse_xml() const { return wex_xml_doc_parse(xml.data(), xml.size()); }
  // Fills inst (dst when null) from the document.
  void from_xml(void *doc, uint32_t *err, void *inst = nullptr) {
    *err = 0;
    c.ops.from_xml(h, 0, path.c_str(), doc, inst ? inst : dst, err, nullptr, 0);
  }

 private:
  uint32_t text_room() const { return static_cast<uint32_t>(text_out.size()); }
  std::string take_text_forms();
  wex_sttr_profile profile_{};
};

// A whole-object operation or its baseline, by name; `zero`: it answers 0 when it worked.
struct WholeOp {
  const char *name;
  uint32_t (Subject::*run)();
  bool zero;
};
// In pairs, baseline first: marshal_unmarshal with clone and copy, memcmp with compare,
// superfasthash with hash.
const std::vector<WholeOp> &whole_ops();
const WholeOp *find_whole_op(const std::string &name);

// Which primitive codecs the walker uses in this process: "bulk" or "per-element". Set
// before the first library call; the library reads it once.
const char *codec_path();
// Switches this process to per-element codecs; must run before any library call.
void use_per_element_codecs();

}  // namespace bixbench
