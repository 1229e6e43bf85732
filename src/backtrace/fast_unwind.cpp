// The step cache and the walk (see fast_unwind.h). Built with frame
// pointers, so that the walk can find its caller's registers from its own
// frame.
//
// A rule is derived from the object's .eh_frame_hdr search table (found with
// the dynamic linker's _dl_find_object, which takes no lock) and its CIE and
// FDE: the call-frame program runs up to the return address minus one, as
// the unwinder does, tracking only the stack pointer, the frame pointer and
// the return address. Readers of the cache take no lock: a sequence counter
// tells them when an entry may have changed under them, and they then derive
// the rule themselves. Writers never wait either: a busy cache is not filled.
#include "backtrace/fast_unwind.h"

#include <dlfcn.h>
#include <stddef.h>

#include "backtrace/fde_cache.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "config/runtime_config.h"
#include "core/binding.h"
#include "threads/thread_utils.h"

namespace {

#if defined(__x86_64__)
constexpr unsigned kRegSP = 7, kRegBP = 6, kRegRA = 16;
#elif defined(__i386__)
constexpr unsigned kRegSP = 4, kRegBP = 5, kRegRA = 8;
#else
#error "fast unwinding is written for x86"
#endif

enum Kind : uint8_t { kEmpty = 0, kStep = 1, kEnd = 2, kFallback = 3 };
enum BpHow : uint8_t { kBpSame = 0, kBpAtCfa = 1, kBpAtReg = 2 };

// How to go from a frame (pc, sp, bp) to its caller. Fields are words so
// that readers can load them one by one without tearing.
struct Rule {
  uint32_t kind;       // Kind
  uint32_t cfa_from;   // 0: sp, 1: bp
  uint32_t cfa_deref;  // the CFA is the word at sp/bp + cfa_off
  uint32_t bp_how;     // BpHow
  uint32_t bp_from;    // kBpAtReg: 0 sp, 1 bp
  int32_t cfa_off;
  int32_t ra_off;  // return address at CFA + ra_off
  int32_t bp_off;
};

struct alignas(64) Entry {
  uintptr_t pc;
  Rule rule;
};

constexpr unsigned kEntriesLog2 = 13;
constexpr unsigned kEntries = 1u << kEntriesLog2;

constinit Entry* table = nullptr;
constinit unsigned seq = 0;        // odd while a writer changes the table
constinit unsigned writer = 0;     // the writers' lock word, only ever tried
constinit unsigned generation = 0; // moves on at every unload
constinit int inhibited = 0;       // an unload is in progress: no fills
constinit int availability = -1;   // -1 not yet known
using find_object_fn = int (*)(void*, struct dl_find_object*);
constinit find_object_fn find_object = nullptr;
constinit qm_unwind_step_stats_t stats = {};

inline unsigned slot_of(uintptr_t pc) {
  if constexpr (sizeof(uintptr_t) == 8)
    return static_cast<unsigned>((static_cast<uint64_t>(pc) * 0x9E3779B97F4A7C15ull) >> (64 - kEntriesLog2));
  else
    return static_cast<unsigned>((static_cast<uint32_t>(pc) * 0x9E3779B1u) >> (32 - kEntriesLog2));
}

template <typename T>
inline T load(const T* p) {
  return __atomic_load_n(p, __ATOMIC_RELAXED);
}
template <typename T>
inline void store(T* p, T v) {
  __atomic_store_n(p, v, __ATOMIC_RELAXED);
}

bool lookup(uintptr_t pc, Rule* r) {
  Entry* t = __atomic_load_n(&table, __ATOMIC_ACQUIRE);
  if (t == nullptr) return false;
  unsigned s1 = __atomic_load_n(&seq, __ATOMIC_ACQUIRE);
  if (s1 & 1) return false;
  Entry* e = &t[slot_of(pc)];
  if (load(&e->pc) != pc) return false;
  r->kind = load(&e->rule.kind);
  r->cfa_from = load(&e->rule.cfa_from);
  r->cfa_deref = load(&e->rule.cfa_deref);
  r->bp_how = load(&e->rule.bp_how);
  r->bp_from = load(&e->rule.bp_from);
  r->cfa_off = load(&e->rule.cfa_off);
  r->ra_off = load(&e->rule.ra_off);
  r->bp_off = load(&e->rule.bp_off);
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  return __atomic_load_n(&seq, __ATOMIC_RELAXED) == s1 && r->kind != kEmpty;
}

Entry* table_or_null() {
  Entry* t = __atomic_load_n(&table, __ATOMIC_ACQUIRE);
  if (t != nullptr) return t;
  Entry* fresh = static_cast<Entry*>(QM_page_alloc(kEntries * sizeof(Entry), mmt_backtrace_fde_cache));
  if (fresh == nullptr) return nullptr;
  Entry* expected = nullptr;
  if (!__atomic_compare_exchange_n(&table, &expected, fresh, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    QM_page_dealloc(fresh);
    return expected;
  }
  return fresh;
}

inline bool try_writer() { return __atomic_exchange_n(&writer, 1u, __ATOMIC_ACQUIRE) == 0; }
inline void release_writer() { __atomic_store_n(&writer, 0u, __ATOMIC_RELEASE); }
inline void begin_write() {
  store(&seq, load(&seq) + 1);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}
inline void end_write() { __atomic_store_n(&seq, load(&seq) + 1, __ATOMIC_RELEASE); }

void remember(uintptr_t pc, const Rule& r, unsigned gen_before) {
  Entry* t = table_or_null();
  if (t == nullptr || !try_writer()) return;
  if (load(&generation) == gen_before && !load(&inhibited)) {
    begin_write();
    Entry* e = &t[slot_of(pc)];
    store(&e->pc, pc);
    store(&e->rule.kind, r.kind);
    store(&e->rule.cfa_from, r.cfa_from);
    store(&e->rule.cfa_deref, r.cfa_deref);
    store(&e->rule.bp_how, r.bp_how);
    store(&e->rule.bp_from, r.bp_from);
    store(&e->rule.cfa_off, r.cfa_off);
    store(&e->rule.ra_off, r.ra_off);
    store(&e->rule.bp_off, r.bp_off);
    end_write();
  }
  release_writer();
}

// ---- reading the unwind tables -------------------------------------------

enum : uint8_t {
  DW_EH_PE_absptr = 0x00, DW_EH_PE_uleb128 = 0x01, DW_EH_PE_udata2 = 0x02, DW_EH_PE_udata4 = 0x03,
  DW_EH_PE_udata8 = 0x04, DW_EH_PE_sleb128 = 0x09, DW_EH_PE_sdata2 = 0x0a, DW_EH_PE_sdata4 = 0x0b,
  DW_EH_PE_sdata8 = 0x0c, DW_EH_PE_pcrel = 0x10, DW_EH_PE_datarel = 0x30, DW_EH_PE_indirect = 0x80,
  DW_EH_PE_omit = 0xff
};

struct Reader {
  const uint8_t* p;
  const uint8_t* end;
  bool ok = true;

  bool has(size_t n) {
    if (static_cast<size_t>(end - p) < n) ok = false;
    return ok;
  }
  uint8_t u8() { return has(1) ? *p++ : 0; }
  template <typename T>
  T fixed() {
    T v = 0;
    if (!has(sizeof(T))) return 0;
    __builtin_memcpy(&v, p, sizeof(T));
    p += sizeof(T);
    return v;
  }
  uint64_t uleb() {
    uint64_t v = 0;
    for (unsigned shift = 0; ok; shift += 7) {
      uint8_t b = u8();
      if (shift < 64) v |= static_cast<uint64_t>(b & 0x7f) << shift;
      if (!(b & 0x80)) break;
    }
    return v;
  }
  int64_t sleb() {
    int64_t v = 0;
    unsigned shift = 0;
    uint8_t b = 0;
    do {
      b = u8();
      if (shift < 64) v |= static_cast<int64_t>(b & 0x7f) << shift;
      shift += 7;
    } while ((b & 0x80) && ok);
    if (shift < 64 && (b & 0x40)) v |= -(static_cast<int64_t>(1) << shift);
    return v;
  }
  // An encoded pointer; only the forms found on x86 are accepted.
  bool encoded(uint8_t enc, uintptr_t data_base, uintptr_t* out) {
    if (enc == DW_EH_PE_omit) return false;
    uintptr_t field = reinterpret_cast<uintptr_t>(p);
    uintptr_t v;
    switch (enc & 0x0f) {
      case DW_EH_PE_absptr: v = fixed<uintptr_t>(); break;
      case DW_EH_PE_uleb128: v = static_cast<uintptr_t>(uleb()); break;
      case DW_EH_PE_udata2: v = fixed<uint16_t>(); break;
      case DW_EH_PE_udata4: v = fixed<uint32_t>(); break;
      case DW_EH_PE_udata8: v = static_cast<uintptr_t>(fixed<uint64_t>()); break;
      case DW_EH_PE_sleb128: v = static_cast<uintptr_t>(sleb()); break;
      case DW_EH_PE_sdata2: v = static_cast<uintptr_t>(static_cast<intptr_t>(fixed<int16_t>())); break;
      case DW_EH_PE_sdata4: v = static_cast<uintptr_t>(static_cast<intptr_t>(fixed<int32_t>())); break;
      case DW_EH_PE_sdata8: v = static_cast<uintptr_t>(fixed<int64_t>()); break;
      default: return ok = false;
    }
    switch (enc & 0x70) {
      case 0: break;
      case DW_EH_PE_pcrel: v += field; break;
      case DW_EH_PE_datarel: v += data_base; break;
      default: return ok = false;
    }
    if (enc & DW_EH_PE_indirect) v = *reinterpret_cast<const uintptr_t*>(v);
    *out = v;
    return ok;
  }
};

// A register's rule while the call-frame program runs.
struct RegRule {
  enum How : uint8_t { kSame, kAtCfa, kUndefined, kAtReg, kOther } how = kSame;
  uint8_t reg = 0;
  int64_t off = 0;
};

struct FrameState {
  unsigned cfa_reg = 0;
  int64_t cfa_off = 0;
  bool cfa_deref = false;
  bool cfa_other = false;  // an expression of another form
  RegRule bp, ra, sp;
};

RegRule* tracked(FrameState& s, uint64_t reg) {
  if (reg == kRegBP) return &s.bp;
  if (reg == kRegRA) return &s.ra;
  if (reg == kRegSP) return &s.sp;
  return nullptr;
}

// "breg(sp|bp) off" optionally followed by "deref": the forms compilers use
// for frames that realign the stack.
bool parse_breg(const uint8_t* p, uint64_t len, bool want_deref, uint8_t* reg, int64_t* off) {
  Reader r{p, p + len};
  uint8_t op = r.u8();
  if (op != 0x70 + kRegSP && op != 0x70 + kRegBP) return false;
  *reg = static_cast<uint8_t>(op - 0x70);
  *off = r.sleb();
  if (want_deref && r.u8() != 0x06) return false;
  return r.ok && r.p == r.end;
}

struct Cie {
  uint64_t code_align = 1;
  int64_t data_align = 1;
  uint8_t fde_enc = DW_EH_PE_absptr;
  bool has_z = false;
  const uint8_t* insns = nullptr;
  const uint8_t* insns_end = nullptr;
};

bool parse_cie(const uint8_t* cie, Cie* c) {
  Reader r{cie, cie + 16};
  uint64_t len = r.fixed<uint32_t>();
  if (len == 0xffffffffu || len == 0) return false;
  r.end = cie + 4 + len;
  if (r.fixed<uint32_t>() != 0) return false;  // not a CIE
  uint8_t version = r.u8();
  if (version != 1 && version != 3) return false;
  const char* aug = reinterpret_cast<const char*>(r.p);
  while (r.has(1) && *r.p != 0) r.p++;
  r.u8();
  if (aug[0] != 0 && aug[0] != 'z') return false;
  c->code_align = r.uleb();
  c->data_align = r.sleb();
  uint64_t ra = version == 1 ? r.u8() : r.uleb();
  if (ra != kRegRA) return false;
  if (aug[0] == 'z') {
    c->has_z = true;
    uint64_t aug_len = r.uleb();
    const uint8_t* aug_end = r.p + aug_len;
    for (const char* a = aug + 1; *a != 0 && r.ok; ++a) {
      switch (*a) {
        case 'R': c->fde_enc = r.u8(); break;
        case 'L': r.u8(); break;
        case 'P': {
          uintptr_t ignored;
          uint8_t enc = r.u8();
          if (!r.encoded(enc & ~DW_EH_PE_indirect, 0, &ignored)) return false;
          break;
        }
        default: return false;  // 'S' (signal frames) and anything unknown
      }
    }
    r.p = aug_end;
  }
  c->insns = r.p;
  c->insns_end = r.end;
  return r.ok && r.p <= r.end;
}

constexpr int kMaxRemembered = 8;

// Runs a call-frame program until the location passes target. False for an
// instruction the cache cannot represent.
bool run_program(const uint8_t* p, const uint8_t* end, const Cie& cie, uintptr_t* loc, uintptr_t target,
                 FrameState* s, const FrameState& initial, FrameState* stack, int* depth) {
  Reader r{p, end};
  auto advance = [&](uint64_t delta) {
    *loc += static_cast<uintptr_t>(delta * cie.code_align);
    return *loc <= target;
  };
  auto set_offset = [&](uint64_t reg, int64_t off) {
    if (RegRule* t = tracked(*s, reg)) *t = {RegRule::kAtCfa, 0, off};
  };
  auto set_how = [&](uint64_t reg, RegRule::How how) {
    if (RegRule* t = tracked(*s, reg)) *t = {how, 0, 0};
  };
  auto restore = [&](uint64_t reg) {
    if (RegRule* t = tracked(*s, reg)) *t = *tracked(const_cast<FrameState&>(initial), reg);
  };
  while (r.p < r.end && r.ok) {
    uint8_t op = r.u8();
    switch (op & 0xc0) {
      case 0x40:
        if (!advance(op & 0x3f)) return true;
        continue;
      case 0x80: set_offset(op & 0x3f, static_cast<int64_t>(r.uleb()) * cie.data_align); continue;
      case 0xc0: restore(op & 0x3f); continue;
      default: break;
    }
    switch (op) {
      case 0x00: break;
      case 0x01: {
        uintptr_t v;
        if (!r.encoded(cie.fde_enc, 0, &v)) return false;
        *loc = v;
        if (*loc > target) return true;
        break;
      }
      case 0x02: if (!advance(r.u8())) return true; break;
      case 0x03: if (!advance(r.fixed<uint16_t>())) return true; break;
      case 0x04: if (!advance(r.fixed<uint32_t>())) return true; break;
      case 0x05: { uint64_t reg = r.uleb(); set_offset(reg, static_cast<int64_t>(r.uleb()) * cie.data_align); break; }
      case 0x06: restore(r.uleb()); break;
      case 0x07: set_how(r.uleb(), RegRule::kUndefined); break;
      case 0x08: set_how(r.uleb(), RegRule::kSame); break;
      case 0x09: { uint64_t reg = r.uleb(); r.uleb(); set_how(reg, RegRule::kOther); break; }
      case 0x0a:
        if (*depth == kMaxRemembered) return false;
        stack[(*depth)++] = *s;
        break;
      case 0x0b:
        if (*depth == 0) return false;
        *s = stack[--(*depth)];
        break;
      case 0x0c:
        s->cfa_reg = static_cast<unsigned>(r.uleb());
        s->cfa_off = static_cast<int64_t>(r.uleb());
        s->cfa_deref = s->cfa_other = false;
        break;
      case 0x0d: s->cfa_reg = static_cast<unsigned>(r.uleb()); s->cfa_deref = s->cfa_other = false; break;
      case 0x0e: s->cfa_off = static_cast<int64_t>(r.uleb()); break;
      case 0x0f: {
        uint64_t len = r.uleb();
        if (!r.has(len)) return false;
        uint8_t reg;
        int64_t off;
        s->cfa_deref = parse_breg(r.p, len, true, &reg, &off);
        s->cfa_other = !s->cfa_deref;
        s->cfa_reg = reg;
        s->cfa_off = off;
        r.p += len;
        break;
      }
      case 0x10: {
        uint64_t reg = r.uleb(), len = r.uleb();
        if (!r.has(len)) return false;
        if (RegRule* t = tracked(*s, reg)) {
          uint8_t breg;
          int64_t off;
          *t = parse_breg(r.p, len, false, &breg, &off) ? RegRule{RegRule::kAtReg, breg, off}
                                                        : RegRule{RegRule::kOther, 0, 0};
        }
        r.p += len;
        break;
      }
      case 0x11: { uint64_t reg = r.uleb(); set_offset(reg, r.sleb() * cie.data_align); break; }
      case 0x12:
        s->cfa_reg = static_cast<unsigned>(r.uleb());
        s->cfa_off = r.sleb() * cie.data_align;
        s->cfa_deref = s->cfa_other = false;
        break;
      case 0x13: s->cfa_off = r.sleb() * cie.data_align; break;
      case 0x14: { uint64_t reg = r.uleb(); r.uleb(); set_how(reg, RegRule::kOther); break; }
      case 0x15: { uint64_t reg = r.uleb(); r.sleb(); set_how(reg, RegRule::kOther); break; }
      case 0x16: {
        uint64_t reg = r.uleb(), len = r.uleb();
        if (!r.has(len)) return false;
        set_how(reg, RegRule::kOther);
        r.p += len;
        break;
      }
      case 0x2e: r.uleb(); break;
      case 0x2f: { uint64_t reg = r.uleb(); set_offset(reg, -static_cast<int64_t>(r.uleb()) * cie.data_align); break; }
      default: return false;
    }
  }
  return r.ok;
}

bool fits32(int64_t v) { return v >= INT32_MIN && v <= INT32_MAX; }

Rule rule_from_state(const FrameState& s) {
  Rule r = {};
  r.kind = kFallback;
  if (s.ra.how == RegRule::kUndefined) {
    r.kind = kEnd;
    return r;
  }
  if (s.cfa_other || (s.cfa_reg != kRegSP && s.cfa_reg != kRegBP) || !fits32(s.cfa_off)) return r;
  if (s.ra.how != RegRule::kAtCfa || !fits32(s.ra.off) || s.sp.how != RegRule::kSame) return r;
  r.cfa_from = s.cfa_reg == kRegBP;
  r.cfa_deref = s.cfa_deref;
  r.cfa_off = static_cast<int32_t>(s.cfa_off);
  r.ra_off = static_cast<int32_t>(s.ra.off);
  switch (s.bp.how) {
    case RegRule::kSame: r.bp_how = kBpSame; break;
    case RegRule::kAtCfa:
      if (!fits32(s.bp.off)) return r;
      r.bp_how = kBpAtCfa;
      r.bp_off = static_cast<int32_t>(s.bp.off);
      break;
    case RegRule::kAtReg:
      if (!fits32(s.bp.off)) return r;
      r.bp_how = kBpAtReg;
      r.bp_from = s.bp.reg == kRegBP;
      r.bp_off = static_cast<int32_t>(s.bp.off);
      break;
    default: return r;
  }
  r.kind = kStep;
  return r;
}

// The FDE that covers pc, through the object's binary search table.
const uint8_t* find_fde(uintptr_t pc) {
  struct dl_find_object dlfo;
  if (find_object == nullptr || find_object(reinterpret_cast<void*>(pc), &dlfo) != 0) return nullptr;
  const uint8_t* hdr = static_cast<const uint8_t*>(dlfo.dlfo_eh_frame);
  if (hdr == nullptr || hdr[0] != 1) return nullptr;
  Reader r{hdr + 4, hdr + 4 + 2 * sizeof(uint64_t)};
  uintptr_t eh_frame, count;
  if (!r.encoded(hdr[1], reinterpret_cast<uintptr_t>(hdr), &eh_frame)) return nullptr;
  if (!r.encoded(hdr[2], reinterpret_cast<uintptr_t>(hdr), &count)) return nullptr;
  if (hdr[3] != (DW_EH_PE_datarel | DW_EH_PE_sdata4) || count == 0) return nullptr;
  const int32_t* tbl = reinterpret_cast<const int32_t*>(r.p);
  intptr_t rel = static_cast<intptr_t>(pc - reinterpret_cast<uintptr_t>(hdr));
  size_t lo = 0, hi = count;
  while (hi - lo > 1) {
    size_t mid = (lo + hi) / 2;
    if (tbl[2 * mid] <= rel) lo = mid;
    else hi = mid;
  }
  if (tbl[2 * lo] > rel) return nullptr;
  return hdr + tbl[2 * lo + 1];
}

Rule derive(uintptr_t ra) {
  Rule fallback = {};
  fallback.kind = kFallback;
  uintptr_t target = ra - 1;
  const uint8_t* fde = find_fde(target);
  if (fde == nullptr) return fallback;
  Reader r{fde, fde + 8};
  uint32_t len = r.fixed<uint32_t>();
  if (len == 0 || len == 0xffffffffu) return fallback;
  r.end = fde + 4 + len;
  const uint8_t* cie_field = r.p;
  uint32_t cie_off = r.fixed<uint32_t>();
  if (cie_off == 0) return fallback;
  Cie cie;
  if (!parse_cie(cie_field - cie_off, &cie)) return fallback;
  uintptr_t begin, range;
  if (!r.encoded(cie.fde_enc, 0, &begin) || !r.encoded(cie.fde_enc & 0x0f, 0, &range)) return fallback;
  if (target < begin || target - begin >= range) return fallback;
  if (cie.has_z) r.p += r.uleb();
  if (!r.ok || r.p > r.end) return fallback;

  FrameState s, initial, stack[kMaxRemembered];
  int depth = 0;
  uintptr_t loc = begin;
  if (!run_program(cie.insns, cie.insns_end, cie, &loc, target, &s, initial, stack, &depth)) return fallback;
  initial = s;
  if (!run_program(r.p, r.end, cie, &loc, target, &s, initial, stack, &depth)) return fallback;
  return rule_from_state(s);
}

Rule rule_for(uintptr_t pc) {
  Rule r;
  if (lookup(pc, &r)) return r;
  __atomic_fetch_add(&stats.misses, 1, __ATOMIC_RELAXED);
  unsigned gen = __atomic_load_n(&generation, __ATOMIC_ACQUIRE);
  r = derive(pc);
  remember(pc, r, gen);
  return r;
}

inline uintptr_t word_at(uintptr_t a) { return *reinterpret_cast<const uintptr_t*>(a); }

}  // namespace

extern "C" {

int QM_STACK_fast_unwind_available() {
  int a = __atomic_load_n(&availability, __ATOMIC_ACQUIRE);
  if (a >= 0) return a;
  find_object_fn f = reinterpret_cast<find_object_fn>(QM_IA_dlsym(RTLD_DEFAULT, "_dl_find_object"));
  __atomic_store_n(&find_object, f, __ATOMIC_RELEASE);
  a = f != nullptr && QM_getenv("QMHEAP_NO_FAST_UNWIND") == nullptr;
  __atomic_store_n(&availability, a, __ATOMIC_RELEASE);
  return a;
}

// The walk mirrors the C library's: the first address is the caller's
// return address, a frame whose return address is undefined is the last
// one, a frame that repeats its predecessor (same pc and CFA) ends the walk,
// and a null return address is not kept.
__attribute__((noinline)) int QM_STACK_fast_backtrace(void** pcs, int size) {
  return QM_STACK_fast_backtrace_above(__builtin_frame_address(0), pcs, size);
}

int QM_STACK_fast_backtrace_above(const void* frame, void** pcs, int size) {
  const uintptr_t* fp = static_cast<const uintptr_t*>(frame);
  uintptr_t bp = fp[0], pc = fp[1], sp = reinterpret_cast<uintptr_t>(fp + 2);
  if (size <= 0) return 0;
  pcs[0] = reinterpret_cast<void*>(pc);
  uintptr_t prev_cfa = 0;
  int cnt = 0;
  for (;;) {
    Rule r = rule_for(pc);
    if (r.kind == kFallback) {
      __atomic_fetch_add(&stats.fallbacks, 1, __ATOMIC_RELAXED);
      return -1;
    }
    uintptr_t cfa = 0;
    if (r.kind == kStep) {
      cfa = (r.cfa_from ? bp : sp) + static_cast<intptr_t>(r.cfa_off);
      if (r.cfa_deref) cfa = word_at(cfa);
    }
    pcs[cnt] = reinterpret_cast<void*>(pc);
    if (cnt > 0 && pcs[cnt - 1] == pcs[cnt] && cfa == prev_cfa) return cnt;
    prev_cfa = cfa;
    if (++cnt == size || r.kind == kEnd) return cnt;
    if (cfa <= sp) {
      __atomic_fetch_add(&stats.fallbacks, 1, __ATOMIC_RELAXED);
      return -1;
    }
    uintptr_t ra = word_at(cfa + static_cast<intptr_t>(r.ra_off));
    if (r.bp_how == kBpAtCfa) bp = word_at(cfa + static_cast<intptr_t>(r.bp_off));
    else if (r.bp_how == kBpAtReg) bp = word_at((r.bp_from ? bp : sp) + static_cast<intptr_t>(r.bp_off));
    sp = cfa;
    pc = ra;
    if (pc == 0) return cnt;
  }
}

// Under the FDE cache's mutex, around every unload: the cache is emptied,
// and rules derived before now are never stored.
void QM_STACK_unwind_steps_invalidate(int dlclose_in_progress) {
  while (!try_writer()) __builtin_ia32_pause();
  store(&inhibited, dlclose_in_progress);
  __atomic_fetch_add(&generation, 1u, __ATOMIC_ACQ_REL);
  if (Entry* t = __atomic_load_n(&table, __ATOMIC_ACQUIRE)) {
    begin_write();
    for (unsigned i = 0; i < kEntries; ++i) store(&t[i].pc, uintptr_t{0});
    end_write();
  }
  __atomic_fetch_add(&stats.invalidations, 1, __ATOMIC_RELAXED);
  release_writer();
}

// Fork: the writers' lock is held across fork, so that a child never
// inherits a half-written entry.
void QM_STACK_unwind_steps_atfork_prepare() {
  while (!try_writer()) __builtin_ia32_pause();
}
void QM_STACK_unwind_steps_atfork_post() { release_writer(); }

void QM_STACK_unwind_steps_get_stats(qm_unwind_step_stats_t* s) {
  s->misses = __atomic_load_n(&stats.misses, __ATOMIC_RELAXED);
  s->fallbacks = __atomic_load_n(&stats.fallbacks, __ATOMIC_RELAXED);
  s->invalidations = __atomic_load_n(&stats.invalidations, __ATOMIC_RELAXED);
}

}  // extern "C"
