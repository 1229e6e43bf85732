#include "events/output.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/format.h"
#include "threads/thread_utils.h"

namespace {

constinit QM_pthread_mutex_t QM_HEAP_io_mutex = PTHREAD_MUTEX_INITIALIZER;

struct co_mapping_t {
  const char* name;
  QM_HEAP_commentary_output_key_e key;
};

constexpr co_mapping_t key_mappings[] = {
    {"announce_starting", co_announce_starting}, {"announce_terminating", co_announce_terminating},
    {"exit_on_event", co_exit_on_event},         {"generate_core", co_generate_core},
    {"generate_lwmem", co_generate_lwmem},       {"rz_signal", co_rz_signal},
    {"rz_trace", co_rz_trace},                   {"tt_dump_descriptors", co_tt_dump_descriptors},
};

// Replaces the output descriptor under the io mutex.
void switch_output(int fd, int is_file) {
  if (QM_HEAP_output_to_file && QM_stderr != fd) close(QM_stderr);
  QM_stderr = fd;
  QM_HEAP_output_to_file = is_file;
}

}  // namespace

extern "C" {

constinit volatile int QM_HEAP_verbosity = 0;
constinit int QM_HEAP_allow_console_notification = 0;
constinit int QM_HEAP_output_to_file = 0;
constinit volatile int QM_HEAP_co_settings[co_num_keys] = {};

int QM_HEAP_is_output_to_file() { return QM_HEAP_output_to_file; }
int QM_HEAP_is_output_to_fd() { return !QM_HEAP_output_to_file; }

int QM_HEAP_set_output_to_fd(int fd) {
  QM_HEAP_io_lock_io_mutex();
  switch_output(fd, 0);
  QM_HEAP_io_unlock_io_mutex();
  return 0;
}

int QM_HEAP_set_output_to_file(const char* path) {
  QM_HEAP_io_lock_io_mutex();
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd >= 0) switch_output(fd, 1);
  QM_HEAP_io_unlock_io_mutex();
  return fd >= 0 ? 0 : -1;
}

int QM_HEAP_co_set_key(int key, int val) {
  if (key < 0 || key >= co_num_keys) return -1;
  QM_HEAP_co_settings[key] = val;
  return 0;
}

int QM_HEAP_co_get_key(int key, int* val) {
  if (key < 0 || key >= co_num_keys) return -1;
  if (val != nullptr) *val = QM_HEAP_co_settings[key];
  return 0;
}

int QM_HEAP_co_set_key_by_string(const char* str, int str_len, int setting) {
  for (const co_mapping_t& m : key_mappings) {
    int i = 0;
    while (i < str_len && m.name[i] != '\0' && m.name[i] == str[i]) ++i;
    if (i == str_len && m.name[i] == '\0') {
      QM_HEAP_co_settings[m.key] = setting;
      return 0;
    }
  }
  return -1;
}

int QM_HEAP_co_is_emit_for_key(int key) {
  if (QM_HEAP_verbosity < 1 || key < 0 || key >= co_num_keys) return 0;
  return QM_HEAP_co_settings[key];
}

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

// A message that fits the buffer goes out in one write, so that processes
// sharing a terminal or a pipe (a forked child, a shell pipeline) do not
// interleave their lines; a longer one streams through the descriptor.
int QM_HEAP_vprintf_fd(int fd, const char* fmt, va_list ap) {
  static constexpr char kPrefix[] = "QM_HEAP:  ";
  constexpr int kPrefixLen = sizeof kPrefix - 1;
  char buf[1024];
  for (int i = 0; i < kPrefixLen; ++i) buf[i] = kPrefix[i];
  va_list copy;
  va_copy(copy, ap);
  int n = QM_s_vsnprintf(buf + kPrefixLen, static_cast<int>(sizeof buf) - kPrefixLen, fmt, copy);
  va_end(copy);
  if (kPrefixLen + n < static_cast<int>(sizeof buf) - 1) {
    ssize_t w = write(fd, buf, static_cast<size_t>(kPrefixLen + n));
    return w > 0 ? static_cast<int>(w) : 0;
  }
  int a = QM_s_printf(fd, kPrefix);
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
