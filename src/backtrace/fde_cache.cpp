// The FDE cache: the unwinder asks for the FDE of every frame of every
// unwind, and its own lookup is slow; answers (null ones too) are kept by
// program counter in 31 move-to-front chains of nodes from one region of
// agent pages. A library unload empties the cache and keeps it out of use
// until the last unload in progress has ended.
//
// The lookup never waits for the cache's lock: the unwinder may run in a
// signal handler that interrupted this very thread inside the cache, and
// then the real function answers directly.
#include "backtrace/fde_cache.h"

#include <dlfcn.h>

#include "backtrace/backtrace_table.h"
#include "backtrace/fast_unwind.h"
#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "config/runtime_config.h"
#include "core/binding.h"

extern "C" {
constinit int QM_STACK_fde_cache_caching = 0;
QM_EXPORT constinit int QM_STACK_fde_cache__Unwind_Find_FDE_times_called = 0;
}

namespace {

constexpr int kNumChains = 31;
constexpr int kNumNodesRequested = 512;
constexpr const char kNoCacheVariable[] = "QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE";

constinit cache_t cache = {PTHREAD_MUTEX_INITIALIZER, 0, 0, 0, 0, 0, nullptr, 0, nullptr, nullptr, nullptr,
                           nullptr, nullptr, 0, {}};
constinit qm_find_fde_fn real_find_fde = nullptr;
using dlclose_fn = int (*)(void*);
constinit dlclose_fn real_dlclose = nullptr;
constinit void* libgcc_handle = nullptr;
constinit int once_done = 0;
constinit int caching_decided = 0;
using find_object_fn = int (*)(void*, struct dl_find_object*);
constinit find_object_fn find_object = nullptr;
constinit QM_thread_atfork_handlers_t fork_handlers = {};

void fork_prepare() {
  qm::mutex_lock(&cache.mutex);
  QM_STACK_unwind_steps_atfork_prepare();
}
void fork_post() {
  QM_STACK_unwind_steps_atfork_post();
  qm::mutex_unlock(&cache.mutex);
}

void run_once() {
  if (__atomic_exchange_n(&once_done, 1, __ATOMIC_ACQ_REL)) return;
  fork_handlers.prepare = fork_prepare;
  fork_handlers.parent = fork_post;
  fork_handlers.child = fork_post;
  fork_handlers.state = fhs_active;
  QM_assert(QM_thread_atfork_register_outer_handlers(&fork_handlers) == 0,
            "error registering fde cache atfork handlers\n");
}

void find_real_function() {
  if (real_find_fde != nullptr) return;
  void* f = QM_IA_dlsym(RTLD_NEXT, "_Unwind_Find_FDE");
  if (f == nullptr) {
    if (libgcc_handle == nullptr) libgcc_handle = QM_IA_dlopen("libgcc_s.so.1", RTLD_LAZY);
    if (libgcc_handle != nullptr) f = QM_IA_dlsym(libgcc_handle, "_Unwind_Find_FDE");
  }
  if (f == nullptr) QM_STACK_printf("fde cache: didn't find _Unwind_Find_FDE\n");
  __atomic_store_n(&real_find_fde, reinterpret_cast<qm_find_fde_fn>(f), __ATOMIC_RELEASE);
}

const void* call_real(void* pc, qm_anb_dwarf_eh_bases_t* bases) {
  qm_find_fde_fn f = __atomic_load_n(&real_find_fde, __ATOMIC_ACQUIRE);
  return f != nullptr ? f(pc, bases) : nullptr;
}

// Under the mutex. Builds the chains and nodes in one region.
void build_cache() {
  cache.initialized = 1;
  cache.valid = 1;
  cache.dlclose_count = 0;
  cache.eviction_cursor = 0;
  cache.num_chains = kNumChains;
  size_t chain_bytes = kNumChains * sizeof(cache_chain_t);
  cache.region_length = QM_pagesize_ceil(chain_bytes + kNumNodesRequested * sizeof(cache_node_t));
  cache.region = QM_page_alloc(cache.region_length, mmt_backtrace_fde_cache);
  QM_assert(cache.region != nullptr, "error getting space for fde cache\n");
  cache.chains = static_cast<cache_chain_t*>(cache.region);
  for (int i = 0; i < kNumChains; ++i) cache.chains[i] = {nullptr, nullptr};
  cache.nodes = reinterpret_cast<cache_node_t*>(static_cast<char*>(cache.region) + chain_bytes);
  cache.num_nodes = static_cast<int>((cache.region_length - chain_bytes) / sizeof(cache_node_t));
  cache.free_nodes = nullptr;
  cache.fresh_nodes = cache.nodes;
  cache.fresh_nodes_bound = cache.nodes + cache.num_nodes;
  cache.stats = {};
}

// First lookup: fork handlers, the real function, the caching decision.
void set_up() {
  run_once();
  find_real_function();
  if (find_object == nullptr)
    __atomic_store_n(&find_object, reinterpret_cast<find_object_fn>(QM_IA_dlsym(RTLD_DEFAULT, "_dl_find_object")),
                     __ATOMIC_RELEASE);
  if (!caching_decided) {
    // The variable is passed on to programs the target starts, with the rest
    // of its environment.
    if (QM_getenv(kNoCacheVariable) == nullptr) QM_STACK_fde_cache_caching = 1;
    caching_decided = 1;
  }
  qm::mutex_lock(&cache.mutex);
  if (!cache.initialized) {
    if (QM_STACK_fde_cache_caching) build_cache();
    else cache.initialized = 1;
  }
  qm::mutex_unlock(&cache.mutex);
}

unsigned chain_of(void* pc) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pc) % static_cast<unsigned>(cache.num_chains));
}

void unlink_node(cache_chain_t* c, cache_node_t* n) {
  cache_node_t* p = n->hash_chain_links.prev;
  cache_node_t* x = n->hash_chain_links.next;
  if (p != nullptr) p->hash_chain_links.next = x;
  else c->head = x;
  if (x != nullptr) x->hash_chain_links.prev = p;
  else c->tail = p;
  n->hash_chain_links = {nullptr, nullptr};
}

void push_front(cache_chain_t* c, cache_node_t* n) {
  n->hash_chain_links.prev = nullptr;
  n->hash_chain_links.next = c->head;
  if (c->head != nullptr) c->head->hash_chain_links.prev = n;
  c->head = n;
  if (c->tail == nullptr) c->tail = n;
}

// Under the mutex.
cache_node_t* lookup_cache(void* pc) {
  cache.stats.num_accesses++;
  cache_chain_t* c = &cache.chains[chain_of(pc)];
  int pos = 0;
  for (cache_node_t* n = c->head; n != nullptr; n = n->hash_chain_links.next, ++pos) {
    if (n->pc != pc) continue;
    if (pos > 0) {
      unlink_node(c, n);
      push_front(c, n);
    }
    if (pos < fde_cache_stats_num_hit_pos_buckets) cache.stats.hit_positions[pos]++;
    cache.stats.num_hits++;
    return n;
  }
  return nullptr;
}

// Under the mutex.
cache_node_t* take_node() {
  if (cache_node_t* n = cache.free_nodes) {
    cache.free_nodes = n->hash_chain_links.next;
    return n;
  }
  if (cache.fresh_nodes < cache.fresh_nodes_bound) return cache.fresh_nodes++;
  for (int looked = 0; looked < cache.num_chains; ++looked) {
    cache_chain_t* c = &cache.chains[cache.eviction_cursor];
    cache.eviction_cursor = (cache.eviction_cursor + 1) % cache.num_chains;
    if (c->tail != nullptr) {
      cache_node_t* n = c->tail;
      unlink_node(c, n);
      return n;
    }
  }
  return nullptr;
}

// "No FDE" holds only while the place stays as it was: a library loaded
// there later (after an unmapping that no dlclose announced) has FDEs. So a
// null answer keeps, in its otherwise unused bases, the start of the object
// that held the pc then (null for none); the dynamic linker's lock-free
// lookup tells whether that is still so.
void* object_start(void* pc) {
  struct dl_find_object o;
  if (find_object == nullptr || find_object(pc, &o) != 0) return nullptr;
  return o.dlfo_map_start;
}

bool null_answer_stale(const cache_node_t* n) {
  return n->info.fde == nullptr && find_object != nullptr && object_start(n->pc) != n->info.bases.func;
}

void release_node(cache_node_t* n) {
  unlink_node(&cache.chains[chain_of(n->pc)], n);
  n->hash_chain_links.next = cache.free_nodes;
  cache.free_nodes = n;
}

void fill_bases(const cache_node_t* n, qm_anb_dwarf_eh_bases_t* bases) {
  if (n->info.fde != nullptr && bases != nullptr) *bases = n->info.bases;
}

}  // namespace

extern "C" {

int QM_STACK_fde_cache_init() {
  run_once();
  return 0;
}

void QM_STACK_fde_cache_set_real_functions(qm_find_fde_fn f, int (*d)(void*)) {
  real_find_fde = f;
  real_dlclose = d;
}

void QM_STACK_fde_cache_reset() {
  qm::mutex_lock(&cache.mutex);
  if (cache.region != nullptr) QM_page_dealloc(cache.region);
  cache.region = nullptr;
  cache.chains = nullptr;
  cache.nodes = cache.free_nodes = cache.fresh_nodes = cache.fresh_nodes_bound = nullptr;
  cache.num_nodes = 0;
  cache.initialized = 0;
  cache.valid = 0;
  qm::mutex_unlock(&cache.mutex);
}

int QM_STACK_fde_cache_get_num_nodes() { return kNumNodesRequested; }
int QM_STACK_fde_cache_get_num_chains() { return kNumChains; }

void QM_STACK_fde_cache_get_stats(fde_cache_stats_t* stats) {
  qm::mutex_lock(&cache.mutex);
  *stats = cache.stats;
  qm::mutex_unlock(&cache.mutex);
}

int QM_STACK_fde_cache_debug_is_in(void* pc) {
  qm::mutex_lock(&cache.mutex);
  int in = 0;
  if (cache.initialized && cache.valid && cache.chains != nullptr)
    for (cache_node_t* n = cache.chains[chain_of(pc)].head; n != nullptr && !in; n = n->hash_chain_links.next)
      in = n->pc == pc;
  qm::mutex_unlock(&cache.mutex);
  return in;
}

int QM_STACK_fde_cache_iterate(int (*f)(void* pc, int* stop, void* arg), void* arg) {
  qm::mutex_lock(&cache.mutex);
  int r = 0, stop = 0;
  if (cache.initialized && cache.valid && cache.chains != nullptr) {
    for (int c = 0; c < cache.num_chains && r == 0 && !stop; ++c)
      for (cache_node_t* n = cache.chains[c].head; n != nullptr && r == 0 && !stop; n = n->hash_chain_links.next)
        r = f(n->pc, &stop, arg);
  }
  qm::mutex_unlock(&cache.mutex);
  return r;
}

const void* QM_STACK_fde_cache_find(void* pc, qm_anb_dwarf_eh_bases_t* bases) {
  if (QM_UNLIKELY(!__atomic_load_n(&cache.initialized, __ATOMIC_ACQUIRE))) set_up();
  if (!QM_STACK_fde_cache_caching) return call_real(pc, bases);
  if (qm::mutex_trylock(&cache.mutex) != 0) return call_real(pc, bases);
  QM_STACK_fde_cache__Unwind_Find_FDE_times_called++;
  if (!cache.valid || cache.chains == nullptr) {
    qm::mutex_unlock(&cache.mutex);
    return call_real(pc, bases);
  }
  cache_node_t* n = lookup_cache(pc);
  if (n != nullptr && null_answer_stale(n)) {
    release_node(n);
    n = nullptr;
  }
  if (n != nullptr) {
    const void* fde = n->info.fde;
    fill_bases(n, bases);
    qm::mutex_unlock(&cache.mutex);
    return fde;
  }
  qm::mutex_unlock(&cache.mutex);

  const void* fde = call_real(pc, bases);
  if (qm::mutex_trylock(&cache.mutex) != 0) return fde;
  if (cache.valid && cache.chains != nullptr) {
    if (lookup_cache(pc) != nullptr) {
      cache.stats.num_hits_second_try++;
    } else if (cache_node_t* n = take_node()) {
      n->pc = pc;
      n->info.fde = fde;
      if (bases != nullptr && fde != nullptr) n->info.bases = *bases;
      else n->info.bases = {};
      if (fde == nullptr) n->info.bases.func = object_start(pc);
      push_front(&cache.chains[chain_of(pc)], n);
    }
  }
  qm::mutex_unlock(&cache.mutex);
  return fde;
}

int QM_STACK_fde_cache_dlclose(void* handle) {
  run_once();
  if (real_dlclose == nullptr)
    __atomic_store_n(&real_dlclose, reinterpret_cast<dlclose_fn>(QM_IA_dlsym(RTLD_NEXT, "dlclose")),
                     __ATOMIC_RELEASE);
  qm::mutex_lock(&cache.mutex);
  cache.dlclose_count++;
  if (cache.initialized) {
    cache.valid = 0;
    if (cache.chains != nullptr) {
      for (int i = 0; i < cache.num_chains; ++i) {
        cache_chain_t* c = &cache.chains[i];
        if (c->head == nullptr) continue;
        c->tail->hash_chain_links.next = cache.free_nodes;
        cache.free_nodes = c->head;
        c->head = c->tail = nullptr;
      }
    }
  }
  QM_STACK_unwind_steps_invalidate(1);
  qm::mutex_unlock(&cache.mutex);

  dlclose_fn d = __atomic_load_n(&real_dlclose, __ATOMIC_ACQUIRE);
  int r = d != nullptr ? d(handle) : -1;

  qm::mutex_lock(&cache.mutex);
  cache.dlclose_count--;
  if (cache.initialized && cache.dlclose_count == 0) cache.valid = 1;
  QM_STACK_unwind_steps_invalidate(cache.dlclose_count > 0);
  qm::mutex_unlock(&cache.mutex);
  return r;
}

}  // extern "C"
