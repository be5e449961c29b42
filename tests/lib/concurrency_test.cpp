// Many client threads at once: what the counters and the store then hold, and, under ThreadSanitizer, that
// nothing raced on the way.
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr int kThreads = 4;
constexpr uint32_t kRounds = 25;

// Gets, walks, matches and releases an ACL of its own; the status of the first step that fails.
uint32_t one_round(const char* name) {
  uint32_t aces = 0, remarks = 0;
  const Got got = get({name});
  if (got.status != 0) return got.status;
  es_acl_head* const acl = got.heads[0];
  if (walk(acl) != Numbers{5, 9, 11}) return 1000;
  if (es_acl_lookup(name) != acl || es_acl_search_item(acl, 9) == nullptr) return 1001;
  es_acl_match_complex(acl, &got, 0, 0);
  if (const uint32_t rc = es_acl_get_ace_count(name, &aces, &remarks)) return rc;
  es_acl_delete_item(acl, 5);
  release({acl});
  return aces == 3 ? 0 : 1002;
}

using Concurrency = LibraryTest;

TEST_F(Concurrency, DifferentAcls) {
  initialise();
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([name = "acl-" + std::to_string(i)] {
      for (uint32_t round = 0; round < kRounds; ++round) EXPECT_EQ(one_round(name.c_str()), 0U);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(held_names(), Lines{});
  constexpr uint32_t kRuns = kThreads * kRounds;
  const std::pair<size_t, uint32_t> counts[] = {
      {15, kRuns}, {22, kRuns}, {40, 3 * kRuns}, {41, kRuns}, {42, kRuns}};
  for (const auto& [counter, count] : counts) EXPECT_EQ(main_counters[counter].count, count) << counter;
}

}  // namespace
