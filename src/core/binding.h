// Binding of the C library's own heap functions ("real" functions) through
// the dynamic linker's next-definition lookup, and the library's load and
// unload state.
#pragma once
#include <stddef.h>

extern "C" {

typedef struct function_mapping_t {
  const char* name_of_function;
  void** address_of_pointer_to_function;
} function_mapping_t;

extern function_mapping_t QM_HEAP_malloc_target_mappings[];

// The real functions; null until bound. The C allocator calls through them.
typedef void* (*qm_malloc_fn)(size_t);
typedef void (*qm_free_fn)(void*);
typedef void* (*qm_realloc_fn)(void*, size_t);
typedef void* (*qm_calloc_fn)(size_t, size_t);
typedef void* (*qm_memalign_fn)(size_t, size_t);
typedef int (*qm_posix_memalign_fn)(void**, size_t, size_t);
extern qm_malloc_fn QM_HEAP_org_malloc;
extern qm_free_fn QM_HEAP_org_free;
extern qm_realloc_fn QM_HEAP_org_realloc;
extern qm_calloc_fn QM_HEAP_org_calloc;
extern qm_malloc_fn QM_HEAP_org_valloc;
extern qm_memalign_fn QM_HEAP_org_memalign;
extern qm_posix_memalign_fn QM_HEAP_org_posix_memalign;

// 1 once binding has run to its end; 0 while it is under way (on this or
// another thread): a heap call made then fails instead of waiting.
int init_malloc_wrappers();
int init_malloc_wrappers_and_assert_function_was_found(const char* fname, void** addr_of_func_pointer);
int get_num_interposed(const function_mapping_t* mappings);

int QM_IA_find_interposees(int* num_mappings, function_mapping_t* mappings);
int QM_IA_resolve_functions(void* dl_handle, int* num_mappings, function_mapping_t* mappings);
int QM_IA_get_num_function_mappings(const function_mapping_t* mappings);
void* QM_IA_dlsym(void* handle, const char* symbol);
void* QM_IA_dlopen(const char* fname, int flags);
int QM_IA_dlclose(void* handle);

// Load and unload hooks (DT_INIT and DT_FINI).
void QM_HEAP_linux_ia_init();
void QM_HEAP_linux_ia_fini();
int QM_IA_has_ia_initializer_started();
int QM_IA_has_ia_initializer_completed();
int QM_IA_has_ia_finalizer_started();
int QM_IA_has_ia_finalizer_completed();

int QM_IA_has_dl_tls_setup_started();
int QM_IA_has_dl_tls_setup_completed();
int QM_IA_has_libc_malloc_pthread_startup_started();
int QM_IA_has_libc_malloc_pthread_startup_completed();
int QM_IA_is_libc_malloc_pthread_startup_full_init_done();

// Start-up and shut-down (the load and unload hooks' work).
void QM_HEAP_malloc_interposer_init();
void QM_HEAP_malloc_interposer_fini();
void do_initialization();
extern int malloc_interposers_initialized;

extern volatile int QM_HEAP_dump_allocation_table_on_exit;
int QM_HEAP_get_dump_allocation_table_on_exit();
int QM_HEAP_set_dump_allocation_table_on_exit(int bool_val);
}
