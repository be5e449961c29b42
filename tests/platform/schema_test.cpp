#include "es_platform/schema.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

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
