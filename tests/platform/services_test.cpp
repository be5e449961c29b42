// The small services: pools, schemas, names of processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "asan.h"
#include "es_platform/pool.h"
#include "es_platform/process.h"
#include "es_platform/schema.h"

#if ES_PLATFORM_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace {

using owned_pool = std::unique_ptr<pool, decltype(&pool_destroy)>;

owned_pool make(uint32_t size, uint32_t per_chunk) {
  return {pool_create("test", size, per_chunk, 0x101, 0, 0), pool_destroy};
}

#if ES_PLATFORM_ASAN
TEST(Pool, AFreeElementIsPoisoned) {
  const owned_pool from = make(80, 10);
  void* element = pool_take(from.get());
  void* other = pool_take(from.get());
  EXPECT_EQ(__asan_region_is_poisoned(element, 80), nullptr);
  for (void* given : {element, other}) {
    pool_give(from.get(), given);
    EXPECT_TRUE(__asan_address_is_poisoned(given));
    EXPECT_DEATH(pool_give(from.get(), given), "use-after-poison") << "given twice";
  }
}
#endif

// Every element is filled by whoever holds it: two holders of one, or elements that overlap, would show. There are never
// more elements than are held at a time, and a chunk: whichever thread gave one back, the other finds it.
TEST(Pool, ThreadsHoldElementsOfTheirOwn) {
  for (const uint32_t size : {1u, 16u, 80u, 100u}) {
    const owned_pool from = make(size, 7);
    std::set<void*> seen[2];
    auto work = [&](unsigned char mark) {
      std::minstd_rand random(mark);
      const std::vector<unsigned char> filled(size, mark);
      std::vector<void*> held;
      for (int i = 0; i < 10000 || !held.empty(); ++i) {
        if (held.empty() || (held.size() < 40 && i < 10000 && random() % 2 == 0)) {
          held.push_back(std::memcpy(pool_take(from.get()), filled.data(), size));
          seen[mark - 1].insert(held.back());
          ASSERT_EQ(reinterpret_cast<uintptr_t>(held.back()) % 16, 0u);
        } else {
          ASSERT_EQ(std::memcmp(held.back(), filled.data(), size), 0);
          pool_give(from.get(), held.back());
          held.pop_back();
        }
      }
    };
    void* const kept = pool_take(from.get());
    std::thread other(work, 1);
    work(2);
    other.join();
    seen[0].merge(seen[1]);
    EXPECT_LE(seen[0].size(), 2 * 40u + 7u);
    EXPECT_EQ(pool_in_use(from.get()), 1u);
    pool_give(from.get(), kept);
    EXPECT_EQ(pool_in_use(from.get()), 0u);
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

TEST(Process, TellsNamesThatFitTheBuffer) {
  char name[128] = "untouched", cut[4];
  uint32_t length = 4;
  EXPECT_EQ(procmgr_get_procname(name, &length), static_cast<uint32_t>(ERANGE));
  EXPECT_STREQ(name, "untouched");
  length = sizeof name;
  ASSERT_EQ(procmgr_get_procname(name, &length), 0u);
  EXPECT_EQ(std::string(name), std::string(program_invocation_short_name).substr(0, 15));
  ASSERT_EQ(proc_name_get(getpid(), cut, sizeof cut), 0u);
  EXPECT_EQ(std::string(cut), std::string(name).substr(0, 3));
  for (const int32_t pid : {0, -1, INT_MAX}) EXPECT_EQ(proc_name_get(pid, name, sizeof name), 3u) << pid;
}

}  // namespace
