/* lumo: the trace facility.
 *
 * A library registers itself once as a trace module, then emits trace points
 * by (table, index): the format texts live in a table the library owns, so a
 * call site passes only an index and its arguments. Formatted traces go to a
 * sink; the default sink prints fatal and error traces to stderr and drops
 * the rest. lumo never aborts: after a fatal trace the caller does.
 *
 * All functions are safe to call from several threads at once.
 */
#ifndef LUMO_H
#define LUMO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(LUMO_BUILDING)
#define LUMO_API __attribute__((visibility("default")))
#else
#define LUMO_API
#endif

/* ------------------------------------------------------------------------ */
/* Levels: the high byte of the level word carries the severity.            */

#define LUMO_LEVEL_FATAL 0u
#define LUMO_LEVEL_ERROR 0x03000000u
#define LUMO_LEVEL_INFO 0x06000000u
#define LUMO_LEVEL_DEBUG 0x07000000u
#define LUMO_LEVEL_SEVERITY(level) ((uint32_t)(level) >> 24)

/* Longest formatted trace, terminating NUL included; longer texts are cut. */
#define LUMO_TEXT_MAX 1024u

/* Longest module name kept at registration; longer names are cut. */
#define LUMO_MODULE_NAME_MAX 255u

/* ------------------------------------------------------------------------ */
/* Modules.                                                                  */

/* Value lumo stores into a registration state word once its module is
 * registered. A state word must start out as zero. */
#define LUMO_REG_STATE_REGISTERED 0x4c554d4fu /* "LUMO" */

/* Registers `module_name` and writes its id (1, 2, ... in order of first
 * registration; the same name always gets the same id) to *module_id, then
 * marks *reg_state. Once *reg_state is marked, a call is a single atomic load
 * of it and writes nothing. Returns 0; -1 on a null argument or when the
 * 65535 module ids are used up. */
LUMO_API int lumo_module_init_fn(const char *module_name, uint16_t *module_id, uint32_t *reg_state);

/* Name registered for `id`, or NULL. The text lives as long as the process. */
LUMO_API const char *lumo_module_name(uint16_t id);

/* ------------------------------------------------------------------------ */
/* Emitting.                                                                 */

typedef struct lumo_trace_table {
  uint8_t luid[16];           /* identifies the table in the trace sections */
  uint32_t count;             /* number of entries in `formats` */
  const char *const *formats; /* printf-style texts, one per trace point */
} lumo_trace_table;

/* Each entry point formats t->formats[idx] with its arguments and hands the
 * text to the sink. Conversions: %s takes the next string argument, %d %i %u
 * %x %X %o %c the next integer (a u32, read as signed for %d and %i); flags,
 * width and precision are honoured, length modifiers are accepted and
 * ignored. A conversion whose argument has the other kind prints that
 * argument in its own form (a string as is, an integer in decimal); a
 * conversion without an argument left, and any other conversion (%n, %p,
 * %f, '*' widths, ...), is copied verbatim. A NULL string prints "(null)".
 * A null table or an index out of range emits "bad trace index <idx>". */
LUMO_API void lumo_emit(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                        uint32_t level);
LUMO_API void lumo_emit_s1(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, const char *a);
LUMO_API void lumo_emit_s2(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, const char *a, const char *b);
LUMO_API void lumo_emit_s3(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, const char *a, const char *b, const char *c);
LUMO_API void lumo_emit_i1(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, uint32_t a);
LUMO_API void lumo_emit_i2(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, uint32_t a, uint32_t b);
LUMO_API void lumo_emit_i3(const lumo_trace_table *t, uint32_t idx, uint16_t module_id,
                           uint32_t level, uint32_t a, uint32_t b, uint32_t c);

/* The sink receives every formatted trace, whatever its level. `text` is
 * valid only during the call. NULL restores the default sink, which writes
 * levels fatal and error to stderr as one line "<module name>: <text>\n"
 * ("module <id>: <text>\n" for an unregistered id; no second line feed when
 * the text already ends with one) and drops info and debug. A trace being
 * delivered while the sink is replaced may still reach the old sink. */
typedef void (*lumo_sink_fn)(void *ctx, uint32_t level, const char *text);
LUMO_API void lumo_set_sink(lumo_sink_fn fn, void *ctx);

/* ------------------------------------------------------------------------ */
/* Trace sections.
 *
 * A traced library also carries its tables as data so that tools can turn a
 * recorded (table LUID, index, arguments) back into text without running it.
 * All integers are little-endian; the byte-array structs below have no
 * padding and may be laid directly over section bytes.
 *
 * ".lumo_luids_<32 lower-case hex digits of the table LUID>", one per table:
 *   lumo_luids_header (20 bytes), then `record_count` lumo_luids_record
 *   (6 bytes each), entry i describing format text i of the table.
 *
 * ".lumo_format_strings", one per library: a single bzip2 stream of the
 *   concatenation of every table's format texts, each with its NUL. A record's
 *   `text_offset` is the offset of its text in that decompressed blob and
 *   `text_len` the text's length including the NUL.
 *
 * ".lumo_decoder", one per library: lumo_decoder_record, exactly 30 bytes.
 */

#define LUMO_LUIDS_SECTION_PREFIX ".lumo_luids_"
#define LUMO_FORMAT_STRINGS_SECTION ".lumo_format_strings"
#define LUMO_DECODER_SECTION ".lumo_decoder"

#define LUMO_LUIDS_VERSION 1u
#define LUMO_LUIDS_HEADER_SIZE 20u
#define LUMO_LUIDS_RECORD_SIZE 6u

typedef struct lumo_luids_header {
  uint8_t version[2];      /* LUMO_LUIDS_VERSION */
  uint8_t record_count[2]; /* trace points in the table */
  uint8_t luid[16];        /* the table LUID, as in lumo_trace_table */
} lumo_luids_header;

typedef struct lumo_luids_record {
  uint8_t text_len[2];    /* format text length, NUL included */
  uint8_t text_offset[4]; /* offset in the decompressed format-strings blob */
} lumo_luids_record;

#define LUMO_DECODER_MAGIC "LUMODEC1" /* 8 bytes, no NUL in the section */
#define LUMO_DECODER_VERSION 1u
#define LUMO_DECODER_SIZE 30u
#define LUMO_COMPRESSION_BZIP2 1u

typedef struct lumo_decoder_record {
  char magic[8];            /* LUMO_DECODER_MAGIC */
  uint8_t version[2];       /* LUMO_DECODER_VERSION */
  uint8_t table_count[2];   /* number of .lumo_luids_* sections */
  uint8_t strings_size[4];  /* decompressed size of .lumo_format_strings */
  uint8_t strings_count[4]; /* format texts in the blob, all tables together */
  uint8_t compression;      /* LUMO_COMPRESSION_BZIP2 */
  uint8_t reserved[9];      /* zero */
} lumo_decoder_record;

#ifdef __cplusplus
static_assert(sizeof(lumo_luids_header) == LUMO_LUIDS_HEADER_SIZE, "luids header size");
static_assert(sizeof(lumo_luids_record) == LUMO_LUIDS_RECORD_SIZE, "luids record size");
static_assert(sizeof(lumo_decoder_record) == LUMO_DECODER_SIZE, "decoder record size");
#else
_Static_assert(sizeof(lumo_luids_header) == LUMO_LUIDS_HEADER_SIZE, "luids header size");
_Static_assert(sizeof(lumo_luids_record) == LUMO_LUIDS_RECORD_SIZE, "luids record size");
_Static_assert(sizeof(lumo_decoder_record) == LUMO_DECODER_SIZE, "decoder record size");
#endif

/* Largest decompressed format-strings blob accepted, so that a hostile
 * section cannot make a tool allocate without bound. */
#define LUMO_FORMAT_STRINGS_MAX (16u * 1024u * 1024u)

#define LUMO_DECODE_OK 0
#define LUMO_DECODE_EINVAL (-1)   /* null argument */
#define LUMO_DECODE_ECORRUPT (-2) /* not one complete bzip2 stream */
#define LUMO_DECODE_ETOOBIG (-3)  /* decompresses beyond LUMO_FORMAT_STRINGS_MAX */
#define LUMO_DECODE_ENOMEM (-4)

/* Decompresses a .lumo_format_strings section. On success *out is a
 * malloc'ed buffer (release it with free) of *outlen bytes followed by one
 * extra NUL that *outlen does not count. Input must be exactly one bzip2
 * stream; trailing bytes are corruption. On failure *out is NULL, *outlen 0. */
LUMO_API int lumo_decode_format_strings(const uint8_t *bz, size_t bzlen, char **out,
                                        size_t *outlen);

#ifdef __cplusplus
}
#endif

#endif /* LUMO_H */
