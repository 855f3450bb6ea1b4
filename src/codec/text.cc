// Text form of records: one print body for every record type, over the field descriptors.
// The bodies add up what each writer reports and hand on the room left; the runtime's
// writers never report more than they stored, so the sum never passes the buffer.

#include "bix/core.h"
#include "shown.h"

namespace bix {
namespace {

using PrimPrint = int32_t (*)(wex_handle *, uint32_t, char *, uint32_t, const char *, const void *,
                              int32_t, uint32_t *);

// Indexed by Prim.
constexpr PrimPrint kPrimPrint[] = {int8_print,    u_int8_print, int16_print,
                                    u_int16_print, int32_print,  u_int32_print};

struct TextShow {
  wex_handle *h;
  uint32_t ws;
  char *buf;
  uint32_t len;
  uint32_t indent;  // of the fields: the record's own plus two
  uint32_t *err;
  uint32_t n = 0;
  char element_buf[kShownNameMax];
  ElementNames names;

  TextShow(wex_handle *h_, uint32_t ws_, char *buf_, uint32_t len_, uint32_t indent_,
           uint32_t *err_)
      : h(h_), ws(ws_), buf(buf_), len(len_), indent(indent_), err(err_) {
    names.place(element_buf, sizeof element_buf);
  }
  int32_t room() const { return static_cast<int32_t>(len - n); }
  void add(int32_t wrote) { n += static_cast<uint32_t>(wrote); }

  void prim(Prim p, const char *name, const void *at) {
    add(kPrimPrint[static_cast<unsigned>(p)](h, ws, buf + n, indent, name, at, room(), err));
  }
  void record(const TypeDesc &t, const char *name, const void *at) {
    add(record_print(t, h, ws, buf + n, indent, name, at, len - n, err));
  }

  void field(const FieldDesc &f, const uint8_t *at) {
    switch (f.kind) {
      case FieldKind::Enum:
      case FieldKind::Selector:
      case FieldKind::Flags:
        add(leaf_print(*f.type, h, ws, buf + n, indent, f.name, at, len - n, err));
        break;
      case FieldKind::Record:
        record(*f.type, f.name, at);
        break;
      default:
        prim(f.prim, f.name, at);  // primitives and the variable array's count
    }
  }
  void element(const FieldDesc &f, uint32_t k, const uint8_t *at) {
    const char *name = names.name(f.name, k);
    if (f.kind == FieldKind::RecordArray)
      record(*f.type, name, at);
    else
      prim(f.prim, name, at);
  }
  void alternative(const FieldDesc &sel, const FieldDesc &f, const void *alt) {
    char name[kShownNameMax];
    joined_name(name, sel.name, '.', f.name);
    record(*f.type, name, alt);
  }
};

}  // namespace

int32_t record_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, uint32_t indent,
                     const char *name, const void *inst, uint32_t len, uint32_t *err) {
  uint32_t own = 0;
  if (!err) err = &own;
  if (!begin_shown(d, h, inst, err, &len)) return 0;
  const int8_t variant = wex_get_instance_variant(inst, 1, 0);
  TextShow out{h, ws, buf, len, indent + 2, err};
  out.add(wex_print_space(h, ws, buf, indent, out.room(), err));
  out.add(wex_snprintf(h, ws, buf + out.n, out.room(), err, "%s@%s: {\n", name, d.name));
  if (variant >= 0) walk_shown(d, h, bytes(inst), err, out);
  out.add(wex_print_space(h, ws, buf + out.n, indent, out.room(), err));
  out.add(wex_snprintf(h, ws, buf + out.n, out.room(), err, "%s", "}\n"));
  return static_cast<int32_t>(out.n);
}

}  // namespace bix
