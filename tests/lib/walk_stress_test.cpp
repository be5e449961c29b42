// Walks beside batches that the store is given as fast as it takes them: a step's look and the store's question whether
// there was one meet in all ways, and what a walk has got to must stay as it is. The library's accessors and the real
// store, and nothing between them.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ostream>
#include <thread>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"

extern "C" void es_acl_api_init_funcs(es_acl_api_table* apis);
namespace es_acl {
extern const es_acl_batch_table* es_acl_batches;  // what the store has offered
}

namespace {

using std::chrono::milliseconds, std::chrono::steady_clock;

constexpr auto kDuration = milliseconds(1500);
constexpr auto kGrace = milliseconds(20);  // less than a node stays in a flood
constexpr char kName[] = "walked";

// The numbers that come in each batch, one after the other and again from 1.
struct Way {
  const char* name;
  uint32_t numbers, batch;
  bool removes;
};
void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }

// Adds ACEs, each with a tag of its own, and removes them where the way says so.
class Writer {
 public:
  Writer(es_acl_head* acl, const Way& way) : acl_(acl), way_(way) {}
  ~Writer() {
    stop_ = true;
    thread_.join();
  }
  uint32_t batches() const { return batches_.load(std::memory_order_relaxed); }

 private:
  void run() {
    while (!stop_) {
      apply(es_acl::es_acl_batches->add);
      if (way_.removes) apply(es_acl::es_acl_batches->remove);
      batches_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  void apply(es_acl_batch_fn operation) {
    es_acl_ace aces[ES_ACL_BATCH_MAX] = {};
    es_acl_batch_item items[ES_ACL_BATCH_MAX];
    for (uint32_t i = 0; i < way_.batch; ++i) {
      aces[i].capture = ++tag_;
      items[i] = {1 + i % way_.numbers, ES_ACL_ADD_REPLACE, &aces[i], nullptr, 0};
    }
    pthread_mutex_lock(&acl_->lock);
    operation(acl_, items, way_.batch);
    pthread_mutex_unlock(&acl_->lock);
  }

  es_acl_head* const acl_;
  const Way way_;
  uint32_t tag_ = 0;
  std::atomic<bool> stop_ = false;
  std::atomic<uint32_t> batches_ = 0;
  std::thread thread_{[this] { run(); }};
};

uint32_t tag_of(const es_acl_ace* ace) { return __atomic_load_n(&ace->capture, __ATOMIC_RELAXED); }

// While some batches are applied.
bool stays(const es_acl_ace* ace, const Writer& writer) {
  const uint32_t tag = tag_of(ace), seq = ace->seq, batches = writer.batches();
  for (int i = 0; i < 3000 && writer.batches() - batches < 3; ++i)
    if (tag_of(ace) != tag) return false;
  return tag_of(ace) == tag && ace->seq == seq;
}

// Stays at each ACE for a while. False when one has become another, or the way on leads back; a walk that was held up
// for too long has no claim.
bool walk(es_acl_head* acl, const Writer& writer) {
  const auto begin = steady_clock::now();
  bool right = true;
  uint32_t last = 0;
  es_acl_ace_node* node = es_get_first_ace(acl);
  for (const es_acl_ace* ace; right && (ace = es_get_ace_data(acl, node)) != nullptr;
       node = es_get_next_ace(acl, node)) {
    right = ace->seq > last && stays(ace, writer);
    last = ace->seq;
  }
  return right || steady_clock::now() - begin > kGrace;
}

class Walks : public testing::TestWithParam<Way> {
 protected:
  Walks() { es_acl_api_init_funcs(&table_); }
  ~Walks() override { table_.acl_release(kName); }

  es_acl_api_table table_ = {};
};

TEST_P(Walks, StandOnWhatStays) {
  es_acl_head* const acl = table_.get_header(kName);
  const Writer writer(acl, GetParam());
  const auto end = steady_clock::now() + kDuration;
  const auto walk_on = [&] {
    uint32_t walks = 0;
    for (; steady_clock::now() < end; ++walks) ASSERT_TRUE(walk(acl, writer)) << "walk " << walks;
    EXPECT_GT(walks, 100U);
  };
  std::thread other(walk_on);
  walk_on();
  other.join();
  EXPECT_GT(writer.batches(), 100U);
}

INSTANTIATE_TEST_SUITE_P(Ways, Walks,
                         testing::Values(Way{"one is replaced", 1, 32, false},
                                         Way{"some are replaced", 4, 32, false},
                                         Way{"one comes and goes", 1, 1, true},
                                         Way{"some come and go", 5, 5, true}));

}  // namespace
