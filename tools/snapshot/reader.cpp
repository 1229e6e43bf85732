#include "snapshot/reader.h"

#include <cerrno>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <functional>

namespace qmtool {

namespace {

bool number(const std::string& s, uint64_t* v, int base = 0) {
  if (s == "(nil)") {
    *v = 0;
    return true;
  }
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  *v = std::strtoull(s.c_str(), &end, base);
  return end != nullptr && *end == '\0' && errno == 0;
}

bool integer(const std::string& s, int* v) {
  uint64_t u;
  if (!s.empty() && s[0] == '-') {
    if (!number(s.substr(1), &u, 10)) return false;
    *v = -static_cast<int>(u);
    return true;
  }
  if (!number(s, &u, 10)) return false;
  *v = static_cast<int>(u);
  return true;
}

// Section ids of the file's subsections.
enum Sid {
  kGuardTable = 205, kProcess = 209, kAgent = 210, kCurrentStack = 211, kEvent = 212, kMaps = 213, kImages = 214,
  kLive = 301, kReleased = 302, kPcsIndex = 401,
  // The extension section's entry (just before the table of contents, comments
  // aside) and its subsections.
  kExtension = 900, kReachSummary = 901, kReachBlocks = 902
};

// The subsections' data lines as [first, first + count) of the file's lines
// (line numbers from 1), from the table of contents.
bool read_toc(const std::vector<std::string>& lines, std::map<int, std::pair<size_t, size_t>>* out) {
  if (lines.empty()) return false;
  auto entry = [&](size_t lineno, int* sid, size_t* count, size_t* first) {
    if (lineno == 0 || lineno > lines.size()) return false;
    auto f = split(lines[lineno - 1], '^');
    uint64_t c, l;
    return f.size() == 3 && integer(f[0], sid) && number(f[1], &c, 10) && number(f[2], &l, 10) &&
           (*count = c, *first = l, true);
  };
  int sid;
  size_t count, first;
  if (!entry(lines.size(), &sid, &count, &first) || sid != 99 || count != 4) return false;
  // The extension section's own entry, when there is one.
  for (size_t n = first; n-- > 1;) {
    if (!lines[n - 1].empty() && lines[n - 1][0] == '#') continue;
    int s;
    size_t c, l;
    if (entry(n, &s, &c, &l) && s == kExtension)
      for (size_t j = 0; j < c; ++j) {
        int ss;
        size_t cc, ll;
        if (entry(l + j, &ss, &cc, &ll)) (*out)[ss] = {ll, cc};
      }
    break;
  }
  for (size_t i = 0; i < 4; ++i) {
    int s;
    size_t c, l;
    if (!entry(first + i, &s, &c, &l)) return false;
    for (size_t j = 0; j < c; ++j) {
      int ss;
      size_t cc, ll;
      if (!entry(l + j, &ss, &cc, &ll)) return false;
      (*out)[ss] = {ll, cc};
    }
  }
  return true;
}

// Without a table of contents (a file cut short): the subsections by their
// comments, as far as they go.
void read_markers(const std::vector<std::string>& lines, std::map<int, std::pair<size_t, size_t>>* out) {
  const std::pair<const char*, int> kMarks[] = {
      {"allocation table", kLive},       {"deallocation table", kReleased}, {"pcs index", kPcsIndex},
      {"hia process properties", kProcess}, {"hia properties", kAgent},  {"current backtrace", kCurrentStack},
      {"hia event", kEvent},             {"guard table", kGuardTable},    {"memory mappings", kMaps},
      {"image list", kImages}};
  for (const auto& [name, sid] : kMarks) {
    const std::string start = std::string("# --- start of ") + name, end = std::string("# --- end of ") + name;
    for (size_t i = 0; i < lines.size(); ++i) {
      if (lines[i] != start) continue;
      size_t j = i + 1;
      while (j < lines.size() && lines[j] != end && lines[j].rfind("# ", 0) != 0) ++j;
      (*out)[sid] = {i + 2, j - i - 1};
      break;
    }
  }
}

}  // namespace

std::vector<std::string> split(const std::string& line, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t at = line.find(sep, start);
    if (at == std::string::npos) {
      out.push_back(line.substr(start));
      return out;
    }
    out.push_back(line.substr(start, at - start));
    start = at + 1;
  }
}

bool parse_record(const std::vector<std::string>& f, size_t at, Record* r) {
  if (f.size() < at + 14) return false;
  uint64_t bad_pre, bad_post;
  return number(f[at], &r->addr, 16) && number(f[at + 1], &r->len, 10) && integer(f[at + 2], &r->backtrace_id) &&
         number(f[at + 3], &r->thread_id, 10) && number(f[at + 5], &r->flags, 10) &&
         number(f[at + 6], &r->org_addr, 16) && number(f[at + 7], &r->org_len, 10) &&
         integer(f[at + 8], &r->org_backtrace_id) && integer(f[at + 9], &r->guard_id) &&
         integer(f[at + 10], &r->generation) && number(f[at + 12], &bad_pre, 10) &&
         number(f[at + 13], &bad_post, 10) && (r->pre_guard_bad = bad_pre != 0, r->post_guard_bad = bad_post != 0, true);
}

Snapshot read_snapshot(const std::string& path, void (*progress)(const std::string&, size_t)) {
  Snapshot s;
  s.path = path;
  const std::string base = path.substr(path.rfind('/') + 1);
  const size_t r = base.find("-rank");
  if (r != std::string::npos) {
    size_t e = r + 5;
    while (e < base.size() && isdigit(static_cast<unsigned char>(base[e]))) ++e;
    if (e > r + 5 && e < base.size() && base[e] == '-') s.rank = std::atoi(base.c_str() + r + 5);
  }
  std::ifstream in(path);
  if (!in) {
    s.problems.push_back("cannot be opened");
    return s;
  }
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) {
    lines.push_back(std::move(l));
    if (progress != nullptr && lines.size() % 1000000 == 0) progress(path, lines.size());
  }
  std::map<int, std::pair<size_t, size_t>> toc;
  if (!read_toc(lines, &toc)) {
    s.problems.push_back("has no table of contents (cut short?): read by its section comments");
    toc.clear();
    read_markers(lines, &toc);
  }
  // Each data line of a subsection, with its number for the message of a
  // line that does not parse.
  auto each = [&](int sid, const std::function<bool(const std::vector<std::string>&)>& f) {
    auto it = toc.find(sid);
    if (it == toc.end()) return;
    for (size_t i = 0; i < it->second.second; ++i) {
      const size_t n = it->second.first + i;
      if (n == 0 || n > lines.size()) {
        s.problems.push_back("section " + std::to_string(sid) + " runs past the end of the file");
        return;
      }
      if (!f(split(lines[n - 1], '^'))) {
        s.problems.push_back("line " + std::to_string(n) + " does not parse: " + lines[n - 1].substr(0, 80));
        return;
      }
    }
  };
  each(kLive, [&](const auto& f) {
    Record r;
    if (!parse_record(f, 0, &r)) return false;
    s.live.push_back(r);
    return true;
  });
  each(kReleased, [&](const auto& f) {
    Record r;
    if (!parse_record(f, 0, &r)) return false;
    s.released.push_back(r);
    return true;
  });
  each(kPcsIndex, [&](const auto& f) {
    int id;
    uint64_t n, first;
    if (f.size() != 3 || !integer(f[0], &id) || !number(f[1], &n, 10) || !number(f[2], &first, 10)) return false;
    auto& pcs = s.stacks[id];
    for (uint64_t k = 0; k < n; ++k) {
      if (first + k == 0 || first + k > lines.size()) return false;
      auto p = split(lines[first + k - 1], '^');
      uint64_t pc;
      if (p.size() != 2 || !number(p[1], &pc, 16)) return false;
      pcs.push_back(pc);
    }
    return true;
  });
  each(kCurrentStack, [&](const auto& f) {
    uint64_t pc;
    if (f.size() != 1 || !number(f[0], &pc, 16)) return false;
    s.current_stack.push_back(pc);
    return true;
  });
  each(kProcess, [&](const auto& f) {
    if (f.size() < 10) return false;
    integer(f[4], &s.pid);
    integer(f[6], &s.bits);
    s.host = f[7];
    s.executable = f[9];
    return true;
  });
  each(kAgent, [&](const auto& f) {
    if (f.size() < 4) return false;
    s.version = f[0];
    s.distribution = f[1];
    return true;
  });
  each(kImages, [&](const auto& f) {
    Image im;
    if (f.size() != 3 || !number(f[0], &im.base, 16) || !number(f[1], &im.dynamic, 16)) return false;
    im.name = f[2];
    s.images.push_back(im);
    return true;
  });
  each(kEvent, [&](const auto& f) {
    if (f.size() != 2 + 14 + 14 + 3) return false;
    s.event.name = f[0];
    s.event.op = f[1];
    if (!parse_record(f, 2, &s.event.first) || !parse_record(f, 16, &s.event.second)) return false;
    number(f[30], &s.event.addr, 16);
    number(f[31], &s.event.len, 10);
    number(f[32], &s.event.alignment, 10);
    s.has_event = true;
    return true;
  });
  each(kReachSummary, [&](const auto& f) {
    Reachability& r = s.reachability;
    if (f.size() != 13 || !integer(f[0], &r.sequence)) return false;
    for (int k = 0; k < 4; ++k)
      if (!number(f[1 + 2 * k], &r.blocks[k], 10) || !number(f[2 + 2 * k], &r.bytes[k], 10)) return false;
    uint64_t us;
    if (!integer(f[9], &r.threads_stopped) || !integer(f[10], &r.threads_not_stopped) || !number(f[11], &us, 10))
      return false;
    r.microseconds = static_cast<long>(us);
    if (f[12] == "1")
      s.has_reachability = true;
    else
      s.problems.push_back("holds a reachability scan made before the heap changed: its kinds are not used");
    return true;
  });
  each(kReachBlocks, [&](const auto& f) {
    uint64_t addr;
    if (f.size() != 5 || !number(f[0], &addr, 16)) return false;
    if (s.has_reachability) s.reachability.kinds[addr] = f[2];
    return true;
  });
  return s;
}

}  // namespace qmtool
