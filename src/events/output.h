// The agent's output channel: every message bears the prefix "QM_HEAP:  ".
// None of the printf functions takes the io mutex; a caller that needs a
// whole report kept together takes it around the report.
#pragma once
#include <stdarg.h>

extern "C" {
extern volatile int QM_HEAP_verbosity;
extern int QM_HEAP_allow_console_notification;

int QM_HEAP_io_lock_io_mutex();
int QM_HEAP_io_unlock_io_mutex();
int QM_HEAP_get_verbosity();
int QM_HEAP_set_verbosity(int v);

typedef enum QM_HEAP_commentary_output_key_e {
  co_announce_starting = 0,
  co_announce_terminating = 1,
  co_exit_on_event = 2,
  co_generate_lwmem = 3,
  co_generate_core = 4,
  co_rz_trace = 5,
  co_rz_signal = 6,
  co_tt_dump_descriptors = 7,
  co_num_keys = 8
} QM_HEAP_commentary_output_key_e;

extern int QM_HEAP_output_to_file;
extern volatile int QM_HEAP_co_settings[co_num_keys];

int QM_HEAP_is_output_to_file();
int QM_HEAP_is_output_to_fd();
// Makes fd the output descriptor; closes the previous one if the agent opened it.
int QM_HEAP_set_output_to_fd(int fd);
// Opens path (write, create, truncate, 0644) as the output; -1 leaves the channel as it was.
int QM_HEAP_set_output_to_file(const char* path);

int QM_HEAP_co_set_key(int key, int val);
int QM_HEAP_co_get_key(int key, int* val);
int QM_HEAP_co_set_key_by_string(const char* str, int str_len, int setting);
// The key's setting at verbosity 1 or more; 0 at verbosity 0 whatever the key says.
int QM_HEAP_co_is_emit_for_key(int key);

int QM_HEAP_vprintf_fd(int fd, const char* fmt, va_list ap);
int QM_HEAP_printf_fd(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int QM_HEAP_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}
