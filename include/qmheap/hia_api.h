/* The control functions a debugger calls inside a stopped process (or a
 * program calls on itself, through dlsym) to read and change the agent's
 * settings, query single blocks and name the configurable events.
 *
 * Every function returns a status and passes results through pointers:
 *   0  success (also when a result pointer is null: nothing is stored)
 *   3  the agent failed: a table lock could not be taken, a filter or guard
 *      record could not be read, a file could not be written
 *   4  a required name was null
 *   5  an event index out of range, or a pathname template that does not fit
 * A getter stores its value when the pointer is not null; a setter passes
 * its argument to the agent unchanged. Blocks are found by any address
 * inside them. Valid C and C++. */
#ifndef QMHEAP_HIA_API_H
#define QMHEAP_HIA_API_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
  QM_HIA_API_ok = 0,
  QM_HIA_API_internal_error = 3,
  QM_HIA_API_null_name = 4,
  QM_HIA_API_bad_index = 5
};

int QM_HIA_API_get_version(int* major_ver, int* minor_ver, int* point_ver, int* service_ver);

int QM_HIA_API_get_verbosity(int* val);
int QM_HIA_API_set_verbosity(int val);
int QM_HIA_API_is_dump_allocation_table_on_exit(int* bool_val);
int QM_HIA_API_set_dump_allocation_table_on_exit(int bool_val);
int QM_HIA_API_is_memalign_strict_alignment_even_multiple(int* bool_val);
int QM_HIA_API_set_memalign_strict_alignment_even_multiple(int bool_val);
int QM_HIA_API_get_backtrace_depth(int* val);
int QM_HIA_API_set_backtrace_depth(int val);
int QM_HIA_API_get_backtrace_trim(int* val);
int QM_HIA_API_set_backtrace_trim(int val);

int QM_HIA_API_is_painting_on_alloc(int* bool_val);
int QM_HIA_API_set_painting_on_alloc(int bool_val);
int QM_HIA_API_is_painting_on_dealloc(int* bool_val);
int QM_HIA_API_set_painting_on_dealloc(int bool_val);
int QM_HIA_API_is_painting_on_zalloc(int* bool_val);
int QM_HIA_API_set_painting_on_zalloc(int bool_val);
int QM_HIA_API_get_alloc_pattern(int* pattern);
int QM_HIA_API_set_alloc_pattern(int pattern);
int QM_HIA_API_get_dealloc_pattern(int* pattern);
int QM_HIA_API_set_dealloc_pattern(int pattern);

int QM_HIA_API_is_hoarding_enabled(int* bool_val);
int QM_HIA_API_set_hoarding_enabled(int bool_val);
int QM_HIA_API_is_hoarding_all_blocks(int* bool_val);
int QM_HIA_API_set_hoarding_all_blocks(int bool_val);
int QM_HIA_API_get_hoard_max_num_blocks(int* val);
int QM_HIA_API_set_hoard_max_num_blocks(int val);
int QM_HIA_API_get_hoard_max_kb(int* val);
int QM_HIA_API_set_hoard_max_kb(int val);

int QM_HIA_API_is_guards_supported(int* bool_val);
int QM_HIA_API_is_guards_enabled(int* bool_val);
int QM_HIA_API_set_guards_enabled(int bool_val);
int QM_HIA_API_get_max_guard_size(int* val);
int QM_HIA_API_set_max_guard_size(int val);
/* The getter and setter names of one pair differ here: get_pre_guard_size
 * but set_guard_pre_size. */
int QM_HIA_API_get_pre_guard_size(int* val);
int QM_HIA_API_set_guard_pre_size(int val);
int QM_HIA_API_get_post_guard_size(int* val);
int QM_HIA_API_set_guard_post_size(int val);
int QM_HIA_API_get_pre_guard_pattern(int* val);
int QM_HIA_API_set_guard_pre_pattern(int val);
int QM_HIA_API_get_post_guard_pattern(int* val);
int QM_HIA_API_set_guard_post_pattern(int val);

int QM_HIA_API_is_generate_core_supported(int* bool_val);
int QM_HIA_API_is_generate_core_enabled(int* bool_val);
int QM_HIA_API_set_generate_core_enabled(int bool_val);
int QM_HIA_API_is_generate_lwmem_supported(int* bool_val);
int QM_HIA_API_is_generate_lwmem_enabled(int* bool_val);
int QM_HIA_API_set_generate_lwmem_enabled(int bool_val);

int QM_HIA_API_get_generation(int* val);
int QM_HIA_API_inc_generation(int* val);

/* Per-event actions, by event index (0 .. number of events - 1). */
int QM_HIA_API_is_generate_core_event(int index, int* bool_val);
int QM_HIA_API_set_generate_core_event(int index, int bool_val);
int QM_HIA_API_is_generate_lwmem_event(int index, int* bool_val);
int QM_HIA_API_set_generate_lwmem_event(int index, int bool_val);

int QM_HIA_API_get_num_events(int* num_events);
int QM_HIA_API_get_event_index(const char* name, int* index);
int QM_HIA_API_get_event_name(int index, const char** event_name);

int QM_HIA_API_get_default_lwmem_pathname_specifier(char* buffer, int buffer_len, int* specifier_len);
int QM_HIA_API_get_lwmem_pathname_specifier(char* buffer, int buffer_len, int* specifier_len);
int QM_HIA_API_set_lwmem_pathname_specifier(const char* specifier);
int QM_HIA_API_lwmem_generate_file(const char* fname, const char* session_title, const char* user_notes);

int QM_HIA_API_get_alloc_base_len(const void* p, int* is_allocated, void** base, int* len);
int QM_HIA_API_get_dealloc_base_len(const void* p, int* is_deallocated, void** base, int* len);
int QM_HIA_API_get_alloc_hoard_status(const void* p, int* hoard_status);
int QM_HIA_API_set_alloc_hoard_status(const void* p, int hoard_status);
int QM_HIA_API_get_alloc_guard_settings(const void* p, int* pre_size, int* post_size, int* pre_pattern,
                                        int* post_pattern);
int QM_HIA_API_get_alloc_guard_status(const void* p, int* pre_is_ok, int* post_is_ok);

/* Extension: a reachability scan now. The program's memory outside its
 * blocks is searched for pointers to live blocks; blocks that nothing
 * reaches are lost. counts, when not null, receives eight values: blocks
 * and bytes reachable, reachable only through interior pointers,
 * definitely lost, indirectly lost. print: also report on the console
 * (lost blocks grouped by allocation stack). The result is kept for the
 * next snapshot file. 3 when the scan could not run (a table lock held by
 * a stopped thread, or no memory for its tables). */
int QM_HIA_API_scan_reachability(int print, long* counts);

#ifdef __cplusplus
}
#endif
#endif
