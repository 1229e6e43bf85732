// Pathname specifiers of the two post-mortem files (the memory-debug
// snapshot and the lightweight core) and their writers.
#pragma once

extern "C" {
enum { QM_HEAP_pathname_specifier_max_length = 1024 };

int QM_HEAP_lwmdbg_get_pathname_specifier_default(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwmdbg_get_pathname_specifier(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwmdbg_get_pathname_spaecifier_strlen();
// -1 for a specifier longer than the limit; else stored, 0.
int QM_HEAP_lwmdbg_set_pathname_specifier(const char* specifier);
const int* QM_HEAP_lwmdbg_get_pathname_specifier_max_length();

int QM_HEAP_lwcore_get_pathname_specifier_default(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwcore_get_pathname_specifier(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwcore_set_pathname_specifier(const char* specifier);
}
