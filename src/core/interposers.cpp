// The exported heap functions and their interposers: the agent's outer skin.
//
// Kept in a translation unit of its own so that the rest of the agent can be
// linked into an ordinary test program without replacing its heap.
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <malloc.h>
#include <stdlib.h>

#include "backtrace/backtrace_heap.h"
#include "base/export.h"
#include "base/page.h"
#include "core/binding.h"
#include "core/bodies.h"
#include "core/entry.h"
#include "core/owners.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "redzone/rz_allocator.h"
#include "threads/reentrancy.h"

extern "C" {
QM_EXPORT void* QM_HEAP_malloc_interposer(size_t len);
QM_EXPORT void QM_HEAP_free_interposer(void* p);
QM_EXPORT void* QM_HEAP_realloc_interposer(void* old_addr, size_t len);
QM_EXPORT void* QM_HEAP_calloc_interposer(size_t nelems, size_t sizeof_elem);
QM_EXPORT void* QM_HEAP_memalign_interposer(size_t alignment, size_t len);
QM_EXPORT int QM_HEAP_posix_memalign_interposer(void** memptr, size_t alignment, size_t size);
QM_EXPORT void* QM_HEAP_valloc_interposer(size_t len);
}

namespace {

// Frames between an exported function and the capture: the exported
// function, enter (never inlined: it uses setjmp), the operation body, the
// capture's two. The op functions below melt into their callers and the
// body lambdas into enter, so that the count does not depend on the
// compiler's inlining choices.
#define QM_ALWAYS_INLINE __attribute__((always_inline))

// A heap call that arrives before the load hook (from another library's
// constructor, say) initialises the agent itself.
inline void check_interposers_initialized(const char* /*op*/) {
  if (QM_UNLIKELY(!malloc_interposers_initialized)) do_initialization();
}

// The family of a call: the C functions, or one of the C++ forms (with the
// length a sized delete names and the alignment an aligned form names).
struct Family {
  int kind = 0;
  size_t sized_len = SIZE_MAX;
  size_t alignment = 0;
};

// The entry protocol shared by all interposers. body runs the operation
// with bookkeeping; direct serves a nested call straight from the allocator.
template <typename Body, typename Direct>
__attribute__((noinline)) auto enter(QM_HEAP_heap_op_e op, const char* name, Body body, Direct direct,
                                     Family family = {}) {
  check_interposers_initialized(name);
  owner_t* owner = qm::as_owner(QM_HEAP_c_owner_get_instance());
  reentry_info_t local;
  op_body_arg_t a;
  a.op = op;
  a.owner = owner;
  a.kind = family.kind;
  a.sized_len = family.sized_len;
  a.alignment = family.alignment;
  a.rp = &local;
  // Cancellation off before the thread counts itself in: an asynchronous
  // cancellation can then strike only where the caller's own state is
  // restored around the allocator, with no agent lock held and the count
  // and its record consistent (a thread cancelled between the two would
  // take its later calls, at its exit, for nested ones).
  qm::setup_caller_state(&a.caller_info);
  a.num_times_entered = QM_enter_ia(reinterpret_cast<void**>(&a.rp));
  qm::setup_reentry_info(&a, &local);
  if (QM_LIKELY(a.num_times_entered == 1)) {
    c_owner_t* c = reinterpret_cast<c_owner_t*>(owner);
    decltype(body(&a)) r;
    c->funcs->start_op(c);
    if (local.want_cleanup_handler) {
      // Leaves the gate and the agent and restores the cancellation state
      // also when a cancellation unwinds through the body.
      QM_thread_cleanup_push(interposer_finish_cleanup_handler, &a);
      r = body(&a);
      QM_thread_cleanup_pop(1);
    } else {
      r = body(&a);
      qm::finish_outermost(&a);
    }
    return r;
  }
  if (a.rp->allow_reentry) {
    auto r = body(&a);
    QM_leave_ia();
    qm::restore_caller_cancellation(&a.caller_info);
    return r;
  }
  // A call from inside the agent (or from the real allocator): no bookkeeping.
  allocator_t* al = qm::owner_allocator(owner);
  QM_leave_ia();
  qm::restore_caller_cancellation(&a.caller_info);
  return direct(al, owner);
}

struct Void {};

// Names the exported function's frame to the operation body, whose capture
// then starts at the function's caller (this file is built with frame
// pointers); a handler's operation in between puts back the one it found.
struct CallerFrame {
  const void* saved;
  QM_ALWAYS_INLINE explicit CallerFrame(const void* frame) : saved(QM_HEAP_op_caller_frame) {
    QM_HEAP_op_caller_frame = frame;
  }
  QM_ALWAYS_INLINE ~CallerFrame() { QM_HEAP_op_caller_frame = saved; }
};
#define QM_CALLER_FRAME CallerFrame caller_frame(__builtin_frame_address(0))

// The exported function stays on the stack below the interposer (no tail
// call): a captured backtrace then has the same number of agent frames
// whichever function was called, and the trim drops exactly those.
template <typename T>
inline T keep_frame(T r) {
  __asm__ volatile("" ::: "memory");
  return r;
}

// new and new[] are malloc (or, aligned, memalign) of their own family, and
// delete and delete[] free of theirs: the free body checks the family.
QM_ALWAYS_INLINE inline void* malloc_op(size_t len, QM_HEAP_heap_op_e op = qm_heap_op_malloc, Family f = {}) {
  QM_CALLER_FRAME;
  return enter(op, "malloc", [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return malloc_body(a, len); },
               [&](allocator_t* al, owner_t* o) { return al->funcs->malloc(al, o, len); }, f);
}

QM_ALWAYS_INLINE inline void free_op(void* p, QM_HEAP_heap_op_e op = qm_heap_op_free, Family f = {}) {
  QM_CALLER_FRAME;
  enter(op, "free",
        [&](op_body_arg_t* a) QM_ALWAYS_INLINE {
          free_body(a, p);
          return Void{};
        },
        [&](allocator_t* al, owner_t* o) {
          al->funcs->free(al, o, p);
          return Void{};
        },
        f);
}

QM_ALWAYS_INLINE inline void* realloc_op(void* old_addr, size_t len) {
  QM_CALLER_FRAME;
  return enter(qm_heap_op_realloc, "realloc",
               [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return realloc_body(a, old_addr, len); },
               [&](allocator_t* al, owner_t* o) { return al->funcs->realloc(al, o, old_addr, len); });
}

QM_ALWAYS_INLINE inline void* calloc_op(size_t nelems, size_t sizeof_elem) {
  QM_CALLER_FRAME;
  return enter(qm_heap_op_calloc, "calloc",
               [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return calloc_body(a, nelems, sizeof_elem); },
               [&](allocator_t* al, owner_t* o) { return al->funcs->calloc(al, o, nelems, sizeof_elem); });
}

QM_ALWAYS_INLINE inline void* memalign_op(size_t alignment, size_t len, QM_HEAP_heap_op_e op = qm_heap_op_memalign,
                                          Family f = {}) {
  QM_CALLER_FRAME;
  return enter(op, "memalign", [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return memalign_body(a, alignment, len); },
               [&](allocator_t* al, owner_t* o) { return al->funcs->memalign(al, o, alignment, len); }, f);
}

QM_ALWAYS_INLINE inline int posix_memalign_op(void** memptr, size_t alignment, size_t size) {
  QM_CALLER_FRAME;
  return enter(qm_heap_op_posix_memalign, "posix_memalign",
               [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return posix_memalign_body(a, memptr, alignment, size); },
               [&](allocator_t* al, owner_t* o) {
                 return al->funcs->posix_memalign(al, o, memptr, alignment, size);
               });
}

QM_ALWAYS_INLINE inline void* valloc_op(size_t len) {
  QM_CALLER_FRAME;
  return enter(qm_heap_op_valloc, "valloc", [&](op_body_arg_t* a) QM_ALWAYS_INLINE { return valloc_body(a, len); },
               [&](allocator_t* al, owner_t* o) { return al->funcs->valloc(al, o, len); });
}

QM_ALWAYS_INLINE inline void* new_op(QM_HEAP_heap_op_e op, size_t len, Family f) {
  return f.alignment == 0 ? malloc_op(len, op, f) : memalign_op(f.alignment, len, op, f);
}

}  // namespace

extern "C" {

// The interposers, for callers that want the agent's bookkeeping without
// going through the exported names.
void* QM_HEAP_malloc_interposer(size_t len) { return keep_frame(malloc_op(len)); }
void QM_HEAP_free_interposer(void* p) {
  free_op(p);
  __asm__ volatile("" ::: "memory");
}
void* QM_HEAP_realloc_interposer(void* old_addr, size_t len) { return keep_frame(realloc_op(old_addr, len)); }
void* QM_HEAP_calloc_interposer(size_t nelems, size_t sizeof_elem) {
  return keep_frame(calloc_op(nelems, sizeof_elem));
}
void* QM_HEAP_memalign_interposer(size_t alignment, size_t len) { return keep_frame(memalign_op(alignment, len)); }
int QM_HEAP_posix_memalign_interposer(void** memptr, size_t alignment, size_t size) {
  return keep_frame(posix_memalign_op(memptr, alignment, size));
}
void* QM_HEAP_valloc_interposer(size_t len) { return keep_frame(valloc_op(len)); }

// The exported functions: bind on first use; a call made while binding is
// under way fails (null, EINVAL, or nothing for free).
QM_EXPORT void* malloc(size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_malloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("malloc", reinterpret_cast<void**>(&QM_HEAP_org_malloc)))
    return nullptr;
  return keep_frame(malloc_op(size));
}

QM_EXPORT void free(void* p) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_free == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("free", reinterpret_cast<void**>(&QM_HEAP_org_free)))
    return;
  free_op(p);
  __asm__ volatile("" ::: "memory");  // not a tail call: see keep_frame
}

QM_EXPORT void* realloc(void* p, size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_realloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("realloc", reinterpret_cast<void**>(&QM_HEAP_org_realloc)))
    return nullptr;
  return keep_frame(realloc_op(p, size));
}

QM_EXPORT void* calloc(size_t n, size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_calloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("calloc", reinterpret_cast<void**>(&QM_HEAP_org_calloc)))
    return nullptr;
  return keep_frame(calloc_op(n, size));
}

QM_EXPORT void* memalign(size_t alignment, size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_memalign == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("memalign", reinterpret_cast<void**>(&QM_HEAP_org_memalign)))
    return nullptr;
  return keep_frame(memalign_op(alignment, size));
}

QM_EXPORT int posix_memalign(void** memptr, size_t alignment, size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_posix_memalign == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found(
          "posix_memalign", reinterpret_cast<void**>(&QM_HEAP_org_posix_memalign)))
    return 22;  // EINVAL; *memptr untouched
  return keep_frame(posix_memalign_op(memptr, alignment, size));
}

QM_EXPORT void* valloc(size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_valloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("valloc", reinterpret_cast<void**>(&QM_HEAP_org_valloc)))
    return nullptr;
  return keep_frame(valloc_op(size));
}

// Extension: the usable size of a guarded block is its payload's length
// (the C library's answer would read the pre-guard as its chunk header);
// every other pointer gets the C library's.
QM_EXPORT size_t malloc_usable_size(void* p) noexcept {
  using usable_size_fn = size_t (*)(void*);
  static constinit usable_size_fn real = nullptr;
  if (p == nullptr) return 0;
  // Until a guarded or red-zone block has been made there is nothing to
  // look up. A red-zone address is never the C library's to read.
  const bool rz = qm::rz_owns_address(p);
  if (rz || __atomic_load_n(&QM_HEAP_guard_table.num_entries, __ATOMIC_RELAXED) != 0) {
    allocation_record_t rec;
    QM_HEAP_ht_alloc_read_lock();
    alloc_rec_id_t id = QM_HEAP_lookup_allocation_record(p, &rec, exact);
    QM_HEAP_ht_alloc_read_unlock();
    if (id != nullptr && (rec.guard_id != 0 || rec.allocator_id == am_id_rz_allocator)) return rec.len;
    if (rz) return 0;
  }
  usable_size_fn f = __atomic_load_n(&real, __ATOMIC_ACQUIRE);
  if (f == nullptr) {
    f = reinterpret_cast<usable_size_fn>(QM_IA_dlsym(RTLD_NEXT, "malloc_usable_size"));
    if (f == nullptr) return 0;
    __atomic_store_n(&real, f, __ATOMIC_RELEASE);
  }
  return f(p);
}

// --- beyond the seven: every other way into the C library's allocator -------------
// glibc serves these without passing through the seven exported functions,
// so each goes through the body of its nearest relative here.

QM_EXPORT void* aligned_alloc(size_t alignment, size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_memalign == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("memalign", reinterpret_cast<void**>(&QM_HEAP_org_memalign)))
    return nullptr;
  return keep_frame(memalign_op(alignment, size));
}

// A valloc of whole pages (one for a length of 0).
QM_EXPORT void* pvalloc(size_t size) noexcept {
  if (QM_UNLIKELY(QM_HEAP_org_valloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("valloc", reinterpret_cast<void**>(&QM_HEAP_org_valloc)))
    return nullptr;
  const size_t page = QM_getpagesize();
  if (size > SIZE_MAX - page) {
    errno = ENOMEM;
    return nullptr;
  }
  return keep_frame(valloc_op(size == 0 ? page : (size + page - 1) & ~(page - 1)));
}

QM_EXPORT void* reallocarray(void* p, size_t n, size_t size) noexcept {
  size_t len;
  if (__builtin_mul_overflow(n, size, &len)) {
    errno = ENOMEM;
    return nullptr;
  }
  if (QM_UNLIKELY(QM_HEAP_org_realloc == nullptr) &&
      !init_malloc_wrappers_and_assert_function_was_found("realloc", reinterpret_cast<void**>(&QM_HEAP_org_realloc)))
    return nullptr;
  return keep_frame(realloc_op(p, len));
}

// The C library's own names for the seven, which programs may call.
QM_EXPORT void* __libc_malloc(size_t size) noexcept { return keep_frame(malloc(size)); }
QM_EXPORT void __libc_free(void* p) noexcept {
  free(p);
  __asm__ volatile("" ::: "memory");
}
QM_EXPORT void cfree(void* p) noexcept {
  free(p);
  __asm__ volatile("" ::: "memory");
}
QM_EXPORT void* __libc_calloc(size_t n, size_t size) noexcept { return keep_frame(calloc(n, size)); }
QM_EXPORT void* __libc_realloc(void* p, size_t size) noexcept { return keep_frame(realloc(p, size)); }
QM_EXPORT void* __libc_memalign(size_t alignment, size_t size) noexcept {
  return keep_frame(memalign(alignment, size));
}
QM_EXPORT void* __libc_valloc(size_t size) noexcept { return keep_frame(valloc(size)); }
QM_EXPORT void* __libc_pvalloc(size_t size) noexcept { return keep_frame(pvalloc(size)); }

}  // extern "C"

// --- C++ ----------------------------------------------------------------------------------
// Defined under their mangled names, so that nothing of the C++ runtime is
// needed: std::size_t is unsigned long ("m") on x86-64 and unsigned int
// ("j") on i386; nothrow_t is only passed on, align_val_t is a size_t.
#if defined(__x86_64__)
#define QM_SZ "m"
#else
#define QM_SZ "j"
#endif
#define QM_NOTHROW "RKSt9nothrow_t"
#define QM_ALIGN "St11align_val_t"

namespace {

// A new that could not be served: the C++ runtime's own runs the program's
// new handler and throws std::bad_alloc (or, nothrow, returns null). What it
// returns came through malloc or aligned_alloc, and is marked as new's.
template <typename Fn, typename... Args>
void* new_failed(const char* name, int kind, Args... args) {
  Fn real = reinterpret_cast<Fn>(QM_IA_dlsym(RTLD_NEXT, name));
  if (real == nullptr) return nullptr;
  void* p = real(args...);
  if (p != nullptr) {
    QM_HEAP_ht_alloc_write_lock();
    alloc_rec_id_t id = QM_HEAP_lookup_allocation_record(p, nullptr, exact);
    if (id != nullptr) QM_HEAP_set_alloc_flags_by_id(id, kind);
    QM_HEAP_ht_alloc_write_unlock();
  }
  return p;
}

inline bool bound_for_cxx() {
  return QM_LIKELY(QM_HEAP_org_malloc != nullptr && QM_HEAP_org_free != nullptr) ||
         (init_malloc_wrappers_and_assert_function_was_found("malloc", reinterpret_cast<void**>(&QM_HEAP_org_malloc)) &&
          init_malloc_wrappers_and_assert_function_was_found("free", reinterpret_cast<void**>(&QM_HEAP_org_free)));
}

}  // namespace

// new, new[], each plain, nothrow, aligned, aligned nothrow.
#define QM_DEFINE_NEW(fn, mangled, op, kind)                                                      \
  extern "C" QM_EXPORT void* fn(size_t size) __asm__(mangled);                                   \
  void* fn(size_t size) {                                                                        \
    void* p = bound_for_cxx() ? keep_frame(new_op(op, size, Family{kind})) : nullptr;             \
    return p != nullptr ? p : new_failed<void* (*)(size_t)>(mangled, kind, size);                \
  }                                                                                              \
  extern "C" QM_EXPORT void* fn##_nothrow(size_t size, const void* nt) __asm__(mangled QM_NOTHROW); \
  void* fn##_nothrow(size_t size, const void* nt) {                                              \
    void* p = bound_for_cxx() ? keep_frame(new_op(op, size, Family{kind})) : nullptr;             \
    return p != nullptr ? p : new_failed<void* (*)(size_t, const void*)>(mangled QM_NOTHROW, kind, size, nt); \
  }                                                                                              \
  extern "C" QM_EXPORT void* fn##_aligned(size_t size, size_t al) __asm__(mangled QM_ALIGN);     \
  void* fn##_aligned(size_t size, size_t al) {                                                   \
    void* p = bound_for_cxx()                                                                    \
                  ? keep_frame(new_op(op, size, Family{kind | af_kind_aligned, SIZE_MAX, al}))   \
                  : nullptr;                                                                     \
    return p != nullptr ? p                                                                      \
                        : new_failed<void* (*)(size_t, size_t)>(mangled QM_ALIGN, kind | af_kind_aligned, size, al); \
  }                                                                                              \
  extern "C" QM_EXPORT void* fn##_aligned_nothrow(size_t size, size_t al, const void* nt)        \
      __asm__(mangled QM_ALIGN QM_NOTHROW);                                                      \
  void* fn##_aligned_nothrow(size_t size, size_t al, const void* nt) {                           \
    void* p = bound_for_cxx()                                                                    \
                  ? keep_frame(new_op(op, size, Family{kind | af_kind_aligned, SIZE_MAX, al}))   \
                  : nullptr;                                                                     \
    return p != nullptr ? p                                                                      \
                        : new_failed<void* (*)(size_t, size_t, const void*)>(                    \
                              mangled QM_ALIGN QM_NOTHROW, kind | af_kind_aligned, size, al, nt); \
  }

QM_DEFINE_NEW(qm_operator_new, "_Znw" QM_SZ, qm_heap_op_new, af_kind_new)
QM_DEFINE_NEW(qm_operator_new_array, "_Zna" QM_SZ, qm_heap_op_new_array, af_kind_new_array)

// delete, delete[], each plain, sized, nothrow, aligned, sized aligned,
// aligned nothrow.
#define QM_DELETE_BODY(op, family)                  \
  {                                                 \
    if (bound_for_cxx()) free_op(p, op, family);    \
    __asm__ volatile("" ::: "memory");              \
  }
#define QM_DEFINE_DELETE(fn, mangled, op, kind)                                                        \
  extern "C" QM_EXPORT void fn(void* p) __asm__(mangled);                                             \
  void fn(void* p) QM_DELETE_BODY(op, Family{kind})                                                   \
  extern "C" QM_EXPORT void fn##_sized(void* p, size_t size) __asm__(mangled QM_SZ);                  \
  void fn##_sized(void* p, size_t size) QM_DELETE_BODY(op, (Family{kind, size}))                      \
  extern "C" QM_EXPORT void fn##_nothrow(void* p, const void*) __asm__(mangled QM_NOTHROW);           \
  void fn##_nothrow(void* p, const void*) QM_DELETE_BODY(op, Family{kind})                            \
  extern "C" QM_EXPORT void fn##_aligned(void* p, size_t al) __asm__(mangled QM_ALIGN);               \
  void fn##_aligned(void* p, size_t al) QM_DELETE_BODY(op, (Family{kind | af_kind_aligned, SIZE_MAX, al})) \
  extern "C" QM_EXPORT void fn##_sized_aligned(void* p, size_t size, size_t al) __asm__(mangled QM_SZ QM_ALIGN); \
  void fn##_sized_aligned(void* p, size_t size, size_t al)                                            \
      QM_DELETE_BODY(op, (Family{kind | af_kind_aligned, size, al}))                                  \
  extern "C" QM_EXPORT void fn##_aligned_nothrow(void* p, size_t al, const void*)                     \
      __asm__(mangled QM_ALIGN QM_NOTHROW);                                                           \
  void fn##_aligned_nothrow(void* p, size_t al, const void*)                                          \
      QM_DELETE_BODY(op, (Family{kind | af_kind_aligned, SIZE_MAX, al}))

QM_DEFINE_DELETE(qm_operator_delete, "_ZdlPv", qm_heap_op_delete, af_kind_new)
QM_DEFINE_DELETE(qm_operator_delete_array, "_ZdaPv", qm_heap_op_delete_array, af_kind_new_array)
