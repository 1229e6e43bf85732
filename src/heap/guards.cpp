// Guard geometries, their fill and check, the guard table, block painting.
#include "heap/guards.h"

#include <stdint.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "core/binding.h"
#include "heap/controls.h"

extern "C" {

QM_EXPORT constinit guard_table_t QM_HEAP_guard_table = {PTHREAD_MUTEX_INITIALIZER, {}, 0, 0, 0, 0, 0,
                                                         nullptr, 0, 0, nullptr, 0, 0, 0};
QM_EXPORT constinit volatile int QM_HEAP_guard_payload_alignment = 16;
constinit volatile int QM_HEAP_guard_alignment_checked = 0;
QM_EXPORT constinit volatile int QM_HEAP_guard_check_on_entry = 0;
QM_EXPORT constinit volatile int QM_HEAP_guard_check_on_exit = 0;
constinit guard_stats_t QM_HEAP_guard_stats = {};

}  // extern "C"

namespace {

constexpr const char kFile[] = "../src/generic/guard_table";
constexpr int kNumAllocs = 64;  // blocks made to measure the allocator's alignment

guard_table_t& gt = QM_HEAP_guard_table;

size_t gcd(size_t a, size_t b) {
  while (b != 0) {
    size_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

size_t lcm(size_t a, size_t b) {
  if (a == 0) return b;
  if (b == 0) return a;
  return a / gcd(a, b) * b;
}

// The largest power of two that divides the address (1 for an odd one).
size_t alignment_of(const void* p) {
  uintptr_t v = reinterpret_cast<uintptr_t>(p);
  return v == 0 ? 0 : static_cast<size_t>(v & (~v + 1));
}

void determine_payload_alignment() {
  QM_HEAP_guard_alignment_checked = 1;
  void* blocks[kNumAllocs];
  size_t smallest = 0;
  for (int i = 0; i < kNumAllocs; ++i) {
    blocks[i] = QM_HEAP_org_malloc(static_cast<size_t>(i + 1));
    QM_assert(blocks[i] != nullptr, "determine_payload_alignment: malloc returned null\n");
    size_t a = alignment_of(blocks[i]);
    if (i == 0 || a < smallest) smallest = a;
  }
  for (int i = kNumAllocs - 1; i >= 0; --i) QM_HEAP_org_free(blocks[i]);
  QM_HEAP_guard_payload_alignment = static_cast<int>(smallest);
}

// The requested size rounded up to a multiple of m, held to the maximum
// rounded down to one; 0 when that leaves nothing or does not fit.
guard_size_t round_guard(size_t requested, size_t m, size_t maximum) {
  if (m == 0) m = 1;
  size_t size = (requested + m - 1) / m * m;
  if (size < requested) return 0;  // wrapped
  if (maximum != 0 && maximum < size) size = maximum / m * m;
  return size > UINT32_MAX ? 0 : static_cast<guard_size_t>(size);
}

inline uint8_t pattern_byte(guard_pattern_t pattern, size_t i) { return static_cast<uint8_t>(pattern >> (8 * (i & 3))); }

}  // namespace

namespace qm {

// The pattern anchored so that its byte 0 falls on multiples of anchor: a
// partial pattern first if p lies between anchors, whole words (32 bytes a
// store run), then the pattern's first bytes.
void fill_anchored(void* to, size_t len, uint32_t pattern, size_t anchor) {
  uint8_t* p = static_cast<uint8_t*>(to);
  size_t k = anchor > 1 ? reinterpret_cast<uintptr_t>(p) % anchor : 0;
  if (k != 0) {
    size_t n = anchor - k < len ? anchor - k : len;
    for (size_t i = 0; i < n; ++i) p[i] = pattern_byte(pattern, k + i);
    p += n;
    len -= n;
  }
  const uint64_t twice = static_cast<uint64_t>(pattern) << 32 | pattern;
  const uint64_t chunk[4] = {twice, twice, twice, twice};
  for (; len >= 32; p += 32, len -= 32) __builtin_memcpy(p, chunk, 32);
  for (; len >= 8; p += 8, len -= 8) __builtin_memcpy(p, &twice, 8);
  if (len >= 4) {
    __builtin_memcpy(p, &pattern, 4);
    p += 4;
    len -= 4;
  }
  for (size_t i = 0; i < len; ++i) p[i] = pattern_byte(pattern, i);
}

// Reads the same bytes the same way; the first difference ends it.
bool intact_anchored(const void* from, size_t len, uint32_t pattern, size_t anchor) {
  const uint8_t* p = static_cast<const uint8_t*>(from);
  size_t k = anchor > 1 ? reinterpret_cast<uintptr_t>(p) % anchor : 0;
  if (k != 0) {
    size_t n = anchor - k < len ? anchor - k : len;
    for (size_t i = 0; i < n; ++i)
      if (p[i] != pattern_byte(pattern, k + i)) return false;
    p += n;
    len -= n;
  }
  const uint64_t twice = static_cast<uint64_t>(pattern) << 32 | pattern;
  for (; len >= 32; p += 32, len -= 32) {
    uint64_t w[4];
    __builtin_memcpy(w, p, 32);
    if (((w[0] ^ twice) | (w[1] ^ twice) | (w[2] ^ twice) | (w[3] ^ twice)) != 0) return false;
  }
  for (; len >= 8; p += 8, len -= 8) {
    uint64_t w;
    __builtin_memcpy(&w, p, 8);
    if (w != twice) return false;
  }
  if (len >= 4) {
    uint32_t w;
    __builtin_memcpy(&w, p, 4);
    if (w != pattern) return false;
    p += 4;
    len -= 4;
  }
  for (size_t i = 0; i < len; ++i)
    if (p[i] != pattern_byte(pattern, i)) return false;
  return true;
}

}  // namespace qm

namespace {

inline size_t guard_anchor() { return static_cast<size_t>(QM_HEAP_guard_pattern_alignment); }

bool same(const guard_settings_t& a, const guard_settings_t& b) {
  return a.pre_size == b.pre_size && a.pre_pattern == b.pre_pattern && a.post_size == b.post_size &&
         a.post_pattern == b.post_pattern;
}

hash_sigma_t hash_of(const guard_settings_t& s) {
  return s.pre_size + s.post_size + s.pre_pattern + s.post_pattern;
}

// Under the lock: a new geometry's id.
guard_id_t store_settings(const guard_settings_t& s) {
  if (gt.settings == nullptr || gt.settings_next >= gt.settings_bound) {
    size_t old_size = gt.settings != nullptr ? gt.settings_size : 0;
    size_t size = QM_pagesize_ceil(old_size) + QM_getpagesize();
    auto* fresh = static_cast<guard_settings_t*>(QM_page_alloc(size, mmt_hia_guard_settings));
    QM_assert(fresh != nullptr, "error getting memory for guard settings\n  (%s.%d)\n", kFile, __LINE__);
    if (gt.settings != nullptr) {
      __builtin_memcpy(fresh, gt.settings, old_size);
      // Readers without the lock (the per-thread copies) only ever hold
      // copies, never pointers into the array.
      QM_assert(QM_page_dealloc(gt.settings) == 0, "error releasing old guard settings table\n  (%s.%d)\n", kFile,
                __LINE__);
    } else {
      gt.settings_next = 1;
    }
    __atomic_store_n(&gt.settings, fresh, __ATOMIC_RELEASE);
    gt.settings_size = size;
    gt.settings_bound = static_cast<int>(size / sizeof(guard_settings_t));
  }
  QM_assert(gt.settings_next < gt.settings_bound, "settings_next is not less than settings_bound in guard table\n  (%s.%d)\n",
            kFile, __LINE__);
  guard_id_t id = gt.settings_next;
  gt.settings[id] = s;
  gt.settings_next = id + 1;
  return id;
}

guard_hash_node_t* new_node() {
  if (gt.nodes_base == nullptr || gt.nodes_next >= gt.nodes_bound) {
    size_t size = QM_pagesize_ceil(192);
    auto* page = static_cast<guard_hash_node_t*>(QM_page_alloc(size, mmt_hia_guard_hash_nodes));
    QM_assert(page != nullptr, "error getting memory for new guard table nodes\n  (%s.%d)\n", kFile, __LINE__);
    gt.nodes_base = page;
    gt.nodes_next = 0;
    gt.nodes_bound = static_cast<int>(size / sizeof(guard_hash_node_t));
  }
  guard_hash_node_t* n = &gt.nodes_base[gt.nodes_next++];
  QM_assert(n != nullptr, "error getting memory for new guard hash node\n  (%s.%d)\n", kFile, __LINE__);
  return n;
}

struct CachedSettings {
  guard_id_t id;
  guard_settings_t settings;
};
constinit thread_local CachedSettings last_settings __attribute__((tls_model("initial-exec"))) = {};

}  // namespace

extern "C" {

int QM_HEAP_guard_init() { return 0; }

int QM_HEAP_guard_init_settings(guard_settings_t* settings) {
  if (settings == nullptr) return -1;
  *settings = guard_settings_t{};
  return 0;
}

int QM_HEAP_guard_get_settings(const int alignment, const size_t unit_size, guard_settings_t* settings) {
  *settings = guard_settings_t{};
  if (!QM_HEAP_guard_enabled) return 0;
  if (!QM_HEAP_guard_alignment_checked) determine_payload_alignment();
  const size_t p = static_cast<size_t>(QM_HEAP_guard_payload_alignment);
  const size_t a = alignment > 0 ? static_cast<size_t>(alignment) : 1;
  const size_t maximum = static_cast<unsigned>(QM_HEAP_guard_max_size);
  const size_t pre = static_cast<unsigned>(QM_HEAP_guard_pre_size);
  const size_t post = static_cast<unsigned>(QM_HEAP_guard_post_size);
  if (pre != 0) {
    size_t m = p != 0 ? lcm(a, p) : a;
    if (unit_size != 0) m = lcm(m, unit_size);
    settings->pre_size = round_guard(pre, m, maximum);
    settings->pre_pattern = settings->pre_size != 0 ? static_cast<guard_pattern_t>(QM_HEAP_guard_pre_pattern) : 0;
  }
  if (post != 0) {
    size_t m = unit_size != 0 ? lcm(a, unit_size) : a;
    settings->post_size = round_guard(post, m, maximum);
    settings->post_pattern = settings->post_size != 0 ? static_cast<guard_pattern_t>(QM_HEAP_guard_post_pattern) : 0;
  }
  return 0;
}

const void* QM_HEAP_guard_payload_to_base_address(const void* payload, const guard_settings_t* settings) {
  if (payload == nullptr || settings == nullptr) return payload;
  return static_cast<const char*>(payload) - settings->pre_size;
}

const void* QM_HEAP_guard_base_to_payload_address(const void* base, const guard_settings_t* settings) {
  if (base == nullptr || settings == nullptr) return base;
  return static_cast<const char*>(base) + settings->pre_size;
}

int QM_HEAP_guard_fill_guards(const guard_fill_mode_t fill_mode, const void* payload_addr, const size_t payload_len,
                              const guard_settings_t* settings) {
  if (settings == nullptr || payload_addr == nullptr) return -1;
  uint8_t* payload = static_cast<uint8_t*>(const_cast<void*>(payload_addr));
  if (fill_mode & gfm_pre) qm::fill_anchored(payload - settings->pre_size, settings->pre_size, settings->pre_pattern, guard_anchor());
  if (fill_mode & gfm_post) qm::fill_anchored(payload + payload_len, settings->post_size, settings->post_pattern, guard_anchor());
  return 0;
}

guard_status_e QM_HEAP_guard_check_guards(const void* payload_addr, const size_t payload_len,
                                          const guard_settings_t* settings) {
  if (settings == nullptr || payload_addr == nullptr) return guards_ok;
  const uint8_t* payload = static_cast<const uint8_t*>(payload_addr);
  int status = 0;
  if (!qm::intact_anchored(payload - settings->pre_size, settings->pre_size, settings->pre_pattern, guard_anchor()))
    status |= guards_pre_bad;
  if (!qm::intact_anchored(payload + payload_len, settings->post_size, settings->post_pattern, guard_anchor()))
    status |= guards_post_bad;
  return static_cast<guard_status_e>(status);
}

int QM_HEAP_gt_insert_settings(const guard_settings_t* settings, guard_id_t* id_out) {
  if (settings == nullptr || same(*settings, guard_settings_t{})) {
    if (id_out != nullptr) *id_out = 0;
    return 0;
  }
  qm::mutex_lock(&gt.mutex);
  gt.num_insertions = gt.num_insertions + 1;
  guard_id_t id = 0;
  if (gt.mru_id != 0 && same(gt.settings[gt.mru_id], *settings)) {
    id = gt.mru_id;
    gt.num_insertions_satisfied_by_mru++;
  } else {
    hash_sigma_t h = hash_of(*settings);
    guard_hash_chain_t& c = gt.hash_table[h % guard_table_hash_size];
    guard_hash_node_t* prev = nullptr;
    for (guard_hash_node_t* n = c.chain; n != nullptr; prev = n, n = n->next) {
      if (n->hash_val != h || !same(gt.settings[n->id], *settings)) continue;
      if (prev != nullptr) {  // move to front
        prev->next = n->next;
        n->next = c.chain;
        c.chain = n;
      }
      id = n->id;
      gt.num_insertions_satisfied_by_table_lookup++;
      break;
    }
    if (id == 0) {
      id = store_settings(*settings);
      guard_hash_node_t* n = new_node();
      n->hash_val = h;
      n->id = id;
      n->next = c.chain;
      c.chain = n;
      c.chain_length++;
      gt.num_entries++;
    }
  }
  gt.mru_id = id;
  qm::mutex_unlock(&gt.mutex);
  if (id_out != nullptr) *id_out = id;
  return 0;
}

int QM_HEAP_gt_lookup_id(const guard_id_t id, guard_settings_t* settings_out) {
  if (id == 0) {
    *settings_out = guard_settings_t{};
    return 0;
  }
  qm::mutex_lock(&gt.mutex);
  int r = -1;
  if (gt.settings != nullptr && id > 0 && id < gt.settings_next) {
    *settings_out = gt.settings[id];
    r = 0;
  }
  qm::mutex_unlock(&gt.mutex);
  return r;
}

int QM_HEAP_gt_table_iterate(guard_table_iter_func_t f, void* arg) {
  if (gt.settings == nullptr) return 0;
  qm::mutex_lock(&gt.mutex);
  int stop = 0, r = 0;
  for (guard_id_t id = 1; id < gt.settings_next && r == 0 && !stop; ++id) r = f(id, &gt.settings[id], &stop, arg);
  qm::mutex_unlock(&gt.mutex);
  return r;
}

void QM_HEAP_gt_atfork_prepare() { qm::mutex_lock(&gt.mutex); }
void QM_HEAP_gt_atfork_parent() { qm::mutex_unlock(&gt.mutex); }
void QM_HEAP_gt_atfork_child() { qm::mutex_unlock(&gt.mutex); }

void QM_HEAP_guard_debug_comp_stats() {
  double sum = 0, squares = 0;
  int mx = 0, mn = INT32_MAX;
  for (const guard_hash_chain_t& c : gt.hash_table) {
    sum += c.chain_length;
    squares += static_cast<double>(c.chain_length) * c.chain_length;
    if (c.chain_length > mx) mx = c.chain_length;
    if (c.chain_length < mn) mn = c.chain_length;
  }
  const double chains = static_cast<int>(guard_table_hash_size);
  double mean = sum / chains;
  QM_HEAP_guard_stats.chain_length_mean = mean;
  QM_HEAP_guard_stats.chain_length_sample_variance = squares / (chains - 1) - mean * mean * 1.025;
  QM_HEAP_guard_stats.chain_length_max = mx;
  QM_HEAP_guard_stats.chain_length_min = mn;
  QM_HEAP_guard_stats.table_num_entries = gt.num_entries;
}

int QM_HEAP_guard_get_check_on_entry() { return QM_HEAP_guard_check_on_entry; }
int QM_HEAP_guard_set_check_on_entry(int v) { return qm::swap_setting(QM_HEAP_guard_check_on_entry, v != 0); }
int QM_HEAP_guard_get_check_on_exit() { return QM_HEAP_guard_check_on_exit; }
int QM_HEAP_guard_set_check_on_exit(int v) { return qm::swap_setting(QM_HEAP_guard_check_on_exit, v != 0); }

// The pattern anchored to 4-byte boundaries: the byte at address a holds
// pattern byte a mod 4, wherever the block starts.
void QM_HEAP_paint_block(void* addr, int pattern, size_t len) {
  qm::fill_anchored(addr, len, static_cast<uint32_t>(pattern), 4);
}

}  // extern "C"

namespace qm {

bool guard_settings_of(guard_id_t id, guard_settings_t* out) {
  CachedSettings& c = last_settings;
  if (id != 0 && c.id == id) {
    *out = c.settings;
    return true;
  }
  if (QM_HEAP_gt_lookup_id(id, out) != 0) return false;
  if (id != 0) {
    c.id = id;
    c.settings = *out;
  }
  return true;
}

}  // namespace qm
