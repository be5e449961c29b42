#include "es_platform/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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

TEST(Pool, ElementsAreApartAlignedAndCounted) {
  for (const uint32_t size : {1u, 16u, 80u, 100u}) {
    const owned_pool from = make(size, 7);
    std::vector<unsigned char*> taken;
    for (int i = 0; i < 50; ++i) {
      auto* element = static_cast<unsigned char*>(pool_take(from.get()));
      ASSERT_NE(element, nullptr);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(element) % 16, 0u);
      std::memset(element, i, size);
      taken.push_back(element);
    }
    EXPECT_EQ(pool_in_use(from.get()), 50u);
    for (int i = 0; i < 50; ++i) {
      EXPECT_TRUE(std::all_of(taken[i], taken[i] + size, [i](unsigned char byte) { return byte == i; }));
      pool_give(from.get(), taken[i]);
      EXPECT_EQ(pool_in_use(from.get()), 49u - i);
    }
  }
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

// Every element is marked by whoever holds it: two holders of one would show.
TEST(Pool, ThreadsNeverHoldTheSameElement) {
  const owned_pool from = make(80, 16);
  std::atomic<int> clashes{0};
  auto work = [&](uint64_t mark) {
    std::minstd_rand random(static_cast<unsigned>(mark));
    std::vector<uint64_t*> held;
    for (int i = 0; i < 40000; ++i) {
      if (held.empty() || (held.size() < 40 && random() % 2 == 0)) {
        held.push_back(static_cast<uint64_t*>(pool_take(from.get())));
        *held.back() = mark;
      } else {
        if (*held.back() != mark) ++clashes;
        pool_give(from.get(), held.back());
        held.pop_back();
      }
    }
    for (uint64_t* element : held) pool_give(from.get(), element);
  };
  std::thread other(work, 1);
  work(2);
  other.join();
  EXPECT_EQ(clashes, 0);
  EXPECT_EQ(pool_in_use(from.get()), 0u);
}

}  // namespace
