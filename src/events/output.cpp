#include "events/output.h"

#include "base/assert.h"
#include "base/format.h"
#include "threads/thread_utils.h"

namespace {
constinit QM_pthread_mutex_t QM_HEAP_io_mutex = PTHREAD_MUTEX_INITIALIZER;
}

extern "C" {

constinit volatile int QM_HEAP_verbosity = 0;
constinit int QM_HEAP_allow_console_notification = 0;

int QM_HEAP_io_lock_io_mutex() { return QM_pthread_mutex_lock(&QM_HEAP_io_mutex); }
int QM_HEAP_io_unlock_io_mutex() { return QM_pthread_mutex_unlock(&QM_HEAP_io_mutex); }

int QM_HEAP_get_verbosity() { return QM_HEAP_verbosity; }

int QM_HEAP_set_verbosity(int v) {
  QM_HEAP_io_lock_io_mutex();
  int old = QM_HEAP_verbosity;
  QM_HEAP_allow_console_notification = v > 1;
  QM_HEAP_verbosity = v;
  QM_HEAP_io_unlock_io_mutex();
  return old;
}

int QM_HEAP_vprintf_fd(int fd, const char* fmt, va_list ap) {
  int a = QM_s_printf(fd, "QM_HEAP:  ");
  int b = QM_s_vprintf(fd, fmt, ap);
  return (a > 0 ? a : 0) + (b > 0 ? b : 0);
}

int QM_HEAP_printf_fd(int fd, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_HEAP_vprintf_fd(fd, fmt, ap);
  va_end(ap);
  return r;
}

int QM_HEAP_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_HEAP_vprintf_fd(QM_stderr, fmt, ap);
  va_end(ap);
  return r;
}

}  // extern "C"
