// The heap-free formatter: its state machine, its finishing rules and its
// deliberate departures from the C library's printf.
#include "base/format.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, f);
  int n = QM_s_vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  EXPECT_EQ(static_cast<size_t>(n), strlen(buf));
  return std::string(buf, static_cast<size_t>(n));
}

std::string libc(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string libc(const char* f, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, f);
  vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return buf;
}

// Where the agent agrees with the C library, the C library is the oracle.
TEST(Format, AgreesWithLibcOnOrdinaryConversions) {
  const int ints[] = {0, 1, -1, 7, 42, -42, 1000, 65535, INT_MAX, INT_MIN, 123456789};
  const char* forms[] = {"%d", "%5d", "%-5d", "%05d", "%+d", "% d", "%.3d", "%8.3d", "%-8.3d|",
                         "%i", "%u", "%x", "%o", "%12u", "%-12x|", "%08x"};
  for (const char* f : forms)
    for (int v : ints) {
      bool precision = strchr(f, '.') != nullptr;
      if (precision && v < 0) continue;  // the agent's precision counts the sign
      EXPECT_EQ(fmt(f, v), libc(f, v)) << f << " " << v;
    }
  EXPECT_EQ(fmt("%s|%10s|%-10s|%.2s", "abc", "abc", "abc", "abc"),
            libc("%s|%10s|%-10s|%.2s", "abc", "abc", "abc", "abc"));
  EXPECT_EQ(fmt("%c%3c%-3c|", 'a', 'b', 'c'), libc("%c%3c%-3c|", 'a', 'b', 'c'));
  EXPECT_EQ(fmt("100%% sure %d%%", 5), "100% sure 5%");
  EXPECT_EQ(fmt("%ld %lu %lx", LONG_MIN, ULONG_MAX, ULONG_MAX), libc("%ld %lu %lx", LONG_MIN, ULONG_MAX, ULONG_MAX));
}

TEST(Format, DeliberateDifferences) {
  EXPECT_EQ(fmt("%#o", 8), "0x10");     // "#" means 0x in every base
  EXPECT_EQ(fmt("%#d", 5), "0x5");
  EXPECT_EQ(fmt("%X", 255), "ff");      // lower-case digits
  EXPECT_EQ(fmt("% u", 5), "5");        // blank flag dropped for unsigned
  EXPECT_EQ(fmt("%+u", 5), "+5");
  EXPECT_EQ(fmt("%p", reinterpret_cast<void*>(4096)), "1000");
  EXPECT_EQ(fmt("%#p", reinterpret_cast<void*>(4096)), "0x1000");
  EXPECT_EQ(fmt("%0#*p", 10, static_cast<void*>(nullptr)), "0x00000000");
  EXPECT_EQ(fmt("%0#10p", reinterpret_cast<void*>(0x1234)), "0x00001234");
  EXPECT_EQ(fmt("%#.8x", 31), "0x00001f");  // the precision counts the prefix
  EXPECT_EQ(fmt("%.3d|%6.3d", -1, -1), "-01|   -01");
  EXPECT_EQ(fmt("%*d|", -5, 42), "42|");    // a negative width does not pad integers
  EXPECT_EQ(fmt("%*s|", -4, "ab"), "ab  |");  // but left-adjusts strings
  EXPECT_EQ(fmt("%-*s|", 4, "ab"), "ab  |");
  EXPECT_EQ(fmt("%.*s|", -3, "abc"), "|");  // negative precision prints nothing
  EXPECT_EQ(fmt("%.0s|", "abc"), "|");
  EXPECT_EQ(fmt("[%s]", static_cast<const char*>(nullptr)), "[]");
  EXPECT_EQ(fmt("%q%d", 7), "7");           // unknown conversion consumes no argument
  EXPECT_EQ(fmt("%5%|"), "|");              // "%" only as "%%"
  EXPECT_EQ(fmt("%hhd %hd", 300, 70000), "300 70000");  // no narrowing
  EXPECT_EQ(fmt("%d", INT_MIN), "-2147483648");
}

TEST(Format, LengthModifiersReadOneArgumentOfTheRightWidth) {
  // "ll" reads the machine word: one argument, as "l" does.
  EXPECT_EQ(fmt("%lld|%d", 5L, 6), "5|6");
  EXPECT_EQ(fmt("%Lu|%d", 5UL, 6), "5|6");
  if (sizeof(long) == 8) EXPECT_EQ(fmt("%lx", 0x123456789abUL), "123456789ab");
  EXPECT_EQ(fmt("%p", reinterpret_cast<void*>(~uintptr_t{0})), std::string(sizeof(void*) * 2, 'f'));
}

TEST(Format, UnfinishedConversionRepeatsThePendingText) {
  EXPECT_EQ(fmt("ab%"), "abab%");
  EXPECT_EQ(fmt("x%%-ab%5"), "x%-ab-ab%5");
  EXPECT_EQ(fmt("%"), "%");
}

TEST(Format, BufferSinkTruncatesAndCountsWhatItStored) {
  char buf[5];
  EXPECT_EQ(QM_s_snprintf(buf, 5, "%s", "abcdefgh"), 4);
  EXPECT_STREQ(buf, "abcd");
  char one[1] = {'z'};
  EXPECT_EQ(QM_s_snprintf(one, 1, "abc"), 0);
  EXPECT_EQ(one[0], '\0');
  EXPECT_EQ(QM_s_snprintf(buf, 5, nullptr), 0);
}

// The descriptor sink: whole messages reach the descriptor and the result is
// the number of bytes written.
TEST(Format, DescriptorSinkWritesEverything) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  int n = QM_s_printf(fds[1], "a%05db%-3sc%%", 42, "x");
  close(fds[1]);
  char buf[64] = {};
  ssize_t r = read(fds[0], buf, sizeof buf);
  close(fds[0]);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(r)), "a00042bx  c%");
  EXPECT_EQ(n, r);
  EXPECT_EQ(QM_s_printf(-1, "lost"), 0);  // a failed literal run adds nothing
}

TEST(BufferedReader, ReadsPushesBackAndSignExtends) {
  char path[] = "/tmp/qm_bfr_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  std::string content(5000, 'a');
  content[4095] = 'b';
  content[4096] = static_cast<char>(0xe9);
  ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  close(fd);

  buffered_file_reader_t bfr;
  EXPECT_EQ(QM_bfr_open(nullptr, path), -1);
  EXPECT_EQ(QM_bfr_open(&bfr, "/nonexistent/qm"), -1);
  ASSERT_EQ(QM_bfr_open(&bfr, path), 0);
  int ch = 0;
  EXPECT_EQ(QM_bfr_unread_char(&bfr, 'x'), -1);  // nothing read yet
  for (int i = 0; i < 4095; ++i) ASSERT_EQ(QM_bfr_read_char(&bfr, &ch), 1);
  ASSERT_EQ(QM_bfr_read_char(&bfr, &ch), 1);
  EXPECT_EQ(ch, 'b');
  EXPECT_EQ(QM_bfr_unread_char(&bfr, 'q'), 0);
  ASSERT_EQ(QM_bfr_read_char(&bfr, &ch), 1);
  EXPECT_EQ(ch, 'q');
  ASSERT_EQ(QM_bfr_read_char(&bfr, &ch), 1);  // refill
  EXPECT_EQ(ch, static_cast<int>(static_cast<signed char>(0xe9)));
  EXPECT_LT(ch, 0);
  int count = 0;
  while (QM_bfr_read_char(&bfr, &ch) == 1) ++count;
  EXPECT_EQ(count, 5000 - 4097);
  EXPECT_TRUE(QM_bfr_is_eof(&bfr));
  EXPECT_EQ(QM_bfr_unread_char(&bfr, 'z'), 0);
  EXPECT_FALSE(QM_bfr_is_eof(&bfr));
  EXPECT_EQ(QM_bfr_close(&bfr), 0);
  unlink(path);
}

}  // namespace
