#include "core/binding.h"

#include <dlfcn.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/format.h"
#include "events/output.h"

extern "C" {

constinit qm_malloc_fn QM_HEAP_org_malloc = nullptr;
constinit qm_free_fn QM_HEAP_org_free = nullptr;
constinit qm_realloc_fn QM_HEAP_org_realloc = nullptr;
constinit qm_calloc_fn QM_HEAP_org_calloc = nullptr;
constinit qm_malloc_fn QM_HEAP_org_valloc = nullptr;
constinit qm_memalign_fn QM_HEAP_org_memalign = nullptr;
constinit qm_posix_memalign_fn QM_HEAP_org_posix_memalign = nullptr;

// Bound strictly in this order: during binding malloc is usable before free.
constinit function_mapping_t QM_HEAP_malloc_target_mappings[] = {
    {"malloc", reinterpret_cast<void**>(&QM_HEAP_org_malloc)},
    {"free", reinterpret_cast<void**>(&QM_HEAP_org_free)},
    {"realloc", reinterpret_cast<void**>(&QM_HEAP_org_realloc)},
    {"calloc", reinterpret_cast<void**>(&QM_HEAP_org_calloc)},
    {"valloc", reinterpret_cast<void**>(&QM_HEAP_org_valloc)},
    {"memalign", reinterpret_cast<void**>(&QM_HEAP_org_memalign)},
    {"posix_memalign", reinterpret_cast<void**>(&QM_HEAP_org_posix_memalign)},
    {nullptr, nullptr},
};

constinit volatile int QM_HEAP_dump_allocation_table_on_exit = 0;

}  // extern "C"

namespace {

constinit int started_initializing_malloc_wrappers = 0;
constinit int finished_initializing_malloc_wrappers = 0;

constinit int have_entered_initializer = 0;
constinit int have_left_initializer = 0;
constinit int have_entered_finalizer = 0;
constinit int have_left_finalizer = 0;

// Pass-throughs of two glibc start-up internals. They are not exported, so
// nothing binds to them and their flags stay 0; the decisions built on the
// flags then reduce to "the initializer has started".
constinit int have_entered_dl_tls_setup = 0;
constinit int have_left_dl_tls_setup = 0;
constinit int have_entered_libc_malloc_pthread_startup = 0;
constinit int have_left_libc_malloc_pthread_startup = 0;
constinit int libc_malloc_pthread_startup_full_init_done = 0;
using dl_tls_setup_fn = void (*)();
using libc_malloc_pthread_startup_fn = void (*)(int);
constinit dl_tls_setup_fn dl_tls_setup_fp = nullptr;
constinit libc_malloc_pthread_startup_fn __libc_malloc_pthread_startup_fp = nullptr;

[[gnu::used]] void _dl_tls_setup() {
  have_entered_dl_tls_setup = 1;
  if (dl_tls_setup_fp == nullptr)
    dl_tls_setup_fp = reinterpret_cast<void (*)()>(QM_IA_dlsym(RTLD_NEXT, "_dl_tls_setup"));
  if (dl_tls_setup_fp == nullptr) {
    QM_s_printf(QM_stderr, "_dl_tls_setup: error finding interposed symbol\n");
    return;
  }
  dl_tls_setup_fp();
  have_left_dl_tls_setup = 1;
}

[[gnu::used]] void __libc_malloc_pthread_startup(int first_time) {
  have_entered_libc_malloc_pthread_startup = 1;
  if (__libc_malloc_pthread_startup_fp == nullptr)
    __libc_malloc_pthread_startup_fp =
        reinterpret_cast<void (*)(int)>(QM_IA_dlsym(RTLD_NEXT, "__libc_malloc_pthread_startup"));
  if (__libc_malloc_pthread_startup_fp == nullptr) {
    QM_s_printf(QM_stderr, "__libc_malloc_pthread_startup: error finding interposed symbol\n");
    return;
  }
  libc_malloc_pthread_startup_full_init_done = first_time == 0;
  __libc_malloc_pthread_startup_fp(first_time);
  have_left_libc_malloc_pthread_startup = 1;
}

}  // namespace

extern "C" {

int get_num_interposed(const function_mapping_t* mappings) {
  if (mappings == nullptr) return -1;
  int n = 0;
  while (mappings[n].name_of_function != nullptr) ++n;
  return n;
}

int QM_IA_get_num_function_mappings(const function_mapping_t* mappings) {
  return get_num_interposed(mappings);
}

void* QM_IA_dlsym(void* handle, const char* symbol) { return dlsym(handle, symbol); }
void* QM_IA_dlopen(const char* fname, int flags) { return dlopen(fname, flags); }
int QM_IA_dlclose(void* handle) { return dlclose(handle); }

int QM_IA_resolve_functions(void* dl_handle, int* num_mappings, function_mapping_t* mappings) {
  if (num_mappings == nullptr || mappings == nullptr) return -1;
  int found = 0;
  for (int i = 0; i < *num_mappings; ++i) {
    void* addr = QM_IA_dlsym(dl_handle, mappings[i].name_of_function);
    *mappings[i].address_of_pointer_to_function = addr;
    if (addr != nullptr) ++found;
  }
  *num_mappings = found;
  return 0;
}

int QM_IA_find_interposees(int* num_mappings, function_mapping_t* mappings) {
  return QM_IA_resolve_functions(RTLD_NEXT, num_mappings, mappings);
}

int init_malloc_wrappers() {
  if (started_initializing_malloc_wrappers) return finished_initializing_malloc_wrappers;
  started_initializing_malloc_wrappers = 1;
  int n = get_num_interposed(QM_HEAP_malloc_target_mappings);
  if (n < 1) {
    QM_HEAP_printf("Error counting number of interposees\n");
  } else if (QM_IA_find_interposees(&n, QM_HEAP_malloc_target_mappings) < 0) {
    QM_HEAP_printf("Error finding interposees\n");
  }
  finished_initializing_malloc_wrappers = 1;
  return 1;
}

int init_malloc_wrappers_and_assert_function_was_found(const char* fname, void** addr_of_func_pointer) {
  int r = init_malloc_wrappers();
  if (r == 0 || *addr_of_func_pointer != nullptr) return r;
  QM_assert(0, "QM_HEAP: %s not found after init_malloc_wrappers\n", fname);
  return r;
}

void QM_HEAP_linux_ia_init() {
  dlerror();
  dlerror();
  have_entered_initializer = 1;
  QM_HEAP_malloc_interposer_init();
  have_left_initializer = 1;
}

void QM_HEAP_linux_ia_fini() {
  have_entered_finalizer = 1;
  QM_HEAP_malloc_interposer_fini();
  have_left_finalizer = 1;
}

int QM_IA_has_ia_initializer_started() { return have_entered_initializer; }
int QM_IA_has_ia_initializer_completed() { return have_left_initializer; }
int QM_IA_has_ia_finalizer_started() { return have_entered_finalizer; }
int QM_IA_has_ia_finalizer_completed() { return have_left_finalizer; }

int QM_IA_has_dl_tls_setup_started() { return have_entered_dl_tls_setup; }
int QM_IA_has_dl_tls_setup_completed() { return have_left_dl_tls_setup; }
int QM_IA_has_libc_malloc_pthread_startup_started() { return have_entered_libc_malloc_pthread_startup; }
int QM_IA_has_libc_malloc_pthread_startup_completed() { return have_left_libc_malloc_pthread_startup; }
int QM_IA_is_libc_malloc_pthread_startup_full_init_done() {
  return libc_malloc_pthread_startup_full_init_done;
}

int QM_HEAP_get_dump_allocation_table_on_exit() { return QM_HEAP_dump_allocation_table_on_exit; }
int QM_HEAP_set_dump_allocation_table_on_exit(int bool_val) {
  int old = QM_HEAP_dump_allocation_table_on_exit;
  QM_HEAP_dump_allocation_table_on_exit = bool_val;
  return old;
}

}  // extern "C"
