// The library started as a program: an ELF entry point and a program
// interpreter of its own architecture, so that running the file prints the
// version banner. The dynamic linker does not run a main program's DT_INIT,
// so the load hook's start-up never runs in this mode.
#include <unistd.h>

#include "base/export.h"

#if defined(__x86_64__)
extern "C" [[gnu::used, gnu::section(".interp")]] const char qm_interp[] = "/lib64/ld-linux-x86-64.so.2";
#else
extern "C" [[gnu::used, gnu::section(".interp")]] const char qm_interp[] = "/lib/ld-linux.so.2";
#endif

extern "C" int QM_HEAP_main(int argc, char** argv);

extern "C" {

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
