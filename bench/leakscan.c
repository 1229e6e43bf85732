/* The reachability scan's cost: N live blocks in lists, either all kept
 * (reachable from a root) or each list dropped after 100 blocks (lost), then
 * one scan through the agent's control function, timed.
 * Usage: leakscan N kept|lost   prints "scan SECONDS reachable LOST" */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

struct node {
  struct node* next;
  long payload[3];
};

static struct node* volatile kept;

int main(int argc, char** argv) {
  const long n = argc > 1 ? atol(argv[1]) : 1000000;
  const int keep = argc > 2 && strcmp(argv[2], "kept") == 0;
  int (*scan)(int, long*) = (int (*)(int, long*))dlsym(RTLD_DEFAULT, "QM_HIA_API_scan_reachability");
  if (scan == NULL) {
    fprintf(stderr, "leakscan: run it under the agent\n");
    return 2;
  }
  struct node* head = NULL;
  for (long i = 0; i < n; ++i) {
    struct node* e = malloc(sizeof *e + (size_t)(i % 7) * 8);
    e->next = head;
    head = e;
    if (!keep && i % 100 == 99) head = NULL;
  }
  kept = head;
  long c[8];
  struct timespec a, b;
  clock_gettime(CLOCK_MONOTONIC, &a);
  const int r = scan(0, c);
  clock_gettime(CLOCK_MONOTONIC, &b);
  printf("scan %.3f reachable %ld lost %ld\n", (double)(b.tv_sec - a.tv_sec) + (b.tv_nsec - a.tv_nsec) / 1e9, c[0],
         c[4] + c[6]);
  return r;
}
