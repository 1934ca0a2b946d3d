// Hash B-tree (with its own lock) against std::map and GLib's GTree on the
// same random keys: insert, find by key and delete, plus position lookup.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include <vekutil/btree.h>

#ifdef VEK_HAVE_GLIB
#include <glib.h>
#endif

namespace {

// Distinct random keys in insertion order, and the same keys shuffled for
// lookups and deletions.
struct Keys {
  std::vector<long long> insert_order;
  std::vector<long long> probe_order;
};

const Keys& keys_for(int n) {
  static std::map<int, Keys> cache;
  auto it = cache.find(n);
  if (it != cache.end()) return it->second;
  std::mt19937_64 rng(12345);
  Keys k;
  std::vector<long long> all;
  while ((int)all.size() < n) {
    for (int i = (int)all.size(); i < n; ++i) all.push_back((long long)rng());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
  }
  k.insert_order = all;
  std::shuffle(k.insert_order.begin(), k.insert_order.end(), rng);
  k.probe_order = all;
  std::shuffle(k.probe_order.begin(), k.probe_order.end(), rng);
  return cache[n] = std::move(k);
}

// Any non-null value will do as the element.
void* element(long long key) { return reinterpret_cast<void*>((uintptr_t)key | 1); }

// ---------------------------------------------------------------- ours

void* build_btree(const Keys& k, int options = 0) {
  void* t = nullptr;
  btree_create_ex(&t, nullptr, nullptr, options);
  for (long long key : k.insert_order) btree_insert_with_hash(t, element(key), key);
  return t;
}

void BM_btree_insert(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    void* t = build_btree(k);
    state.PauseTiming();
    btree_delete(t);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_btree_find(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  void* t = build_btree(k);
  for (auto _ : state)
    for (long long key : k.probe_order) benchmark::DoNotOptimize(btree_find_by_hash(t, key));
  btree_delete(t);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The same lookups on a tree made without a lock: the cost of the tree
// alone, to tell it from the cost of the read lock.
void BM_btree_find_unlocked(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  void* t = build_btree(k, BTREE_OPTION_NO_LOCK);
  for (auto _ : state)
    for (long long key : k.probe_order) benchmark::DoNotOptimize(btree_find_by_hash(t, key));
  btree_delete(t);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// One read lock and unlock through the tree, as every lookup pays it.
void BM_btree_lock_pair(benchmark::State& state) {
  void* t = build_btree(keys_for(1000));
  for (auto _ : state) {
    btree_readlock(t);
    btree_unlock(t);
  }
  btree_delete(t);
}

void BM_btree_delete(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    void* t = build_btree(k);
    state.ResumeTiming();
    for (long long key : k.probe_order) benchmark::DoNotOptimize(btree_delete_by_hash(t, key));
    state.PauseTiming();
    btree_delete(t);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_btree_find_by_index(benchmark::State& state) {
  int n = (int)state.range(0);
  const Keys& k = keys_for(n);
  void* t = build_btree(k);
  std::vector<int> positions(n);
  std::mt19937 rng(7);
  for (int& p : positions) p = (int)(rng() % (unsigned)n);
  for (auto _ : state)
    for (int p : positions) benchmark::DoNotOptimize(btree_find_by_index(t, p));
  btree_delete(t);
  state.SetItemsProcessed(state.iterations() * n);
}

// ---------------------------------------------------------------- std::map

using StdMap = std::map<long long, void*>;

void build_map(StdMap& m, const Keys& k) {
  for (long long key : k.insert_order) m.emplace(key, element(key));
}

void BM_map_insert(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    auto* m = new StdMap;
    build_map(*m, k);
    state.PauseTiming();
    delete m;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_map_find(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  StdMap m;
  build_map(m, k);
  for (auto _ : state)
    for (long long key : k.probe_order) {
      auto it = m.find(key);
      benchmark::DoNotOptimize(it == m.end() ? nullptr : it->second);
    }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_map_delete(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    StdMap m;
    build_map(m, k);
    state.ResumeTiming();
    for (long long key : k.probe_order) benchmark::DoNotOptimize(m.erase(key));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// ---------------------------------------------------------------- GTree

#ifdef VEK_HAVE_GLIB
gint compare_keys(gconstpointer a, gconstpointer b) {
  intptr_t x = (intptr_t)a, y = (intptr_t)b;
  return x < y ? -1 : x > y;
}

GTree* build_gtree(const Keys& k) {
  GTree* t = g_tree_new(compare_keys);
  for (long long key : k.insert_order) g_tree_insert(t, (gpointer)(intptr_t)key, element(key));
  return t;
}

void BM_gtree_insert(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    GTree* t = build_gtree(k);
    state.PauseTiming();
    g_tree_destroy(t);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_gtree_find(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  GTree* t = build_gtree(k);
  for (auto _ : state)
    for (long long key : k.probe_order) benchmark::DoNotOptimize(g_tree_lookup(t, (gpointer)(intptr_t)key));
  g_tree_destroy(t);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_gtree_delete(benchmark::State& state) {
  const Keys& k = keys_for((int)state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    GTree* t = build_gtree(k);
    state.ResumeTiming();
    for (long long key : k.probe_order) benchmark::DoNotOptimize(g_tree_remove(t, (gpointer)(intptr_t)key));
    state.PauseTiming();
    g_tree_destroy(t);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
#endif

#define SIZES Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)

BENCHMARK(BM_btree_insert)->SIZES;
BENCHMARK(BM_map_insert)->SIZES;
BENCHMARK(BM_btree_find)->SIZES;
BENCHMARK(BM_map_find)->SIZES;
BENCHMARK(BM_btree_find_unlocked)->SIZES;
BENCHMARK(BM_btree_lock_pair);
BENCHMARK(BM_btree_delete)->SIZES;
BENCHMARK(BM_map_delete)->SIZES;
#ifdef VEK_HAVE_GLIB
BENCHMARK(BM_gtree_insert)->SIZES;
BENCHMARK(BM_gtree_find)->SIZES;
BENCHMARK(BM_gtree_delete)->SIZES;
#endif
BENCHMARK(BM_btree_find_by_index)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
