// Many client threads at once: what the counters and the store then hold, and, under ThreadSanitizer, that
// nothing raced on the way.
#include <atomic>
#include <functional>
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 25;

class Concurrency : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  static void run(const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(body, i);
    for (std::thread& thread : threads) thread.join();
  }
};

// Numbers of the ACEs that a walk shows.
std::vector<uint32_t> walk(es_acl_head* acl) {
  std::vector<uint32_t> seen;
  es_acl_ace_node* node = es_get_first_ace(acl);
  for (; es_get_ace_data(acl, node) != nullptr; node = es_get_next_ace(acl, node))
    seen.push_back(es_get_ace_data(acl, node)->seq);
  return seen;
}

// Gets, walks, matches and releases an ACL of its own; the status of the first step that fails.
uint32_t one_round(const char* name) {
  void* name_entry = const_cast<char*>(name);
  void* handle = nullptr;
  uint32_t result = 0, aces = 0, remarks = 0;
  const es_acl_handle_list names = {1, &name_entry};
  es_acl_handle_list handles = {0, &handle};
  if (const uint32_t rc = es_acl_get_acl(&names, &handles, &result)) return rc;
  auto* const acl = static_cast<es_acl_head*>(handle);
  if (walk(acl) != std::vector<uint32_t>{5, 9, 11}) return 1000;
  if (es_acl_lookup(name) != acl || es_acl_search_item(acl, 9) == nullptr) return 1001;
  es_acl_match_complex(acl, &names, 0, 0);
  if (const uint32_t rc = es_acl_get_ace_count(name, &aces, &remarks)) return rc;
  es_acl_delete_item(acl, 5);
  es_acl_release(&handles);
  return aces == 3 ? 0 : 1002;
}

TEST_F(Concurrency, DifferentAcls) {
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  std::atomic<uint32_t> failures{0};
  run([&failures](int i) {
    const std::string name = "acl-" + std::to_string(i);
    for (int round = 0; round < kRounds; ++round)
      if (one_round(name.c_str()) != 0) ++failures;
  });
  EXPECT_EQ(failures, 0U);
  EXPECT_EQ(held_names(), Lines{});
  constexpr uint32_t kRuns = kThreads * kRounds;
  EXPECT_EQ(main_counters()[15].count, kRuns);
  EXPECT_EQ(main_counters()[22].count, kRuns);
  EXPECT_EQ(main_counters()[40].count, 3 * kRuns);
  EXPECT_EQ(main_counters()[41].count, kRuns);
  EXPECT_EQ(main_counters()[42].count, kRuns);
}

TEST_F(Concurrency, CountQueriesUseTheAddressesTheyFound) {
  platform().pcx_read.always(
      [](void* address, const void* request, uint32_t, void* buffer, uint32_t* length) -> uint32_t {
        const auto* bytes = static_cast<const uint8_t*>(request);
        if (pointer_name(address) != "address:" + get_name(Bytes(bytes, bytes + 76), 8)) return 5;
        return answer(count_answer(1, 0))(address, request, 76, buffer, length);
      });
  std::atomic<uint32_t> failures{0};
  run([&failures](int i) {
    const std::string name = "acl-" + std::to_string(i);
    uint32_t aces = 0, remarks = 0;
    for (int round = 0; round < kRounds; ++round)
      if (es_acl_get_ace_count(name.c_str(), &aces, &remarks) != 0) ++failures;
  });
  EXPECT_EQ(failures, 0U);
}

TEST_F(Concurrency, OneAclGrowsWhileItIsRead) {
  es_acl_head* const acl = make_acl("edge");
  std::atomic<uint32_t> disorders{0};
  run([acl, &disorders](int i) {
    for (uint32_t round = 1; round <= kRounds; ++round) {
      const uint32_t seq = round * kThreads - static_cast<uint32_t>(i);
      es_acl_add_acl_item(acl, make_ace(seq), seq, ES_ACL_ADD_KEEP);
      const std::vector<uint32_t> seen = walk(acl);
      if (!std::is_sorted(seen.begin(), seen.end()) || es_acl_search_item(acl, seq) == nullptr) ++disorders;
      es_acl_set_modify_mode(es_acl_get_modify_mode() ^ 1);
    }
  });
  EXPECT_EQ(disorders, 0U);
  EXPECT_EQ(walk(acl).size(), static_cast<size_t>(kThreads * kRounds));
}

}  // namespace
