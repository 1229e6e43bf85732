#include "base/format.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

// ---------------------------------------------------------------------------
// Sinks
namespace {

struct io_ops_t {
  ssize_t (*write)(void* arg, const void* buffer, size_t count);
};

struct sys_io_arg_t {
  int fd;
  int num_written;
};

struct str_io_arg_t {
  char* dest_buffer;
  char* curr_pos;
  int buffer_len;
  int space_left;
  int num_written;
};

ssize_t sys_write(void* arg, const void* buffer, size_t count) {
  auto* a = static_cast<sys_io_arg_t*>(arg);
  ssize_t r = write(a->fd, buffer, count);
  if (r > 0) a->num_written += static_cast<int>(r);
  return r;
}

ssize_t str_write(void* arg, const void* buffer, size_t count) {
  auto* a = static_cast<str_io_arg_t*>(arg);
  size_t n = count < static_cast<size_t>(a->space_left) ? count : static_cast<size_t>(a->space_left);
  const char* src = static_cast<const char*>(buffer);
  for (size_t i = 0; i < n; ++i) a->curr_pos[i] = src[i];
  a->curr_pos += n;
  a->space_left -= static_cast<int>(n);
  a->num_written += static_cast<int>(n);
  return static_cast<ssize_t>(n);
}

constinit const io_ops_t sys_io_ops = {sys_write};
constinit const io_ops_t str_io_ops = {str_write};

// ---------------------------------------------------------------------------
// Interpreter

enum state_e {
  state_start = 0,
  state_scan = 1,
  state_flags = 2,
  state_field_width = 3,
  state_field_width_literal = 4,
  state_precision = 5,
  state_precision_value = 6,
  state_precision_literal = 7,
  state_length_modifier = 8,
  state_length_modifier_2 = 9,
  state_conversion_specifier = 10,
};

enum printf_flags_e {
  flags_none = 0,
  flags_alternative_form = 1,
  flags_zero_padded = 2,
  flags_left_adjusted = 4,
  flags_prefix_blank = 8,
  flags_display_sign = 16,
};

enum printf_length_modifier_e {
  length_modifier_none = 0,
  length_modifier_short_short = 1,
  length_modifier_short = 2,
  length_modifier_long = 3,
  length_modifier_long_long = 4,
};

constexpr const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr int kDigitArea = 34;  // 64 bits in base 8 need 22; a sign needs one more

inline ssize_t emit(const io_ops_t* ops, void* arg, const char* s, size_t n) {
  return ops->write(arg, s, n);
}

int put_spaces(const io_ops_t* ops, void* arg, int num_spaces) {
  int total = 0;
  for (int i = 0; i < num_spaces; ++i) total += static_cast<int>(emit(ops, arg, " ", 1));
  return total;
}

// Text padded with spaces: a negative width pads after the text.
int put_nstring(const io_ops_t* ops, void* arg, const char* s, int len, int width) {
  int total = 0;
  if (width < 0) {
    if (len > 0) total += static_cast<int>(emit(ops, arg, s, static_cast<size_t>(len)));
    total += put_spaces(ops, arg, -width - len);
  } else {
    total += put_spaces(ops, arg, width - len);
    if (len > 0) total += static_cast<int>(emit(ops, arg, s, static_cast<size_t>(len)));
  }
  return total;
}

int printf_specifier_to_base(char c) {
  switch (c) {
    case 'x': case 'X': case 'p': return 16;
    case 'd': case 'i': case 'u': return 10;
    case 'o': return 8;
    default: return 35;
  }
}

int s_printf_finish_formatting_int(const io_ops_t* ops, void* arg, const char* val, int len,
                                   int flags, int field_width, int precision, int has_width,
                                   int has_precision) {
  const char* prefix = "";
  int prefix_len = 0;
  if (len > 0 && val[0] == '-') {
    prefix = "-";
    prefix_len = 1;
    ++val;
    --len;
  } else if (flags & flags_alternative_form) {
    prefix = "0x";
    prefix_len = 2;
  } else if (flags & flags_display_sign) {
    prefix = "+";
    prefix_len = 1;
  } else if (flags & flags_prefix_blank) {
    prefix = " ";
    prefix_len = 1;
  }
  int min_len;
  if (has_precision)
    min_len = precision;
  else if (has_width)
    min_len = ((flags & flags_zero_padded) && !(flags & flags_left_adjusted)) ? field_width : len;
  else
    min_len = prefix_len + len;
  int body = prefix_len + len > min_len ? prefix_len + len : min_len;
  bool pad = has_width && field_width > body;
  bool left = (flags & flags_left_adjusted) != 0;
  int total = 0;
  if (pad && !left) total += put_spaces(ops, arg, field_width - body);
  if (prefix_len > 0) total += static_cast<int>(emit(ops, arg, prefix, static_cast<size_t>(prefix_len)));
  for (int i = body - prefix_len - len; i > 0; --i) total += static_cast<int>(emit(ops, arg, "0", 1));
  if (len > 0) total += static_cast<int>(emit(ops, arg, val, static_cast<size_t>(len)));
  if (pad && left) total += put_spaces(ops, arg, field_width - body);
  return total;
}

// Digits of v in base, written backwards ending at end; returns the first digit.
char* unsigned_digits(unsigned long v, int base, char* end) {
  char* p = end;
  do {
    *--p = kDigits[v % static_cast<unsigned long>(base)];
    v /= static_cast<unsigned long>(base);
  } while (v != 0);
  return p;
}

// Converted from the negative side so that the most negative value is exact.
char* signed_digits(long v, char* end) {
  if (v >= 0) return unsigned_digits(static_cast<unsigned long>(v), 10, end);
  char* p = end;
  do {
    long q = v / 10;
    *--p = kDigits[q * 10 - v];
    v = q;
  } while (v != 0);
  *--p = '-';
  return p;
}

int s_vprintf(const io_ops_t* ops, void* arg, const char* fmt, va_list ap) {
  if (fmt == nullptr) return 0;
  int total = 0;
  state_e state = state_start;
  const char* run = fmt;
  const char* p = fmt;
  int flags = 0, width = 0, precision = 0, has_width = 0, has_precision = 0;
  int lm = length_modifier_none;

  while (*p != '\0') {
    char c = *p;
    switch (state) {
      case state_start:
        flags = width = precision = has_width = has_precision = 0;
        lm = length_modifier_none;
        run = p;
        state = state_scan;
        break;
      case state_scan:
        if (c == '%') {
          if (p > run) {
            ssize_t r = emit(ops, arg, run, static_cast<size_t>(p - run));
            if (r > 0) total += static_cast<int>(r);
          }
          state = state_flags;
        }
        ++p;
        break;
      case state_flags:
        switch (c) {
          case '%':
            total += static_cast<int>(emit(ops, arg, "%", 1));
            ++p;
            state = state_start;
            break;
          case ' ': flags |= flags_prefix_blank; ++p; break;
          case '#': flags |= flags_alternative_form; ++p; break;
          case '+': flags |= flags_display_sign; ++p; break;
          case '-': flags |= flags_left_adjusted; ++p; break;
          case '0': flags |= flags_zero_padded; ++p; break;
          default: state = state_field_width; break;
        }
        break;
      case state_field_width:
        if (c == '*') {
          width = va_arg(ap, int);
          has_width = 1;
          ++p;
          state = state_precision;
        } else {
          state = state_field_width_literal;
        }
        break;
      case state_field_width_literal:
        if (c >= '0' && c <= '9') {
          width = width * 10 + (c - '0');
          has_width = 1;
          ++p;
        } else {
          state = state_precision;
        }
        break;
      case state_precision:
        if (c == '.') {
          has_precision = 1;
          ++p;
          state = state_precision_value;
        } else {
          state = state_length_modifier;
        }
        break;
      case state_precision_value:
        if (c == '*') {
          precision = va_arg(ap, int);
          if (precision < 0) precision = 0;
          ++p;
          state = state_length_modifier;
        } else {
          state = state_precision_literal;
        }
        break;
      case state_precision_literal:
        if (c >= '0' && c <= '9') {
          precision = precision * 10 + (c - '0');
          ++p;
        } else {
          state = state_length_modifier;
        }
        break;
      case state_length_modifier:
        if (c == 'h') {
          lm = length_modifier_short;
          ++p;
          state = state_length_modifier_2;
        } else if (c == 'l') {
          lm = length_modifier_long;
          ++p;
          state = state_length_modifier_2;
        } else if (c == 'L') {
          lm = length_modifier_long;
          ++p;
          state = state_conversion_specifier;
        } else {
          state = state_conversion_specifier;
        }
        break;
      case state_length_modifier_2:
        if (c == 'h' && lm == length_modifier_short) {
          lm = length_modifier_short_short;
          ++p;
        } else if (c == 'l' && lm == length_modifier_long) {
          lm = length_modifier_long_long;
          ++p;
        }
        state = state_conversion_specifier;
        break;
      case state_conversion_specifier: {
        ++p;
        state = state_start;
        const bool wide = lm == length_modifier_long || lm == length_modifier_long_long;
        char area[kDigitArea];
        char* end = area + kDigitArea;
        switch (c) {
          case 'd':
          case 'i': {
            long v = wide ? va_arg(ap, long) : static_cast<long>(va_arg(ap, int));
            char* s = signed_digits(v, end);
            total += s_printf_finish_formatting_int(ops, arg, s, static_cast<int>(end - s), flags,
                                                    width, precision, has_width, has_precision);
            break;
          }
          case 'o':
          case 'u':
          case 'x':
          case 'X':
          case 'p': {
            unsigned long v;
            if (c == 'p')
              v = reinterpret_cast<unsigned long>(va_arg(ap, void*));
            else
              v = wide ? va_arg(ap, unsigned long) : static_cast<unsigned long>(va_arg(ap, unsigned));
            if (c != 'p') flags &= ~flags_prefix_blank;
            char* s = unsigned_digits(v, printf_specifier_to_base(c), end);
            total += s_printf_finish_formatting_int(ops, arg, s, static_cast<int>(end - s), flags,
                                                    width, precision, has_width, has_precision);
            break;
          }
          case 'c': {
            char ch = static_cast<char>(va_arg(ap, int));
            int w = (flags & flags_left_adjusted) && width > 0 ? -width : width;
            total += put_nstring(ops, arg, &ch, 1, w);
            break;
          }
          case 's': {
            const char* s = va_arg(ap, const char*);
            int len = 0;
            if (has_precision) {
              while (len < precision && s[len] != '\0') ++len;
            } else if (s != nullptr) {
              while (s[len] != '\0') ++len;
            }
            int w = (flags & flags_left_adjusted) && width > 0 ? -width : width;
            total += put_nstring(ops, arg, s, len, w);
            break;
          }
          default:
            // Unknown conversions consume the character and nothing else.
            break;
        }
        break;
      }
    }
  }
  // A format that ends inside a conversion writes everything since the start
  // of the pending run, the literal text again included.
  if (state != state_start && p > run) {
    ssize_t r = emit(ops, arg, run, static_cast<size_t>(p - run));
    if (r > 0) total += static_cast<int>(r);
  }
  return total;
}

}  // namespace

extern "C" {

int QM_s_vprintf(int fd, const char* fmt, va_list ap) {
  sys_io_arg_t a = {fd, 0};
  return s_vprintf(&sys_io_ops, &a, fmt, ap);
}

int QM_s_printf(int fd, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_s_vprintf(fd, fmt, ap);
  va_end(ap);
  return r;
}

int QM_s_vsnprintf(char* buffer, int buffer_len, const char* fmt, va_list ap) {
  str_io_arg_t a = {buffer, buffer, buffer_len, buffer_len - 1, 0};
  s_vprintf(&str_io_ops, &a, fmt, ap);
  buffer[a.num_written] = '\0';
  return a.num_written;
}

int QM_s_snprintf(char* buffer, int buffer_len, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_s_vsnprintf(buffer, buffer_len, fmt, ap);
  va_end(ap);
  return r;
}

// ---------------------------------------------------------------------------
// Buffered reader

int QM_bfr_open(buffered_file_reader_t* bfr, const char* fname) {
  if (bfr == nullptr) return -1;
  int fd = open(fname, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  bfr->fd = fd;
  bfr->next = 0;
  bfr->length = 0;
  bfr->sizeof_buffer = bfr_constants_sizeof_buffer;
  bfr->eof = 0;
  return 0;
}

int QM_bfr_close(buffered_file_reader_t* bfr) { return close(bfr->fd); }

int QM_bfr_is_eof(buffered_file_reader_t* bfr) { return bfr->eof; }

int QM_bfr_read_char(buffered_file_reader_t* bfr, int* ch) {
  if (bfr->next >= bfr->length) {
    ssize_t r = read(bfr->fd, bfr->buffer, static_cast<size_t>(bfr->sizeof_buffer));
    if (r < 0) return -1;
    if (r == 0) {
      bfr->eof = 1;
      return 0;
    }
    bfr->length = static_cast<int>(r);
    bfr->next = 0;
  }
  *ch = static_cast<signed char>(bfr->buffer[bfr->next++]);
  return 1;
}

int QM_bfr_unread_char(buffered_file_reader_t* bfr, int ch) {
  if (bfr->next == 0) return -1;
  bfr->buffer[--bfr->next] = static_cast<char>(ch);
  bfr->eof = 0;
  return 0;
}

}  // extern "C"

bool qm::write_all(int fd, const void* p, size_t len) {
  const char* c = static_cast<const char*>(p);
  while (len > 0) {
    ssize_t n = write(fd, c, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    c += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}
