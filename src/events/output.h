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

int QM_HEAP_vprintf_fd(int fd, const char* fmt, va_list ap);
int QM_HEAP_printf_fd(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int QM_HEAP_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
}
