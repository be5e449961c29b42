// Readers without the lock beside a writer that changes the list all the time. Meant for ThreadSanitizer and
// AddressSanitizer; without them it still checks that walks end, ascend and see whole records.
#include <array>
#include <atomic>
#include <barrier>
#include <random>
#include <thread>

#include "fixture.h"

namespace store_test {
namespace {

constexpr uint32_t kNumbers = 3000;
constexpr int kWalkers = 3;

// A record is whole when its parts agree.
uint32_t check_of(uint32_t tag) { return tag * 2654435761u; }

void add_checked(es_acl_head* acl, uint32_t seq, uint32_t tag, uint32_t flag) {
  es_acl_ace* ace = offer(seq, tag);
  ace->reserved16 = check_of(tag);
  api().add_acl_item(acl, ace, seq, flag);
}

// One walk. With renumbering under way the numbers need not ascend.
void walk_once(es_acl_head* acl, bool ascending) {
  uint32_t steps = 0;
  uint32_t before = 0;
  for (es_acl_ace_node* node = first_of(acl); !is_end(acl, node); node = next_of(node)) {
    const es_acl_ace* ace = ace_of(node);
    ASSERT_EQ(ace->reserved16, check_of(ace->capture));
    const uint32_t seq = seq_of(ace);
    ASSERT_TRUE(!ascending || seq > before);
    before = seq;
    ASSERT_LT(++steps, 100 * kNumbers) << "the walk does not end";
  }
}

class Walkers : public AclTest {
 protected:
  // Walks go on while the writer works in rounds; between rounds nobody holds a node, and the clock moves on
  // past the grace time, so that what one round retires is taken again in a later one.
  template <typename Change>
  void run(uint32_t rounds, bool ascending, Change change) {
    std::atomic<uint32_t> changing{rounds};
    std::barrier meet(kWalkers + 1);
    const auto walker = [&] {
      for (uint32_t left = rounds; left != 0; --left) {
        while (changing == left) walk_once(acl, ascending);
        meet.arrive_and_wait();
        meet.arrive_and_wait();
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i != kWalkers; ++i) threads.emplace_back(walker);
    std::mt19937 random(1);
    for (uint32_t round = rounds; round != 0; --round) {
      for (uint32_t i = 0; i != 4000; ++i) change(random);
      --changing;
      meet.arrive_and_wait();
      advance_clock_ms(2000);
      meet.arrive_and_wait();
    }
    for (std::thread& thread : threads) thread.join();
  }
};

TEST_F(Walkers, SeeAnAscendingListOfWholeRecords) {
  run(12, true, [&](std::mt19937& random) {
    const uint32_t seq = 1 + random() % kNumbers;
    switch (random() % 4) {
      case 0:
        api().delete_entry(acl, seq);
        break;
      case 1:
        add_checked(acl, seq, random(), ES_ACL_ADD_KEEP);
        break;
      default:
        add_checked(acl, seq, random(), ES_ACL_ADD_REPLACE);
    }
  });
}

TEST_F(Walkers, AreSafeWhileTheListIsRenumberedEmptiedAndFilled) {
  run(8, false, [&](std::mt19937& random) {
    const uint32_t what = random() % 1000;
    if (what == 0) {
      pthread_mutex_lock(&acl->lock);
      api().resequence(acl, 1 + random() % 5, 1 + random() % 3, 0, nullptr);
      pthread_mutex_unlock(&acl->lock);
    } else if (what == 1) {
      for (uint32_t seq = 1; seq != 3 * kNumbers; ++seq) api().delete_entry(acl, seq);
    } else {
      add_checked(acl, 1 + random() % kNumbers, random(), ES_ACL_ADD_REPLACE);
    }
  });
}

TEST(Names, AreLookedUpWhileOthersComeAndGo) {
  std::atomic<bool> done{false};
  es_acl_head* kept = api().get_header("kept");
  std::array<std::thread, kWalkers> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      while (!done) ASSERT_EQ(api().acl_lookup("kept"), kept);
    });
  }
  for (int i = 0; i != 2000; ++i) {
    const std::string name = "acl-" + std::to_string(i % 50);
    if (api().acl_lookup(name.c_str()) != nullptr) {
      api().acl_release(name.c_str());
    } else {
      api().get_header(name.c_str());
    }
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i != 50; ++i) api().acl_release(("acl-" + std::to_string(i)).c_str());
  api().acl_release("kept");
}

}  // namespace
}  // namespace store_test
