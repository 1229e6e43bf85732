#include "events/events.h"
#include "snapshot/snapshot.h"

namespace {

constexpr int kMax = QM_HEAP_pathname_specifier_max_length;
constexpr const char kLwmdbgDefault[] = "%b-%h-%8p-%6q.lwmdbg";
constexpr const char kLwcoreDefault[] = "%b-%h-%8p-%6q.lwmem";
constexpr int kLwmdbgDefaultLen = sizeof kLwmdbgDefault - 1;
constexpr int kLwcoreDefaultLen = sizeof kLwcoreDefault - 1;

// A template as a debugger reads it: the text, NUL-terminated, in a buffer
// of the longest length allowed; its length is kept beside it.
struct Specifier {
  char* text;
  int len;
};

int copy_out(const char* s, int slen, char* buffer, int len, int* specifier_len) {
  if (specifier_len != nullptr) *specifier_len = slen;
  if (len <= slen) return -1;
  if (buffer != nullptr) {
    for (int i = 0; i < slen; ++i) buffer[i] = s[i];
    buffer[slen] = '\0';
  }
  return 0;
}

int store(Specifier& sp, const char* s) {
  if (s == nullptr) return -1;
  int n = 0;
  while (s[n] != '\0') {
    if (++n > kMax) return -1;
  }
  for (int i = 0; i < n; ++i) sp.text[i] = s[i];
  sp.text[n] = '\0';
  sp.len = n;
  return 0;
}

}  // namespace

extern "C" {

constinit char QM_HEAP_lwmdbg_pathname_specifier[kMax + 1] = "%b-%h-%8p-%6q.lwmdbg";
constinit char QM_HEAP_lwcore_pathname_specifier[kMax + 1] = "%b-%h-%8p-%6q.lwmem";
extern constinit const int QM_HEAP_lwmdbg_pathname_specifier_max_length = kMax;
extern constinit const int QM_HEAP_lwcore_pathname_specifier_max_length = kMax;

}  // extern "C"

namespace {
constinit Specifier lwmdbg_specifier = {QM_HEAP_lwmdbg_pathname_specifier, kLwmdbgDefaultLen};
constinit Specifier lwcore_specifier = {QM_HEAP_lwcore_pathname_specifier, kLwcoreDefaultLen};
}  // namespace

extern "C" {

int QM_HEAP_lwmdbg_get_pathname_specifier_default(char* buffer, int len, int* specifier_len) {
  return copy_out(kLwmdbgDefault, kLwmdbgDefaultLen, buffer, len, specifier_len);
}
int QM_HEAP_lwmdbg_get_pathname_specifier(char* buffer, int len, int* specifier_len) {
  return copy_out(lwmdbg_specifier.text, lwmdbg_specifier.len, buffer, len, specifier_len);
}
int QM_HEAP_lwmdbg_get_pathname_spaecifier_strlen() { return lwmdbg_specifier.len; }
int QM_HEAP_lwmdbg_set_pathname_specifier(const char* specifier) { return store(lwmdbg_specifier, specifier); }
const int* QM_HEAP_lwmdbg_get_pathname_specifier_max_length() {
  return &QM_HEAP_lwmdbg_pathname_specifier_max_length;
}

int QM_HEAP_lwcore_get_pathname_specifier_default(char* buffer, int len, int* specifier_len) {
  return copy_out(kLwcoreDefault, kLwcoreDefaultLen, buffer, len, specifier_len);
}
int QM_HEAP_lwcore_get_pathname_specifier(char* buffer, int len, int* specifier_len) {
  return copy_out(lwcore_specifier.text, lwcore_specifier.len, buffer, len, specifier_len);
}
int QM_HEAP_lwcore_set_pathname_specifier(const char* specifier) { return store(lwcore_specifier, specifier); }


}  // extern "C"
