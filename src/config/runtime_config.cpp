#include "config/runtime_config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/format.h"
#include "config/settings_parser.h"
#include "core/binding.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/controls.h"
#include "heap/guards.h"
#include "leaks/reachability.h"
#include "redzone/rz_controls.h"
#include "snapshot/snapshot.h"

extern "C" {
int QM_HEAP_backtrace_set_depth(int v);
int QM_HEAP_backtrace_set_trim(int v);
constinit const char* QMHEAP_config_file_used = nullptr;
}

namespace {

constexpr int kSettingSize = 4096;
constexpr int kMaxSpecifier = 1023;
constexpr int kMaxConfigFds = 32;
constexpr const char kSourceName[] = "../runtime_config";

constinit int config_fds[kMaxConfigFds] = {};
constinit int num_config_fds = 0;
constinit char config_path[4096] = {};
constinit void* dl_handle = nullptr;
// Where a string value is copied to be NUL-terminated (configuration is read
// on one thread, at start-up).
constinit char value_scratch[kSettingSize] = {};

const char* error_text(int e) {
  const char* s = strerrordesc_np(e);
  return s != nullptr ? s : "unknown error";
}

// ---------------------------------------------------------------------------
// Handlers of the settings that are not a plain number or switch.

int ignore_setting(int) { return 0; }

// Copies a token so that it can be handed on as a string.
const char* terminated(const char* value, int len, char* scratch) {
  if (value[len] == '\0') return value;
  memcpy(scratch, value, static_cast<size_t>(len));
  scratch[len] = '\0';
  return scratch;
}

void set_output_file(const char*, const char* value, int len, char* scratch) {
  const char* path = terminated(value, len, scratch);
  if (QM_HEAP_set_output_to_file(path) != 0) QM_HEAP_printf("error opening `%s' for output\n", path);
}

void set_rz_mode(const char*, const char* value, int len, char* scratch) {
  if (len > kMaxSpecifier) {
    QM_HEAP_printf("WARNING rz_mode is too long (greater than %d); ignoring\n", kMaxSpecifier + 1);
    return;
  }
  static constexpr struct {
    const char* name;
    QM_HEAP_rz_alloc_mode_e mode;
  } kModes[] = {{"overrun", rzam_overrun}, {"underrun", rzam_underrun}, {"unfenced", rzam_unfenced},
                {"manual", rzam_manual}};
  for (const auto& m : kModes)
    if (QM_settings_matches_string(m.name, value, len)) {
      QM_HEAP_rz_set_alloc_mode(m.mode);
      return;
    }
  QM_HEAP_printf("WANRING: unrecognized Red Zones mode: %s\n", terminated(value, len, scratch));
}

void set_lwmem_pathname(const char*, const char* value, int len, char* scratch) {
  if (len > kMaxSpecifier) {
    QM_HEAP_printf("WARNING lwmem pathname specifier is too long (greater than %d); ignoring\n", kMaxSpecifier + 1);
    return;
  }
  int r = QM_HEAP_lwcore_set_pathname_specifier(terminated(value, len, scratch));
  if (r != 0)
    QM_HEAP_printf("WANRING: QM_HEAP_lwcore_set_pathname_specifier returned error code %d to %s.lwcore_set_pathname\n",
                   r, kSourceName);
}

void set_lwmdbg_pathname(const char*, const char* value, int len, char* scratch) {
  if (len > kMaxSpecifier) {
    QM_HEAP_printf("WARNING lwmdbg pathname specifier is too long (greater than %d); ignoring\n", kMaxSpecifier + 1);
    return;
  }
  int r = QM_HEAP_lwmdbg_set_pathname_specifier(terminated(value, len, scratch));
  if (r != 0)
    QM_HEAP_printf("WANRING: QM_HEAP_lwmdbg_set_pathname_specifier returned error code %d to %s.lwmdbg_set_pathname\n",
                   r, kSourceName);
}

// A comma-separated list of commentary keys; keys can only be switched on.
void set_commentary(const char*, const char* value, int len, char*) {
  int start = 0;
  for (int i = 0; i <= len; ++i) {
    if (i < len && value[i] != ',') continue;
    int n = i - start;
    if (QM_HEAP_co_set_key_by_string(value + start, n, 1) != 0)
      QM_HEAP_printf("unrecognized commentary setting: %*.*s\n", n, n, value + start);
    start = i + 1;
  }
}

// Reads one integer item of a list; false when it is missing or does not convert.
bool list_long(const char** rhs, long* out) {
  const char* tok;
  int n;
  *rhs = QM_settings_get_next_token_from_list(*rhs, &tok, &n);
  return n > 0 && QM_string_to_integer(tok, n, out);
}

bool set_rz_size_range(const char* key, const char** rhs) {
  long last = QM_HEAP_rz_size_ranges_get_num_ranges() - 1;
  long id = 0, start = 0, end = 0;
  bool ok = true;
  if (!list_long(rhs, &id) || id < 0 || id > last) {
    QM_HEAP_printf("%s: ERROR missing or invalid range id\n", key);
    ok = false;
  } else if (!list_long(rhs, &start) || start < 0) {
    QM_HEAP_printf("%s: ERROR missing or invalid start of size range\n", key);
    ok = false;
  } else if (!list_long(rhs, &end) || end < 0) {
    QM_HEAP_printf("%s: ERROR missing or invalid end of size range\n", key);
    ok = false;
  } else if (end != 0 && end < start) {
    ok = false;
  }
  if (!ok) {
    QM_HEAP_printf("%s: ERROR end of range must be 0, or greater or equal to the start of range\n", key);
    QM_HEAP_printf("%s: ERROR expected %s=[0..%ld],start_size,end_size\n", key, key, last);
    return false;
  }
  QM_HEAP_rz_size_range_t r;
  if (QM_HEAP_rz_size_ranges_get_range(static_cast<int>(id), &r) != 0 ||
      (r.start = static_cast<size_t>(start), r.end = static_cast<size_t>(end),
       QM_HEAP_rz_size_ranges_set_range(static_cast<int>(id), &r, nullptr) != 0))
    QM_HEAP_printf("%s: ERROR adjusting range setting %ld,%ld,%ld\n", key, id, start, end);
  return true;
}

bool set_rz_size_range_enable(const char* key, const char** rhs) {
  long last = QM_HEAP_rz_size_ranges_get_num_ranges() - 1;
  long id = 0;
  if (!list_long(rhs, &id) || id < 0 || id > last) {
    QM_HEAP_printf("%s: ERROR missing or invalid range id\n", key);
    QM_HEAP_printf("%s: ERROR expected %s=[0..%ld],bool_val\n", key, key, last);
    return false;
  }
  const char* tok;
  int n;
  int b = 0;
  *rhs = QM_settings_get_next_token_from_list(*rhs, &tok, &n);
  if (!QM_settings_token_to_boolean(tok, n, &b)) {
    QM_HEAP_printf("%s: ERROR missing or invalid boolean setting\n", key);
    QM_HEAP_printf("%s: ERROR expected %s=[0..%ld],bool_val\n", key, key, last);
    return false;
  }
  if (QM_HEAP_rz_size_ranges_set_range_active(static_cast<int>(id), b) != 0)
    QM_HEAP_printf("%s: ERROR adjusting range status %ld,%.*s\n", key, id, n, tok);
  return true;
}

// ---------------------------------------------------------------------------
// The table of keys.

enum class Kind { kBool, kInt, kUint, kString, kList };

struct Key {
  const char* name;
  Kind kind;
  int (*set_number)(int);
  void (*set_string)(const char* key, const char* value, int len, char* scratch);
  bool (*set_list)(const char* key, const char** rhs);  // false: bad value
};

template <Kind K>
struct Make;
template <>
struct Make<Kind::kBool> {
  static constexpr Key key(const char* n, int (*f)(int)) { return {n, Kind::kBool, f, nullptr, nullptr}; }
};
template <>
struct Make<Kind::kInt> {
  static constexpr Key key(const char* n, int (*f)(int)) { return {n, Kind::kInt, f, nullptr, nullptr}; }
};
template <>
struct Make<Kind::kUint> {
  static constexpr Key key(const char* n, int (*f)(int)) { return {n, Kind::kUint, f, nullptr, nullptr}; }
};
template <>
struct Make<Kind::kString> {
  static constexpr Key key(const char* n, void (*f)(const char*, const char*, int, char*)) {
    return {n, Kind::kString, nullptr, f, nullptr};
  }
};
template <>
struct Make<Kind::kList> {
  static constexpr Key key(const char* n, bool (*f)(const char*, const char**)) {
    return {n, Kind::kList, nullptr, nullptr, f};
  }
};

#define QM_KIND_bool Kind::kBool
#define QM_KIND_int Kind::kInt
#define QM_KIND_uint Kind::kUint
#define QM_KIND_string Kind::kString
#define QM_KIND_list Kind::kList
#define QM_SETTING(name, kind, handler) Make<QM_KIND_##kind>::key(name, handler),
constinit const Key kKeys[] = {
#include "config/settings.inc"
};
#undef QM_SETTING

enum class Applied { kNoMatch, kBadValue, kDone };

// Applies one key when the setting's name is this key's.
Applied apply_key(const Key& k, const char* name, int len, const char** rhs, char* scratch) {
  int err = -1;
  switch (k.kind) {
    case Kind::kBool: {
      int v = 0;
      if (!QM_settings_matches_true_false_setting(k.name, name, len, rhs, &err, &v)) return Applied::kNoMatch;
      if (err != 0) return Applied::kBadValue;
      k.set_number(v);
      return Applied::kDone;
    }
    case Kind::kInt:
    case Kind::kUint: {
      long v = 0;
      bool matched = k.kind == Kind::kInt
                         ? QM_settings_matches_int_setting(k.name, name, len, rhs, &err, &v)
                         : QM_settings_matches_non_negative_int_setting(k.name, name, len, rhs, &err, &v);
      if (!matched) return Applied::kNoMatch;
      if (err != 0) return Applied::kBadValue;
      k.set_number(static_cast<int>(v));
      return Applied::kDone;
    }
    case Kind::kString: {
      const char* v = nullptr;
      int vlen = 0;
      if (!QM_settings_matches_string_val_setting(k.name, name, len, rhs, &err, &v, &vlen)) return Applied::kNoMatch;
      if (err != 0) return Applied::kBadValue;
      k.set_string(k.name, v, vlen, scratch);
      return Applied::kDone;
    }
    case Kind::kList:
      if (!QM_settings_matches_string(k.name, name, len)) return Applied::kNoMatch;
      return k.set_list(k.name, rhs) ? Applied::kDone : Applied::kBadValue;
  }
  return Applied::kNoMatch;
}

// Per-event flags: prefix, then one of the event configuration names.
struct FilterPrefix {
  const char* prefix;
  int (*set)(QM_HEAP_event_e, int, int*);
  bool invert;  // "notify" settings say whether to report; the flags say whether to ignore
};

constinit const FilterPrefix kFilterPrefixes[] = {
    {"core_", QM_HEAP_set_generate_core_filter, false},
    {"notify_console_", QM_HEAP_set_event_console_filter, true},
    {"notify_", QM_HEAP_set_event_filter, true},
    {"lwmdbg_", QM_HEAP_lwmdbg_set_generate_filter, false},
    {"lwmem_", QM_HEAP_lwcore_set_generate_filter, false},
    {"exit_on_event_", QM_HEAP_exit_on_event_set_filter, false},
};

Applied matches_filter(const char* name, int len, const char** rhs) {
  for (const FilterPrefix& f : kFilterPrefixes) {
    int plen = static_cast<int>(strlen(f.prefix));
    if (len <= plen || strncmp(name, f.prefix, static_cast<size_t>(plen)) != 0) continue;
    for (const event_config_name_mapping_t* m = QM_HEAP_event_config_name_mappings; m->config_name != nullptr; ++m) {
      int err = -1, v = 0;
      if (!QM_settings_matches_true_false_setting(m->config_name, name + plen, len - plen, rhs, &err, &v)) continue;
      if (err != 0) return Applied::kBadValue;
      f.set(m->event, f.invert ? !v : v, nullptr);
      return Applied::kDone;
    }
    return Applied::kNoMatch;
  }
  return Applied::kNoMatch;
}

void apply_setting(const char* setting) {
  if (*QM_settings_skip_whitespace(setting) == '\0') return;
  const char* name;
  int len;
  const char* rhs;
  if (QM_settings_get_setting_name_and_consume_equals(setting, &name, &len, &rhs) != 0) {
    QM_HEAP_printf("syntax error in configuration setting: %s\n", setting);
    return;
  }
  Applied result = Applied::kNoMatch;
  for (const Key& k : kKeys)
    if ((result = apply_key(k, name, len, &rhs, value_scratch)) != Applied::kNoMatch) break;
  if (result == Applied::kNoMatch) result = matches_filter(name, len, &rhs);
  if (result == Applied::kNoMatch) {
    QM_HEAP_printf("unrecognized setting: %.*s\n", len, name);
    return;
  }
  // A bad value has been reported by its matcher and the setting ignored.
  if (result == Applied::kDone && *QM_settings_skip_whitespace(rhs) != '\0')
    QM_HEAP_printf("%.*s: WARNING ignoring unexpected characters found following value.\n", len, name);
}

// A source that fails without moving on (a read error: a directory opened as
// the configuration file, say) would fail for ever; position() tells whether
// a failed setting consumed anything.
int parse_config(const QM_settings_parse_ops_t* ops, void* handle, uintptr_t (*position)(void* handle)) {
  char setting[kSettingSize];
  while (!ops->eof(ops, handle)) {
    uintptr_t before = position(handle);
    if (ops->get_setting(ops, handle, setting, kSettingSize) != 0) {
      if (position(handle) == before) break;
      continue;
    }
    apply_setting(setting);
  }
  return 0;
}

uintptr_t file_position(void* handle) {
  auto* h = static_cast<QM_settings_parse_handle_file_t*>(handle);
  return static_cast<uintptr_t>(h->pos) ^ (static_cast<uintptr_t>(h->len) << 13) ^
         (static_cast<uintptr_t>(h->push_back_pos) << 26) ^ static_cast<uintptr_t>(h->seen_eof);
}

uintptr_t string_position(void* handle) {
  return reinterpret_cast<uintptr_t>(static_cast<QM_settings_parse_handle_string_t*>(handle)->pos);
}

// The first candidate that opens is the only file read.
int open_candidate(const char* path, bool report_missing) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) return fd;
  int e = errno;
  if (report_missing || e != ENOENT) {
    QM_HEAP_printf("Error attempting to open configuration file %s (%s)\n", path, error_text(e));
    QM_HEAP_printf("  continuing without this file\n");
  }
  return -1;
}

void read_config_file() {
  const char* chosen = nullptr;
  int fd = -1;
  const char* env = QM_getenv("QMHEAP_CONFIG_FILE");
  if (env != nullptr) {
    if (env[0] == '\0') return;  // set but empty: no configuration file at all
    fd = open_candidate(env, true);
    chosen = env;
  }
  if (fd < 0) {
    chosen = "default.hiarc";
    fd = open_candidate(chosen, false);
  }
  if (fd < 0) {
    const char* home = QM_getenv("HOME");
    static constexpr char kSuffix[] = "/.quillmark/hia/default.hiarc";
    if (home != nullptr && strlen(home) <= sizeof config_path - sizeof kSuffix) {
      QM_s_snprintf(config_path, sizeof config_path, "%s%s", home, kSuffix);
      chosen = config_path;
      fd = open_candidate(config_path, false);
    }
  }
  if (fd < 0) return;
  if (num_config_fds < kMaxConfigFds) config_fds[num_config_fds++] = fd;
  QMHEAP_config_file_used = chosen;
  QM_HEAP_parse_config_fd(fd);
}

}  // namespace

extern "C" {

const char* QM_getenv(const char* name) {
  if (environ == nullptr || name == nullptr) return nullptr;
  size_t n = strlen(name);
  for (char** e = environ; *e != nullptr; ++e)
    if (strncmp(*e, name, n) == 0 && (*e)[n] == '=') return *e + n + 1;
  return nullptr;
}

int QM_HEAP_parse_config_fd(int fd) {
  QM_settings_parse_handle_file_t h;
  if (QM_settings_parse_handle_file_init(&h, fd) != 0) return -1;
  return parse_config(QM_settings_parse_ops_file, &h, file_position);
}

int QM_HEAP_parse_config_string(char* settings) {
  QM_settings_parse_handle_string_t h;
  if (QM_settings_parse_handle_string_init(&h, settings) != 0) return -1;
  return parse_config(QM_settings_parse_ops_string, &h, string_position);
}

int QM_HEAP_runtime_config_initialize() { return 0; }

int QM_HEAP_may_read_runtime_config() {
  return QM_IA_has_ia_initializer_started() || !QM_IA_has_dl_tls_setup_started() ||
         QM_IA_is_libc_malloc_pthread_startup_full_init_done();
}

int QM_HEAP_read_runtime_config() {
  read_config_file();
  // The environment's own string is parsed in place: the parser only ever
  // pushes back the character it has just read.
  const char* args = QM_getenv("QMHEAP_ARGS");
  if (args != nullptr) QM_HEAP_parse_config_string(const_cast<char*>(args));
  return 0;
}

int QM_HEAP_runtime_config_init_section_initializer() {
  for (int i = num_config_fds - 1; i >= 0; --i)
    if (config_fds[i] >= 0) close(config_fds[i]);
  num_config_fds = 0;
  if (dl_handle != nullptr) {
    QM_IA_dlclose(dl_handle);
    dl_handle = nullptr;
  }
  return 0;
}

int QM_HEAP_mpi_initialize() { return 0; }

int QM_HEAP_mpi_get_rank() {
  const char* method = QM_getenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD");
  if (method == nullptr) return 0;
  const char* value = nullptr;
  if (strcmp(method, "value") == 0) {
    value = QM_getenv("QMHEAP_MPI_RANK");
  } else if (strcmp(method, "variable") == 0) {
    const char* var = QM_getenv("QMHEAP_MPI_RANK");
    if (var != nullptr) value = QM_getenv(var);
  }
  if (value == nullptr) return 0;
  string_source_t src;
  long rank = 0;
  if (QM_parser_read_decimal(QM_init_string_parser(value, &src), &rank) != 0) return 0;
  return static_cast<int>(rank);
}

}  // extern "C"
