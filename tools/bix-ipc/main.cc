// bix-ipc: inspect the message library and the messages it encodes.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "annotate.h"
#include "bix_ipc_shim.h"
#include "convert.h"
#include "elf_section.h"
#include "lumo.h"

namespace {

struct Command {
  const char *name;
  const char *args;
  const char *help;
  int (*run)(const std::vector<std::string> &args);
};

const char kOverview[] =
    "bix-ipc: inspect the channel's message library and the messages it encodes.\n"
    "An encoded message is what <msg>_message_marshal writes: a 27-byte header, the\n"
    "message LUID, the session header, the channel header and the body. Files given to\n"
    "decode and annotate may hold several messages back to back; '-' reads stdin.\n";

const wex_module_desc *find_module(const char *name) {
  for (const wex_module_desc *m = wex_module_tot_root.first; m; m = m->next)
    if (std::strcmp(m->name, name) == 0) return m;
  return nullptr;
}

// Instance size under a handle whose tracking mode is `mode` (0: no profile).
uint32_t instance_size(const wex_type_info *t, uint32_t mode) {
  std::string fn = std::string(t->type_name) + "_sizeof";
  auto *sizeof_fn = reinterpret_cast<uint32_t (*)(wex_handle *)>(dlsym(RTLD_DEFAULT, fn.c_str()));
  if (!sizeof_fn) {  // messages: fixed size, no state-tracking area of their own
    const wex_variant_entry &e = t->variant_info->entries[0];
    return e.used_length + e.alloc_slop;
  }
  wex_handle *h = wex_handle_new();
  wex_sttr_profile profile = {mode};
  h->sttr_profile = mode ? &profile : nullptr;
  uint32_t size = sizeof_fn(h);
  h->sttr_profile = nullptr;
  wex_handle_free(h);
  return size;
}

int cmd_types(const std::vector<std::string> &) {
  const wex_module_desc *m = find_module("bix_ipc_shim");
  if (!m) {
    std::fprintf(stderr, "bix-ipc: the library did not link its module descriptor\n");
    return 1;
  }
  std::printf("%-8s %-32s %-32s %7s %7s %6s\n", "kind", "type", "luid", "sizeof", "tracked",
              "latest");
  int n = 0;
  for (wex_type_info *const *p = m->types; *p; ++p, ++n) {
    const wex_type_info *t = *p;
    int latest = t->variant_info ? t->variant_info->count - 1 : 0;
    std::printf("%-8s %-32s %-32s %7u %7u %6d\n", t->kind, t->type_name, t->luid_text,
                instance_size(t, 0), instance_size(t, WEX_STTR_ON), latest);
  }
  std::printf("%d types\n"
              "sizeof/tracked: bytes an instance takes with state tracking off / on (what create\n"
              "allocates); the manifest's size column is the used length rounded up to 8.\n",
              n);
  return 0;
}

int cmd_manifest(const std::vector<std::string> &args) {
  const char *path = args[0].c_str();
  std::string err;
  auto section = bixipc::read_elf_section(path, ".orvik", &err);
  if (!section) {
    if (err.ends_with("no section .orvik"))  // an ELF file, but not one of ours
      err = std::string(path) + ": not a bix_ipc_shim library: no type manifest";
    std::fprintf(stderr, "bix-ipc: %s\n", err.c_str());
    return 1;
  }
  auto records = bixipc::parse_manifest(*section, &err);
  if (!records) {
    std::fprintf(stderr, "bix-ipc: %s: .orvik: %s\n", path, err.c_str());
    return 1;
  }
  for (const auto &r : *records) {
    const char *what = r.kind == bixipc::kManifestKindTypes       ? "type manifest"
                       : r.kind == bixipc::kManifestKindBuildInfo ? "build information"
                                                                  : "unknown record";
    std::printf("== record kind %u (%s), %zu bytes\n%s", r.kind, what, r.text.size() + 1,
                r.text.c_str());
    if (r.kind == bixipc::kManifestKindTypes)
      std::printf("(each line: LUID:schema hash, kind, version:size; size is the used length of\n"
                  " variant 0 rounded up to 8, not what create allocates: see bix-ipc types)\n");
    if (r.text.empty() || r.text.back() != '\n') std::printf("\n");
  }
  return 0;
}

// The bytes of FILE, or of stdin for "-"; false after a one-line error.
bool read_input(const std::string &path, std::vector<uint8_t> &out) {
  if (path != "-") {
    std::string err;
    auto bytes = bixipc::read_regular_file(path, &err);
    if (!bytes) {
      std::fprintf(stderr, "bix-ipc: %s\n", err.c_str());
      return false;
    }
    out = std::move(*bytes);
    return true;
  }
  constexpr size_t kMaxInput = size_t{1} << 30;
  uint8_t buf[1 << 16];
  for (ssize_t n; (n = ::read(STDIN_FILENO, buf, sizeof buf)) != 0;) {
    if (n < 0) {
      std::fprintf(stderr, "bix-ipc: -: %s\n", std::strerror(errno));
      return false;
    }
    out.insert(out.end(), buf, buf + n);
    if (out.size() > kMaxInput) {
      std::fprintf(stderr, "bix-ipc: -: the input is too large\n");
      return false;
    }
  }
  return true;
}

void write_out(const void *data, size_t n) {
  if (n && std::fwrite(data, 1, n, stdout) != n) std::perror("bix-ipc: stdout");
}

int cmd_decode(const std::vector<std::string> &args) {
  const bool xml = args[0] == "--xml";
  std::vector<uint8_t> in;
  if (!read_input(args.back(), in)) return 1;
  std::string out, err;
  const bool ok = bixipc::decode(in.data(), in.size(), xml, out, &err);
  write_out(out.data(), out.size());
  if (!ok) std::fprintf(stderr, "bix-ipc: %s: %s\n", args.back().c_str(), err.c_str());
  return ok ? 0 : 1;
}

int cmd_encode(const std::vector<std::string> &args) {
  std::vector<uint8_t> in;
  if (!read_input(args[0], in)) return 1;
  std::vector<uint8_t> out;
  std::string err;
  if (!bixipc::encode(std::string(in.begin(), in.end()), out, &err)) {
    std::fprintf(stderr, "bix-ipc: %s: %s\n", args[0].c_str(), err.c_str());
    return 1;
  }
  write_out(out.data(), out.size());
  return 0;
}

int cmd_annotate(const std::vector<std::string> &args) {
  std::vector<uint8_t> in;
  if (!read_input(args[0], in)) return 1;
  std::string out, err;
  const bool ok = bixipc::annotate(in.data(), in.size(), out, &err);
  write_out(out.data(), out.size());
  if (!ok) std::fprintf(stderr, "bix-ipc: %s: %s\n", args[0].c_str(), err.c_str());
  return ok ? 0 : 1;
}

const Command kCommands[] = {
    {"types", "",
     "Every type the loaded library registers: kind, name, LUID, instance size with\n"
     "state tracking off and on, latest variant.\n",
     cmd_types},
    {"manifest", "LIBRARY_FILE",
     "The type manifest (section .orvik) carried in a built library file.\n", cmd_manifest},
    {"decode", "[--xml] FILE|-",
     "Decodes encoded messages (any of the eleven, several back to back) and prints each\n"
     "one's text form, or with --xml its XML form. Stops at the first message that does not\n"
     "decode, with a one-line error naming its offset, and exits 1.\n",
     cmd_decode},
    {"encode", "FILE.xml|-",
     "Builds the message an XML document describes (as `decode --xml` or the recorder write\n"
     "it: the message element, possibly inside a bix_ipc_shim element) and writes its\n"
     "encoding to stdout. Absent member elements keep their default values.\n",
     cmd_encode},
    {"annotate", "FILE|-",
     "A hex dump of encoded messages with every byte labelled: the message header, the LUID\n"
     "and message name, the session header, each record's variant, flags, ra item and jump,\n"
     "each field and array element by name, and the state bytes. Bytes after a missing one\n"
     "cannot be labelled: the dump ends with a one-line error naming the offset, exit 1.\n",
     cmd_annotate},
};

int usage(FILE *to) {
  std::fputs(kOverview, to);
  std::fputs("\nusage:\n", to);
  for (const Command &c : kCommands)
    std::fprintf(to, "  bix-ipc %s%s%s\n", c.name, *c.args ? " " : "", c.args);
  std::fputs("\n'bix-ipc COMMAND --help' describes one command.\n", to);
  return to == stdout ? 0 : 2;
}

bool is_help(const std::string &a) {
  return a == "--help" || a == "-h";
}

}  // namespace

int main(int argc, char **argv) {
  wex_bix_ipc_shim_trace_init();
  // Decoding hostile input is what this tool is for; the library's error traces would
  // only repeat the one-line error it prints.
  lumo_set_sink([](void *, uint32_t, const char *) {}, nullptr);
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usage(stderr);
  if (is_help(args[0]) || args[0] == "help") return usage(stdout);
  for (const Command &c : kCommands) {
    if (args[0] != c.name) continue;
    std::vector<std::string> rest(args.begin() + 1, args.end());
    if (!rest.empty() && is_help(rest[0])) {
      std::printf("usage: bix-ipc %s%s%s\n\n%s", c.name, *c.args ? " " : "", c.args, c.help);
      return 0;
    }
    // The argument count each command takes: decode has an optional --xml.
    const size_t want = std::string(c.args).empty() ? 0 : 1;
    const bool xml_flag = std::strcmp(c.name, "decode") == 0 && !rest.empty() && rest[0] == "--xml";
    const bool ok = rest.size() == want + xml_flag;
    if (!ok) {
      std::fprintf(stderr, "usage: bix-ipc %s%s%s\n", c.name, *c.args ? " " : "", c.args);
      return 2;
    }
    return c.run(rest);
  }
  std::fprintf(stderr, "bix-ipc: unknown command '%s'\n", args[0].c_str());
  return usage(stderr);
}
