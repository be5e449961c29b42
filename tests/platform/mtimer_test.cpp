#include "es_platform/mtimer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "clock_source.h"

namespace {

using namespace std::chrono_literals;

// Time that passes only when it is told to.
class virtual_clock final : public es_platform::clock_source {
 public:
  virtual_clock() { es_platform::clock_replace(this); }
  ~virtual_clock() { es_platform::clock_replace(nullptr); }

  uint64_t now_ns() override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  int arm(int timer_fd, uint64_t at_ns) override {
    const std::lock_guard lock(mutex_);
    armed_.erase(timer_fd);
    if (at_ns != 0) armed_[timer_fd] = at_ns;
    fire_due();
    return 0;
  }

  // When it returns, the timers that have become due are readable.
  void advance(uint64_t ns) {
    const std::lock_guard lock(mutex_);
    now_ += ns;
    fire_due();
  }

 private:
  void fire_due() {
    for (auto at = armed_.begin(); at != armed_.end();) {
      const auto one = at++;
      if (one->second > now_) continue;
      itimerspec soon{};
      soon.it_value.tv_nsec = 1;
      timerfd_settime(one->first, 0, &soon, nullptr);
      pollfd fired{one->first, POLLIN, 0};
      poll(&fired, 1, -1);
      armed_.erase(one);
    }
  }

  std::mutex mutex_;
  uint64_t now_ = 1'000'000;
  std::map<int, uint64_t> armed_;
};

// An event manager and a tree whose handler serves every expired leaf, as the contract's example does.
class tree_fixture {
 public:
  tree_fixture() {
    EXPECT_EQ(evm_create(&manager), 0u);
    code_ = evm_async_attach(manager, EVM_CODE_ANY, on_event, this);
    evm_sigevent event{};
    EXPECT_EQ(evm_init_sigevent(manager, code_, 0, 0, &event), 0);
    tree = mtimer_tree_new(&event, 0);
    EXPECT_NE(tree, nullptr);
  }
  ~tree_fixture() {
    evm_async_attach(manager, code_, nullptr, nullptr);
    mtimer_tree_free(tree);
    evm_destroy(manager);
  }

  evm* manager = nullptr;
  mtimer_tree* tree = nullptr;
  std::function<void(mtimer_leaf*)> serve = [](mtimer_leaf*) {};

 private:
  static void on_event(int, void* context) {
    auto* self = static_cast<tree_fixture*>(context);
    while (mtimer_tree_expired(self->tree)) {
      mtimer_leaf* leaf = mtimer_tree_first_expired(self->tree);
      if (leaf == nullptr) return;  // another thread has stopped or freed it
      mtimer_leaf_stop(leaf);
      self->serve(leaf);
    }
  }

  int code_ = 0;
};

class Mtimer : public testing::Test {
 protected:
  void SetUp() override {
    timers.serve = [this](mtimer_leaf* leaf) {
      served.push_back(*static_cast<char*>(mtimer_leaf_get_context(leaf)));
    };
  }
  mtimer_leaf* leaf(char* name) { return mtimer_leaf_new(timers.tree, 7, 0, name); }
  // What is served when that much time has passed.
  std::string after(uint64_t ns) {
    served.clear();
    clock.advance(ns);
    evm_dispatch(timers.manager, 0);
    return served;
  }

  virtual_clock clock;
  tree_fixture timers;
  std::string served;
  char a = 'a', b = 'b', c = 'c';
  const uint64_t second = timer_one_second();
};

// Random starts, stops and passing time beside a plain list: each leaf at its time, of equal times the one started
// first, and started again with its full delay from then on.
TEST_F(Mtimer, BehavesAsAPlainSchedule) {
  char names[] = "abcdefgh";
  mtimer_leaf* leaves[8];
  for (size_t i = 0; i < 8; ++i) leaves[i] = leaf(&names[i]);
  EXPECT_EQ(mtimer_leaf_get_type(leaves[0]), 7);
  std::vector<std::pair<uint64_t, char>> model;  // in the order of starting
  std::minstd_rand random(5);
  for (uint64_t step = 0, now = 0; step < 5000; ++step) {
    const size_t which = random() % 8;
    const uint64_t delay = random() % 4;
    if (random() % 3 == 0) {
      now += delay;
      std::stable_sort(model.begin(), model.end(), [](auto& x, auto& y) { return x.first < y.first; });
      std::string due;
      for (const auto& [time, name] : model) due += time <= now ? std::string(1, name) : "";
      std::erase_if(model, [&](const auto& one) { return one.first <= now; });
      ASSERT_EQ(after(delay * second), due) << step;
      continue;
    }
    std::erase_if(model, [&](const auto& one) { return one.second == names[which]; });
    if (random() % 4 == 0) {
      mtimer_leaf_stop(leaves[which]);
    } else {
      mtimer_leaf_start(leaves[which], delay * second);
      model.emplace_back(now + delay, names[which]);
    }
  }
}

TEST_F(Mtimer, AStoppedOrRestartedLeafIsNotExpired) {
  mtimer_leaf *one = leaf(&a), *other = leaf(&b);
  mtimer_leaf_start(one, second);
  mtimer_leaf_start(other, second);
  clock.advance(second);
  EXPECT_NE(mtimer_tree_expired(timers.tree), 0);
  EXPECT_EQ(mtimer_tree_first_expired(timers.tree), one);
  EXPECT_EQ(mtimer_tree_first_expired(timers.tree), one) << "asking changes nothing";
  mtimer_leaf_stop(one);
  mtimer_leaf_start(other, second);
  EXPECT_EQ(mtimer_tree_expired(timers.tree), 0);
  EXPECT_EQ(mtimer_tree_first_expired(timers.tree), nullptr);
  EXPECT_EQ(after(second), "b");
}

TEST_F(Mtimer, AHandlerMayStartItsLeafAgainOrFreeIt) {
  mtimer_leaf *again = leaf(&a), *once = leaf(&b), *freed = leaf(&c), *far = leaf(&c);
  timers.serve = [&](mtimer_leaf* expired) {
    served += *static_cast<char*>(mtimer_leaf_get_context(expired));
    expired == again ? mtimer_leaf_start(again, second) : mtimer_leaf_free(expired);
  };
  for (mtimer_leaf* one : {again, once, freed}) mtimer_leaf_start(one, second);
  mtimer_leaf_start(far, std::numeric_limits<uint64_t>::max());
  mtimer_leaf_free(freed);
  EXPECT_EQ(after(second), "ab");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(after(second), "a");
}

// The freeing thread must see the end of the service of its leaf, and must not wait for that of the next one.
TEST_F(Mtimer, FreeWaitsForTheServiceOfThatLeafOnly) {
  mtimer_leaf *one = leaf(&a), *next = leaf(&b);
  std::atomic<bool> inside{false}, freeing{false}, served_one{false}, freed{false};
  timers.serve = [&](mtimer_leaf* expired) {
    if (expired == one) {
      inside = true;
      while (!freeing) std::this_thread::yield();
      std::this_thread::sleep_for(20ms);
      served_one = true;
    } else {
      while (!freed) std::this_thread::yield();
    }
  };
  mtimer_leaf_start(one, second);
  mtimer_leaf_start(next, second);
  clock.advance(second);
  std::thread dispatcher([&] { evm_dispatch(timers.manager, -1); });
  while (!inside) std::this_thread::yield();
  freeing = true;
  mtimer_leaf_free(one);
  EXPECT_TRUE(served_one);
  freed = true;
  dispatcher.join();
}

// Leaves die while they expire: the context of a freed leaf is gone at once, and the sanitizers watch who
// still uses it.
TEST(MtimerRace, NobodyUsesAFreedLeafsContext) {
  constexpr int kRounds = 1000;
  tree_fixture timers;
  std::atomic<uint64_t> uses{0};
  timers.serve = [&](mtimer_leaf* leaf) { uses += *static_cast<int*>(mtimer_leaf_get_context(leaf)); };
  std::thread dispatcher([&] { evm_run(timers.manager); });
  auto churn = [&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int i = 0; i < kRounds; ++i) {
      auto context = std::make_unique<int>(1);
      mtimer_leaf* leaf = mtimer_leaf_new(timers.tree, 0, 0, context.get());
      mtimer_leaf_start(leaf, random() % 20000);
      if (random() % 4 == 0) mtimer_leaf_start(leaf, 0);
      for (unsigned spin = random() % 20; spin > 0; --spin) std::this_thread::yield();
      mtimer_leaf_free(leaf);
    }
  };
  std::thread client(churn, 1);
  churn(2);
  client.join();
  evm_stop(timers.manager);
  dispatcher.join();
  EXPECT_GT(uses, 0u);
}

}  // namespace
