#include "config/settings_parser.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/format.h"

namespace {

// The C locale's classes, without the C library: its tables may not be ready
// when the agent reads its configuration.
bool is_space(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_alpha(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(int c) { return c >= '0' && c <= '9'; }

// 0..35 for "0"-"9", then letters of either case; 36 for anything else, which
// is no digit in any base.
int digit_value(int c) {
  if (is_digit(c)) return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 36;
}

// ---------------------------------------------------------------------------
// File source

int file_eof(const QM_settings_parse_ops_t*, void* handle) {
  auto* h = static_cast<QM_settings_parse_handle_file_t*>(handle);
  if (h == nullptr) return 1;
  return h->seen_eof && h->push_back_pos == 0;
}

int file_get_char(const QM_settings_parse_ops_t* ops, void* handle, char* c) {
  auto* h = static_cast<QM_settings_parse_handle_file_t*>(handle);
  if (h == nullptr || file_eof(ops, handle)) return -1;
  if (h->push_back_pos > 0) {
    *c = h->push_back_buffer[--h->push_back_pos];
    return 0;
  }
  if (h->pos >= h->len) {
    // A caller's smaller size is honoured, a larger one is not.
    int size = h->sizeof_buffer;
    if (size <= 0 || size > static_cast<int>(sizeof h->buffer)) size = sizeof h->buffer;
    ssize_t n;
    do n = read(h->fd, h->buffer, static_cast<size_t>(size));
    while (n < 0 && errno == EINTR);
    if (n < 0) {
      const char* text = strerrordesc_np(errno);
      QM_s_printf(QM_stderr, "QM: Error reading settings from file (%s)\n",
                  text != nullptr ? text : "");
      return -1;
    }
    if (n == 0) {
      h->seen_eof = 1;
      return -1;
    }
    h->pos = 0;
    h->len = static_cast<int>(n);
  }
  *c = h->buffer[h->pos++];
  return 0;
}

int file_unget_char(const QM_settings_parse_ops_t*, void* handle, char c) {
  auto* h = static_cast<QM_settings_parse_handle_file_t*>(handle);
  if (h == nullptr) return -1;
  int size = h->sizeof_push_back;
  if (size > static_cast<int>(sizeof h->push_back_buffer)) size = sizeof h->push_back_buffer;
  if (h->push_back_pos >= size) return -1;
  h->push_back_buffer[h->push_back_pos++] = c;
  return 0;
}

// One setting per call: leading white space, blank lines and comment lines
// are dropped; the setting runs to the end of its line or to a "#", which is
// pushed back so that the next call drops the comment. White space inside the
// setting, around "=" too, is kept.
int file_get_setting(const QM_settings_parse_ops_t* ops, void* handle, char* buffer,
                     int sizeof_buffer) {
  if (ops == nullptr || handle == nullptr || buffer == nullptr || sizeof_buffer <= 0) return -1;
  enum states_e {
    start,
    remove_leading_ws,
    comment,
    read_setting,
    insert,
    backslash,
    check_eof,
    check_err,
    error,
    finish
  };
  states_e state = start;
  int len = 0;
  char c = 0;
  for (;;) {
    switch (state) {
      case start:
        len = 0;
        state = remove_leading_ws;
        break;
      case remove_leading_ws:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (c == '#')
          state = comment;
        else if (!is_space(c))
          state = ops->unget_char(ops, handle, c) != 0 ? check_err : read_setting;
        break;
      case comment:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (c == '\n')
          state = remove_leading_ws;
        break;
      case read_setting:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (c == '\n')
          state = finish;
        else if (c == '\\')
          state = backslash;
        else if (c == '#')
          state = ops->unget_char(ops, handle, c) != 0 ? check_err : finish;
        else
          state = insert;
        break;
      case insert:
        if (len >= sizeof_buffer - 1) {
          state = error;
        } else {
          buffer[len++] = c;
          state = read_setting;
        }
        break;
      case backslash:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (c == '\n')
          state = read_setting;  // a continuation line
        else if (c == '\\')
          state = insert;
        else
          state = error;
        break;
      case check_eof:
        state = ops->eof(ops, handle) ? finish : error;
        break;
      case check_err:
        state = error;
        break;
      case error:
        buffer[len] = '\0';  // what was read, for a caller that shows it
        return -1;
      case finish:
        buffer[len] = '\0';
        return 0;
    }
  }
}

// ---------------------------------------------------------------------------
// String source

int string_eof(const QM_settings_parse_ops_t*, void* handle) {
  auto* h = static_cast<QM_settings_parse_handle_string_t*>(handle);
  return h == nullptr || h->pos == nullptr || *h->pos == '\0';
}

int string_get_char(const QM_settings_parse_ops_t* ops, void* handle, char* c) {
  if (string_eof(ops, handle)) return -1;
  auto* h = static_cast<QM_settings_parse_handle_string_t*>(handle);
  *c = *h->pos++;
  return 0;
}

int string_unget_char(const QM_settings_parse_ops_t*, void* handle, char c) {
  auto* h = static_cast<QM_settings_parse_handle_string_t*>(handle);
  if (h == nullptr || h->pos == nullptr || h->pos <= h->string) return -1;
  *--h->pos = c;
  return 0;
}

// Settings are separated by white space. Before the "=" everything is part of
// the setting (so "a = 1" is one setting, "a =1"); after it, white space is
// skipped and the value runs to the next white space. A backslash may only
// double itself, so a value cannot hold a space.
int string_get_setting(const QM_settings_parse_ops_t* ops, void* handle, char* buffer,
                       int sizeof_buffer) {
  if (ops == nullptr || handle == nullptr || buffer == nullptr || sizeof_buffer <= 0) return -1;
  enum states_e {
    start,
    remove_leading_ws,
    read_lhs,
    read_rhs,
    read_rhs_value,
    insert,
    backslash,
    check_eof,
    check_err,
    error,
    finish
  };
  states_e state = start;
  states_e next = read_lhs;  // where remove_leading_ws, insert and backslash go on
  int len = 0;
  char c = 0;
  for (;;) {
    switch (state) {
      case start:
        len = 0;
        next = read_lhs;
        state = remove_leading_ws;
        break;
      case remove_leading_ws:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (!is_space(c))
          state = ops->unget_char(ops, handle, c) != 0 ? check_err : next;
        break;
      case read_lhs:
        if (ops->get_char(ops, handle, &c) != 0) {
          state = check_eof;
        } else if (c == '\\') {
          state = backslash;
        } else {
          if (c == '=') next = read_rhs;
          state = insert;
        }
        break;
      case read_rhs:
        next = read_rhs_value;
        state = remove_leading_ws;
        break;
      case read_rhs_value:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else if (is_space(c))
          state = finish;
        else
          state = c == '\\' ? backslash : insert;
        break;
      case insert:
        if (len >= sizeof_buffer - 1) {
          state = error;
        } else {
          buffer[len++] = c;
          state = next;
        }
        break;
      case backslash:
        if (ops->get_char(ops, handle, &c) != 0)
          state = check_eof;
        else
          state = c == '\\' ? insert : error;
        break;
      case check_eof:
        state = ops->eof(ops, handle) ? finish : error;
        break;
      case check_err:
        state = error;
        break;
      case error:
        buffer[len] = '\0';
        return -1;
      case finish:
        buffer[len] = '\0';
        return 0;
    }
  }
}

constinit const QM_settings_parse_ops_t file_ops = {file_eof, file_get_char, file_unget_char,
                                                    file_get_setting};
constinit const QM_settings_parse_ops_t string_ops = {string_eof, string_get_char,
                                                      string_unget_char, string_get_setting};

// ---------------------------------------------------------------------------
// Tokens

const char* next_token(const char* s, const char** token, int* token_len, bool list) {
  if (s == nullptr) {
    *token = s;
    *token_len = 0;
    return s;
  }
  s = QM_settings_skip_whitespace(s);
  const char* start = s;
  while (*s != '\0' && !is_space(*s) && !(list && *s == ',')) ++s;
  *token = start;
  *token_len = static_cast<int>(s - start);
  if (list && *s == ',') ++s;
  return s;
}

// ---------------------------------------------------------------------------
// Generic parser

int string_source_is_at_end(parser_source_t* src) {
  auto* p = static_cast<string_source_t*>(src->arg);
  return *p->pos == '\0';
}

int string_source_read_char(parser_source_t* src, int* ch) {
  auto* p = static_cast<string_source_t*>(src->arg);
  if (*p->pos == '\0') return 0;
  *ch = static_cast<unsigned char>(*p->pos++);
  return 1;
}

int string_source_unread_char(parser_source_t* src, int) {
  auto* p = static_cast<string_source_t*>(src->arg);
  if (p->pos <= p->string) return -1;
  --p->pos;
  return 0;
}

// The digits of a number, with the prefix that base 0 or 16 allows. The
// "0" of a prefix counts as a digit, so "0x" alone and "0" alone read as 0.
int read_digits(parser_source_t* src, int base, unsigned long* ul) {
  int ch = 0;
  int r = src->read_char(src, &ch);
  if (r < 0) return -1;
  int num_digits = 0;
  unsigned long v = 0;
  if (r > 0 && ch == '0' && (base == 0 || base == 16)) {
    num_digits = 1;
    r = src->read_char(src, &ch);
    if (r < 0) return -1;
    if (r > 0 && (ch == 'x' || ch == 'X')) {
      base = 16;
      r = src->read_char(src, &ch);
      if (r < 0) return -1;
    } else if (base == 0) {
      base = 8;
    }
  } else if (base == 0) {
    base = 10;
  }
  while (r > 0) {
    int d = digit_value(ch);
    if (d >= base) break;
    v = v * static_cast<unsigned long>(base) + static_cast<unsigned long>(d);
    ++num_digits;
    r = src->read_char(src, &ch);
    if (r < 0) return -1;
  }
  if (r > 0 && src->unread_char(src, ch) < 0) return -1;
  if (num_digits == 0) return -1;
  *ul = v;
  return 0;
}

bool valid_base(int base) { return base == 0 || (base >= 2 && base <= 36); }

}  // namespace

extern "C" {

constinit const QM_settings_parse_ops_t* const QM_settings_parse_ops_file = &file_ops;
constinit const QM_settings_parse_ops_t* const QM_settings_parse_ops_string = &string_ops;

int QM_settings_parse_handle_file_init(QM_settings_parse_handle_file_t* handle, int fd) {
  if (handle == nullptr) return -1;
  handle->fd = fd;
  handle->sizeof_buffer = QM_settings_file_sizeof_buffer;
  handle->pos = 0;
  handle->len = 0;
  handle->seen_eof = 0;
  handle->sizeof_push_back = QM_settings_file_sizeof_push_back;
  handle->push_back_pos = 0;
  return 0;
}

int QM_settings_parse_handle_string_init(QM_settings_parse_handle_string_t* handle, char* string) {
  if (handle == nullptr) return -1;
  handle->string = string;
  handle->pos = string;
  return 0;
}

const char* QM_settings_skip_whitespace(const char* s) {
  if (s == nullptr) return s;
  while (is_space(*s)) ++s;
  return s;
}

int QM_settings_get_setting_name_and_consume_equals(const char* s, const char** name, int* len,
                                                    const char** cont) {
  s = QM_settings_skip_whitespace(s);
  if (s == nullptr || *s == '\0') return -1;
  if (!is_alpha(*s)) {
    QM_s_printf(QM_stderr,
                "QM: syntax error in setting: setting name must begin with alpha character\n");
    return -1;
  }
  const char* start = s;
  while (is_alpha(*s) || is_digit(*s) || *s == '_') ++s;
  const char* end = s;
  s = QM_settings_skip_whitespace(s);
  if (*s != '=') {
    QM_s_printf(QM_stderr, "QM: syntax error in setting: setting name should be followed by `='\n");
    return -1;
  }
  *name = start;
  *len = static_cast<int>(end - start);
  *cont = s + 1;
  return 0;
}

const char* QM_settings_get_next_token(const char* s, const char** token, int* token_len) {
  return next_token(s, token, token_len, false);
}

const char* QM_settings_get_next_token_from_list(const char* s, const char** token,
                                                 int* token_len) {
  return next_token(s, token, token_len, true);
}

int QM_settings_matches_string(const char* stringz, const char* token, int token_len) {
  if (stringz == nullptr || token == nullptr || token_len < 0) return 0;
  int i = 0;
  for (; i < token_len; ++i)
    if (stringz[i] == '\0' || stringz[i] != token[i]) return 0;
  return stringz[i] == '\0';
}

int QM_settings_token_to_boolean(const char* token, int token_len, int* bool_val) {
  if (QM_settings_matches_string("true", token, token_len)) {
    *bool_val = 1;
    return 1;
  }
  if (QM_settings_matches_string("false", token, token_len)) {
    *bool_val = 0;
    return 1;
  }
  return 0;
}

int QM_settings_token_to_long(const char* token, int token_len, long* val) {
  return QM_string_to_integer(token, token_len, val);
}

int QM_settings_matches_true_false_setting(const char* key, const char* name_token, int name_len,
                                           const char** rhs, int* err, int* val) {
  if (!QM_settings_matches_string(key, name_token, name_len)) return 0;
  *err = 0;
  const char* token;
  int token_len;
  *rhs = QM_settings_get_next_token(*rhs, &token, &token_len);
  if (!QM_settings_token_to_boolean(token, token_len, val)) {
    *err = -1;
    QM_s_printf(QM_stderr, "QM: %s: ERROR true or false expected for value\n", key);
  }
  return 1;
}

int QM_settings_matches_int_setting(const char* key, const char* name_token, int name_len,
                                    const char** rhs, int* err, long* val) {
  *err = -1;
  if (!QM_settings_matches_string(key, name_token, name_len)) return 0;
  const char* token;
  int token_len;
  *rhs = QM_settings_get_next_token(*rhs, &token, &token_len);
  if (token_len == 0)
    QM_s_printf(QM_stderr, "QM: %s: ERROR missing integer argument\n", key);
  else if (!QM_settings_token_to_long(token, token_len, val))
    QM_s_printf(QM_stderr, "QM: %s: ERROR integer expected in place of `%.*s'\n", key, token_len,
                token);
  else
    *err = 0;
  return 1;
}

int QM_settings_matches_non_negative_int_setting(const char* key, const char* name_token,
                                                 int name_len, const char** rhs, int* err,
                                                 long* val) {
  if (!QM_settings_matches_int_setting(key, name_token, name_len, rhs, err, val)) return 0;
  if (*err == 0 && *val < 0) {
    *err = -1;
    QM_s_printf(QM_stderr, "QM: %s: ERROR value may not be less than zero (found %ld)\n", key,
                *val);
  }
  return 1;
}

int QM_settings_matches_string_val_setting(const char* key, const char* name_token, int name_len,
                                           const char** rhs, int* err, const char** val,
                                           int* val_len) {
  *err = -1;
  if (!QM_settings_matches_string(key, name_token, name_len)) return 0;
  *rhs = QM_settings_get_next_token(*rhs, val, val_len);
  if (*val_len == 0)
    QM_s_printf(QM_stderr, "QM: %s: ERROR missing string argument\n", key);
  else
    *err = 0;
  return 1;
}

int QM_string_to_integer(const char* arg, int arg_len, long* val) {
  enum parse_state_e {
    start_e,     // nothing read
    sign_e,      // "+" or "-"
    zero_e,      // the first "0": "x", octal digits or the end may follow
    ex_e,        // "0x": a hexadecimal digit must follow
    zero_eff_e,  // more zeros of an octal number, whose value is still zero
    hexit_e,
    octit_e,
    digit_e
  };
  enum finish_state_e { not_finished_e, success_e, error_e };
  if (arg == nullptr || arg_len <= 0) return 0;
  parse_state_e state = start_e;
  finish_state_e finish = not_finished_e;
  bool negative = false;
  // Unsigned, so that the promised wrap-around is defined behaviour.
  unsigned long magnitude = 0;
  int i = 0;
  while (finish == not_finished_e) {
    if (i == arg_len) {
      finish = state == start_e || state == sign_e || state == ex_e ? error_e : success_e;
      break;
    }
    char c = arg[i++];
    int d = digit_value(c);
    switch (state) {
      case start_e:
        if (c == '+' || c == '-') {
          negative = c == '-';
          state = sign_e;
          break;
        }
        [[fallthrough]];
      case sign_e:
        if (c == '0') {
          state = zero_e;
        } else if (is_digit(c)) {
          magnitude = static_cast<unsigned long>(d);
          state = digit_e;
        } else {
          finish = error_e;
        }
        break;
      case zero_e:
        if (c == 'x' || c == 'X') {
          state = ex_e;
          break;
        }
        [[fallthrough]];
      case zero_eff_e:
        if (c == '0') {
          state = zero_eff_e;
        } else if (d < 8) {
          magnitude = static_cast<unsigned long>(d);
          state = octit_e;
        } else {
          finish = error_e;
        }
        break;
      case ex_e:
      case hexit_e:
        if (d < 16) {
          magnitude = magnitude * 16 + static_cast<unsigned long>(d);
          state = hexit_e;
        } else {
          finish = error_e;
        }
        break;
      case octit_e:
        if (d < 8)
          magnitude = magnitude * 8 + static_cast<unsigned long>(d);
        else
          finish = error_e;
        break;
      case digit_e:
        if (d < 10)
          magnitude = magnitude * 10 + static_cast<unsigned long>(d);
        else
          finish = error_e;
        break;
    }
  }
  if (finish != success_e) return 0;
  *val = static_cast<long>(negative ? 0UL - magnitude : magnitude);
  return 1;
}

parser_source_t* QM_init_string_parser(const char* str, string_source_t* p) {
  if (str == nullptr || p == nullptr) return nullptr;
  p->string = str;
  p->pos = str;
  p->source.arg = p;
  p->source.is_at_end = string_source_is_at_end;
  p->source.read_char = string_source_read_char;
  p->source.unread_char = string_source_unread_char;
  return &p->source;
}

int QM_parser_skip_whitespace(parser_source_t* src) {
  for (;;) {
    int ch = 0;
    int r = src->read_char(src, &ch);
    if (r < 0) return -1;
    if (r == 0) return 0;
    if (!is_space(ch)) return src->unread_char(src, ch) < 0 ? -1 : 0;
  }
}

int QM_parser_read_unsigned_int(parser_source_t* src, int base, unsigned long* ul) {
  if (src == nullptr || !valid_base(base)) return -1;
  if (QM_parser_skip_whitespace(src) != 0) return -1;
  if (src->is_at_end(src)) return 0;
  return read_digits(src, base, ul);
}

int QM_parser_read_signed_int(parser_source_t* src, int base, long* val) {
  if (src == nullptr || !valid_base(base)) return -1;
  if (QM_parser_skip_whitespace(src) != 0) return -1;
  if (src->is_at_end(src)) return 0;
  int ch = 0;
  int r = src->read_char(src, &ch);
  if (r <= 0) return -1;  // is_at_end said there was a character
  bool negative = ch == '-';
  if (ch != '+' && ch != '-' && src->unread_char(src, ch) < 0) return -1;
  unsigned long magnitude;
  if (read_digits(src, base, &magnitude) != 0) return -1;
  *val = static_cast<long>(negative ? 0UL - magnitude : magnitude);
  return 0;
}

int QM_parser_read_decimal(parser_source_t* src, long* l) {
  return QM_parser_read_signed_int(src, 10, l);
}

int QM_parser_read_hex(parser_source_t* src, unsigned long* ul) {
  return QM_parser_read_unsigned_int(src, 16, ul);
}

}  // extern "C"
