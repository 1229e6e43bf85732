// The library started as a program: an ELF entry point and a program
// interpreter of its own architecture, so that running the file prints the
// version banner. The dynamic linker does not run a main program's DT_INIT,
// so the load hook's start-up never runs in this mode.
#include <unistd.h>

#include "base/export.h"
#include "events/output.h"

#ifndef QMHEAP_DISTRIBUTION
#define QMHEAP_DISTRIBUTION "unknown"
#endif

#if defined(__x86_64__)
#define QM_ARCH_SIZE 64
extern "C" [[gnu::used, gnu::section(".interp")]] const char qm_interp[] = "/lib64/ld-linux-x86-64.so.2";
#else
#define QM_ARCH_SIZE 32
extern "C" [[gnu::used, gnu::section(".interp")]] const char qm_interp[] = "/lib/ld-linux.so.2";
#endif

extern "C" {

extern constinit const int QM_HEAP_version_major = 1;
extern constinit const int QM_HEAP_version_minor = 2;
extern constinit const int QM_HEAP_version_point = 0;
extern constinit const int QM_HEAP_version_service = 0;

const char* QM_get_qm_distribution() { return QMHEAP_DISTRIBUTION; }

int QM_HEAP_main(int, char**) {
  QM_HEAP_printf("Quillmark Heap Interposition Agent\n");
  QM_HEAP_printf("  hia version: %d.%d\n", QM_HEAP_version_major, QM_HEAP_version_minor);
  QM_HEAP_printf("  Quillmark distribution: %s\n", QM_get_qm_distribution());
  QM_HEAP_printf("  ARCH_SIZE: %d\n", QM_ARCH_SIZE);
  QM_HEAP_printf("  is 32-bit?: %s\n", QM_ARCH_SIZE == 32 ? "yes" : "no");
  QM_HEAP_printf("  is 64-bit?: %s\n", QM_ARCH_SIZE == 64 ? "yes" : "no");
  return 0;
}

// Called from the entry stub with the initial stack: the argument count word
// is skipped and the argument vector counted up to its null terminator.
[[noreturn, gnu::used]] void qm_main_from_stack(long* sp) {
  char** argv = reinterpret_cast<char**>(sp + 1);
  int argc = 0;
  while (argv[argc] != nullptr) ++argc;
  _exit(QM_HEAP_main(argc, argv));
}

}  // extern "C"

#if defined(__x86_64__)
__asm__(
    ".text\n"
    ".globl QM_HEAP_main_linux\n"
    ".type QM_HEAP_main_linux,@function\n"
    "QM_HEAP_main_linux:\n"
    "  xor %ebp, %ebp\n"
    "  mov %rsp, %rdi\n"
    "  and $-16, %rsp\n"
    "  call qm_main_from_stack\n"
    "  hlt\n"
    ".size QM_HEAP_main_linux, .-QM_HEAP_main_linux\n");
#else
__asm__(
    ".text\n"
    ".globl QM_HEAP_main_linux\n"
    ".type QM_HEAP_main_linux,@function\n"
    "QM_HEAP_main_linux:\n"
    "  xor %ebp, %ebp\n"
    "  mov %esp, %eax\n"
    "  and $-16, %esp\n"
    "  sub $12, %esp\n"
    "  push %eax\n"
    "  call qm_main_from_stack\n"
    "  hlt\n"
    ".size QM_HEAP_main_linux, .-QM_HEAP_main_linux\n");
#endif
