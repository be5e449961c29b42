// The store through its slots, as the library calls it (a table of functions, each call inside a lock and
// unlock of the ACL's mutex), beside std::map and absl::btree_map under a mutex of their own, in one run.
//
// A container holds 80-byte records by value. Every benchmark reports the time per ACE. Walks go as a client
// goes: the node's next link, its element, the element's ACE pointer, and two of the ACE's fields.
// `bytes_per_ace` is the growth of the process's resident memory while one container is filled.
#include <absl/container/btree_map.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "es_acl/es_acl_store.h"

extern "C" void es_acl_api_init_funcs(es_acl_api_table* apis);

namespace {

void lock(pthread_mutex_t* mutex) {
  if (pthread_mutex_trylock(mutex) != 0) pthread_mutex_lock(mutex);
}

const es_acl_api_table& api() {
  static es_acl_api_table* const table = [] {
    auto* apis = new es_acl_api_table{};
    es_acl_api_init_funcs(apis);
    return apis;
  }();
  return *table;
}

// One record serves all additions: the pool below does not really take it back.
es_acl_ace the_record{};

// --- What is compared ---

class Tree {
 public:
  Tree() : acl_(api().get_header("bench")) {}
  ~Tree() { api().acl_release("bench"); }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  void add(uint32_t seq) {
    lock(&acl_->lock);
    api().add_acl_item_iter(acl_, &the_record, seq, ES_ACL_ADD_KEEP, nullptr);
    pthread_mutex_unlock(&acl_->lock);
  }
  const es_acl_ace* find(uint32_t seq) {
    lock(&acl_->lock);
    const es_acl_ace* ace = api().search_entry(acl_, seq);
    pthread_mutex_unlock(&acl_->lock);
    return ace;
  }
  void remove(uint32_t seq) {
    lock(&acl_->lock);
    api().delete_entry_iter(acl_, seq, ES_ACL_FORWARD, nullptr);
    pthread_mutex_unlock(&acl_->lock);
  }
  uint64_t walk() {
    uint64_t sum = 0;
    for (es_acl_ace_node* node = first(acl_); node != nullptr; node = next(acl_, node)) {
      const es_acl_ace* ace = data(acl_, node);
      if (ace == nullptr) break;
      sum += ace->seq + ace->src_addr[0];
    }
    return sum;
  }

 private:
  // As the library's accessors are: calls that are not inlined.
  [[gnu::noinline]] static es_acl_ace_node* first(es_acl_head* acl) {
    es_acl_ace_node* node = __atomic_load_n(&acl->ace_first, __ATOMIC_ACQUIRE);
    return node->element == acl->ace_end ? nullptr : node;
  }
  [[gnu::noinline]] static es_acl_ace_node* next(es_acl_head* acl, es_acl_ace_node* node) {
    if (acl == nullptr || node == nullptr || node->element == acl->ace_end) return nullptr;
    return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE);
  }
  [[gnu::noinline]] static const es_acl_ace* data(es_acl_head* acl, es_acl_ace_node* node) {
    if (acl == nullptr || node == nullptr || node->element == nullptr || node->element == acl->ace_end)
      return nullptr;
    return static_cast<es_acl_ace**>(node->element)[ES_ACL_ELEMENT_ACE_WORD];
  }

  es_acl_head* acl_;
};

template <typename Map>
class Container {
 public:
  void add(uint32_t seq) {
    lock(&mutex_);
    the_record.seq = seq;
    map_.try_emplace(seq, the_record);
    pthread_mutex_unlock(&mutex_);
  }
  const es_acl_ace* find(uint32_t seq) {
    lock(&mutex_);
    const auto at = map_.find(seq);
    const es_acl_ace* ace = at != map_.end() ? &at->second : nullptr;
    pthread_mutex_unlock(&mutex_);
    return ace;
  }
  void remove(uint32_t seq) {
    lock(&mutex_);
    map_.erase(seq);
    pthread_mutex_unlock(&mutex_);
  }
  uint64_t walk() {
    uint64_t sum = 0;
    for (const auto& [seq, ace] : map_) sum += ace.seq + ace.src_addr[0];
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

template <typename C>
void remove(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto seqs = numbers(count, Order::kRandom, 2);
  for (auto _ : state) {
    state.PauseTiming();
    auto container = filled<C>(count, Order::kRandom);
    state.ResumeTiming();
    for (uint32_t seq : seqs) container->remove(seq);
    state.PauseTiming();
    container.reset();
    state.ResumeTiming();
  }
  per_ace(state, count);
}

// Several containers at once for the small sizes, so that pages do not hide them.
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

void sizes(benchmark::internal::Benchmark* b) {
  for (const int count : {1'000, 10'000, 100'000, 1'000'000}) b->Arg(count);
}

#define FOR_ALL(...) BENCHMARK_TEMPLATE(__VA_ARGS__)->Apply(sizes)
#define COMPARE(what, order)           \
  FOR_ALL(what, Tree, Order::order);   \
  FOR_ALL(what, StdMap, Order::order); \
  FOR_ALL(what, AbslBtree, Order::order)

COMPARE(insert, kAscending);
COMPARE(insert, kRandom);
COMPARE(search, kAscending);
COMPARE(search, kRandom);
COMPARE(walk, kAscending);
COMPARE(walk, kRandom);
FOR_ALL(remove, Tree);
FOR_ALL(remove, StdMap);
FOR_ALL(remove, AbslBtree);
BENCHMARK_TEMPLATE(memory, Tree, Order::kAscending)->Arg(1'000'000)->Iterations(1);
BENCHMARK_TEMPLATE(memory, Tree, Order::kRandom)->Arg(1'000'000)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
