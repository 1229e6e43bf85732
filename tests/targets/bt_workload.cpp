// A single-threaded program whose heap calls come from deep inside the C
// and C++ libraries (optimised code, mostly without frame pointers): sorting
// through a comparator that allocates, regular expressions, memory streams,
// character set conversion, search trees, the password database, locales,
// string streams, containers. It does the same on every run and prints a
// summary that does not depend on addresses.
#include <glob.h>
#include <iconv.h>
#include <locale.h>
#include <pwd.h>
#include <regex.h>
#include <search.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

int compare_allocating(const void* a, const void* b) {
  char* x = strdup(*static_cast<const char* const*>(a));
  char* y = strdup(*static_cast<const char* const*>(b));
  int r = std::strcmp(x, y);
  std::free(x);
  std::free(y);
  return r;
}

int compare_ints(const void* a, const void* b) {
  int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
  return x < y ? -1 : x > y;
}

void nothing(void*) {}

unsigned long c_library() {
  unsigned long sum = 0;
  // qsort of strings through a comparator that allocates.
  std::vector<char*> words;
  for (int i = 0; i < 300; ++i) {
    char* w = nullptr;
    if (asprintf(&w, "word-%05d", (i * 7919) % 1000) < 0) std::abort();
    words.push_back(w);
  }
  std::qsort(words.data(), words.size(), sizeof(char*), compare_allocating);
  sum += static_cast<unsigned long>(words[0][6]);
  // Regular expressions of the C library.
  regex_t re;
  if (regcomp(&re, "^word-0*([1-9][0-9]*)$", REG_EXTENDED) != 0) std::abort();
  for (char* w : words) {
    regmatch_t m[2];
    if (regexec(&re, w, 2, m, 0) == 0) sum += static_cast<unsigned long>(m[1].rm_eo - m[1].rm_so);
  }
  regfree(&re);
  // A memory stream that grows.
  char* text = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&text, &len);
  for (char* w : words) std::fprintf(f, "%s %lu\n", w, sum);
  std::fclose(f);
  sum += len;
  std::free(text);
  // A search tree.
  void* root = nullptr;
  std::vector<int> keys(200);
  for (int i = 0; i < 200; ++i) {
    keys[i] = (i * 37) % 200;
    tsearch(&keys[i], &root, compare_ints);
  }
  tdestroy(root, nothing);
  for (char* w : words) std::free(w);
  // Character set conversion.
  iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
  if (cd != reinterpret_cast<iconv_t>(-1)) {
    char in[] = "caf\xc3\xa9" " cr\xc3\xa8me br\xc3\xbbl\xc3\xa9" "e";
    char outbuf[128];
    char* ip = in;
    char* op = outbuf;
    size_t il = std::strlen(in), ol = sizeof outbuf;
    iconv(cd, &ip, &il, &op, &ol);
    sum += sizeof outbuf - ol;
    iconv_close(cd);
  }
  // The password database, locales, file name patterns.
  if (struct passwd* pw = getpwnam("root")) sum += static_cast<unsigned long>(pw->pw_uid) + 1;
  locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  if (loc != static_cast<locale_t>(nullptr)) {
    locale_t copy = duplocale(loc);
    freelocale(copy);
    freelocale(loc);
  }
  glob_t g;
  if (glob("/proc/self/fd*", 0, nullptr, &g) == 0) {
    sum += g.gl_pathc;
    globfree(&g);
  }
  return sum;
}

unsigned long cxx_library() {
  unsigned long sum = 0;
  std::map<std::string, std::vector<int>> m;
  std::unordered_map<int, std::string> u;
  for (int i = 0; i < 500; ++i) {
    m["key" + std::to_string(i % 97)].push_back(i);
    u[i] = std::string(static_cast<size_t>(i % 40), 'x');
  }
  for (auto& [k, v] : m) sum += k.size() + v.size();
  std::ostringstream os;
  for (int i = 0; i < 300; ++i) os << "line " << i << ' ' << 3.25 * i << '\n';
  sum += os.str().size();
  std::regex r("line ([0-9]+) ([0-9.]+)");
  std::string all = os.str();
  for (std::sregex_iterator it(all.begin(), all.end(), r), end; it != end; ++it) sum += (*it)[1].length();
  std::vector<std::function<int(int)>> fs;
  for (int i = 0; i < 50; ++i) {
    auto big = std::make_shared<std::vector<int>>(static_cast<size_t>(i + 10), i);
    fs.emplace_back([big](int x) { return x + static_cast<int>(big->size()); });
  }
  for (auto& f : fs) sum += static_cast<unsigned long>(f(1));
  return sum;
}

}  // namespace

int main() {
  unsigned long a = c_library();
  unsigned long b = cxx_library();
  std::printf("bt_workload: %lu %lu\n", a, b);
  return 0;
}
