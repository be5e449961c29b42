// Readers without the lock beside a writer that changes the list all the time, while names come and go. Meant
// for ThreadSanitizer and AddressSanitizer; without them it still checks that walks end, ascend and see whole
// records.
#include <array>
#include <chrono>
#include <random>
#include <thread>

#include "fixture.h"

namespace store_test {

constexpr uint32_t kNumbers = 3000;

// In every other round the list is renumbered, emptied and filled again: it need not ascend then.
bool wild(uint32_t round) { return round % 2 == 0; }

// In half of the rounds the list changes by pushed batches alone, and faster than walkers look at it.
bool pushed(uint32_t round) { return round % 4 >= 2; }

// A record is whole when its parts agree.
uint32_t check_of(uint32_t tag) { return tag * 2654435761u; }

class Walkers : public AclTest {
 protected:
  void walk_once(uint32_t round) {
    ASSERT_EQ(api().acl_lookup("acl-1"), acl);
    uint32_t steps = 0;
    uint32_t before = 0;
    for (Node* node = follow(acl, acl->ace_first); !is_end(acl, node); node = follow(acl, node->next)) {
      ASSERT_EQ(ace_of(node)->reserved16, check_of(ace_of(node)->capture));
      const uint32_t seq = seq_of(node);
      ASSERT_TRUE(wild(round) || seq > before);
      before = seq;
      ASSERT_LT(++steps, 100 * kNumbers) << "the walk does not end";
      if (pushed(round)) std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
  }

  void change_list(uint32_t round) {
    const uint32_t seq = 1 + random() % kNumbers;
    const uint32_t what = pushed(round) ? 200 + random() % 700 : random() % 1000;
    if (wild(round) && what == 0) {
      pthread_mutex_lock(&acl->lock);
      api().resequence(acl, 1 + random() % 5, 1 + random() % 3, 0, nullptr);
      pthread_mutex_unlock(&acl->lock);
    } else if (wild(round) && what == 1) {
      for (uint32_t each = 1; each != 3 * kNumbers; ++each) api().delete_entry(acl, each);
    } else if (what < 200) {
      api().delete_entry(acl, seq);
    } else if (what < 900) {
      push(seq, what < 600 ? batches->add : batches->remove);
    } else {
      es_acl_ace* ace = offer(seq, random());
      ace->reserved16 = check_of(ace->capture);
      api().add_acl_item(acl, ace, seq, what < 950 ? ES_ACL_ADD_KEEP : ES_ACL_ADD_REPLACE);
    }
  }

  // As a pushed batch: what no walker can have got to is used again at once.
  void push(uint32_t seq, es_acl_batch_fn operation) {
    es_acl_ace ace{};
    ace.capture = random();
    ace.reserved16 = check_of(ace.capture);
    es_acl_batch_item item = {seq, ES_ACL_ADD_REPLACE, &ace, nullptr, 0};
    pthread_mutex_lock(&acl->lock);
    operation(acl, &item, 1);
    pthread_mutex_unlock(&acl->lock);
  }

  void change_names() {
    const std::string name = "other-" + std::to_string(random() % 50);
    if (api().get_header(name.c_str()) == nullptr) api().acl_release(name.c_str());
  }

  std::mt19937 random{1};
};

// Between rounds nobody holds a node, and the clock moves on, so that what one round retires is taken again in
// a later one.
TEST_F(Walkers, AreSafeWhateverTheWriterDoes) {
  for (uint32_t round = 1; round <= 16; ++round) {
    std::array<std::jthread, 3> walkers;
    for (std::jthread& walker : walkers) {
      walker = std::jthread([&](const std::stop_token& end) {
        while (!end.stop_requested()) walk_once(round);
      });
    }
    for (uint32_t i = 0; i != (pushed(round) ? 40000 : 4000); ++i) change_list(round);
    for (uint32_t i = 0; i != 200; ++i) change_names();
    walkers = {};  // asks them to stop, and joins them
    clock_ms += 2000;
  }
  for (int i = 0; i != 50; ++i) api().acl_release(("other-" + std::to_string(i)).c_str());
}

}  // namespace store_test
