// What every test of the store stands on: the plug-in's table, filled as the library fills it, a rules pool
// that counts the records it has out, and a clock that is moved by hand.
#ifndef ES_ACL_TESTS_STORE_FIXTURE_H_
#define ES_ACL_TESTS_STORE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_types.h"

namespace store_test {

// The rules pool.
es_acl_ace* offer(uint32_t seq,
                  uint32_t tag = 0);  // a record with seq, and tag in its capture field; null: no memory
int64_t records_out();

void advance_clock_ms(uint64_t ms);

const es_acl_api_table& api();

// An ACL for the life of a test.
class AclTest : public testing::Test {
 protected:
  AclTest() : acl(api().get_header("acl-1")) {}
  ~AclTest() override {
    api().acl_release("acl-1");
    EXPECT_EQ(records_out(), 0) << "a record that was offered is neither the caller's nor back in the pool";
  }

  es_acl_status add(uint32_t seq, uint32_t tag = 0, uint32_t flag = ES_ACL_ADD_KEEP,
                    es_acl_iter* iter = nullptr) {
    return api().add_acl_item_iter(acl, offer(seq, tag), seq, flag, iter);
  }
  void remove(uint32_t seq, es_acl_iter* iter = nullptr) {
    api().delete_entry_iter(acl, seq, ES_ACL_FORWARD, iter);
  }
  void fill(uint32_t count, uint32_t step = 10) {
    for (uint32_t i = 1; i <= count; ++i) ASSERT_EQ(add(i * step, i), 0u);
  }
  // The numbers in the order of a walk; checks the head's count and the backward links on the way.
  std::vector<uint32_t> walk() const;

  es_acl_head* acl;
};

// The walk accessors, as the library has them.
inline es_acl_ace_node* next_of(const es_acl_ace_node* node) {
  return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE);
}
inline es_acl_ace_node* first_of(const es_acl_head* acl) {
  return __atomic_load_n(&acl->ace_first, __ATOMIC_ACQUIRE);
}
inline bool is_end(const es_acl_head* acl, const es_acl_ace_node* node) {
  return node->element == acl->ace_end;
}
inline es_acl_ace* ace_of(const es_acl_ace_node* node) {
  return static_cast<es_acl_ace**>(node->element)[ES_ACL_ELEMENT_ACE_WORD];
}
inline uint32_t seq_of(const es_acl_ace* ace) { return __atomic_load_n(&ace->seq, __ATOMIC_RELAXED); }

}  // namespace store_test

#endif  // ES_ACL_TESTS_STORE_FIXTURE_H_
