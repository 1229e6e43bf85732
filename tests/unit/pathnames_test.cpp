// The pathname template language: every conversion, widths from the
// template and from the arguments, the %% quirk, truncation at the buffer's
// end, and the path utilities' edge cases.
#include "snapshot/snapshot.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

struct Counter {
  format_pathname_callbacks_t cb;
  int next = 0;
  int rank = 0;
  Counter() {
    cb.arg = this;
    cb.get_next_sequence_number = [](format_pathname_callbacks_t* c) { return static_cast<Counter*>(c->arg)->next++; };
    cb.get_mpi_rank = [](format_pathname_callbacks_t* c) { return static_cast<Counter*>(c->arg)->rank; };
  }
};

std::string exe_base() {
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  path[n] = '\0';
  std::string p(path);
  return p.substr(p.rfind('/') + 1);
}

std::string host() {
  char h[65] = {};
  gethostname(h, sizeof h - 1);
  return h;
}

std::string fmt(Counter& c, const char* f, int len = 512) {
  char buf[512];
  int n = QM_format_pathname(buf, len, &c.cb, f);
  EXPECT_EQ(n, static_cast<int>(std::string(buf).size())) << f;
  return buf;
}

std::string padded(long v, int w) {
  std::string s = std::to_string(v);
  return std::string(s.size() < static_cast<size_t>(w) ? w - s.size() : 0, '0') + s;
}

TEST(PathnameTemplates, TheDefaultNamesEveryProcessAndFileApart) {
  Counter c;
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(fmt(c, "%b-%h-%8p-%6q.lwmdbg"), exe_base() + "-" + host() + "-" + padded(getpid(), 8) + "-000000.lwmdbg");
  EXPECT_EQ(fmt(c, "%6q"), "000001");  // each use takes the next number
  EXPECT_EQ(fmt(c, "%08p|%8p|%p"), padded(getpid(), 8) + "|" + padded(getpid(), 8) + "|" + pid);
  c.rank = 17;
  EXPECT_EQ(fmt(c, "rank%4r.%q"), "rank0017.2");
  char buf[64];
  EXPECT_EQ(QM_format_pathname(buf, sizeof buf, &c.cb, "%*q-%*r", 5, 3), 9);
  EXPECT_STREQ(buf, "00003-017");
  c.cb.get_mpi_rank = nullptr;  // the snapshot's own template has no ranks
  EXPECT_EQ(fmt(c, "a%4rb"), "ab");
}

TEST(PathnameTemplates, PercentSignsUnknownLettersAndUnfinishedConversions) {
  Counter c;
  EXPECT_EQ(fmt(c, "a%%qb"), "a%0b");  // the second % opens a conversion of its own
  EXPECT_EQ(c.next, 1);
  EXPECT_EQ(fmt(c, "%%x"), "%");
  EXPECT_EQ(fmt(c, "x%zy"), "xy");
  EXPECT_EQ(fmt(c, "abc%"), "abc");
  EXPECT_EQ(fmt(c, "abc%8"), "abc");
  EXPECT_EQ(fmt(c, "abc%08"), "abc");
  EXPECT_EQ(QM_format_pathname(nullptr, 10, &c.cb, nullptr), 0);
}

TEST(PathnameTemplates, OutputStopsAtTheBuffersEnd) {
  Counter c;
  EXPECT_EQ(fmt(c, "abcdef", 1), "");
  EXPECT_EQ(fmt(c, "abcdef", 4), "abc");
  EXPECT_EQ(fmt(c, "ab%6q", 5), "ab00");  // a number is cut at the room left
  const std::string h = host();
  EXPECT_EQ(fmt(c, "%h", 3), h.substr(0, 2));  // the host name is cut
  const std::string b = exe_base();
  EXPECT_EQ(fmt(c, "x%by", static_cast<int>(b.size()) + 1), "xy");  // the base name is dropped whole
  EXPECT_EQ(fmt(c, "x%by", static_cast<int>(b.size()) + 2), "x" + b);
}

TEST(PathUtilities, BaseNameTempFileNamesAndLimits) {
  const std::string b = exe_base();
  char buf[512] = "untouched";
  EXPECT_EQ(QM_getexebasename(buf, static_cast<int>(b.size())), 0);
  EXPECT_STREQ(buf, "untouched");
  EXPECT_EQ(QM_getexebasename(buf, static_cast<int>(b.size()) + 1), static_cast<int>(b.size()));
  EXPECT_EQ(buf, b);
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path);
  EXPECT_EQ(QM_getexepathnamelen(), n);
  EXPECT_EQ(QM_getexepathname(buf, static_cast<int>(n)), 0);  // filled: unterminated
  EXPECT_GE(QM_getmaxpathlen(), 4096);

  int len = sizeof buf;
  EXPECT_EQ(QM_get_tmp_filename(2, "f", buf, &len), -EINVAL);
  len = sizeof buf;
  EXPECT_EQ(QM_get_tmp_filename(1, "file.x", buf, &len), 0);
  EXPECT_STREQ(buf, "/tmp/file.x");
  EXPECT_EQ(len, 11);
  len = 11;  // no room for the terminating NUL
  EXPECT_EQ(QM_get_tmp_filename(1, "file.x", buf, &len), -ENOMEM);
  len = 12;
  EXPECT_EQ(QM_get_tmp_filename(1, "file.x", buf, &len), 0);
}

}  // namespace
