/* Preloaded after the agent: its constructor runs before the agent's load
 * hook, so its heap calls are the process's first ones through the agent. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

__attribute__((constructor)) static void early(void) {
  char* p = malloc(32);
  if (p == NULL) {
    fputs("early: malloc failed\n", stderr);
    return;
  }
  strcpy(p, "early ok");
  p = realloc(p, 64);
  puts(p);
  free(p);
}

/* Finalised after the agent (the reverse of the order of initialisation):
 * heap calls made after the agent's unload hook must still work. */
__attribute__((destructor)) static void late(void) {
  char* p = calloc(4, 16);
  if (p == NULL) return;
  p = realloc(p, 4096);
  strcpy(p, "late ok");
  puts(p);
  free(p);
}
