// Memory: endless change does not eat it up, and a small ACL costs little. What happens when there is none is
// part of each addition in model_test.cpp.
#include "acl.h"
#include "fixture.h"

namespace store_test {

class Memory : public AclTest {
 protected:
  // Calls the change with 0, 1, ..., and checks that after the first tenth nothing more is allocated.
  template <typename Change>
  void expect_bounded(uint32_t times, Change change) {
    for (uint32_t i = 0; i != times / 10; ++i) change(i);
    const int64_t so_far = allocations;
    for (uint32_t i = times / 10; i != times; ++i) change(i);
    EXPECT_EQ(allocations, so_far);
  }

  size_t slab_bytes() const { return es_tree::Acl::of(acl)->slab_bytes(); }
};

// What is retired comes back into use when the clock has moved on.
TEST_F(Memory, EndlessReplacementTakesBoundedMemory) {
  fill(10);
  EXPECT_LE(slab_bytes(), 2048u) << "any number of ACLs must cost what their entries cost";
  expect_bounded(300'000, [&](uint32_t i) {
    const uint32_t seq = (i % 1000 + 1) * 10;
    if (i % 3 == 0) remove(seq);
    ASSERT_EQ(add(seq, i, ES_ACL_ADD_REPLACE), 0u);
    clock_ms += i % 2;
  });
  // Two grace times of 3 s hold twelve rounds of 1000 retired slots, some of them in the round under way.
  EXPECT_LT(slab_bytes(), size_t{16} * 1000 * 112);
}

// Where millions of changes come in a second what is retired waits for a shorter time, but it waits.
TEST_F(Memory, AFloodOfReplacementsTakesBoundedMemoryAndKeepsTheShortGraceTime) {
  constexpr uint32_t kPerMs = 5000;
  fill(1000);
  const auto flood = [&](uint32_t ms) {
    for (uint32_t i = 0; i != ms * kPerMs; ++i) {
      ASSERT_EQ(add((i % 1000 + 1) * 10, i, ES_ACL_ADD_REPLACE), 0u);
      if (i % kPerMs == 0) ++clock_ms;
    }
  };
  flood(150);
  const Node* replaced = first_of(acl);
  const uint32_t tag = ace_of(replaced)->capture;
  flood(es_tree::SlotQueue::kShortGraceMs - 1);
  EXPECT_EQ(ace_of(replaced)->capture, tag);
  EXPECT_EQ(seq_of(next_of(replaced)), 20u);
  // What came within the shorter time waits, and slabs grow by an eighth.
  EXPECT_LT(slab_bytes(), size_t{112} * es_tree::SlotQueue::kShortGraceMs * kPerMs * 5 / 4);
}

// Numbers that wander upward: the leaves they leave behind must not pile up.
TEST_F(Memory, AWanderingWindowTakesBoundedMemory) {
  fill(1000);
  expect_bounded(200'000, [&](uint32_t i) {
    ASSERT_EQ(add((1001 + i) * 10), 0u);
    remove((1 + i) * 10);
    ++clock_ms;
  });
  EXPECT_EQ(walk().size(), 1000u);
}

TEST(Names, AHeadThatCannotBeMadeIsNotThere) {
  es_acl_head* head = nullptr;
  despite_failures([&] { return (head = api().get_header("scarce")) != nullptr ? 0u : ENOMEM; },
                   [] { EXPECT_EQ(api().acl_lookup("scarce"), nullptr); });
  EXPECT_EQ(api().acl_lookup("scarce"), head);
  api().acl_release("scarce");
}

}  // namespace store_test
