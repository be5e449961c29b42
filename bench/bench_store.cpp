// The store through its slots, as the library calls it (a table of functions, each call inside a lock and
// unlock of the ACL's mutex), beside std::map and absl::btree_map of 80-byte records under a mutex of their
// own. All take each record from the rules pool and give it back once it is copied in.
//
// Every benchmark also reports the time per ACE. Walks go as a client goes, by the library's accessors, and
// read two of each ACE's fields. `bytes_per_ace` is the growth of the process's resident memory while one ACL
// is filled.
#include <absl/container/btree_map.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_platform/evm.h"

namespace es_acl_bench {

namespace {

const es_acl_api_table& api() {
  static const es_acl_api_table* const table = [] {
    evm* events = nullptr;
    evm_create(&events);
    if (es_acl_clib_init(events) != 0) std::abort();
    return es_acl_apis;
  }();
  return *table;
}

class Lock {
 public:
  explicit Lock(pthread_mutex_t* mutex) : mutex_(mutex) {
    if (pthread_mutex_trylock(mutex) != 0) pthread_mutex_lock(mutex);
  }
  ~Lock() { pthread_mutex_unlock(mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// --- What is compared ---

class Tree {
 public:
  Tree() : acl_(api().get_header("bench-store")) {}
  ~Tree() { api().acl_release("bench-store"); }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  void add(uint32_t seq) {
    es_acl_ace* ace = es_acl_alloc_rules();
    const Lock lock(&acl_->lock);
    api().add_acl_item_iter(acl_, ace, seq, ES_ACL_ADD_KEEP, nullptr);
  }
  const es_acl_ace* find(uint32_t seq) {
    const Lock lock(&acl_->lock);
    return api().search_entry(acl_, seq);
  }
  uint64_t walk() {
    uint64_t sum = 0;
    for (es_acl_ace_node* node = es_get_first_ace(acl_); node != nullptr;
         node = es_get_next_ace(acl_, node)) {
      const es_acl_ace* ace = es_get_ace_data(acl_, node);
      if (ace == nullptr) break;
      sum += ace->seq + ace->src_addr[0];
    }
    return sum;
  }

 private:
  es_acl_head* acl_;
};

template <typename Map>
class Container {
 public:
  Container() { api(); }

  void add(uint32_t seq) {
    es_acl_ace* ace = es_acl_alloc_rules();
    const Lock lock(&mutex_);
    ace->seq = seq;
    map_.try_emplace(seq, *ace);
    es_acl_free_rules(ace);
  }
  const es_acl_ace* find(uint32_t seq) {
    const Lock lock(&mutex_);
    const auto at = map_.find(seq);
    return at != map_.end() ? &at->second : nullptr;
  }
  uint64_t walk() {
    uint64_t sum = 0;
    for (const auto& entry : map_) sum += entry.second.seq + entry.second.src_addr[0];
    return sum;
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  Map map_;
};

using StdMap = Container<std::map<uint32_t, es_acl_ace>>;
using AbslBtree = Container<absl::btree_map<uint32_t, es_acl_ace>>;

// --- How ---

enum class Order { kAscending, kRandom };

std::vector<uint32_t> numbers(size_t count, Order order, uint32_t seed = 1) {
  std::vector<uint32_t> seqs(count);
  for (size_t i = 0; i != count; ++i) seqs[i] = static_cast<uint32_t>(10 * (i + 1));
  if (order == Order::kRandom) std::shuffle(seqs.begin(), seqs.end(), std::mt19937(seed));
  return seqs;
}

// A million numbers at random, however small the container: a short list of them would be learnt by the
// branch predictor, and a search that lives on branches would look quicker than it is.
std::vector<uint32_t> questions(size_t count) {
  std::mt19937 random(2);
  std::uniform_int_distribution<uint32_t> place(1, static_cast<uint32_t>(count));
  std::vector<uint32_t> seqs(1'000'000);
  for (uint32_t& seq : seqs) seq = 10 * place(random);
  return seqs;
}

size_t resident_bytes() {
  size_t total = 0, resident = 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/proc/self/statm", "r"), std::fclose);
  if (file == nullptr || std::fscanf(file.get(), "%zu %zu", &total, &resident) != 2) return 0;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

template <typename C>
std::unique_ptr<C> filled(size_t count, Order order) {
  auto container = std::make_unique<C>();
  for (uint32_t seq : numbers(count, order)) container->add(seq);
  return container;
}

void per_ace(benchmark::State& state, size_t count) {
  state.counters["per_ace"] =
      benchmark::Counter(static_cast<double>(count),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <typename C, Order order>
void insert(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto seqs = numbers(count, order);
  for (auto _ : state) {
    auto container = std::make_unique<C>();
    for (uint32_t seq : seqs) container->add(seq);
    state.PauseTiming();
    container.reset();
    state.ResumeTiming();
  }
  per_ace(state, count);
}

template <typename C, Order order>
void search(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto container = filled<C>(count, order);
  const auto seqs = questions(count);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (uint32_t seq : seqs) sum += container->find(seq)->seq;
    benchmark::DoNotOptimize(sum);
  }
  per_ace(state, seqs.size());
}

template <typename C, Order order>
void walk(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto container = filled<C>(count, order);
  for (auto _ : state) benchmark::DoNotOptimize(container->walk());
  per_ace(state, count);
}

template <typename C, Order order>
void memory(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    const auto seqs = numbers(count, order);
    const size_t before = resident_bytes();
    C container;
    for (uint32_t seq : seqs) container.add(seq);
    const size_t after = resident_bytes();
    state.counters["bytes_per_ace"] = static_cast<double>(after - before) / static_cast<double>(count);
  }
}

using Benchmark = void (*)(benchmark::State&);

void add_group(const std::string& group, Benchmark ours, Benchmark std_map, Benchmark absl_btree) {
  const std::pair<const char*, Benchmark> all[] = {
      {"/es_acl", ours}, {"/std_map", std_map}, {"/absl_btree", absl_btree}};
  for (const auto& [name, run] : all) {
    auto* added = benchmark::RegisterBenchmark((group + name).c_str(), run)->MinTime(0.1);
    for (const int count : {1'000, 10'000, 100'000, 1'000'000}) added->Arg(count);
  }
}

template <Order order>
void add_groups(const std::string& suffix) {
  add_group("store_insert_" + suffix, insert<Tree, order>, insert<StdMap, order>, insert<AbslBtree, order>);
  add_group("store_search_" + suffix, search<Tree, order>, search<StdMap, order>, search<AbslBtree, order>);
  add_group("store_walk_" + suffix, walk<Tree, order>, walk<StdMap, order>, walk<AbslBtree, order>);
  benchmark::RegisterBenchmark(("store_memory_" + suffix).c_str(), memory<Tree, order>)
      ->Arg(1'000'000)
      ->Iterations(1);
}

[[maybe_unused]] const bool added = [] {
  add_groups<Order::kAscending>("ascending");
  add_groups<Order::kRandom>("random");
  return true;
}();

}  // namespace

}  // namespace es_acl_bench
