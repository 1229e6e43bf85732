/* Releases one block twice, from three functions of its own: make_block
 * makes it, release_once releases it, release_again releases it again (the
 * agent's double release; the C library may then end the program). A
 * debugger stopped at the event finds each of the three in the stacks the
 * agent recorded. */
#include <stdio.h>
#include <stdlib.h>

#define SITE __attribute__((noinline, noclone))
#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

SITE void* make_block(size_t n) { void* p = malloc(n); KEEP(p); return p; }
SITE void release_once(void* p) { free(p); KEEP(p); }
SITE void release_again(void* p) { free(p); KEEP(p); }

int main(void) {
  void* p = make_block(5000);
  release_once(p);
  release_again(p);
  puts("bt_double_free: released twice");
  return 0;
}
