/* Allocates a little and leaves main with the status given as its argument,
 * so that a test can tell whether something else ended the process. */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  char* p = malloc(64);
  snprintf(p, 64, "exit_status: %s", argc > 1 ? argv[1] : "0");
  puts(p);
  fflush(stdout); /* an agent that ends the process with _exit must not lose it */
  free(p);
  return argc > 1 ? atoi(argv[1]) : 0;
}
