// Text and XML forms of records: print, to_xml, from_xml and their _cr forms.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> text_ops() {
  return {
      {kOnRecord, "print", "int32_t",
       "wex_handle *h, uint32_t ws, char *buf, uint32_t indent, const char *name, const $T *inst, "
       "uint32_t len, uint32_t *err",
       "return bix::record_print($D, h, ws, buf, indent, name, inst, len, err);",
       "Text form \"name@type: {\" ... \"}\", one line or block per field; characters written."},
      {kOnRecord, "print_cr", "int32_t", "wex_handle *h, const $T *inst, char *buf, uint32_t len",
       "return bix::cr_text(h, [&](uint32_t *e) { return bix::record_print($D, h, h->default_ws, "
       "buf, 0, \"$T\", inst, len, e); });",
       "print under the type's name; -1 when the handle's error is set afterwards."},
      {kOnRecord, "to_xml", "int32_t",
       "wex_handle *h, uint32_t ws, const char *name, char *buf, const $T *inst, uint32_t len, "
       "uint8_t state, uint32_t *err",
       "return bix::record_to_xml($D, h, ws, name, buf, inst, len, state, err);",
       "XML element `name` with one child per field (state flags shown when tracking)."},
      {kOnRecord, "toxml_cr", "int32_t", "wex_handle *h, const $T *inst, char *buf, uint32_t len",
       "return bix::cr_text(h, [&](uint32_t *e) { return bix::record_to_xml($D, h, h->default_ws, "
       "\"$T\", buf, inst, len, 0, e); });",
       "to_xml under the type's name; -1 when the handle's error is set afterwards."},
      {kOnRecord, "from_xml", "void",
       "wex_handle *h, uint32_t ws, const char *path, void *doc, $T *inst, uint32_t *err, char "
       "*msg, "
       "uint32_t msglen",
       "bix::ensure_trace_module(); bix::record_from_xml($D, h, ws, path, doc, inst, err, msg, "
       "msglen);",
       "Fill inst from the element at path; absent children keep their values, 2 when the "
       "element itself is absent."},
  };
}

}  // namespace bixgen
