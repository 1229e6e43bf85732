// The backtrace table: each distinct call stack stored once in the agent's
// own pages, named by a dense identifier. No function here locks: callers
// serialise (the agent's one table has its own mutex, backtrace_heap.h).
#pragma once
#include <stdarg.h>

#include "qmheap/backtrace.h"

extern "C" {

extern const int QM_STACK_version_major;
extern const int QM_STACK_version_minor;
extern const int QM_STACK_version_point;
extern const int QM_STACK_version_service;

// Module start-up: keeps the version variables, sets up the FDE cache. 0.
int QM_STACK_init();

// -1 for a null table, else 0; takes the hash table, no chunk yet.
int QM_STACK_init_backtrace_table(stack_backtrace_table_t* table);
// The identifier of this call stack, inserted if new; 0 for an empty one.
backtrace_id_t QM_STACK_insert_backtrace(stack_backtrace_table_t* table, const void** pcs, int num_pcs);
// The identifier if present, else 0; changes nothing (no MRU, no counts).
backtrace_id_t QM_STACK_is_in_backtrace(stack_backtrace_table_t* table, const void** pcs, int num_pcs);
// Copies the counters of id into pcs: their number; with null pcs the number
// only; 0 for id 0; -1 for a bad id or a buffer of fewer than needed.
int QM_STACK_lookup_backtrace(stack_backtrace_table_t* table, int id, const void** pcs, int num_pcs);
// Calls f for ids 1, 2, ... with pcs pointing into the table (read-only).
int QM_STACK_table_iterate(stack_backtrace_table_t* table, stack_backtrace_table_iter_func_t f, void* arg);
void QM_STACK_dump_table(stack_backtrace_table_t* table);

// The module's diagnostics: "QM_STACK:  " and the text. QM_STACK_error
// halts the process after printing.
int QM_STACK_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int QM_STACK_fprintf(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int QM_STACK_vfprintf(int fd, const char* fmt, va_list ap);
[[noreturn]] void QM_STACK_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}
