// The settings parser: both cutters over comments, continuations, backslashes
// and white space; the name splitter, tokens, conversions and matchers with
// their messages; and the generic number reader.
#include "config/settings_parser.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "base/assert.h"

namespace {

// Points QM_stderr at a temporary file for the life of the object.
class CapturedStderr {
 public:
  CapturedStderr() {
    char path[] = "/tmp/qm_settings_XXXXXX";
    fd_ = mkstemp(path);
    unlink(path);
    QM_stderr = fd_;
  }
  ~CapturedStderr() {
    QM_stderr = 2;
    close(fd_);
  }
  std::string text() {
    std::string s;
    char buf[256];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd_, buf, sizeof buf, at)) > 0; at += n) s.append(buf, n);
    return s;
  }

 private:
  int fd_;
};

using Cut = std::vector<std::pair<int, std::string>>;

// Every setting the source delivers, with get_setting's result, until eof.
Cut cut_all(const QM_settings_parse_ops_t* ops, void* handle, int size) {
  Cut out;
  std::vector<char> buf(size);
  for (int i = 0; i < 100 && !ops->eof(ops, handle); ++i) {
    int rc = ops->get_setting(ops, handle, buf.data(), size);
    out.emplace_back(rc, rc == 0 ? std::string(buf.data()) : std::string());
  }
  return out;
}

Cut cut_string(std::string text, int size = 4096) {
  QM_settings_parse_handle_string_t h;
  EXPECT_EQ(QM_settings_parse_handle_string_init(&h, text.data()), 0);
  return cut_all(QM_settings_parse_ops_string, &h, size);
}

Cut cut_file(const std::string& text, int size = 4096) {
  FILE* f = tmpfile();
  fwrite(text.data(), 1, text.size(), f);
  fflush(f);
  rewind(f);
  auto* h = new QM_settings_parse_handle_file_t;
  EXPECT_EQ(QM_settings_parse_handle_file_init(h, fileno(f)), 0);
  Cut out = cut_all(QM_settings_parse_ops_file, h, size);
  delete h;
  fclose(f);
  return out;
}

Cut::value_type ok(const std::string& s) { return {0, s}; }
const Cut::value_type failed{-1, ""};

TEST(SettingsFileCutter, CommentsBlankLinesAndWhiteSpace) {
  // Leading white space and comment lines go; inner and trailing white space
  // stays; a trailing comment ends the setting and the next call drops it.
  EXPECT_EQ(cut_file("  verbosity = 2   # a comment\n\n# whole line\n\t a=b\nlast=1"),
            (Cut{ok("verbosity = 2   "), ok("a=b"), ok("last=1")}));
  EXPECT_EQ(cut_file(""), (Cut{ok("")}));
  EXPECT_EQ(cut_file("# only a comment"), (Cut{ok("")}));
  EXPECT_EQ(cut_file("a=1\n\n  \n"), (Cut{ok("a=1"), ok("")}));
}

TEST(SettingsFileCutter, ContinuationsAndBackslashes) {
  EXPECT_EQ(cut_file("a=1 \\\n  2\nb=x\\\\y\n"), (Cut{ok("a=1   2"), ok("b=x\\y"), ok("")}));
  // A backslash before anything else spoils the setting; the rest of the line
  // is read as the next one.
  EXPECT_EQ(cut_file("c=\\q rest\nd=1\n"), (Cut{failed, ok("rest"), ok("d=1"), ok("")}));
  EXPECT_EQ(cut_file("e=1\\"), (Cut{ok("e=1")}));  // a backslash at the end of the file
  EXPECT_EQ(cut_file("f=1 \\\n# not a comment\n"), (Cut{ok("f=1 "), ok("")}));
}

TEST(SettingsFileCutter, OverflowAndRefillAcrossTheBuffer) {
  EXPECT_EQ(cut_file("abc\nabcd\n", 4), (Cut{ok("abc"), failed, ok("")}));
  EXPECT_EQ(cut_file("x", 1), (Cut{failed, ok("")}));
  // Settings longer than one read of the file's buffer, and one straddling it.
  std::string a(4090, 'a'), b(3000, 'b');
  EXPECT_EQ(cut_file("k=" + a + "\nj=" + b + "\n", 8192), (Cut{ok("k=" + a), ok("j=" + b), ok("")}));
}

TEST(SettingsFileCutter, PushBackAndEndOfFile) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], "z", 1), 1);
  close(fds[1]);
  auto* h = new QM_settings_parse_handle_file_t;
  QM_settings_parse_handle_file_init(h, fds[0]);
  const QM_settings_parse_ops_t* ops = QM_settings_parse_ops_file;
  char c = 0;
  EXPECT_EQ(ops->get_char(ops, h, &c), 0);
  EXPECT_EQ(c, 'z');
  EXPECT_EQ(ops->get_char(ops, h, &c), -1);
  EXPECT_TRUE(ops->eof(ops, h));
  for (int i = 0; i < 16; ++i) EXPECT_EQ(ops->unget_char(ops, h, static_cast<char>('a' + i)), 0);
  EXPECT_EQ(ops->unget_char(ops, h, '!'), -1);
  EXPECT_FALSE(ops->eof(ops, h));  // pushed-back characters are still to read
  EXPECT_EQ(ops->get_char(ops, h, &c), 0);
  EXPECT_EQ(c, 'p');  // last pushed, first read
  close(fds[0]);
  delete h;
  EXPECT_EQ(QM_settings_parse_handle_file_init(nullptr, 0), -1);
}

TEST(SettingsFileCutter, ReadErrorIsReported) {
  CapturedStderr err;
  auto* h = new QM_settings_parse_handle_file_t;
  QM_settings_parse_handle_file_init(h, -1);
  char buf[16];
  EXPECT_EQ(QM_settings_parse_ops_file->get_setting(QM_settings_parse_ops_file, h, buf, 16), -1);
  EXPECT_FALSE(QM_settings_parse_ops_file->eof(QM_settings_parse_ops_file, h));
  EXPECT_EQ(err.text(), "QM: Error reading settings from file (Bad file descriptor)\n");
  delete h;
}

TEST(SettingsStringCutter, WhiteSpaceSeparatesSettings) {
  EXPECT_EQ(cut_string("a=1   b=2"), (Cut{ok("a=1"), ok("b=2")}));
  EXPECT_EQ(cut_string("a = 1"), (Cut{ok("a =1")}));  // white space before "=" is kept
  EXPECT_EQ(cut_string(" \t x=\\\\y  z=#  "), (Cut{ok("x=\\y"), ok("z=#"), ok("")}));
  EXPECT_EQ(cut_string("a\\\\b=c"), (Cut{ok("a\\b=c")}));
  EXPECT_EQ(cut_string("t="), (Cut{ok("t=")}));
  EXPECT_EQ(cut_string("noequals at all"), (Cut{ok("noequals at all")}));
}

TEST(SettingsStringCutter, BackslashesAndOverflowAreErrors) {
  EXPECT_EQ(cut_string("a=b\\ c d=1"), (Cut{failed, ok("c d=1")}));  // white space before "=" is kept
  EXPECT_EQ(cut_string("a\\=1"), (Cut{failed, ok("1")}));
  EXPECT_EQ(cut_string("a=1\\"), (Cut{ok("a=1")}));
  EXPECT_EQ(cut_string("abc=1 ab=1", 5), (Cut{failed, ok("ab=1")}));
}

TEST(SettingsStringCutter, PushBackWritesIntoTheString) {
  char text[] = "ab";
  QM_settings_parse_handle_string_t h;
  QM_settings_parse_handle_string_init(&h, text);
  const QM_settings_parse_ops_t* ops = QM_settings_parse_ops_string;
  char c;
  EXPECT_EQ(ops->unget_char(ops, &h, 'x'), -1);  // nothing before the start
  EXPECT_EQ(ops->get_char(ops, &h, &c), 0);
  EXPECT_EQ(ops->unget_char(ops, &h, 'Q'), 0);
  EXPECT_STREQ(text, "Qb");
  EXPECT_EQ(ops->get_char(ops, &h, &c), 0);
  EXPECT_EQ(ops->get_char(ops, &h, &c), 0);
  EXPECT_EQ(ops->get_char(ops, &h, &c), -1);
  EXPECT_TRUE(ops->eof(ops, &h));
  EXPECT_EQ(QM_settings_parse_handle_string_init(nullptr, text), -1);
}

// Splits s; the name, the rest after "=", and what was printed.
struct Split {
  int rc;
  std::string name, rest, printed;
};
Split split(const char* s) {
  CapturedStderr err;
  const char* name = nullptr;
  const char* cont = nullptr;
  int len = -1;
  int rc = QM_settings_get_setting_name_and_consume_equals(s, &name, &len, &cont);
  if (rc != 0) return {rc, "", "", err.text()};
  return {rc, std::string(name, len), cont, err.text()};
}

TEST(SettingsName, SplitsNameFromValue) {
  Split s = split("  verbosity_2 \t= 2 ");
  EXPECT_EQ(s.rc, 0);
  EXPECT_EQ(s.name, "verbosity_2");
  EXPECT_EQ(s.rest, " 2 ");
  EXPECT_EQ(split("a=").rest, "");
  EXPECT_EQ(split("").printed, "");  // empty settings fail silently
  EXPECT_EQ(split(" \n ").rc, -1);
  EXPECT_EQ(split(" \n ").printed, "");
}

TEST(SettingsName, SyntaxErrorMessages) {
  const std::string alpha = "QM: syntax error in setting: setting name must begin with alpha character\n";
  const std::string equals = "QM: syntax error in setting: setting name should be followed by `='\n";
  for (const char* bad : {"1abc=2", "_x=1", "=1"}) {
    Split s = split(bad);
    EXPECT_EQ(s.rc, -1) << bad;
    EXPECT_EQ(s.printed, alpha) << bad;
  }
  for (const char* bad : {"abc-d=1", "abc", "a b=1", "a:=1"}) {
    Split s = split(bad);
    EXPECT_EQ(s.rc, -1) << bad;
    EXPECT_EQ(s.printed, equals) << bad;
  }
}

std::vector<std::string> tokens(const char* s, bool list) {
  std::vector<std::string> out;
  for (int i = 0; i < 20; ++i) {
    const char* t;
    int len;
    s = list ? QM_settings_get_next_token_from_list(s, &t, &len) : QM_settings_get_next_token(s, &t, &len);
    out.emplace_back(t, len);
    if (len == 0) break;
  }
  return out;
}

TEST(SettingsTokens, TokensListsAndComparisons) {
  using V = std::vector<std::string>;
  EXPECT_EQ(tokens("  foo\tb,ar \n", false), (V{"foo", "b,ar", ""}));
  EXPECT_EQ(tokens("a,bb, c ,d", true), (V{"a", "bb", "c", ""}));  // " ," gives an empty token
  EXPECT_EQ(tokens("x,", true), (V{"x", ""}));
  EXPECT_TRUE(QM_settings_matches_string("abc", "abcd", 3));
  EXPECT_FALSE(QM_settings_matches_string("abc", "abc", 2));
  EXPECT_FALSE(QM_settings_matches_string("ab", "abc", 3));
  int b = 7;
  EXPECT_TRUE(QM_settings_token_to_boolean("true", 4, &b) && b == 1);
  EXPECT_TRUE(QM_settings_token_to_boolean("false!", 5, &b) && b == 0);
  b = 7;
  for (const char* no : {"True", "FALSE", "1", "truex", ""})
    EXPECT_FALSE(QM_settings_token_to_boolean(no, static_cast<int>(strlen(no)), &b)) << no;
  EXPECT_EQ(b, 7);
  EXPECT_EQ(QM_settings_skip_whitespace(nullptr), nullptr);
}

TEST(SettingsInteger, ConvertsSignsAndBases) {
  const std::pair<const char*, long> good[] = {
      {"0x1F", 31}, {"0X1f", 31}, {"-010", -8}, {"+7", 7},  {"0", 0},   {"-0", 0},
      {"000", 0},   {"0017", 15}, {"-0x10", -16}, {"123", 123}, {"0xffffffffffffffff", -1}};
  for (auto& [text, want] : good) {
    long v = 99;
    EXPECT_EQ(QM_string_to_integer(text, static_cast<int>(strlen(text)), &v), 1) << text;
    EXPECT_EQ(v, want) << text;
  }
  // Values wrap in the machine word.
  long v = 0;
  EXPECT_EQ(QM_string_to_integer("0x10000000000000001", 19, &v), 1);
  EXPECT_EQ(v, 1);
  EXPECT_EQ(QM_string_to_integer("1234", 2, &v), 1);  // only arg_len characters count
  EXPECT_EQ(v, 12);
  for (const char* bad : {"08", "0x", "-", "+", "12k", "", "00x1", "0x1g", " 1", "1 ", "--1", "0b1"}) {
    v = 99;
    EXPECT_EQ(QM_string_to_integer(bad, static_cast<int>(strlen(bad)), &v), 0) << bad;
    EXPECT_EQ(v, 99) << bad;
  }
}

TEST(SettingsMatchers, ValuesAndMessages) {
  CapturedStderr err;
  const char* rhs = " true rest";
  int e = 5, b = 5;
  EXPECT_EQ(QM_settings_matches_true_false_setting("verbose", "verbosex", 7, &rhs, &e, &b), 1);
  EXPECT_TRUE(e == 0 && b == 1);
  EXPECT_STREQ(rhs, " rest");
  e = 5;
  EXPECT_EQ(QM_settings_matches_true_false_setting("verbose", "verb", 4, &rhs, &e, &b), 0);
  EXPECT_EQ(e, 5);  // untouched when the name is another key's
  rhs = "yes";
  EXPECT_EQ(QM_settings_matches_true_false_setting("verbose", "verbose", 7, &rhs, &e, &b), 1);
  EXPECT_EQ(e, -1);

  long l = 0;
  rhs = " 0x10 tail";
  EXPECT_EQ(QM_settings_matches_int_setting("count", "count", 5, &rhs, &e, &l), 1);
  EXPECT_TRUE(e == 0 && l == 16);
  EXPECT_STREQ(rhs, " tail");
  e = 0;
  EXPECT_EQ(QM_settings_matches_int_setting("count", "other", 5, &rhs, &e, &l), 0);
  EXPECT_EQ(e, -1);  // set before the name is compared
  rhs = "   ";
  QM_settings_matches_int_setting("count", "count", 5, &rhs, &e, &l);
  rhs = "12k";
  QM_settings_matches_int_setting("count", "count", 5, &rhs, &e, &l);
  EXPECT_EQ(e, -1);
  rhs = "-3";
  EXPECT_EQ(QM_settings_matches_non_negative_int_setting("size", "size", 4, &rhs, &e, &l), 1);
  EXPECT_TRUE(e == -1 && l == -3);
  rhs = "zz";  // a value that does not convert is not also reported as negative
  QM_settings_matches_non_negative_int_setting("size", "size", 4, &rhs, &e, &l);
  rhs = "0";
  QM_settings_matches_non_negative_int_setting("size", "size", 4, &rhs, &e, &l);
  EXPECT_EQ(e, 0);

  const char* val = nullptr;
  int len = 0;
  rhs = "  /tmp/x y";
  EXPECT_EQ(QM_settings_matches_string_val_setting("dir", "dir", 3, &rhs, &e, &val, &len), 1);
  EXPECT_EQ(e, 0);
  EXPECT_EQ(std::string(val, len), "/tmp/x");
  rhs = "";
  QM_settings_matches_string_val_setting("dir", "dir", 3, &rhs, &e, &val, &len);
  EXPECT_EQ(e, -1);
  EXPECT_EQ(err.text(),
            "QM: verbose: ERROR true or false expected for value\n"
            "QM: count: ERROR missing integer argument\n"
            "QM: count: ERROR integer expected in place of `12k'\n"
            "QM: size: ERROR value may not be less than zero (found -3)\n"
            "QM: size: ERROR integer expected in place of `zz'\n"
            "QM: dir: ERROR missing string argument\n");
}

// The generic reader over a string: result, value and the next character.
struct Read {
  int rc;
  long value;
  char next;
  bool operator==(const Read&) const = default;
  friend void PrintTo(const Read& r, std::ostream* os) {
    *os << "{" << r.rc << ", " << r.value << ", '" << r.next << "'}";
  }
};
Read read_unsigned(const char* s, int base) {
  string_source_t ss;
  parser_source_t* src = QM_init_string_parser(s, &ss);
  unsigned long v = 4242;
  int rc = QM_parser_read_unsigned_int(src, base, &v);
  return {rc, static_cast<long>(v), *ss.pos};
}
Read read_signed(const char* s, int base) {
  string_source_t ss;
  parser_source_t* src = QM_init_string_parser(s, &ss);
  long v = 4242;
  int rc = base == 10 ? QM_parser_read_decimal(src, &v) : QM_parser_read_signed_int(src, base, &v);
  return {rc, v, *ss.pos};
}

TEST(ParserGeneric, BasesPrefixesAndPushBack) {
  EXPECT_EQ(read_unsigned("  42 x", 10), (Read{0, 42, ' '}));
  EXPECT_EQ(read_unsigned("0x1fz", 0), (Read{0, 31, 'z'}));
  EXPECT_EQ(read_unsigned("0178", 0), (Read{0, 15, '8'}));
  EXPECT_EQ(read_unsigned("0", 0), (Read{0, 0, '\0'}));
  EXPECT_EQ(read_unsigned("95", 0), (Read{0, 95, '\0'}));
  EXPECT_EQ(read_unsigned("19", 8), (Read{0, 1, '9'}));
  EXPECT_EQ(read_unsigned("0XfF", 16), (Read{0, 255, '\0'}));
  EXPECT_EQ(read_unsigned("0xg", 16), (Read{0, 0, 'g'}));  // the lone zero counts
  EXPECT_EQ(read_unsigned("zZ!", 36), (Read{0, 36 * 35 + 35, '!'}));
  EXPECT_EQ(read_unsigned("1012", 2), (Read{0, 5, '2'}));
  string_source_t ss;
  unsigned long h = 0;
  EXPECT_EQ(QM_parser_read_hex(QM_init_string_parser("ab", &ss), &h), 0);
  EXPECT_EQ(h, 0xabu);
  EXPECT_EQ(QM_init_string_parser(nullptr, &ss), nullptr);
}

TEST(ParserGeneric, EndOfSourceAndFailures) {
  EXPECT_EQ(read_unsigned(" \t\n", 10), (Read{0, 4242, '\0'}));  // nothing stored
  EXPECT_EQ(read_signed("", 10), (Read{0, 4242, '\0'}));
  EXPECT_EQ(read_unsigned("abc", 10), (Read{-1, 4242, 'a'}));
  for (int base : {-1, 1, 37})  // refused before anything is read
    EXPECT_EQ(read_unsigned(" 0", base), (Read{-1, 4242, ' '})) << base;
  EXPECT_EQ(read_signed(" -42x", 10), (Read{0, -42, 'x'}));
  EXPECT_EQ(read_signed("+0x10", 0), (Read{0, 16, '\0'}));
  EXPECT_EQ(read_signed("-", 10).rc, -1);
  EXPECT_EQ(read_signed("- 5", 10).rc, -1);
  EXPECT_EQ(read_signed("--5", 10).rc, -1);
  // A read error is a failure, whatever was read before it.
  parser_source_t broken = {nullptr, [](parser_source_t*) { return 0; },
                            [](parser_source_t*, int*) { return -1; },
                            [](parser_source_t*, int) { return 0; }};
  unsigned long u;
  EXPECT_EQ(QM_parser_read_unsigned_int(&broken, 10, &u), -1);
}

}  // namespace
