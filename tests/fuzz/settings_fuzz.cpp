// Fuzzes the settings parser: arbitrary bytes are cut into settings by both
// cutters (the string one over a NUL-terminated writable copy, the file one
// through a memfd with a small read buffer, so that refills fall everywhere),
// and every setting goes through the name splitter, the tokenisers, the
// matchers, the integer conversion and the generic number reader. Besides the
// sanitizers, a few properties of the results are checked.
#include <ctype.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/assert.h"
#include "config/settings_parser.h"

namespace {

#define CHECK(cond) \
  do {              \
    if (!(cond)) __builtin_trap(); \
  } while (0)

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// What QM_string_to_integer should make of a token: whether it is a number,
// and its value when it is short enough that strtoull cannot saturate.
bool reference_integer(const std::string& t, long* out, bool* have_value) {
  size_t i = 0;
  bool negative = false;
  if (i < t.size() && (t[i] == '+' || t[i] == '-')) negative = t[i++] == '-';
  std::string digits = t.substr(i);
  if (digits.empty()) return false;
  int base = 10;
  size_t first = 0;
  if (digits.size() >= 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    base = 16;
    first = 2;
  } else if (digits[0] == '0') {
    base = 8;
  }
  if (first == digits.size()) return false;
  for (size_t k = first; k < digits.size(); ++k) {
    char c = digits[k];
    bool ok = base == 16 ? isxdigit(static_cast<unsigned char>(c)) != 0
                         : c >= '0' && c < '0' + base;
    if (!ok) return false;
  }
  *have_value = digits.size() - first <= 15;
  unsigned long long m = strtoull(digits.c_str() + first, nullptr, base);
  *out = static_cast<long>(negative ? 0UL - static_cast<unsigned long>(m) : static_cast<unsigned long>(m));
  return true;
}

void check_integer(const char* t, int len) {
  long v = 12345;
  int ok = QM_string_to_integer(t, len, &v);
  long ref = 0;
  bool have_value = false;
  bool ref_ok = reference_integer(std::string(t, static_cast<size_t>(len)), &ref, &have_value);
  CHECK(ok == (ref_ok ? 1 : 0));
  if (ok && have_value) CHECK(v == ref);
  if (!ok) CHECK(v == 12345);
  long w;
  CHECK(QM_settings_token_to_long(t, len, &w) == ok);
}

void tokenise(const char* s, bool list) {
  for (int i = 0; i < 10000; ++i) {
    const char* token;
    int len = -1;
    const char* next = list ? QM_settings_get_next_token_from_list(s, &token, &len)
                            : QM_settings_get_next_token(s, &token, &len);
    CHECK(len >= 0 && token >= s && next >= token + len);
    if (len == 0 && *next == '\0') return;
    for (int k = 0; k < len; ++k) CHECK(!is_space(token[k]) && !(list && token[k] == ','));
    check_integer(token, len);
    int b;
    QM_settings_token_to_boolean(token, len, &b);
    CHECK(next > s);  // every call makes progress until the end
    s = next;
  }
  CHECK(false);
}

void read_numbers(const char* s, int base) {
  string_source_t ss;
  parser_source_t* src = QM_init_string_parser(s, &ss);
  CHECK(src != nullptr);
  for (int i = 0; i < 10000; ++i) {
    const char* before = ss.pos;
    int rc;
    if (i % 2 == 0) {
      long v;
      rc = QM_parser_read_signed_int(src, base, &v);
    } else {
      unsigned long v;
      rc = QM_parser_read_unsigned_int(src, base, &v);
    }
    if (rc != 0 || src->is_at_end(src)) return;
    CHECK(ss.pos > before);
  }
  CHECK(false);
}

void use_setting(const char* setting) {
  const char* name;
  const char* rhs;
  int len;
  if (QM_settings_get_setting_name_and_consume_equals(setting, &name, &len, &rhs) == 0) {
    CHECK(len > 0 && name >= setting && rhs > name + len && rhs[-1] == '=');
    int err;
    int b;
    long l;
    const char* val;
    int val_len;
    const char* r = rhs;
    CHECK(QM_settings_matches_true_false_setting("x", name, len, &r, &err, &b) ==
          (len == 1 && name[0] == 'x'));
    std::string key(name, static_cast<size_t>(len));
    r = rhs;
    CHECK(QM_settings_matches_true_false_setting(key.c_str(), name, len, &r, &err, &b) == 1);
    r = rhs;
    CHECK(QM_settings_matches_int_setting(key.c_str(), name, len, &r, &err, &l) == 1);
    r = rhs;
    CHECK(QM_settings_matches_non_negative_int_setting(key.c_str(), name, len, &r, &err, &l) == 1);
    if (err == 0) CHECK(l >= 0);
    r = rhs;
    CHECK(QM_settings_matches_string_val_setting(key.c_str(), name, len, &r, &err, &val, &val_len) == 1);
    CHECK((err == 0) == (val_len > 0));
    tokenise(rhs, true);
  }
  tokenise(setting, false);
  tokenise(setting, true);
  for (int base : {0, 2, 8, 10, 16, 36, -1, 1, 37}) read_numbers(setting, base);
}

void cut(const QM_settings_parse_ops_t* ops, void* handle, int size, bool file) {
  std::vector<char> buf(static_cast<size_t>(size) + 1, '\x7f');
  for (int i = 0; i < 100000 && !ops->eof(ops, handle); ++i) {
    if (ops->get_setting(ops, handle, buf.data(), size) != 0) continue;
    size_t n = strlen(buf.data());
    CHECK(n < static_cast<size_t>(size));
    CHECK(buf[size] == '\x7f');  // nothing written past the caller's size
    if (file) {
      CHECK(memchr(buf.data(), '\n', n) == nullptr && memchr(buf.data(), '#', n) == nullptr);
    } else {
      CHECK(!is_space(buf[0]));
      if (const char* eq = strchr(buf.data(), '='))
        for (const char* p = eq + 1; *p != '\0'; ++p) CHECK(!is_space(*p));
    }
    use_setting(buf.data());
  }
  CHECK(ops->eof(ops, handle));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int devnull = open("/dev/null", O_WRONLY);
  QM_stderr = devnull;
  // The first byte picks the buffer sizes; small ones reach the overflow paths.
  int setting_size = 4096;
  int read_size = QM_settings_file_sizeof_buffer;
  if (size > 0) {
    if (data[0] & 0x80) setting_size = 1 + (data[0] & 0x1f);
    if (data[0] & 0x40) read_size = 1 + (data[0] & 0x7);
  }

  std::vector<char> text(reinterpret_cast<const char*>(data),
                         reinterpret_cast<const char*>(data) + size);
  text.push_back('\0');
  QM_settings_parse_handle_string_t sh;
  CHECK(QM_settings_parse_handle_string_init(&sh, text.data()) == 0);
  cut(QM_settings_parse_ops_string, &sh, setting_size, false);

  int fd = memfd_create("settings_fuzz", 0);
  CHECK(fd >= 0);
  CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
  lseek(fd, 0, SEEK_SET);
  static QM_settings_parse_handle_file_t fh;
  CHECK(QM_settings_parse_handle_file_init(&fh, fd) == 0);
  fh.sizeof_buffer = read_size;
  cut(QM_settings_parse_ops_file, &fh, setting_size, true);
  close(fd);
  return 0;
}
