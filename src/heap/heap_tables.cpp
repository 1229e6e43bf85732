#include "heap/heap_tables.h"

#include <stdint.h>

#include "base/assert.h"
#include "base/avl_impl.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "events/output.h"
#include "heap/guards.h"
#include "heap/start_index.h"

extern "C" {
constinit heap_avl_info_t QM_HEAP_allocation_table = {};
constinit heap_avl_info_t QM_HEAP_deallocation_table = {};
constinit volatile int default_heap_table_inc_num_nodes = 8192;
}

#if defined(__i386__)
static_assert(sizeof(allocation_record_t) == 52, "allocation record layout");
static_assert(sizeof(heap_avl_node_t) == 64, "heap table node is 64 bytes on i386");
#else
static_assert(sizeof(heap_avl_node_t) == 128, "heap table node is two cache lines on x86-64");
#endif

namespace {

constexpr const char kFile[] = "../src/generic/heap_avl.c";

// Taken through mutex_lock_spinning: critical sections are short, and a
// waiter that spins usually gets in without sleeping in the kernel.
constinit QM_pthread_mutex_t alloc_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit QM_pthread_mutex_t dealloc_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit int heap_tables_initialized = 0;

// Block start -> node, beside each tree (allocation table first).
constinit qm::StartIndex start_indexes[2] = {};
inline qm::StartIndex& index_of(const heap_avl_info_t* t) {
  return start_indexes[t == &QM_HEAP_allocation_table ? 0 : 1];
}

using Node = heap_avl_node_t;
inline Node* N(void* p) { return static_cast<Node*>(p); }
inline uintptr_t U(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Node access shared by every comparison; the key differs per method.
struct NodeOps {
  static bool is_empty(void* t) { return t == nullptr; }
  static void* empty() { return nullptr; }
  static void* left(void* n) { return N(n)->left; }
  static void* right(void* n) { return N(n)->right; }
  static avl_balance_t balance(void* n) { return N(n)->balance; }
  static void set_left(void* n, void* t) { N(n)->left = N(t); }
  static void set_right(void* n, void* t) { N(n)->right = N(t); }
  static void set_balance(void* n, avl_balance_t b) { N(n)->balance = b; }
};

// A record's start moves only through here, so the copy beside the links
// follows it.
inline void set_start(Node* n, void* addr) {
  n->allocation_record.addr = addr;
#if defined(__x86_64__)
  n->key_addr = addr;
#endif
}

// Exact: the key is the block's address, compared unsigned.
struct ExactOps : NodeOps {
#if defined(__x86_64__)
  static void* key(void* n) { return N(n)->key_addr; }
#else
  static void* key(void* n) { return N(n)->allocation_record.addr; }
#endif
  static int cmp(void* a, void* b) { return U(a) < U(b) ? -1 : U(a) > U(b) ? 1 : 0; }
};

// Address in record: the node key is the record; a zero-length record still
// matches its own start address.
struct NonExactOps : NodeOps {
  static void* key(void* n) { return n; }
  static int cmp(void* a, void* b) {
    const allocation_record_t* r = &N(b)->allocation_record;
    if (U(a) < U(r->addr)) return -1;
    if (U(a) == U(r->addr)) return 0;
    return U(a) < U(r->addr) + r->len ? 0 : 1;
  }
};

// Region against record: 0 when they intersect.
struct RegionOps : NodeOps {
  static void* key(void* n) { return n; }
  static int cmp(void* a, void* b) {
    const region_t* g = static_cast<const region_t*>(a);
    const allocation_record_t* r = &N(b)->allocation_record;
    uintptr_t addr = U(r->addr);
    if (U(g->limit) <= addr && U(g->base) != addr) return -1;
    bool base_in_record = U(g->base) >= addr && U(g->base) < addr + r->len;
    bool record_in_region = addr >= U(g->base) && addr < U(g->limit);
    return base_in_record || record_in_region ? 0 : 1;
  }
};

template <class O>
struct Trampolines {
  static int cmpKey(avl_key_t a, avl_key_t b) { return O::cmp(a, b); }
  static int isEmpty(avl_tree_t t, avl_arg_t) { return O::is_empty(t); }
  static avl_tree_t empty(avl_arg_t) { return nullptr; }
  static avl_key_t getKey(avl_node_t n, avl_arg_t) { return O::key(n); }
  static avl_tree_t getLeft(avl_node_t n, avl_arg_t) { return O::left(n); }
  static avl_tree_t getRight(avl_node_t n, avl_arg_t) { return O::right(n); }
  static avl_balance_t getBalance(avl_node_t n, avl_arg_t) { return O::balance(n); }
  static void setLeft(avl_node_t n, avl_tree_t t, avl_arg_t) { O::set_left(n, t); }
  static void setRight(avl_node_t n, avl_tree_t t, avl_arg_t) { O::set_right(n, t); }
  static void setBalance(avl_node_t n, avl_balance_t b, avl_arg_t) { O::set_balance(n, b); }
  static constexpr avl_ops_t table = {cmpKey, isEmpty, empty, getKey, getLeft, getRight,
                                      getBalance, setLeft, setRight, setBalance};
};

constinit avl_ops_t exact_ops = Trampolines<ExactOps>::table;
constinit avl_ops_t non_exact_ops = Trampolines<NonExactOps>::table;
constinit avl_ops_t region_ops = Trampolines<RegionOps>::table;

template <class O>
using Algo = qm::avl::Algo<O>;

void grow(heap_avl_info_t* t) {
  int want = default_heap_table_inc_num_nodes;
  if (want <= 0) QM_assert(0, "number of new avl nodes not greater than zero (%d)\n  ( %s.%d )\n", want, kFile, __LINE__);
  size_t len = QM_pagesize_ceil(static_cast<size_t>(want) * sizeof(Node));
  void* run = QM_page_alloc(len, mmt_hia_heap_avl_nodes);
  QM_assert(run != nullptr, "unable to get region for new heap avl nodes\n");
  t->fresh_nodes = static_cast<Node*>(run);
  t->fresh_nodes_next = 0;
  t->fresh_nodes_bound = static_cast<int>(len / sizeof(Node));
}

Node* take_node(heap_avl_info_t* t) {
  if (t->free != nullptr) {
    Node* n = t->free;
    t->free = n->left;
    return n;
  }
  // Both tables use one node size, and both change only under the
  // allocation-table lock: a node the other table released serves as well
  // as a fresh one. A release moves a record from one table to the other, so
  // this takes the node just given up (still in the cache), and a program
  // that releases most of its blocks at once needs no new pages for them.
  heap_avl_info_t* other = t == &QM_HEAP_allocation_table ? &QM_HEAP_deallocation_table : &QM_HEAP_allocation_table;
  if (other->free != nullptr) {
    Node* n = other->free;
    other->free = n->left;
    return n;
  }
  if (t->fresh_nodes == nullptr || t->fresh_nodes_next >= t->fresh_nodes_bound) grow(t);
  Node* n = &t->fresh_nodes[t->fresh_nodes_next++];
  if (n == nullptr)
    QM_assert(0, "unable to get new heap avl node for insertion of new record\n  ( %s.%d )\n", kFile, __LINE__);
  return n;
}

void release_node(heap_avl_info_t* t, Node* n) {
  n->right = nullptr;
  n->left = t->free;
  t->free = n;
}

// Inserts a copy of rec unless accept(pred, succ) refuses the neighbours it
// would get (see Algo::insert_if); null when refused, nothing changed.
template <class Accept>
alloc_rec_id_t insert_if(heap_avl_info_t* t, const allocation_record_t* rec, Accept accept) {
  Node* n = take_node(t);
  n->allocation_record = *rec;
  set_start(n, rec->addr);
  bool inserted;
  t->root = N(Algo<ExactOps>{ExactOps{}}.insert_if(t->root, n, rec->addr, accept, &inserted));
  if (!inserted) {
    release_node(t, n);
    return nullptr;
  }
  if (QM_AVL_assert_insert && Algo<ExactOps>{ExactOps{}}.check(t->root) != 0) QM_AVL_fatal("insert checkAvl");
  ++t->num_records;
  index_of(t).put(U(rec->addr), n);
  return n;
}

alloc_rec_id_t insert(heap_avl_info_t* t, const allocation_record_t* rec) {
  return insert_if(t, rec, [](void*, void*) { return true; });
}

// Records never overlap within a table, so a record that starts at addr is
// also the one that contains it.
alloc_rec_id_t lookup(heap_avl_info_t* t, const void* addr, allocation_record_t* out, exact_lookup_e how) {
  void* k = const_cast<void*>(addr);
  const qm::StartIndex& ix = index_of(t);
  Node* n;
  if (ix.failed)
    n = how == exact ? N(Algo<ExactOps>{ExactOps{}}.lookup(t->root, k))
                     : N(Algo<NonExactOps>{NonExactOps{}}.lookup(t->root, k));
  else if ((n = N(ix.find(U(addr)))) == nullptr && how != exact)
    n = N(Algo<NonExactOps>{NonExactOps{}}.lookup(t->root, k));
  if (n != nullptr && out != nullptr) *out = n->allocation_record;
  return n;
}

alloc_rec_id_t lookup_range(heap_avl_info_t* t, const void* addr, size_t len, allocation_record_t* out) {
  region_t g = {addr, static_cast<const char*>(addr) + len};
  Node* n = N(Algo<RegionOps>{RegionOps{}}.lookup(t->root, &g));
  if (n != nullptr && out != nullptr) *out = n->allocation_record;
  return n;
}

int remove(heap_avl_info_t* t, const void* addr, Node** next = nullptr) {
  void* removed = nullptr;
  t->root = N(qm::avl::remove(ExactOps{}, t->root, const_cast<void*>(addr), &removed,
                              reinterpret_cast<void**>(next)));
  Node* n = N(removed);
  if (n == nullptr) {
    QM_HEAP_printf("address to be deleted not in heap avl table\n  ( %s.%d )\n", kFile, __LINE__);
    return -1;
  }
  release_node(t, n);
  --t->num_records;
  index_of(t).erase(U(addr));
  return 0;
}

// Gives a record a new address: out of the tree under the old key, back in
// under the new one; the node, and so the id, stays.
void rekey(heap_avl_info_t* t, Node* n, void* addr) {
  index_of(t).erase(U(n->allocation_record.addr));
  t->root = N(qm::avl::remove(ExactOps{}, t->root, n->allocation_record.addr));
  set_start(n, addr);
  t->root = N(qm::avl::insert(ExactOps{}, t->root, n));
  index_of(t).put(U(addr), n);
}

struct IterArg {
  ht_iter_func_t f;
  void* arg;
};

int iter_trampoline(avl_node_t n, int* stop, void* a) {
  auto* ia = static_cast<IterArg*>(a);
  return ia->f(&N(n)->allocation_record, stop, ia->arg);
}

int iterate(heap_avl_info_t* t, ht_iter_func_t f, void* arg) {
  if (f == nullptr) return -1;
  IterArg ia = {f, arg};
  int stop = 0;
  return Algo<ExactOps>{ExactOps{}}.traverse(t->root, &stop, iter_trampoline, &ia);
}

// Post-order walk of the detached tree: a node's children are read before
// the node is re-inserted (which overwrites its links).
int filter_walk(heap_avl_info_t* t, Node* n, ht_filter_func_t f, void* arg, int* stopped) {
  if (n == nullptr) return 0;
  Node* l = n->left;
  Node* r = n->right;
  int res = filter_walk(t, l, f, arg, stopped);
  if (res != 0) return res;
  res = filter_walk(t, r, f, arg, stopped);
  if (res != 0) return res;
  ht_filter_arg_t farg = {0, 0};
  if (!*stopped) {
    res = f(n, &farg, arg);
    if (res != 0) return res;
    *stopped = farg.stop_iterating;
  }
  if (farg.delete_it) {
    index_of(t).erase(U(n->allocation_record.addr));
    release_node(t, n);
  } else {
    t->root = N(qm::avl::insert(ExactOps{}, t->root, n));
    ++t->num_records;
  }
  return 0;
}

}  // namespace

extern "C" {

constinit avl_ops_t* QM_HEAP_lookup_method_ops[3] = {};

int QM_HEAP_init_heap_tables() {
  if (heap_tables_initialized) return 0;
  QM_HEAP_lookup_method_ops[lookup_exact] = &exact_ops;
  QM_HEAP_lookup_method_ops[lookup_non_exact] = &non_exact_ops;
  QM_HEAP_lookup_method_ops[lookup_region] = &region_ops;
  QM_HEAP_allocation_table = {};
  QM_HEAP_deallocation_table = {};
  for (qm::StartIndex& ix : start_indexes) {
    ix.clear();
    ix.failed = false;
  }
  heap_tables_initialized = 1;
  return 0;
}

const char* QM_HEAP_alloc_rec_flag_to_str(int flag) {
  switch (flag) {
    case af_op_in_progress: return "Operation in Progress";
    case af_notify_dealloc: return "Stop When Deallocated";
    case af_notify_realloc: return "Stop When Reallocated";
    case af_paint_on_dealloc: return "Paint When Deallocated";
    case af_dont_free_on_dealloc: return "Hoard When Deallocated";
    case af_hoarded: return "Hoarded";
    case af_kind_new: return "Made by new";
    case af_kind_new_array: return "Made by new[]";
    case af_kind_aligned: return "Aligned new";
    default: return "?";
  }
}

// Every change of the allocation table's blocks (under its lock): what a
// reachability result was made of is still there while it is unchanged.
unsigned long QM_HEAP_allocation_table_changes = 0;

alloc_rec_id_t QM_HEAP_insert_allocation_record(const allocation_record_t* rec) {
  ++QM_HEAP_allocation_table_changes;
  return insert(&QM_HEAP_allocation_table, rec);
}
alloc_rec_id_t QM_HEAP_lookup_allocation_record(const void* addr, allocation_record_t* rec_out,
                                                exact_lookup_e exact_lookup) {
  return lookup(&QM_HEAP_allocation_table, addr, rec_out, exact_lookup);
}
alloc_rec_id_t QM_HEAP_insert_allocation_record_if_clear(const allocation_record_t* rec, size_t span) {
  ++QM_HEAP_allocation_table_changes;
  heap_avl_info_t* t = &QM_HEAP_allocation_table;
  const uintptr_t s = U(rec->addr), e = s + (span > 0 ? span : 1);
  // A duplicate start is never passed to the tree (it would be fatal there):
  // the index tells it first.
  const qm::StartIndex& ix = index_of(t);
  if ((ix.failed ? Algo<ExactOps>{ExactOps{}}.lookup(t->root, rec->addr) : ix.find(s)) != nullptr) return nullptr;
  // Clear of live blocks: the one before ends at or before the start, the
  // one after starts at or after the end (a zero-length record included).
  return insert_if(t, rec, [s, e](void* pred, void* succ) {
    if (pred != nullptr && U(N(pred)->allocation_record.addr) + N(pred)->allocation_record.len > s) return false;
    return succ == nullptr || U(N(succ)->allocation_record.addr) >= e;
  });
}

alloc_rec_id_t QM_HEAP_lookup_allocation_range_record(const void* addr, size_t len,
                                                      allocation_record_t* rec_out) {
  return lookup_range(&QM_HEAP_allocation_table, addr, len, rec_out);
}
int QM_HEAP_remove_allocation_record(const void* addr) {
  ++QM_HEAP_allocation_table_changes;
  return remove(&QM_HEAP_allocation_table, addr);
}
int QM_HEAP_get_num_records_in_allocation_table() { return QM_HEAP_allocation_table.num_records; }

int QM_HEAP_get_allocation_record_by_id(alloc_rec_id_t id, allocation_record_t* rec_out) {
  if (id == nullptr || rec_out == nullptr) return -1;
  *rec_out = id->allocation_record;
  return 0;
}
int QM_HEAP_set_alloc_len_by_id(alloc_rec_id_t id, size_t len) {
  if (id == nullptr) return -1;
  ++QM_HEAP_allocation_table_changes;
  id->allocation_record.len = len;
  return 0;
}
int QM_HEAP_set_alloc_flags_by_id(alloc_rec_id_t id, int flags) {
  if (id == nullptr) return -1;
  id->allocation_record.flags = id->allocation_record.flags | flags;
  return 0;
}
int QM_HEAP_clear_alloc_flags_by_id(alloc_rec_id_t id, int flags) {
  if (id == nullptr) return -1;
  id->allocation_record.flags = id->allocation_record.flags & ~flags;
  return 0;
}
int QM_HEAP_set_alloc_control_info_by_id(alloc_rec_id_t id, void* control_info) {
  if (id == nullptr) return -1;
  id->allocation_record.control_info = control_info;
  return 0;
}

// Copies the selected fields; a changed address re-keys the record.
int QM_HEAP_set_alloc_fields_by_id(alloc_rec_id_t id, const allocation_record_t* rec, int fields) {
  if (id == nullptr || rec == nullptr) return -1;
  allocation_record_t* r = &id->allocation_record;
  if (fields & (ar_field_addr | ar_field_len)) ++QM_HEAP_allocation_table_changes;
  if ((fields & ar_field_addr) && r->addr != rec->addr) rekey(&QM_HEAP_allocation_table, id, rec->addr);
  if (fields & ar_field_len) r->len = rec->len;
  if (fields & ar_field_backtrace_id) r->backtrace_id = rec->backtrace_id;
  if (fields & ar_field_thread_id) r->thread_id = rec->thread_id;
  if (fields & ar_field_flags) r->flags = rec->flags;
  if (fields & ar_field_org_addr) r->org_addr = rec->org_addr;
  if (fields & ar_field_org_len) r->org_len = rec->org_len;
  if (fields & ar_field_org_backtrace_id) r->org_backtrace_id = rec->org_backtrace_id;
  if (fields & ar_field_control_info) r->control_info = rec->control_info;
  return 0;
}

int QM_HEAP_check_allocation_table() {
  return Algo<ExactOps>{ExactOps{}}.check(QM_HEAP_allocation_table.root);
}

int QM_HEAP_iterate_over_allocation_table(ht_iter_func_t f, void* arg) {
  return iterate(&QM_HEAP_allocation_table, f, arg);
}

int QM_HEAP_iterate_over_allocation_table_range(ht_iter_func_t f, void* arg, const void* start,
                                                const void* limit) {
  if (f == nullptr) return -1;
  IterArg ia = {f, arg};
  int stop = 0;
  return Algo<ExactOps>{ExactOps{}}.traverse_range(QM_HEAP_allocation_table.root, const_cast<void*>(start),
                                                   const_cast<void*>(limit), &stop, iter_trampoline, &ia);
}

int QM_HEAP_init_allocation_table_iterator(allocation_table_iterator_t* it) {
  if (it == nullptr) return -1;
  it->curr_pos = 0;
  return 0;
}

int QM_HEAP_is_more_allocation_table_records(allocation_table_iterator_t* it) {
  return it != nullptr && it->curr_pos < QM_HEAP_allocation_table.num_records;
}

int QM_HEAP_next_allocation_table_record(allocation_table_iterator_t* it, allocation_record_t* rec_out) {
  if (!QM_HEAP_is_more_allocation_table_records(it)) return 0;
  Node* n = N(Algo<ExactOps>{ExactOps{}}.nth(QM_HEAP_allocation_table.root, it->curr_pos));
  if (n == nullptr) return 0;
  ++it->curr_pos;
  if (rec_out != nullptr) *rec_out = n->allocation_record;
  return 1;
}

int QM_HEAP_ht_alloc_filter(ht_filter_func_t f, void* arg) {
  if (f == nullptr) return -1;
  heap_avl_info_t* t = &QM_HEAP_allocation_table;
  Node* old = t->root;
  t->root = nullptr;
  t->num_records = 0;
  int stopped = 0;
  return filter_walk(t, old, f, arg, &stopped);
}

alloc_rec_id_t QM_HEAP_insert_deallocation_record(const allocation_record_t* rec) {
  return insert(&QM_HEAP_deallocation_table, rec);
}
alloc_rec_id_t QM_HEAP_lookup_deallocation_record(const void* addr, allocation_record_t* rec_out,
                                                  exact_lookup_e exact_lookup) {
  return lookup(&QM_HEAP_deallocation_table, addr, rec_out, exact_lookup);
}
alloc_rec_id_t QM_HEAP_lookup_deallocation_range_record(const void* addr, size_t len,
                                                        allocation_record_t* rec_out) {
  return lookup_range(&QM_HEAP_deallocation_table, addr, len, rec_out);
}
int QM_HEAP_remove_deallocation_record(const void* addr) { return remove(&QM_HEAP_deallocation_table, addr); }
int QM_HEAP_remove_deallocation_record_next(const void* addr, alloc_rec_id_t* next) {
  return remove(&QM_HEAP_deallocation_table, addr, next);
}
int QM_HEAP_get_num_records_in_deallocation_table() { return QM_HEAP_deallocation_table.num_records; }

int QM_HEAP_set_dealloc_addr_len_by_id(alloc_rec_id_t id, void* p, size_t len) {
  if (id == nullptr) return -1;
  allocation_record_t* r = &id->allocation_record;
  // Released ranges do not overlap: a start moved within the range keeps the
  // record's place in the order, so the key changes in place.
  bool in_place = U(p) >= U(r->addr) && U(p) <= U(r->addr) + r->len;
  if (in_place) {
    qm::StartIndex& ix = index_of(&QM_HEAP_deallocation_table);
    ix.erase(U(r->addr));
    set_start(id, p);
    ix.put(U(p), id);
  } else
    rekey(&QM_HEAP_deallocation_table, id, p);
  r->len = len;
  return 0;
}
int QM_HEAP_set_dealloc_flags_by_id(alloc_rec_id_t id, int flags) { return QM_HEAP_set_alloc_flags_by_id(id, flags); }
int QM_HEAP_clear_dealloc_flags_by_id(alloc_rec_id_t id, int flags) {
  return QM_HEAP_clear_alloc_flags_by_id(id, flags);
}

int QM_HEAP_check_deallocation_table() {
  return Algo<ExactOps>{ExactOps{}}.check(QM_HEAP_deallocation_table.root);
}

int QM_HEAP_iterate_over_deallocation_table(ht_iter_func_t f, void* arg) {
  return iterate(&QM_HEAP_deallocation_table, f, arg);
}

QM_pthread_mutex_t* QM_HEAP_ht_alloc_mutex() { return &alloc_mutex; }
QM_pthread_mutex_t* QM_HEAP_ht_dealloc_mutex() { return &dealloc_mutex; }
int QM_HEAP_ht_alloc_read_lock() { return qm::mutex_lock_spinning(&alloc_mutex); }
int QM_HEAP_ht_alloc_read_unlock() { return qm::mutex_unlock(&alloc_mutex); }
int QM_HEAP_ht_alloc_write_lock() { return qm::mutex_lock_spinning(&alloc_mutex); }
int QM_HEAP_ht_alloc_write_unlock() { return qm::mutex_unlock(&alloc_mutex); }
int QM_HEAP_ht_dealloc_read_lock() { return qm::mutex_lock(&dealloc_mutex); }
int QM_HEAP_ht_dealloc_read_unlock() { return qm::mutex_unlock(&dealloc_mutex); }
int QM_HEAP_ht_dealloc_write_lock() { return qm::mutex_lock(&dealloc_mutex); }
int QM_HEAP_ht_dealloc_write_unlock() { return qm::mutex_unlock(&dealloc_mutex); }
int QM_HEAP_ht_alloc_cond_wait(QM_pthread_cond_t* cond) { return QM_pthread_cond_wait(cond, &alloc_mutex); }

void QM_HEAP_ht_atfork_prepare() {
  qm::mutex_lock(&alloc_mutex);
  qm::mutex_lock(&dealloc_mutex);
}
void QM_HEAP_ht_atfork_parent() {
  qm::mutex_unlock(&dealloc_mutex);
  qm::mutex_unlock(&alloc_mutex);
}
// In the child only the forking thread exists: operations that other threads
// had in progress on blocks will never finish there, so their marks (and
// their waiters) are dropped, or the child would wait for them for ever.
void QM_HEAP_ht_atfork_child() {
  QM_HEAP_iterate_over_allocation_table(
      [](allocation_record_t* r, int*, void*) {
        if (r->flags & af_op_in_progress) {
          r->flags = r->flags & ~af_op_in_progress;
          r->control_info = nullptr;
        }
        return 0;
      },
      nullptr);
  qm::mutex_unlock(&dealloc_mutex);
  qm::mutex_unlock(&alloc_mutex);
}

void* QM_HEAP_ht_get_alloc_base_addr(const allocation_record_t* rec) {
  if (rec == nullptr) return nullptr;
  guard_settings_t gs = {};
  if (rec->guard_id != 0 && !qm::guard_settings_of(rec->guard_id, &gs))
    QM_assert(0, "lookup of guard id %d failed\n  (%s.%d)\n", rec->guard_id, kFile, __LINE__);
  return static_cast<char*>(rec->addr) - gs.pre_size;
}

}  // extern "C"
