// Memory: what happens when there is none, and that endless change does not eat it up.
//
// The allocator is made to fail at the n-th call, n rising until the operation succeeds.
#include <algorithm>
#include <cerrno>

#include "acl.h"
#include "failing_alloc.h"
#include "fixture.h"

namespace store_test {
namespace {

size_t slab_bytes(es_acl_head* acl) { return es_tree::Acl::of(acl)->slab_bytes(); }

// Adds at the n-th failing allocation until the addition succeeds, and checks that each failure changed
// nothing.
void add_despite_failures(es_acl_head* acl, uint32_t seq, uint32_t flag) {
  es_acl_ace* offered = offer(seq, seq + 1);
  for (int64_t n = 0;; ++n) {
    const uint32_t count = acl->ace_count;
    const es_acl_ace* held = api().search_entry(acl, seq);
    es_acl_status status = 0;
    const bool failed =
        failing_at(n, [&] { status = api().add_acl_item_iter(acl, offered, seq, flag, nullptr); });
    if (status == 0) {
      ASSERT_FALSE(failed) << "an allocation failed unnoticed";
      return;
    }
    ASSERT_EQ(status, ENOMEM);
    ASSERT_EQ(acl->ace_count, count);
    ASSERT_EQ(api().search_entry(acl, seq), held);
    ASSERT_EQ(offered->capture, seq + 1) << "the record is still the caller's";
  }
}

TEST_F(AclTest, AFailedAdditionChangesNothing) {
  // Upward, downward and between, so that leaves and inner nodes split everywhere.
  for (uint32_t i = 0; i != 5000; ++i)
    ASSERT_NO_FATAL_FAILURE(add_despite_failures(acl, 1'000'000 + 10 * i, 0));
  for (uint32_t i = 0; i != 5000; ++i)
    ASSERT_NO_FATAL_FAILURE(add_despite_failures(acl, 900'000 - 10 * i, 0));
  for (uint32_t i = 0; i != 5000; ++i)
    ASSERT_NO_FATAL_FAILURE(add_despite_failures(acl, 1'000'005 + 10 * i, 1));
  for (uint32_t i = 0; i != 5000; ++i)
    ASSERT_NO_FATAL_FAILURE(add_despite_failures(acl, 1'000'005 + 10 * i, 1));
  const std::vector<uint32_t> seqs = walk();
  EXPECT_EQ(seqs.size(), 15'000u);
  EXPECT_TRUE(std::is_sorted(seqs.begin(), seqs.end()));
  for (const uint32_t seq : seqs) ASSERT_EQ(api().search_entry(acl, seq)->capture, seq + 1);
}

TEST_F(AclTest, AFailedRenumberingChangesNothing) {
  fill(1000);
  const std::vector<uint32_t> before = walk();
  const uint32_t skip[] = {1, 2, 3};
  es_acl_status status = 0;
  ASSERT_TRUE(failing_at(0, [&] { status = api().resequence(acl, 1, 1, 3, skip); }));
  EXPECT_EQ(status, ENOMEM);
  EXPECT_EQ(walk(), before);
}

TEST(Memory, AHeadThatCannotBeMadeIsNotThere) {
  es_acl_head* head = nullptr;
  for (int64_t n = 0; head == nullptr; ++n) {
    ASSERT_EQ(api().acl_lookup("scarce"), nullptr);
    failing_at(n, [&] { head = api().get_header("scarce"); });
    ASSERT_LT(n, 100);
  }
  api().acl_release("scarce");
}

// Entries are replaced, removed and added without end, with the clock moving: what is retired comes back into
// use.
TEST_F(AclTest, EndlessChangeTakesBoundedMemory) {
  fill(1000);
  size_t after_a_while = 0;
  for (uint32_t round = 0; round != 300; ++round) {
    for (uint32_t i = 1; i <= 1000; ++i) {
      if (i % 3 == 0) remove(i * 10);
      ASSERT_EQ(add(i * 10, round, ES_ACL_ADD_REPLACE), 0u);
    }
    advance_clock_ms(500);
    if (round == 50) after_a_while = slab_bytes(acl);
  }
  // Two grace times of 3 s hold twelve rounds of 1000 retired slots, some of them in the round under way.
  EXPECT_EQ(slab_bytes(acl), after_a_while);
  EXPECT_LT(after_a_while, size_t{16} * 1000 * 112);
}

// Numbers that wander upward: the leaves they leave behind must not pile up.
TEST_F(AclTest, AWanderingWindowTakesBoundedMemory) {
  fill(1000);
  size_t after_a_while = 0;
  for (uint32_t i = 1001; i != 200'000; ++i) {
    ASSERT_EQ(add(i * 10), 0u);
    remove((i - 1000) * 10);
    advance_clock_ms(1);
    if (i == 40'000) after_a_while = slab_bytes(acl);
  }
  EXPECT_EQ(slab_bytes(acl), after_a_while);
  EXPECT_EQ(walk().size(), 1000u);
}

// Any number of ACLs of about this size must cost what their entries cost.
TEST_F(AclTest, ASmallAclIsCheap) {
  fill(10);
  EXPECT_LE(slab_bytes(acl), size_t{2048});
}

}  // namespace
}  // namespace store_test
