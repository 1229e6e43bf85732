/* A small program that keeps a list of words on the heap, using every heap
 * function the agent watches. The argument picks a heap mistake to make, so
 * that the agent's report of it can be seen:
 *   heapdemo            correct use only
 *   heapdemo double     frees a block twice
 *   heapdemo middle     frees an address inside a block
 *   heapdemo wild       frees an address that was never allocated
 *   heapdemo leak       leaves blocks allocated at exit
 *   heapdemo overrun    writes one byte past the end of a word, then frees it
 *   heapdemo underrun   writes one byte before the start of a word, then frees it
 *   heapdemo afterfree  writes into a word after freeing it, then frees more
 *   heapdemo overread   reads one byte past the end of a word
 *   heapdemo readfreed  reads a word after freeing it */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct word {
  char* text;
  struct word* next;
};

static struct word* push(struct word* list, const char* text) {
  struct word* w = malloc(sizeof *w);
  w->text = strdup(text);
  w->next = list;
  return w;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  const char* words[] = {"heap", "agent", "watches", "every", "block"};
  struct word* list = NULL;
  for (size_t i = 0; i < sizeof words / sizeof *words; ++i) list = push(list, words[i]);

  int* squares = calloc(8, sizeof *squares);
  for (int i = 0; i < 8; ++i) squares[i] = i * i;
  squares = realloc(squares, 16 * sizeof *squares);
  void* aligned = memalign(64, 100);
  void* page = valloc(200);
  void* pm = NULL;
  if (posix_memalign(&pm, 32, 48) != 0) return 1;

  size_t n = 0;
  for (struct word* w = list; w != NULL; w = w->next) n += strlen(w->text);
  printf("heapdemo: %zu characters in the list, 7 squared is %d\n", n, squares[7]);
  Dl_info info;
  if (dladdr(dlsym(RTLD_DEFAULT, "malloc"), &info) != 0) {
    const char* base = strrchr(info.dli_fname, '/');
    printf("heapdemo: malloc is served by %s\n", base != NULL ? base + 1 : info.dli_fname);
  }

  if (strcmp(mode, "double") == 0) {
    free(pm);
    free(pm);
    pm = NULL;
  } else if (strcmp(mode, "middle") == 0) {
    free((char*)squares + 8);
  } else if (strcmp(mode, "wild") == 0) {
    static char not_heap[64];
    free(not_heap + 16);
  } else if (strcmp(mode, "overrun") == 0) {
    list->text[strlen(list->text) + 1] = '!'; /* one past the block: "block" has 6 bytes */
  } else if (strcmp(mode, "underrun") == 0) {
    list->text[-1] = '!';
  } else if (strcmp(mode, "afterfree") == 0) {
    char* stale = list->text;
    list->text = strdup("gone");
    free(stale);
    stale[0] = 'B'; /* the block sits in the hoard: the write is found when it leaves */
    for (int i = 0; i < 40; ++i) free(strdup("churn"));
  } else if (strcmp(mode, "overread") == 0) {
    volatile char past = list->text[strlen(list->text) + 1];
    (void)past;
  } else if (strcmp(mode, "readfreed") == 0) {
    char* stale = list->text;
    list->text = strdup("gone");
    free(stale);
    volatile char c = stale[0];
    (void)c;
  }

  if (strcmp(mode, "leak") != 0) {
    while (list != NULL) {
      struct word* next = list->next;
      free(list->text);
      free(list);
      list = next;
    }
    if (strcmp(mode, "middle") != 0) free(squares);
    free(aligned);
    free(page);
    free(pm);
  }
  printf("heapdemo: done\n");
  return 0;
}
