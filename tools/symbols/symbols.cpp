#include "symbols/symbols.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

namespace qmtool {

std::string demangle(const std::string& name) {
  if (name.rfind("_Z", 0) != 0) return name;
  int status = 0;
  char* d = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  if (d == nullptr) return name;
  std::string out = d;
  std::free(d);
  return out;
}

namespace {

char* debuginfo_path = nullptr;
const Dwfl_Callbacks kCallbacks = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                   dwfl_offline_section_address, &debuginfo_path};

std::string die_name(Dwarf_Die* die) {
  Dwarf_Attribute a;
  const char* n = nullptr;
  if (dwarf_attr_integrate(die, DW_AT_linkage_name, &a) != nullptr ||
      dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &a) != nullptr)
    n = dwarf_formstring(&a);
  if (n == nullptr) n = dwarf_diename(die);
  if (n == nullptr && dwarf_attr_integrate(die, DW_AT_name, &a) != nullptr) n = dwarf_formstring(&a);
  return n != nullptr ? demangle(n) : std::string();
}

}  // namespace

struct Symbolizer::Impl {
  Dwfl* dwfl = nullptr;
  std::map<uint64_t, std::string> missing;  // images whose files are gone, by load address
  std::map<uint64_t, std::vector<Frame>> cache;
};

Symbolizer::Symbolizer(const std::vector<Image>& images, const std::string& executable) : impl_(new Impl) {
  impl_->dwfl = dwfl_begin(&kCallbacks);
  if (impl_->dwfl == nullptr) return;
  dwfl_report_begin(impl_->dwfl);
  for (const auto& im : images) {
    const std::string path = im.name.empty() ? executable : im.name;
    if (path.empty() || access(path.c_str(), R_OK) != 0) {  // the vdso, a file gone since
      if (!path.empty() && im.base != 0) impl_->missing[im.base] = path;
      continue;
    }
    dwfl_report_elf(impl_->dwfl, path.c_str(), path.c_str(), -1, im.base, false);
  }
  dwfl_report_end(impl_->dwfl, nullptr, nullptr);
}

Symbolizer::~Symbolizer() {
  if (impl_->dwfl != nullptr) dwfl_end(impl_->dwfl);
}

std::vector<Frame> Symbolizer::frames(uint64_t pc) {
  auto hit = impl_->cache.find(pc);
  if (hit != impl_->cache.end()) return hit->second;
  std::vector<Frame> out;
  Frame f;
  f.pc = pc;
  // A return address: the call is the instruction before it.
  const Dwarf_Addr addr = pc > 0 ? pc - 1 : pc;
  Dwfl_Module* mod = impl_->dwfl != nullptr ? dwfl_addrmodule(impl_->dwfl, addr) : nullptr;
  if (mod == nullptr) {
    // An image whose file is gone: its name and the offset from where it was.
    auto it = impl_->missing.upper_bound(pc);
    if (it != impl_->missing.begin()) {
      --it;
      f.module = it->second;
      f.offset = pc - it->first;
    }
    out.push_back(f);
    return impl_->cache[pc] = out;
  }
  Dwarf_Addr start = 0;
  const char* mname = dwfl_module_info(mod, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
  f.module = mname != nullptr ? mname : "";
  f.offset = pc - start;
  GElf_Off off = 0;
  GElf_Sym sym;
  if (const char* n = dwfl_module_addrinfo(mod, addr, &off, &sym, nullptr, nullptr, nullptr)) f.function = demangle(n);
  if (Dwfl_Line* line = dwfl_module_getsrc(mod, addr)) {
    int lineno = 0;
    if (const char* file = dwfl_lineinfo(line, nullptr, &lineno, nullptr, nullptr, nullptr)) {
      f.file = file;
      f.line = lineno;
    }
  }
  // Calls inlined at this address: the innermost function and its line
  // first, then each caller it was inlined into, at the call's line.
  Dwarf_Addr bias = 0;
  Dwarf_Die* cu = dwfl_module_addrdie(mod, addr, &bias);
  Dwarf_Die* scopes = nullptr;
  const int n = cu != nullptr ? dwarf_getscopes(cu, addr - bias, &scopes) : 0;
  std::vector<int> fns;
  for (int i = 0; i < n; ++i) {
    const int tag = dwarf_tag(&scopes[i]);
    if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine) fns.push_back(i);
  }
  if (fns.size() > 1) {
    Dwarf_Files* files = nullptr;
    dwarf_getsrcfiles(cu, &files, nullptr);
    Frame cur = f;
    for (size_t k = 0; k + 1 < fns.size(); ++k) {
      Dwarf_Die* inl = &scopes[fns[k]];
      cur.function = die_name(inl);
      cur.inlined = true;
      out.push_back(cur);
      // The caller, at the inlined call's site.
      Dwarf_Attribute a;
      Dwarf_Word file_idx = 0, line = 0;
      if (dwarf_formudata(dwarf_attr(inl, DW_AT_call_file, &a), &file_idx) == 0 && files != nullptr) {
        const char* name = dwarf_filesrc(files, file_idx, nullptr, nullptr);
        cur.file = name != nullptr ? name : "";
      }
      if (dwarf_formudata(dwarf_attr(inl, DW_AT_call_line, &a), &line) == 0) cur.line = static_cast<int>(line);
    }
    cur.function = f.function.empty() ? die_name(&scopes[fns.back()]) : f.function;
    cur.inlined = false;
    out.push_back(cur);
  } else {
    out.push_back(f);
  }
  std::free(scopes);
  return impl_->cache[pc] = out;
}

}  // namespace qmtool
