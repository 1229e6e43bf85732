/* A library opened with RTLD_DEEPBIND: its heap calls resolve inside its own
 * scope, so they reach the agent only through the wrapper. */
#include <stdlib.h>
#include <string.h>

void* deep_malloc(size_t n) { return malloc(n); }
void deep_free(void* p) { free(p); }
void* deep_realloc(void* p, size_t n) { return realloc(p, n); }
char* deep_strdup(const char* s) { return strdup(s); }
