// What every test of the store stands on: the plug-in's table, filled as the library fills it, a rules pool
// that counts the records it has out, a clock that is moved by hand, and an allocator that fails when told.
#ifndef ES_ACL_TESTS_STORE_FIXTURE_H_
#define ES_ACL_TESTS_STORE_FIXTURE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <vector>

#include "es_acl/es_acl_store.h"

namespace store_test {

using Seqs = std::vector<uint32_t>;
using Node = es_acl_ace_node;

const es_acl_api_table& api();
// A record of the rules pool with that number, and the tag in its capture field.
es_acl_ace* offer(uint32_t seq, uint32_t tag = 0);

inline std::atomic<uint64_t> clock_ms{1000};
inline std::atomic<int64_t> records_out{0};
inline const es_acl_batch_table* batches;
inline std::atomic<int64_t> allocations{0};  // the store's, so far
inline std::atomic<int64_t> failing{-1};     // which of them fails

// Tries the operation with its first allocation failing, then with its second and so on until it needs none
// more; each failure must be reported as one, and `unchanged` is called after it. The status of the last try.
template <typename Operation, typename Unchanged>
es_acl_status despite_failures(Operation operation, Unchanged unchanged) {
  for (int64_t n = 0;; ++n) {
    failing = allocations + n;
    const es_acl_status status = operation();
    if (allocations <= failing.exchange(-1)) return status;
    EXPECT_EQ(status, ENOMEM) << "an allocation failed unnoticed";
    if (status != ENOMEM) return status;
    unchanged();
  }
}

// A step of a walk, as the library's accessors make it: it is repeated when the store has taken
// note of the look meanwhile.
inline uint32_t look_at(es_acl_head* acl) {
  uint32_t look = __atomic_load_n(&acl->looks, __ATOMIC_ACQUIRE);
  while (look % 2 == 0 && !__atomic_compare_exchange_n(&acl->looks, &look, look + 1, false, __ATOMIC_ACQ_REL,
                                                       __ATOMIC_ACQUIRE)) {
  }
  return look | 1;
}
inline Node* follow(es_acl_head* acl, Node* const& link) {
  for (;;) {
    const uint32_t look = look_at(acl);
    Node* const node = __atomic_load_n(&link, __ATOMIC_ACQUIRE);
    if (__atomic_load_n(&acl->looks, __ATOMIC_RELAXED) == look) return node;
  }
}

// The list as it is, for the test's own eyes.
inline Node* next_of(const Node* node) { return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE); }
inline Node* first_of(const es_acl_head* acl) { return __atomic_load_n(&acl->ace_first, __ATOMIC_ACQUIRE); }
inline bool is_end(const es_acl_head* acl, const Node* node) { return node->element == acl->ace_end; }
inline es_acl_ace* ace_of(const Node* node) {
  return static_cast<es_acl_ace**>(node->element)[ES_ACL_ELEMENT_ACE_WORD];
}
inline uint32_t seq_of(const Node* node) { return __atomic_load_n(&ace_of(node)->seq, __ATOMIC_RELAXED); }

// An ACL for the life of a test.
class AclTest : public testing::Test {
 protected:
  ~AclTest() override {
    api().acl_release("acl-1");
    EXPECT_EQ(records_out, 0) << "a record that was offered is neither the caller's nor back in the pool";
  }

  es_acl_status add(uint32_t seq, uint32_t tag = 0, uint32_t flag = ES_ACL_ADD_KEEP) {
    return api().add_acl_item_iter(acl, offer(seq, tag), seq, flag, nullptr);
  }
  void remove(uint32_t seq) { api().delete_entry_iter(acl, seq, ES_ACL_FORWARD, nullptr); }
  // 10, 20, ... with 1, 2, ... as tags.
  void fill(uint32_t count) {
    for (uint32_t i = 1; i <= count; ++i) ASSERT_EQ(add(i * 10, i), 0u);
  }
  // The numbers in the order of a walk; checks the head's count and the backward links on the way.
  Seqs walk() const {
    Seqs seqs;
    const auto* before = reinterpret_cast<const Node*>(&acl->ace_first);
    for (Node* node = first_of(acl); !is_end(acl, node); before = node, node = next_of(node)) {
      EXPECT_EQ(node->aux, before);
      seqs.push_back(seq_of(node));
    }
    EXPECT_EQ(acl->ace_list_aux, before);
    EXPECT_EQ(acl->ace_count, seqs.size());
    return seqs;
  }

  es_acl_head* const acl = api().get_header("acl-1");
};

}  // namespace store_test

#endif  // ES_ACL_TESTS_STORE_FIXTURE_H_
