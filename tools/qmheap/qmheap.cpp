// qmheap: runs a program under the agent.
//
//   qmheap [options] -- program [args...]
//   qmheap report [options] SNAPSHOT...     (report.cpp)
//
// Picks the agent library for the program's word size (following a "#!"
// line to its interpreter), puts it first in LD_PRELOAD (keeping what is
// there), turns the options into QMHEAP_ARGS and executes the program, whose
// arguments and exit status pass through untouched. Every agent setting is an
// option (--name=value), from the agent's own settings table.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <cstring>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "qmheap/heap_types.h"

namespace {

struct Setting {
  const char* name;
  const char* kind;  // bool, int, uint, string, list
};

constexpr Setting kSettings[] = {
#define QM_SETTING(name, kind, handler) {name, #kind},
#include "config/settings.inc"
#undef QM_SETTING
};

constexpr const char* kEvents[] = {
#define QM_EVENT(name, event) name,
#include "events/events.inc"
#undef QM_EVENT
};

constexpr const char* kEventPrefixes[] = {"notify_console_", "notify_", "core_", "lwmdbg_", "lwmem_",
                                          "exit_on_event_"};

// The events that are heap errors: what --snapshot-on-error writes a file for.
constexpr const char* kErrorEvents[] = {"free_not_allocated", "realloc_not_allocated", "addr_not_at_start",
                                        "double_alloc", "alloc_returned_bad_alignment", "double_dealloc",
                                        "guard_corruption", "rz_underrun", "rz_overrun", "rz_use_after_free",
                                        "rz_use_after_free_underrun", "rz_use_after_free_overrun",
                                        "dealloc_mismatch"};

// Readable options and the settings each stands for.
struct Shorthand {
  const char* option;
  const char* help;
  std::vector<std::string> settings;  // a "%s" takes the option's value
  bool takes_value;
};

const std::vector<Shorthand>& shorthands() {
  static const std::vector<Shorthand> k = {
      {"guards", "guard bytes around every block, checked at its release", {"enable_guard_blocks=true"}, false},
      {"paint", "fill new and released blocks with patterns",
       {"paint_on_alloc=true", "paint_on_dealloc=true"}, false},
      {"hoard", "hold released blocks back: a write or a second release is caught", {"enable_hoarding=true"}, false},
      {"red-zones", "each block against an inaccessible page: MODE overrun (default), underrun",
       {"enable_red_zones=true", "rz_mode=%s"}, true},
      {"rz-size-range", "red zones only for blocks of START to END bytes (END 0: no bound)",
       {"enable_rz_size_ranges=true", "rz_size_range=0,%s", "rz_size_range_enable=0,true"}, true},
      {"leaks", "list the blocks still allocated at exit", {"display_allocations_on_exit=true"}, false},
      {"leak-check", "at exit, search the program's memory for pointers: report the blocks nothing reaches (lost)",
       {"reachability_scan_on_exit=true"}, false},
      {"leak-check-signal", "the same search whenever the program receives signal N (a running server)",
       {"reachability_scan_signal=%s"}, true},
      {"backtrace-depth", "frames kept of each call's stack (0: none)", {"backtrace_depth=%s"}, true},
      {"verbosity", "0 silent, 1 messages, 2 (default) every event on the console", {"verbosity=%s"}, true},
      {"output", "write the agent's reports to FILE", {"output_file=%s"}, true},
  };
  return k;
}

void usage(FILE* f) {
  std::fprintf(f,
               "usage: qmheap [options] -- program [args...]\n"
               "       qmheap report [--json | --folded] [--suppressions FILE] SNAPSHOT...\n"
               "Runs program under the qmheap agent: heap errors are reported on standard error.\n\n"
               "options:\n");
  for (const auto& s : shorthands())
    std::fprintf(f, "  --%-24s %s\n", (std::string(s.option) + (s.takes_value ? "=VALUE" : "")).c_str(), s.help);
  std::fprintf(f,
               "  --%-24s %s\n  --%-24s %s\n  --%-24s %s\n  --%-24s %s\n\n",
               "snapshot-on-error", "write a snapshot file at every heap error", "snapshot-at-exit",
               "write a snapshot file when the program ends", "set=NAME=VALUE", "any agent setting (below)",
               "help", "this text");
  std::fprintf(f, "Every agent setting is also an option of its own, --NAME=VALUE:\n");
  for (const auto& s : kSettings) std::fprintf(f, "  --%s=%s\n", s.name, std::strcmp(s.kind, "bool") == 0 ? "true|false" : s.kind);
  std::fprintf(f, "and, for each event, --PREFIX_EVENT=true|false with PREFIX one of");
  for (const char* p : kEventPrefixes) std::fprintf(f, " %s", p);
  std::fprintf(f, "\nand EVENT one of:");
  for (const char* e : kEvents) std::fprintf(f, " %s", e);
  std::fprintf(f, "\n");
}

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "qmheap: %s\n", why.c_str());
  std::fprintf(stderr, "qmheap: try 'qmheap --help'\n");
  std::exit(127);
}

bool is_setting(const std::string& name) {
  for (const auto& s : kSettings)
    if (name == s.name) return true;
  for (const char* p : kEventPrefixes)
    if (name.rfind(p, 0) == 0)
      for (const char* e : kEvents)
        if (name.substr(std::strlen(p)) == e) return true;
  return false;
}

std::string substitute(const std::string& tmpl, const std::string& value) {
  const size_t at = tmpl.find("%s");
  return at == std::string::npos ? tmpl : tmpl.substr(0, at) + value + tmpl.substr(at + 2);
}

// The file that will run: the program found along PATH, or for a script the
// interpreter its "#!" line names.
std::optional<std::string> find_program(const std::string& prog) {
  if (prog.find('/') != std::string::npos) return access(prog.c_str(), F_OK) == 0 ? std::optional(prog) : std::nullopt;
  const char* path = getenv("PATH");
  std::string p = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= p.size()) {
    size_t end = p.find(':', start);
    if (end == std::string::npos) end = p.size();
    std::string dir = p.substr(start, end - start);
    std::string cand = (dir.empty() ? "." : dir) + "/" + prog;
    if (access(cand.c_str(), X_OK) == 0) return cand;
    start = end + 1;
  }
  return std::nullopt;
}

// 32 or 64 for an ELF file of that class, following one "#!" line; 0 else.
int word_size(const std::string& path, int depth = 0) {
  std::ifstream f(path, std::ios::binary);
  char head[256] = {};
  f.read(head, sizeof head);
  if (f.gcount() >= 5 && std::memcmp(head, "\x7f" "ELF", 4) == 0) return head[4] == 1 ? 32 : head[4] == 2 ? 64 : 0;
  if (depth == 0 && f.gcount() >= 2 && head[0] == '#' && head[1] == '!') {
    std::string line(head + 2, static_cast<size_t>(f.gcount()) - 2);
    line = line.substr(0, line.find('\n'));
    const size_t b = line.find_first_not_of(" \t");
    if (b == std::string::npos) return word_size("/bin/sh", 1);
    return word_size(line.substr(b, line.find_first_of(" \t\r", b) - b), 1);
  }
  return 0;
}

std::string self_dir() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string s(buf);
  return s.substr(0, s.rfind('/'));
}

// The agent library of a word size: beside an installed launcher
// (bin/../lib/qmheap), then where the build tree puts it.
std::optional<std::string> find_library(int bits) {
  const std::string name = bits == 32 ? "libqmheap.so" : "libqmheap_64.so";
  std::vector<std::string> dirs;
  if (const char* d = getenv("QMHEAP_LIBDIR")) dirs.push_back(d);
  dirs.push_back(self_dir() + "/../lib/qmheap");
  dirs.push_back(bits == 32 ? QMHEAP_BUILD_DIR_I386 : QMHEAP_BUILD_DIR_X86_64);
  for (const auto& d : dirs) {
    std::string p = d + "/" + name;
    if (access(p.c_str(), R_OK) == 0) {
      char real[PATH_MAX];
      return realpath(p.c_str(), real) != nullptr ? std::string(real) : p;
    }
  }
  return std::nullopt;
}

}  // namespace

int report_main(int argc, char** argv);

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "report") == 0) return report_main(argc - 1, argv + 1);
  std::vector<std::string> settings = {"verbosity=2"};
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a == "-h" || a == "--help") {
      usage(stdout);
      return 0;
    }
    if (a.rfind("--", 0) != 0) break;  // the program, without "--"
    std::string name = a.substr(2), value;
    const size_t eq = name.find('=');
    const bool has_value = eq != std::string::npos;
    if (has_value) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
    }
    if (value.find_first_of(" \t\n") != std::string::npos) fail("a value cannot hold white space: '" + a + "'");
    if (name == "snapshot-on-error" || name == "snapshot-at-exit") {
      settings.push_back("enable_generate_lwmdbg=true");
      if (name == "snapshot-at-exit")
        settings.push_back("lwmdbg_termination=true");
      else
        for (const char* e : kErrorEvents) settings.push_back(std::string("lwmdbg_") + e + "=true");
      continue;
    }
    if (name == "set") {
      if (!has_value || value.find('=') == std::string::npos) fail("--set needs NAME=VALUE");
      name = value.substr(0, value.find('='));
      value = value.substr(value.find('=') + 1);
      if (!is_setting(name)) fail("unknown agent setting '" + name + "'");
      settings.push_back(name + "=" + value);
      continue;
    }
    bool known = false;
    for (const auto& s : shorthands()) {
      if (name != s.option) continue;
      known = true;
      if (s.takes_value && !has_value && name != "red-zones") fail("--" + name + " needs a value");
      if (!s.takes_value && has_value) fail("--" + name + " takes no value");
      std::string v = value;
      if (name == "red-zones" && v.empty()) v = "overrun";
      if (name == "rz-size-range") {
        const size_t dash = v.find('-');
        if (dash == std::string::npos) fail("--rz-size-range takes START-END");
        v = v.substr(0, dash) + "," + v.substr(dash + 1);
      }
      for (const auto& t : s.settings) settings.push_back(substitute(t, v));
    }
    if (known) continue;
    std::string key = name;
    for (char& c : key)
      if (c == '-') c = '_';
    if (!is_setting(key)) fail("unknown option '" + a + "'");
    if (!has_value) fail("--" + name + " needs a value (--" + name + "=...)");
    settings.push_back(key + "=" + value);
  }
  if (i >= argc) fail("no program to run");

  const std::string prog = argv[i];
  const auto path = find_program(prog);
  if (!path) fail(prog + ": command not found");
  const int bits = word_size(*path);
  if (bits == 0) fail(*path + ": not a 32-bit or 64-bit ELF program (nor a script that runs one)");
  const auto lib = find_library(bits);
  if (!lib)
    fail(std::string("the ") + (bits == 32 ? "32-bit agent libqmheap.so" : "64-bit agent libqmheap_64.so") +
         " is not installed (set QMHEAP_LIBDIR to its directory)");

  // Under an MPI launcher each rank finds its rank in the launcher's variable:
  // the agent is told where to look, and the snapshot files say the rank in
  // their names.
  static constexpr const char* kRankVariables[] = {"OMPI_COMM_WORLD_RANK", "PMIX_RANK", "PMI_RANK"};
  for (const char* var : kRankVariables) {
    const char* rank = getenv(var);
    if (rank == nullptr || getenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD") != nullptr) continue;
    setenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD", "variable", 1);
    setenv("QMHEAP_MPI_RANK", var, 1);
    bool named = false;
    for (const auto& st : settings) named = named || st.rfind("lwmdbg_pathname=", 0) == 0;
    if (!named) settings.push_back(std::string("lwmdbg_pathname=%b-rank") + rank + "-%h-%8p-%6q.lwmdbg");
    break;
  }
  std::string args;
  if (const char* old = getenv("QMHEAP_ARGS")) args = old;
  for (const auto& s : settings) args += (args.empty() ? "" : " ") + s;
  setenv("QMHEAP_ARGS", args.c_str(), 1);
  std::string preload = *lib;
  if (const char* old = getenv("LD_PRELOAD"); old != nullptr && *old != '\0') preload += std::string(":") + old;
  setenv("LD_PRELOAD", preload.c_str(), 1);
  execv(path->c_str(), argv + i);
  std::fprintf(stderr, "qmheap: %s: %s\n", path->c_str(), std::strerror(errno));
  return errno == ENOENT ? 127 : 126;
}
