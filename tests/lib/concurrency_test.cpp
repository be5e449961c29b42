// Many client threads at once: what the counters and the store then hold, and, under ThreadSanitizer, that
// nothing raced on the way.
#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr int kThreads = 4;
constexpr uint32_t kRounds = 25;

class Concurrency : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  // Every thread runs the body; how many of its calls return false is told.
  static uint32_t failures(const std::function<bool(int thread, uint32_t round)>& body) {
    std::atomic<uint32_t> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
      threads.emplace_back([&body, &failed, i] {
        for (uint32_t round = 1; round <= kRounds; ++round) failed += body(i, round) ? 0 : 1;
      });
    for (std::thread& thread : threads) thread.join();
    return failed;
  }
};

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

TEST_F(Concurrency, DifferentAcls) {
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  EXPECT_EQ(failures([](int i, uint32_t) { return one_round(("acl-" + std::to_string(i)).c_str()) == 0; }),
            0U);
  EXPECT_EQ(held_names(), Lines{});
  constexpr uint32_t kRuns = kThreads * kRounds;
  const std::pair<size_t, uint32_t> counts[] = {
      {15, kRuns}, {22, kRuns}, {40, 3 * kRuns}, {41, kRuns}, {42, kRuns}};
  for (const auto& [counter, count] : counts) EXPECT_EQ(main_counters[counter].count, count) << counter;
}

TEST_F(Concurrency, CountQueriesUseTheAddressesTheyFound) {
  platform().pcx_read.always(
      [](void* address, const void* request, uint32_t, void* buffer, uint32_t* length) -> uint32_t {
        const auto* bytes = static_cast<const uint8_t*>(request);
        if (pointer_name(address) != "address:" + get_name(Bytes(bytes, bytes + 76), 8)) return 5;
        return answer(count_answer(1, 0))(address, request, 76, buffer, length);
      });
  EXPECT_EQ(failures([](int i, uint32_t) {
              uint32_t aces = 0, remarks = 0;
              return es_acl_get_ace_count(("acl-" + std::to_string(i)).c_str(), &aces, &remarks) == 0;
            }),
            0U);
}

TEST_F(Concurrency, OneAclGrowsWhileItIsRead) {
  es_acl_head* const acl = make_acl("edge");
  EXPECT_EQ(failures([acl](int i, uint32_t round) {
              const uint32_t seq = round * kThreads - static_cast<uint32_t>(i);
              es_acl_add_acl_item(acl, make_ace(seq), seq, ES_ACL_ADD_KEEP);
              es_acl_set_modify_mode(es_acl_get_modify_mode() ^ 1);
              const Numbers seen = walk(acl);
              return std::is_sorted(seen.begin(), seen.end()) && es_acl_search_item(acl, seq) != nullptr;
            }),
            0U);
  EXPECT_EQ(walk(acl).size(), static_cast<size_t>(kThreads * kRounds));
}

}  // namespace
