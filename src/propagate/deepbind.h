// Deep-bound dlopen through a generated wrapper library that needs the agent
// first. Controls come from QMHEAP_DEEPBIND (pass_through, verbose,
// keep_wrapper, tmpdir) on the first deep bind.
#pragma once

extern "C" {

typedef struct deepbind_controls_t {
  int pass_through;  // never build a wrapper
  int verbose;       // report each deep-bind dlopen
  int keep_wrapper;  // leave the wrapper file in place
  char tmpdir[4096 + 1];  // the wrappers' directory, ending in "/"
} deepbind_controls_t;

extern deepbind_controls_t deepbind_controls;

// Creates the wrapper with mkstemp on tmpl (completed in place): needed (a
// null-terminated list) names the first libraries it needs, target the last.
// 0, or -1 (nothing left behind).
int QM_HEAP_deepbind_elf_construct_wrapper(char* tmpl, const char* target, const char** needed);

// A dlopen of filename with RTLD_DEEPBIND in flags, through the wrapper;
// real is the C library's dlopen.
void* QM_HEAP_dlopen_deepbind(const char* filename, int flags, void* (*real)(const char*, int));
}
