#include "es_platform/pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using owned_pool = std::unique_ptr<pool, decltype(&pool_destroy)>;

owned_pool make(uint32_t size, uint32_t per_chunk) {
  return {pool_create("test", size, per_chunk, 0x101, 0, 0), pool_destroy};
}

#if defined(__SANITIZE_ADDRESS__)
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

// Every element is filled by whoever holds it: two holders of one, or elements that overlap, would show.
TEST(Pool, ThreadsHoldElementsOfTheirOwn) {
  for (const uint32_t size : {1u, 16u, 80u, 100u}) {
    const owned_pool from = make(size, 7);
    auto work = [&](unsigned char mark) {
      std::minstd_rand random(mark);
      const std::vector<unsigned char> filled(size, mark);
      std::vector<void*> held;
      for (int i = 0; i < 10000 || !held.empty(); ++i) {
        if (held.empty() || (held.size() < 40 && i < 10000 && random() % 2 == 0)) {
          held.push_back(std::memcpy(pool_take(from.get()), filled.data(), size));
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
    EXPECT_EQ(pool_in_use(from.get()), 1u);
    pool_give(from.get(), kept);
    EXPECT_EQ(pool_in_use(from.get()), 0u);
  }
}

}  // namespace
