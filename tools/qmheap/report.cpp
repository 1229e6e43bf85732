// qmheap report: what snapshot files say, for people. Errors with the stacks
// that allocated and released their block, then the blocks still allocated
// grouped by the stack that allocated them, largest first; every frame named
// to function, file and line (libdw), or module and offset where the image
// has no symbols. --json for programs, --folded for flame-graph tools.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <tuple>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <zlib.h>

#include "snapshot/reader.h"
#include "symbols/symbols.h"

namespace {

using qmtool::Frame;
using qmtool::Snapshot;

// Events that are not errors: notices the agent gives at start and end, or on
// request.
const std::set<std::string> kNotices = {"termination", "dealloc", "realloc", "unknown_event", "autoshrink_threshold",
                                        "alloc_null"};

struct Options {
  bool json = false, folded = false;
  std::string flamegraph, heaptrack;  // files to write, when asked
  std::vector<std::string> suppressions;
  std::vector<std::string> files;
};

std::string where(const Frame& f) {
  char buf[64];
  std::string s;
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(f.pc));
  s = buf;
  if (!f.function.empty()) s += " " + f.function;
  if (!f.file.empty())
    s += " (" + f.file + ":" + std::to_string(f.line) + ")";
  else if (!f.module.empty()) {
    std::snprintf(buf, sizeof buf, "+0x%llx", static_cast<unsigned long long>(f.offset));
    s += " (" + f.module + buf + ")";
  }
  if (f.inlined) s += " [inlined]";
  return s;
}

std::string json_string(const std::string& s) {
  std::string o = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      o += '\\';
      o += static_cast<char>(c);
    } else if (c < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      o += b;
    } else {
      o += static_cast<char>(c);
    }
  }
  return o + "\"";
}

std::string json_frames(const std::vector<Frame>& fs) {
  std::string o = "[";
  for (size_t i = 0; i < fs.size(); ++i) {
    const Frame& f = fs[i];
    o += (i ? "," : "") + std::string("{\"pc\":") + std::to_string(f.pc) + ",\"function\":" + json_string(f.function) +
         ",\"file\":" + json_string(f.file) + ",\"line\":" + std::to_string(f.line) +
         ",\"module\":" + json_string(f.module) + ",\"offset\":" + std::to_string(f.offset) +
         ",\"inlined\":" + (f.inlined ? "true" : "false") + "}";
  }
  return o + "]";
}

struct Reporter {
  const Options& opt;
  int errors = 0, suppressed = 0;
  uint64_t leak_blocks = 0, leak_bytes = 0;
  std::vector<std::string> json_errors, json_leaks, json_files;
  // The blocks still allocated, for the flame graph and the heaptrack file:
  // one entry per allocation stack with its frames (innermost first).
  struct Leak {
    std::vector<Frame> frames;
    uint64_t blocks, bytes;
    std::vector<uint64_t> sizes;
  };
  std::vector<Leak> all_leaks;
  std::string command;
  // The blocks still allocated by what the last reachability scan made of
  // them, in this order.
  static constexpr const char* kKinds[] = {"definitely_lost", "indirectly_lost", "interior", "reachable"};
  static constexpr const char* kKindWords[] = {"definitely lost", "indirectly lost",
                                                "reachable only through interior pointers", "reachable"};
  bool have_kinds = false;
  uint64_t kind_blocks[4] = {}, kind_bytes[4] = {};
  static int kind_rank(const std::string& k) {
    for (int i = 0; i < 4; ++i)
      if (k == kKinds[i]) return i;
    return 4;
  }

  explicit Reporter(const Options& o) : opt(o) {}

  bool is_suppressed(const std::vector<Frame>& fs) const {
    for (const auto& f : fs)
      for (const auto& p : opt.suppressions)
        if (!f.function.empty() && f.function.find(p) != std::string::npos) return true;
    return false;
  }

  static std::vector<Frame> stack(qmtool::Symbolizer& sym, const Snapshot& s, int id) {
    std::vector<Frame> out;
    auto it = s.stacks.find(id);
    if (it == s.stacks.end()) return out;
    for (uint64_t pc : it->second)
      for (auto& f : sym.frames(pc)) out.push_back(f);
    return out;
  }

  // The writing thread's stack at the event, from the program's first frame
  // (the agent's own are left out).
  static std::vector<Frame> at_event(qmtool::Symbolizer& sym, const Snapshot& s) {
    std::vector<Frame> out;
    bool in_program = false;
    for (uint64_t pc : s.current_stack)
      for (auto& f : sym.frames(pc)) {
        const bool agent = f.module.find("libqmheap") != std::string::npos;
        if (agent && !in_program) continue;
        in_program = true;
        out.push_back(f);
      }
    return out;
  }

  void print_stack(const char* title, const std::vector<Frame>& fs) {
    if (fs.empty()) return;
    std::printf("  %s:\n", title);
    for (size_t i = 0; i < fs.size(); ++i) std::printf("    #%-2zu %s\n", i, where(fs[i]).c_str());
  }

  void file(const Snapshot& s) {
    qmtool::Symbolizer sym(s.images, s.executable);
    if (!opt.json && !opt.folded) {
      std::printf("== %s: %spid %d, %s, %d-bit, agent %s\n", s.path.c_str(),
                  s.rank >= 0 ? ("rank " + std::to_string(s.rank) + ", ").c_str() : "", s.pid, s.executable.c_str(),
                  s.bits, s.version.c_str());
      for (const auto& p : s.problems) std::printf("   (the file %s)\n", p.c_str());
    }
    json_files.push_back("{\"path\":" + json_string(s.path) + ",\"pid\":" + std::to_string(s.pid) +
                         ",\"executable\":" + json_string(s.executable) + ",\"problems\":" +
                         std::to_string(s.problems.size()) + "}");
    if (s.has_event && kNotices.count(s.event.name) == 0 && s.event.name != "startup_config_done") error(sym, s);
    leaks(sym, s);
  }

  void error(qmtool::Symbolizer& sym, const Snapshot& s) {
    const auto& e = s.event;
    const auto& r = e.first;
    // A released range carries the release's stack and the allocation's as
    // its original; a live block its allocation's.
    const bool released = e.name == "double_dealloc";
    const auto at = at_event(sym, s);
    const auto allocated = stack(sym, s, released ? r.org_backtrace_id : (r.org_backtrace_id ? r.org_backtrace_id : r.backtrace_id));
    const auto released_by = released ? stack(sym, s, r.backtrace_id) : std::vector<Frame>{};
    if (is_suppressed(at) || is_suppressed(allocated)) {
      ++suppressed;
      return;
    }
    ++errors;
    const uint64_t addr = e.addr != 0 ? e.addr : r.addr;
    if (opt.json) {
      json_errors.push_back("{\"file\":" + json_string(s.path) + ",\"rank\":" + std::to_string(s.rank) +
                            ",\"event\":" + json_string(e.name) +
                            ",\"op\":" + json_string(e.op) + ",\"address\":" + std::to_string(addr) +
                            ",\"block\":{\"address\":" + std::to_string(r.addr) + ",\"length\":" +
                            std::to_string(r.len) + "},\"at\":" + json_frames(at) + ",\"allocated\":" +
                            json_frames(allocated) + ",\"released\":" + json_frames(released_by) + "}");
      return;
    }
    if (opt.folded) return;
    std::printf("error: %s in %s at 0x%llx%s\n", e.name.c_str(), e.op.c_str(), static_cast<unsigned long long>(addr),
                s.rank >= 0 ? (" [rank " + std::to_string(s.rank) + "]").c_str() : "");
    if (r.addr != 0)
      std::printf("  block 0x%llx, %llu bytes\n", static_cast<unsigned long long>(r.addr),
                  static_cast<unsigned long long>(r.len));
    print_stack("at", at);
    print_stack("released by", released_by);
    print_stack("allocated by", allocated);
  }

  // The blocks still allocated, grouped by the stack that allocated them:
  // the same stack in several files (the ranks of an MPI job) is one group.
  struct Merged {
    std::string kind;  // from the last reachability scan, or empty
    std::vector<Frame> frames;
    uint64_t blocks = 0, bytes = 0;
    std::vector<uint64_t> sizes;
    std::set<int> ranks;
  };
  std::map<std::string, Merged> merged;
  // Each process's blocks from the last of its files given (a snapshot at
  // an error and one at exit hold the same blocks twice).
  std::map<std::string, std::map<std::string, Merged>> by_process;

  void leaks(qmtool::Symbolizer& sym, const Snapshot& s) {
    auto& mine = by_process[s.host + ":" + std::to_string(s.pid) + (s.pid == 0 ? s.path : "")];
    mine.clear();
    std::map<std::pair<std::string, int>, std::vector<uint64_t>> by_stack;
    for (const auto& r : s.live) {
      std::string kind;
      if (s.has_reachability) {
        auto k = s.reachability.kinds.find(r.addr);
        kind = k != s.reachability.kinds.end() ? k->second : "reachable";
      }
      by_stack[{kind, r.backtrace_id}].push_back(r.len);
    }
    if (command.empty()) command = s.executable;
    for (auto& [kind_id, sizes] : by_stack) {
      const auto& [kind, id] = kind_id;
      auto fs = stack(sym, s, id);
      if (is_suppressed(fs)) continue;
      std::string key = kind + "@";
      // Frames are compared by what names them: function, file and line,
      // else module and offset, else (no image known) the address itself.
      for (const auto& f : fs)
        key += !f.function.empty() ? f.function + "|" + f.file + "|" + std::to_string(f.line) + ";"
               : !f.module.empty() ? f.module + "+" + std::to_string(f.offset) + ";"
                                   : std::to_string(f.pc) + ";";
      Merged& m = mine[key];
      if (m.frames.empty()) m.frames = fs;
      m.kind = kind;
      for (uint64_t len : sizes) {
        ++m.blocks;
        m.bytes += len;
        m.sizes.push_back(len);
      }
      if (s.rank >= 0) m.ranks.insert(s.rank);
    }
  }

  static std::string ranks_text(const std::set<int>& ranks) {
    if (ranks.empty()) return "";
    std::string t = ranks.size() == 1 ? " [rank " : " [ranks ";
    bool first = true;
    for (int r : ranks) {
      t += (first ? "" : ",") + std::to_string(r);
      first = false;
    }
    return t + "]";
  }

  void print_leaks() {
    for (const auto& [proc, groups] : by_process)
      for (const auto& [key, g] : groups) {
        Merged& m = merged[key];
        if (m.frames.empty()) m.frames = g.frames;
        m.kind = g.kind;
        m.blocks += g.blocks;
        m.bytes += g.bytes;
        m.sizes.insert(m.sizes.end(), g.sizes.begin(), g.sizes.end());
        m.ranks.insert(g.ranks.begin(), g.ranks.end());
      }
    std::vector<const Merged*> groups;
    for (const auto& [k, m] : merged) groups.push_back(&m);
    std::sort(groups.begin(), groups.end(), [](const Merged* a, const Merged* b) {
      if (kind_rank(a->kind) != kind_rank(b->kind)) return kind_rank(a->kind) < kind_rank(b->kind);
      return a->bytes != b->bytes ? a->bytes > b->bytes : a->blocks > b->blocks;
    });
    for (const Merged* m : groups) {
      leak_blocks += m->blocks;
      leak_bytes += m->bytes;
      if (!m->kind.empty()) {
        have_kinds = true;
        kind_blocks[kind_rank(m->kind)] += m->blocks;
        kind_bytes[kind_rank(m->kind)] += m->bytes;
      }
      all_leaks.push_back(Leak{m->frames, m->blocks, m->bytes, m->sizes});
    }
    if (opt.folded) {
      for (const Merged* m : groups) {
        std::string line;
        for (size_t i = m->frames.size(); i-- > 0;) {
          std::string name = m->frames[i].function.empty() ? where(m->frames[i]) : m->frames[i].function;
          std::replace(name.begin(), name.end(), ';', ':');
          line += (line.empty() ? "" : ";") + name;
        }
        std::printf("%s %llu\n", line.empty() ? "[unknown]" : line.c_str(), static_cast<unsigned long long>(m->bytes));
      }
      return;
    }
    if (opt.json) {
      for (const Merged* m : groups) {
        std::string ranks;
        for (int r : m->ranks) ranks += (ranks.empty() ? "" : ",") + std::to_string(r);
        json_leaks.push_back("{" + (m->kind.empty() ? std::string() : "\"kind\":\"" + m->kind + "\",") +
                             "\"blocks\":" + std::to_string(m->blocks) + ",\"bytes\":" + std::to_string(m->bytes) +
                             ",\"ranks\":[" + ranks + "],\"stack\":" + json_frames(m->frames) + "}");
      }
      return;
    }
    std::printf("blocks still allocated: %llu (%llu bytes) from %zu stacks\n", static_cast<unsigned long long>(leak_blocks),
                static_cast<unsigned long long>(leak_bytes), groups.size());
    if (have_kinds) {
      std::printf("by reachability:");
      for (int k = 0; k < 4; ++k)
        std::printf("%s %llu blocks (%llu bytes) %s", k == 0 ? "" : ",", static_cast<unsigned long long>(kind_blocks[k]),
                    static_cast<unsigned long long>(kind_bytes[k]), kKindWords[k]);
      std::printf("\n");
    }
    for (const Merged* m : groups) {
      std::printf("%llu bytes in %llu blocks %sallocated by%s:\n", static_cast<unsigned long long>(m->bytes),
                  static_cast<unsigned long long>(m->blocks),
                  m->kind.empty() ? "" : (std::string(kKindWords[kind_rank(m->kind)]) + ", ").c_str(),
                  ranks_text(m->ranks).c_str());
      for (size_t i = 0; i < m->frames.size(); ++i) std::printf("    #%-2zu %s\n", i, where(m->frames[i]).c_str());
      if (m->frames.empty()) std::printf("    (no stack recorded)\n");
    }
  }

  std::string kinds_json() const {
    if (!have_kinds) return "";
    std::string o = ",\"reachability\":{";
    for (int k = 0; k < 4; ++k)
      o += std::string(k ? "," : "") + "\"" + kKinds[k] + "\":{\"blocks\":" + std::to_string(kind_blocks[k]) +
           ",\"bytes\":" + std::to_string(kind_bytes[k]) + "}";
    return o + "}";
  }

  void finish() {
    print_leaks();
    if (opt.json) {
      auto join = [](const std::vector<std::string>& v) {
        std::string o;
        for (size_t i = 0; i < v.size(); ++i) o += (i ? "," : "") + v[i];
        return o;
      };
      std::printf("{\"files\":[%s],\"errors\":[%s],\"still_allocated\":[%s],\"summary\":{\"errors\":%d,"
                  "\"suppressed\":%d,\"blocks\":%llu,\"bytes\":%llu%s}}\n",
                  join(json_files).c_str(), join(json_errors).c_str(), join(json_leaks).c_str(), errors, suppressed,
                  static_cast<unsigned long long>(leak_blocks), static_cast<unsigned long long>(leak_bytes),
                  kinds_json().c_str());
    } else if (!opt.folded) {
      std::printf("summary: %d error%s, %llu blocks (%llu bytes) still allocated%s, %d suppressed, %zu file%s\n", errors,
                  errors == 1 ? "" : "s", static_cast<unsigned long long>(leak_blocks),
                  static_cast<unsigned long long>(leak_bytes),
                  have_kinds ? (" (" + std::to_string(kind_blocks[0]) + " definitely lost)").c_str() : "", suppressed,
                  opt.files.size(), opt.files.size() == 1 ? "" : "s");
    }
  }
};

std::string frame_name(const Frame& f) {
  std::string n = f.function.empty() ? where(f) : f.function;
  std::replace(n.begin(), n.end(), ';', ':');
  return n;
}

std::string xml(const std::string& s) {
  std::string o;
  for (char c : s) {
    if (c == '<') o += "&lt;";
    else if (c == '>') o += "&gt;";
    else if (c == '&') o += "&amp;";
    else if (c == '"') o += "&quot;";
    else o += c;
  }
  return o;
}

// A flame graph of the bytes still allocated: the program's first frame at
// the bottom, each frame as wide as the bytes allocated below it. One SVG
// file, nothing outside it; hovering a frame shows its name and bytes.
bool write_flamegraph(const std::string& path, const std::vector<Reporter::Leak>& leaks) {
  struct Node {
    std::map<std::string, Node> children;
    uint64_t bytes = 0;
  };
  Node root;
  for (const auto& l : leaks) {
    Node* n = &root;
    n->bytes += l.bytes;
    for (size_t i = l.frames.size(); i-- > 0;) {
      n = &n->children[frame_name(l.frames[i])];
      n->bytes += l.bytes;
    }
  }
  const double width = 1200, row = 16;
  int depth = 0;
  std::function<void(const Node&, int)> measure = [&](const Node& n, int d) {
    depth = std::max(depth, d);
    for (const auto& [k, c] : n.children) measure(c, d + 1);
  };
  measure(root, 0);
  const double height = (depth + 3) * row;
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  std::fprintf(f,
               "<?xml version=\"1.0\" standalone=\"no\"?>\n"
               "<svg version=\"1.1\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
               "xmlns=\"http://www.w3.org/2000/svg\" onload=\"qmheapInit(evt)\">\n"
               "<style>text { font-family: monospace; font-size: 11px; } rect:hover { stroke: black; }</style>\n"
               "<script type=\"text/ecmascript\"><![CDATA[\n"
               "function qmheapInit(evt) {\n"
               "  var svg = document.documentElement;\n"
               "  svg.setAttribute('data-frames', document.getElementsByTagName('rect').length - 1);\n"
               "  svg.setAttribute('data-ready', 'yes');\n"
               "}\n]]></script>\n"
               "<rect x=\"0\" y=\"0\" width=\"%.0f\" height=\"%.0f\" fill=\"#f8f8f0\"/>\n"
               "<text x=\"%.0f\" y=\"14\" text-anchor=\"middle\">Blocks still allocated: %llu bytes</text>\n",
               width, height, width, height, width, height, width / 2, static_cast<unsigned long long>(root.bytes));
  int frames = 0;
  std::function<void(const std::string&, const Node&, double, int)> draw = [&](const std::string& name,
                                                                               const Node& n, double x, int d) {
    const double w = root.bytes > 0 ? width * static_cast<double>(n.bytes) / static_cast<double>(root.bytes) : 0;
    if (d > 0 && w >= 0.1) {
      const double y = height - (d + 1) * row;
      const unsigned hue = static_cast<unsigned>(std::hash<std::string>{}(name) % 40);
      std::fprintf(f, "<g><title>%s (%llu bytes)</title><rect x=\"%.2f\" y=\"%.0f\" width=\"%.2f\" height=\"%.0f\" "
                      "fill=\"rgb(%u,%u,%u)\" rx=\"2\"/>",
                   xml(name).c_str(), static_cast<unsigned long long>(n.bytes), x, y, w, row - 1, 205 + hue, 80 + hue * 3,
                   40);
      if (w > 40) {
        std::string label = name.substr(0, static_cast<size_t>(w / 7));
        std::fprintf(f, "<text x=\"%.2f\" y=\"%.0f\">%s</text>", x + 3, y + row - 4, xml(label).c_str());
      }
      std::fprintf(f, "</g>\n");
      ++frames;
    }
    double cx = x;
    for (const auto& [k, c] : n.children) {
      draw(k, c, cx, d + 1);
      cx += root.bytes > 0 ? width * static_cast<double>(c.bytes) / static_cast<double>(root.bytes) : 0;
    }
  };
  draw("all", root, 0, 0);
  std::fprintf(f, "</svg>\n");
  return std::fclose(f) == 0 && frames >= 0;
}

// The blocks still allocated as a heaptrack data file (the interpreted,
// gzip-compressed form that heaptrack_print and heaptrack_gui read): every
// block an allocation never released, under its stack.
bool write_heaptrack(const std::string& path, const std::string& command, const std::vector<Reporter::Leak>& leaks) {
  gzFile z = gzopen(path.c_str(), "wb");
  if (z == nullptr) return false;
  std::map<std::string, size_t> strings;
  std::map<std::tuple<uint64_t, std::string, std::string, int>, size_t> ips;
  std::map<std::pair<size_t, size_t>, size_t> traces;
  std::map<std::pair<uint64_t, size_t>, size_t> infos;
  auto str = [&](const std::string& s) -> size_t {
    if (s.empty()) return 0;
    auto it = strings.find(s);
    if (it != strings.end()) return it->second;
    const size_t id = strings.size() + 1;
    strings[s] = id;
    gzprintf(z, "s %zx %s\n", s.size(), s.c_str());
    return id;
  };
  gzprintf(z, "v 10400 3\nX %s\nI 1000 0\n", command.empty() ? "qmheap" : command.c_str());
  for (const auto& l : leaks) {
    size_t parent = 0;
    for (size_t i = l.frames.size(); i-- > 0;) {
      const Frame& f = l.frames[i];
      const auto key = std::make_tuple(f.pc, f.function, f.file, f.line);
      size_t ip;
      auto it = ips.find(key);
      if (it != ips.end()) {
        ip = it->second;
      } else {
        const size_t module = str(f.module.empty() ? "unknown" : f.module);
        const size_t fn = str(f.function), file = str(f.file);
        ip = ips.size() + 1;
        ips[key] = ip;
        if (fn != 0)
          gzprintf(z, "i %llx %zx %zx %zx %x\n", static_cast<unsigned long long>(f.pc), module, fn, file, f.line);
        else
          gzprintf(z, "i %llx %zx\n", static_cast<unsigned long long>(f.pc), module);
      }
      auto t = traces.find({ip, parent});
      if (t == traces.end()) {
        const size_t id = traces.size() + 1;
        traces[{ip, parent}] = id;
        gzprintf(z, "t %zx %zx\n", ip, parent);
        parent = id;
      } else {
        parent = t->second;
      }
    }
    for (uint64_t size : l.sizes) {
      auto key = std::make_pair(size, parent);
      auto it = infos.find(key);
      size_t info;
      if (it == infos.end()) {
        info = infos.size();
        infos[key] = info;
        gzprintf(z, "a %llx %zx\n", static_cast<unsigned long long>(size), parent);
      } else {
        info = it->second;
      }
      gzprintf(z, "+ %zx\n", info);
    }
  }
  gzprintf(z, "c 1\n");
  return gzclose(z) == Z_OK;
}

void report_usage(FILE* f) {
  std::fprintf(f,
               "usage: qmheap report [--json | --folded] [--flamegraph FILE] [--heaptrack FILE.gz]\n"
               "                     [--suppressions FILE] SNAPSHOT...\n"
               "Prints the errors and the blocks still allocated that snapshot files hold, every frame named.\n"
               "  --json               everything as one JSON object\n"
               "  --folded             the blocks still allocated as collapsed stacks (flame-graph input)\n"
               "  --flamegraph FILE    and as a flame graph, an SVG file a browser opens\n"
               "  --heaptrack FILE.gz  and as a heaptrack data file (heaptrack_print, heaptrack_gui)\n"
               "  --suppressions FILE  hide errors and blocks whose stack has a function containing a line of FILE\n"
               "Exit status: 0 no error, 1 errors found, 2 a file could not be read at all.\n");
}

}  // namespace

// A lightweight core file holds the heap's tables, not a snapshot: the root
// block's reader turns it into one first.
std::string inspect_tool() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  std::string dir = n > 0 ? std::string(buf, static_cast<size_t>(n)) : ".";
  dir = dir.substr(0, dir.rfind('/'));
  for (const std::string& p : {dir + "/qmheap-inspect", std::string(QMHEAP_SOURCE_DIR "/tools/inspect/qmheap-inspect")})
    if (access(p.c_str(), X_OK) == 0) return p;
  return "";
}

bool is_core(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char magic[4] = {};
  in.read(magic, 4);
  return in.gcount() == 4 && std::memcmp(magic, "\x7f" "ELF", 4) == 0;
}

// The snapshot of a core in a temporary file (removed by the caller); empty
// when it could not be made, with the reason said.
std::string snapshot_of_core(const std::string& core) {
  const std::string tool = inspect_tool();
  if (tool.empty()) {
    std::fprintf(stderr, "qmheap report: %s: a core file, but qmheap-inspect is not installed to read it\n", core.c_str());
    return "";
  }
  char tmpl[] = "/tmp/qmheap-core-XXXXXX";
  const int fd = mkstemp(tmpl);
  if (fd < 0) return "";
  close(fd);
  const pid_t pid = fork();
  if (pid == 0) {
    execl(tool.c_str(), tool.c_str(), "--core", core.c_str(), "--snapshot", tmpl, static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "qmheap report: %s: the core file could not be read\n", core.c_str());
    unlink(tmpl);
    return "";
  }
  return tmpl;
}

// On a terminal, a long file's reading shows how far it has got.
bool progress_shown = false;
void show_progress(const std::string& path, size_t lines) {
  progress_shown = true;
  std::fprintf(stderr, "\rqmheap report: %s: %zu lines read", path.c_str(), lines);
  std::fflush(stderr);
}

int report_main(int argc, char** argv) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--json") {
      opt.json = true;
    } else if (a == "--folded") {
      opt.folded = true;
    } else if ((a == "--flamegraph" || a == "--heaptrack") && i + 1 < argc) {
      (a == "--flamegraph" ? opt.flamegraph : opt.heaptrack) = argv[++i];
    } else if (a == "--suppressions" && i + 1 < argc) {
      std::ifstream in(argv[++i]);
      if (!in) {
        std::fprintf(stderr, "qmheap report: cannot read suppressions file %s\n", argv[i]);
        return 2;
      }
      for (std::string l; std::getline(in, l);)
        if (!l.empty() && l[0] != '#') opt.suppressions.push_back(l);
    } else if (a == "-h" || a == "--help") {
      report_usage(stdout);
      return 0;
    } else if (a.rfind("--", 0) == 0) {
      std::fprintf(stderr, "qmheap report: unknown option '%s'\n", a.c_str());
      report_usage(stderr);
      return 2;
    } else {
      opt.files.push_back(a);
    }
  }
  if (opt.files.empty()) {
    report_usage(stderr);
    return 2;
  }
  Reporter rep(opt);
  bool unreadable = false;
  for (const auto& path : opt.files) {
    const bool tty = isatty(2);
    std::string from = path;
    if (is_core(path)) {
      from = snapshot_of_core(path);
      if (from.empty()) {
        unreadable = true;
        continue;
      }
    }
    Snapshot s = qmtool::read_snapshot(from, tty ? show_progress : nullptr);
    if (from != path) {
      unlink(from.c_str());
      s.path = path;
    }
    if (progress_shown) std::fprintf(stderr, "\n");
    progress_shown = false;
    if (s.live.empty() && s.released.empty() && s.stacks.empty() && !s.problems.empty() &&
        s.problems[0] == "cannot be opened") {
      std::fprintf(stderr, "qmheap report: %s: cannot be opened\n", path.c_str());
      unreadable = true;
      continue;
    }
    for (const auto& p : s.problems)
      if (opt.json || opt.folded) std::fprintf(stderr, "qmheap report: %s %s\n", path.c_str(), p.c_str());
    rep.file(s);
  }
  rep.finish();
  if (!opt.flamegraph.empty() && !write_flamegraph(opt.flamegraph, rep.all_leaks)) {
    std::fprintf(stderr, "qmheap report: cannot write %s\n", opt.flamegraph.c_str());
    return 2;
  }
  if (!opt.heaptrack.empty() && !write_heaptrack(opt.heaptrack, rep.command, rep.all_leaks)) {
    std::fprintf(stderr, "qmheap report: cannot write %s\n", opt.heaptrack.c_str());
    return 2;
  }
  return unreadable ? 2 : rep.errors > 0 ? 1 : 0;
}
