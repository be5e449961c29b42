#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "es_platform/queue.h"
#include "es_platform/schema.h"

namespace {

struct element {
  void* link;
};

// The queue beside a plain model, driven by the same random steps.
TEST(Queue, BehavesAsAPlainList) {
  std::minstd_rand random(7);
  std::vector<element> all(12);
  linked_queue queue{};
  std::deque<element*> model;
  for (int step = 0; step < 20000; ++step) {
    element* one = &all[random() % all.size()];
    const auto place = std::find(model.begin(), model.end(), one);
    if (place != model.end()) {
      EXPECT_EQ(queue_unlink(&queue, one), 0u);
      model.erase(place);
    } else if (random() % 2 == 0) {
      queue_append(&queue, one);
      model.push_back(one);
    } else {
      EXPECT_EQ(queue_unlink(&queue, one), 2u);
      const size_t at = random() % (model.size() + 1);
      queue_insert(&queue, at == 0 ? nullptr : model[at - 1], one);
      model.insert(model.begin() + static_cast<long>(at), one);
    }
    void* walked = nullptr;
    for (element* expected : model) ASSERT_EQ(walked = queue_next(&queue, walked), expected);
    ASSERT_EQ(queue_next(&queue, walked), nullptr);
    ASSERT_EQ(queue.last, model.empty() ? nullptr : model.back());
  }
}

struct descriptor {
  uint64_t version;
  const char* name;
};

uint32_t start() { return schema_register_start(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }

TEST(Schema, PublishesWhatATransactionRegistered) {
  static const descriptor kept{1, "kept"}, dropped{1, "dropped"}, rival{1, "kept"};
  EXPECT_EQ(schema_register(&kept), 22u) << "no transaction";
  ASSERT_EQ(start(), 0u);
  std::thread([] {
    EXPECT_EQ(start(), 11u);
    EXPECT_EQ(schema_register(&kept), 22u) << "another thread's transaction";
    schema_register_abort();
  }).join();
  EXPECT_EQ(schema_register(&dropped), 0u);
  schema_register_abort();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(start(), 0u);
    EXPECT_EQ(schema_register(&kept), 0u) << "also what is published";
    EXPECT_EQ(schema_register(&rival), 17u);
    EXPECT_EQ(schema_find("kept"), round == 0 ? nullptr : &kept) << "not before the end";
    EXPECT_EQ(schema_register_end(), 0u);
  }
  EXPECT_EQ(schema_find("dropped"), nullptr);
}

}  // namespace
