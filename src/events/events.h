// Heap events: one record per finding, handed to QM_HEAP_notify_event, which
// trims it to the fields the event defines, stamps it and offers it, in a
// fixed order, to the console, the debugger, the lightweight core writer,
// the snapshot writer, the core dump and exit. Each consumer has a master
// switch and a per-event flag array.
#pragma once
#include "qmheap/events.h"

extern "C" {

extern volatile int QM_HEAP_event_console_filter_master_switch;
extern event_filters_t QM_HEAP_event_console_filters;
extern volatile int QM_HEAP_event_filter_master_switch;
extern event_filters_t QM_HEAP_event_filters;
extern volatile int QM_HEAP_generate_core_master_switch;
extern event_filters_t QM_HEAP_generate_core_filters;
extern volatile int QM_HEAP_lwmdbg_generate_master_switch;
extern event_filters_t QM_HEAP_lwmdbg_generate_filters;
extern volatile int QM_HEAP_lwcore_generate_master_switch;
extern event_filters_t QM_HEAP_lwcore_generate_filters;
extern volatile int QM_HEAP_exit_on_event_master_switch;
extern event_filters_t QM_HEAP_exit_on_event_filters;

extern volatile QM_HEAP_event_info_t QM_HEAP_event;
// The backtrace of the operation in progress on this thread (set by the
// operation bodies), and of the one whose event the debugger was last told.
extern __thread int QM_HEAP_op_backtrace_id __attribute__((tls_model("initial-exec")));
extern volatile int QM_HEAP_event_op_backtrace_id;
extern volatile QM_HEAP_event_info_t QM_HEAP_event_core;
extern int QM_HEAP_event_core_is_valid;
extern const int QM_HEAP_core_supported;
extern const int QM_HEAP_lwcore_supported;

// The event configuration names in index order, ending with a null name.
extern const event_config_name_mapping_t QM_HEAP_event_config_name_mappings[];
enum { QM_HEAP_NUM_EVENT_CONFIG_NAMES = 38 };

int QM_HEAP_event_console_filter_is_enabled();
int QM_HEAP_set_event_console_filter_enabled(int bool_val);
int QM_HEAP_get_event_console_filter(QM_HEAP_event_e event, int* is_ignored);
int QM_HEAP_set_event_console_filter(QM_HEAP_event_e event, int is_ignored, int* old_val);
int QM_HEAP_get_event_filter_master_switch();
int QM_HEAP_set_event_filter_master_switch(int bool_val);
int QM_HEAP_get_event_filter(QM_HEAP_event_e event, int* is_ignored);
int QM_HEAP_set_event_filter(QM_HEAP_event_e event, int is_ignored, int* old_val);
int QM_HEAP_is_generate_core_enabled();
int QM_HEAP_set_generate_core_enabled(int bool_val);
int QM_HEAP_get_generate_core_filter(QM_HEAP_event_e event, int* is_generated);
int QM_HEAP_set_generate_core_filter(QM_HEAP_event_e event, int is_generated, int* old_val);
int QM_HEAP_lwmdbg_is_generate_enabled();
int QM_HEAP_lwmdbg_set_generate_enabled(int bool_val);
int QM_HEAP_lwmdbg_get_generate_filter(QM_HEAP_event_e event, int* is_generated);
int QM_HEAP_lwmdbg_set_generate_filter(QM_HEAP_event_e event, int is_generated, int* old_val);
int QM_HEAP_lwcore_is_generate_enabled();
int QM_HEAP_lwcore_set_generate_enabled(int bool_val);
int QM_HEAP_lwcore_get_generate_filter(QM_HEAP_event_e event, int* is_generated);
int QM_HEAP_lwcore_set_generate_filter(QM_HEAP_event_e event, int is_generated, int* old_val);
int QM_HEAP_exit_on_event_is_enabled();
int QM_HEAP_exit_on_event_set_enabled(int bool_val);
int QM_HEAP_exit_on_event_get_filter(QM_HEAP_event_e event, int* does_exit);
int QM_HEAP_exit_on_event_set_filter(QM_HEAP_event_e event, int does_exit, int* old_val);

void QM_HEAP_notify_event(QM_HEAP_event_info_t* event);
void QM_HEAP_notify_breakpoint_here(QM_HEAP_event_info_t* event);
const char* QM_HEAP_get_op_name(QM_HEAP_heap_op_e op);
// The family that made a block, from its record's flags ("malloc", "new",
// "new[]", "aligned new", "aligned new[]"); the family a release belongs to,
// as kind flags, from its operation and the alignment it named.
const char* QM_HEAP_alloc_kind_name(int flags);
int QM_HEAP_release_kind(QM_HEAP_heap_op_e op, size_t alignment);
int QM_HEAP_get_event_short_message(const QM_HEAP_event_info_t* event, char* buffer, int buffer_len);
// The fields an event carries, bit n for field n (QM_HEAP_event_fields_e).
event_fields_bitmask_t QM_HEAP_get_event_fields_used(QM_HEAP_event_e event);
void QM_HEAP_clear_unused_event_fields(QM_HEAP_event_info_t* event);

int QM_HEAP_event_core_set_event(const QM_HEAP_event_info_t* event);
int QM_HEAP_event_core_clear_event();
void QM_HEAP_event_core_atfork_prepare();
void QM_HEAP_event_core_atfork_parent();
void QM_HEAP_event_core_atfork_child();
[[noreturn]] void QM_HEAP_generate_core();
int QM_HEAP_core_is_supported();
int QM_HEAP_lwcore_is_supported();

// The long console report of an event; the caller holds the io mutex.
void QM_HEAP_console_notify(const QM_HEAP_event_info_t* event);

// File consumers (the snapshot and lightweight core writers).
int QM_HEAP_lwcore_generate_file_event(const char* pathname, const QM_HEAP_event_info_t* event);
int QM_HEAP_lwmdbg_generate_file_event(const char* pathname, const QM_HEAP_event_info_t* event);
}
