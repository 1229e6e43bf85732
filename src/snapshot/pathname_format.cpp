// The pathname template language of the post-mortem files, and the path
// utilities it and the file writers use. Expansion keeps no state of its
// own: the sequence numbers come from callbacks, under their owners' locks.
#include <errno.h>
#include <string.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/format.h"
#include "events/output.h"
#include "config/runtime_config.h"
#include "snapshot/snapshot.h"

#pragma GCC diagnostic ignored "-Wformat"

namespace {

enum state_e {
  state_start,
  state_scan,
  state_flags,
  state_field_width,
  state_field_width_literal,
  state_conversion_specifier
};

constinit int exepathnamelen = 0;
constinit int maxpathlen = 0;
constinit int tmpdir_looked_up = 0;
constinit const char* tmpdir = nullptr;

int readlink_exe(char* buffer, int len) {
  return static_cast<int>(syscall(SYS_readlink, "/proc/self/exe", buffer, len));
}

// Writes a number of at least width digits, zero-filled, into the room left.
int put_number(char* at, int room, int width, int value) {
  if (room <= 0) return 0;
  int n = QM_s_snprintf(at, room + 1, "%0*d", width, value);
  if (n <= 0) return 0;
  return n < room ? n : room;
}

int expand(char* buffer, int buffer_len, format_pathname_callbacks_t* cb, bool with_rank,
           int (*next_seq)(format_pathname_callbacks_t*), const char* fmt, va_list ap) {
  if (fmt == nullptr) return 0;
  if (buffer == nullptr || buffer_len <= 0) return 0;
  int room = buffer_len - 1;
  char* out = buffer;
  int width = 0;
  state_e st = state_start;
  const char* f = fmt;
  while (*f != '\0') {
    const char c = *f;
    switch (st) {
      case state_start:
        width = 0;
        st = state_scan;
        break;
      case state_scan:
        ++f;
        if (c == '%') {
          st = state_flags;
        } else if (room > 0) {
          *out++ = c;
          --room;
        }
        break;
      case state_flags:
        if (c == '%') {
          if (room > 0) {
            *out++ = '%';
            --room;
          }
          st = state_start;  // the second '%' opens a conversion of its own
        } else if (c == '0') {
          ++f;
        } else {
          st = state_field_width;
        }
        break;
      case state_field_width:
        if (c == '*') {
          width = va_arg(ap, int);
          ++f;
        } else {
          st = state_field_width_literal;
        }
        break;
      case state_field_width_literal:
        if (c >= '0' && c <= '9') {
          width = width * 10 + (c - '0');
          ++f;
        } else {
          st = state_conversion_specifier;
        }
        break;
      case state_conversion_specifier: {
        ++f;
        int n = 0;
        switch (c) {
          case 'b': {
            int r = QM_getexebasename(out, room + 1);
            n = r > 0 ? r : 0;
            break;
          }
          case 'h': {
            char host[65] = {};
            if (QM_gethostname(host, sizeof host) == 0) {
              host[sizeof host - 1] = '\0';
              while (host[n] != '\0' && n < room) {
                out[n] = host[n];
                ++n;
              }
            }
            break;
          }
          case 'p': n = put_number(out, room, width, static_cast<int>(getpid())); break;
          case 'q': n = put_number(out, room, width, next_seq(cb)); break;
          case 'r':  // a writer without ranks leaves it out
            if (with_rank && cb->get_mpi_rank != nullptr) n = put_number(out, room, width, cb->get_mpi_rank(cb));
            break;
          default: break;
        }
        out += n;
        room -= n;
        st = state_start;
        break;
      }
    }
  }
  *out = '\0';
  return static_cast<int>(out - buffer);
}

int callback_seq(format_pathname_callbacks_t* cb) { return cb->get_next_sequence_number(cb); }

}  // namespace

extern "C" {

int QM_gethostname(char* buffer, int len) {
  // The kernel's node name, as gethostname reports it.
  struct {
    char f[6][65];
  } u;
  if (syscall(SYS_uname, &u) != 0) return -1;
  int i = 0;
  for (; i < len - 1 && i < 64 && u.f[1][i] != '\0'; ++i) buffer[i] = u.f[1][i];
  buffer[i] = '\0';
  return 0;
}

int QM_format_pathname(char* buffer, int buffer_len, format_pathname_callbacks_t* callbacks, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = expand(buffer, buffer_len, callbacks, true, callback_seq, fmt, ap);
  va_end(ap);
  return n;
}

int QM_getexepathname(char* buffer, int buffer_len) {
  int n = readlink_exe(buffer, buffer_len);
  if (n < 0) return n;
  if (n >= buffer_len) return 0;
  buffer[n] = '\0';
  return n;
}

int QM_getexepathnamelen() {
  if (exepathnamelen > 0) return exepathnamelen;
  char scratch[4096];
  for (int size = 256; size <= static_cast<int>(sizeof scratch); size += 256) {
    int n = readlink_exe(scratch, size);
    if (n < 0) return n;
    if (n < size) {
      exepathnamelen = n;
      return n;
    }
  }
  return -ENAMETOOLONG;
}

int QM_getexebasename(char* buffer, int len) {
  char path[4096];
  int n = QM_getexepathname(path, sizeof path);
  if (n <= 0) return -1;
  int start = n;
  while (start > 0 && path[start - 1] != '/') --start;
  int blen = n - start;
  if (blen >= len) return 0;
  for (int i = 0; i < blen; ++i) buffer[i] = path[start + i];
  buffer[blen] = '\0';
  return blen;
}

int QM_getmaxpathlen() {
  // Linux answers 4096 for every file system; anything smaller is raised to it.
  if (maxpathlen == 0) maxpathlen = 4096;
  return maxpathlen;
}

int QM_get_tmp_filename(int priority, const char* filename, char* pathname, int* pathname_len) {
  if (priority != 0 && priority != 1) return -EINVAL;
  const int capacity = *pathname_len;
  if (capacity > 0) pathname[0] = '\0';
  const char* dir = "/tmp";
  if (priority == 0) {
    if (!tmpdir_looked_up) {
      tmpdir = QM_getenv("TMPDIR");
      tmpdir_looked_up = 1;
    }
    if (tmpdir == nullptr) {
      *pathname_len = 0;
      return 0;
    }
    dir = tmpdir;
  }
  int expected = 0;
  while (dir[expected] != '\0') ++expected;
  int flen = 0;
  while (filename[flen] != '\0') ++flen;
  expected += 1 + flen;
  if (capacity <= expected) return -ENOMEM;
  int n = QM_s_snprintf(pathname, capacity, "%s/%s", dir, filename);
  if (n != expected) return n;
  *pathname_len = n;
  return 0;
}

}  // extern "C"

namespace qm {

unsigned long parse_hex(const char*& p) {
  unsigned long v = 0;
  for (;; ++p) {
    const char c = *p;
    const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (d < 0) return v;
    v = v * 16 + static_cast<unsigned long>(d);
  }
}

int next_in_sequence(QM_pthread_mutex_t* mutex, volatile int* counter) {
  qm::mutex_lock(mutex);
  const int n = *counter;
  *counter = n + 1;
  qm::mutex_unlock(mutex);
  return n;
}

int create_named_file(const char* fmt, int (*get_specifier)(char*, int, int*), format_pathname_callbacks_t* cb,
                      const char* who, const char* what) {
  char spec[QM_HEAP_pathname_specifier_max_length + 1];
  if (fmt == nullptr) {
    int len = 0;
    if (get_specifier(spec, sizeof spec, &len) != 0) return -1;
    fmt = spec;
  }
  char path[4096 + 1];
  if (QM_format_pathname(path, sizeof path, cb, fmt) <= 0) return -1;
  const int fd = static_cast<int>(syscall(SYS_open, path, O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (fd < 0) QM_HEAP_printf("%s: cannot create the %s %s: %s\n", who, what, path, strerrordesc_np(errno));
  return fd;
}

}  // namespace qm
