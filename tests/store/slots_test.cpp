// The slots one by one: names and heads, what a replaced or removed entry leaves behind, renumbering and
// matching by table. Adding, removing and searching are beside a model in model_test.cpp.
#include <algorithm>
#include <cstdarg>
#include <tuple>

#include "fixture.h"
#include "root.h"

namespace store_test {

constexpr uint32_t kMax = UINT32_MAX;

// --- Names and heads ---

TEST_F(AclTest, AHeadIsFindableOnceAndUntilItIsDiscarded) {
  const auto* root = static_cast<es_acl_tree_root*>(api().get_db_pointer(0, 0, 0, 0, 0, 0));
  EXPECT_STREQ(acl->name, "acl-1");
  EXPECT_EQ(acl->refcount, 1);
  EXPECT_EQ(api().get_header("acl-1"), nullptr);
  EXPECT_EQ(api().init(nullptr), 0u) << "once more, and nothing is lost";
  EXPECT_EQ(api().acl_lookup("acl-1"), acl);
  EXPECT_EQ(root->acl_count, 1u);
  fill(3);
  uint32_t discarded = 99;
  api().freelist(acl, &discarded);
  EXPECT_EQ(discarded, 3u);
  EXPECT_EQ(root->acl_count, 0u);
  EXPECT_EQ(api().acl_lookup("acl-1"), nullptr);
}

TEST(Names, LongestAndThoseThatCannotBe) {
  const std::vector<char> too_long(65, 'a');  // without a NUL: reading on would leave the buffer
  for (const char* name : {static_cast<const char*>(nullptr), "", too_long.data()}) {
    EXPECT_EQ(api().get_header(name), nullptr);
    EXPECT_EQ(api().acl_lookup(name), nullptr);
    api().acl_release(name);
  }
  const std::string longest(64, 'a');
  EXPECT_NE(api().get_header(longest.c_str()), nullptr);
  api().acl_release(longest.c_str());
  EXPECT_EQ(api().acl_lookup(longest.c_str()), nullptr);
}

// --- Entries ---

// A reader that stands on a node which is no longer in the list still has its ACE, and its way on.
TEST_F(AclTest, WhatLeavesTheListStaysAsItIsForTheGraceTime) {
  fill(3);
  const Node* removed = first_of(acl);
  const Node* replaced = next_of(removed);
  remove(10);
  ASSERT_EQ(add(20, 77, ES_ACL_ADD_REPLACE), 0u);
  for (uint32_t i = 0; i != 2900; ++i) {
    ++clock_ms;
    ASSERT_EQ(add(40, i, ES_ACL_ADD_REPLACE), 0u);  // takes a slot each time
  }
  EXPECT_EQ(walk(), (Seqs{20, 30, 40}));
  EXPECT_EQ(ace_of(removed)->capture, 1u);
  EXPECT_EQ(next_of(removed), replaced);
  EXPECT_EQ(ace_of(replaced)->capture, 2u);
  EXPECT_EQ(seq_of(next_of(replaced)), 30u);
}

// Numbers that are searched for and then changed are found again where they were; what has moved them meanwhile, be it
// other changes, a renumbering or a split, must not lead astray.
TEST_F(AclTest, AChangeFindsWhatTheListHasBecomeSinceTheSearch) {
  fill(1000);
  es_acl_iter iter = nullptr;
  const auto look = [&](uint32_t seq) { return api().search_entry_iter(acl, seq, ES_ACL_BACKWARD, &iter); };
  ASSERT_EQ(add(501), 0u);  // leaves have room now
  ASSERT_EQ(look(505), nullptr);
  for (const uint32_t seq : {502u, 503u}) ASSERT_EQ(add(seq), 0u);
  ASSERT_EQ(add(505), 0u);
  ASSERT_EQ(look(515), nullptr);
  for (const uint32_t seq : {501u, 502u, 503u}) remove(seq);
  ASSERT_EQ(add(515), 0u);
  ASSERT_NE(look(520), nullptr);
  for (uint32_t seq = 401; seq != 499; ++seq) ASSERT_EQ(add(seq, 0, ES_ACL_ADD_REPLACE), 0u);
  remove(520);
  EXPECT_EQ(look(520), nullptr);
  ASSERT_NE(look(700), nullptr);
  ASSERT_EQ(look(705), nullptr);
  ASSERT_EQ(api().resequence(acl, 7, 7, 0, nullptr), 0u);
  ASSERT_EQ(add(705), 0u);
  remove(700);
  const Seqs seqs = walk();
  EXPECT_TRUE(std::is_sorted(seqs.begin(), seqs.end()));
  EXPECT_EQ(std::count(seqs.begin(), seqs.end(), 705), 1);
  EXPECT_EQ(std::count(seqs.begin(), seqs.end(), 700), 0);
}

uint32_t visit_three(es_acl_head*, const es_acl_ace* ace, va_list* args) {
  auto* seen = va_arg(*args, Seqs*);
  seen->push_back(ace->seq);
  return seen->size() == 3;
}

void traverse(es_acl_head* acl, ...) {
  va_list args;
  va_start(args, acl);
  api().traverse_list(acl, visit_three, &args);
  va_end(args);
}

TEST_F(AclTest, ATraversalGivesEachVisitItsArgumentsAndStopsWhenTold) {
  fill(5);
  Seqs seen;
  traverse(acl, &seen);
  EXPECT_EQ(seen, (Seqs{10, 20, 30}));
}

// --- Renumbering ---

// Three ACEs are renumbered again and again.
TEST_F(AclTest, RenumberingGivesAllTheirNumbersOrChangesNothing) {
  const struct {
    uint32_t start;
    uint32_t step;
    Seqs skip;
    Seqs expected;  // none: refused
  } table[] = {
      {1, 1, {}, {1, 2, 3}},
      {100, 5, {105}, {100, 110, 115}},
      {100, 5, {110, 100, 105, 105, 7}, {115, 120, 125}},  // in no order, twice, below the start
      {100, 5, {101, 120}, {100, 105, 110}},               // on no new number, behind the last
      {kMax - 2, 1, {}, {kMax - 2, kMax - 1, kMax}},
      {kMax - 1, 1, {}, {}},
      {kMax - 2, 1, {kMax}, {}},
      {1, kMax, {}, {}},
      {1, 0, {}, {}},
      {0, 1, {}, {}},
  };
  fill(3);
  for (const auto& [start, step, skip, expected] : table) {
    SCOPED_TRACE(testing::Message() << "start " << start << " step " << step);
    const Seqs after = expected.empty() ? walk() : expected;
    EXPECT_EQ(api().resequence(acl, start, step, skip.size(), skip.data()), expected.empty() ? EINVAL : 0);
    EXPECT_EQ(walk(), after);
    for (const uint32_t seq : after) EXPECT_NE(api().search_entry(acl, seq), nullptr) << seq;
  }
  EXPECT_EQ(api().resequence(acl, 1, 1, 1, nullptr), EINVAL) << "a skip list that is not there";
}

// --- Matching ---

// Fields of the frame that the table's cases change, and the fields that the rule compares.
using Frame = es_acl_match_key;
constexpr Frame kFrame = {{1, 2, 0x33}, {4, 0x5566, 0x77}, 100, 300, 0x0800, 3, 1, 5, 0, 2, 0};
constexpr uint64_t kAll = 2 * ES_ACL_MATCH_IDEI - 1;

// A rule that kFrame matches: its vendor only for the destination, and room for other tags.
es_acl_ace* offer_rule(uint32_t seq, uint64_t mask) {
  es_acl_ace* ace = offer(seq, seq + 1);
  es_acl_ace_set_match_mask(ace, mask);
  std::copy_n(kFrame.src_addr, 3, ace->src_addr);
  std::copy_n(kFrame.dst_addr, 3, ace->dst_addr);
  ace->src_wild[2] = 1;
  ace->dst_wild[1] = 0xff;
  ace->dst_wild[2] = 0xffff;
  ace->vlan_first = 100;
  ace->vlan_last = 200;
  ace->ivlan_first = 300;
  ace->ivlan_last = 400;
  ace->eth_type = 0x0800;
  ace->cos = 3;
  ace->dei = 1;
  ace->icos = 5;
  return ace;
}

const struct {
  uint64_t mask;
  void (*change)(Frame& frame);
  bool matches;
} kMatchings[] = {
    {kAll, [](Frame&) {}, true},
    {0, [](Frame& frame) { frame = {}; }, true},
    {kAll, [](Frame& frame) { frame.src_addr[2] ^= 1; }, true},
    {ES_ACL_MATCH_SRC_ADDR, [](Frame& frame) { frame.src_addr[2] ^= 2; }, false},
    {kAll, [](Frame& frame) { frame.dst_addr[2] = 0; }, true},
    {ES_ACL_MATCH_DST_ADDR, [](Frame& frame) { frame.dst_addr[1] ^= 0x100; }, false},
    {ES_ACL_MATCH_VLAN, [](Frame& frame) { frame.vlan = 99; }, false},
    {ES_ACL_MATCH_VLAN, [](Frame& frame) { frame.vlan = 200; }, true},
    {ES_ACL_MATCH_VLAN, [](Frame& frame) { frame.vlan = 201; }, false},
    {ES_ACL_MATCH_IVLAN, [](Frame& frame) { frame.ivlan = 299; }, false},
    {ES_ACL_MATCH_IVLAN, [](Frame& frame) { frame.ivlan = 401; }, false},
    {ES_ACL_MATCH_ETH_TYPE, [](Frame& frame) { frame.eth_type = 0x86dd; }, false},
    {ES_ACL_MATCH_COS, [](Frame& frame) { frame.cos = 5; }, false},
    {ES_ACL_MATCH_DEI, [](Frame& frame) { frame.dei = 0; }, false},
    {ES_ACL_MATCH_ICOS, [](Frame& frame) { frame.icos = 3; }, false},
    {kAll, [](Frame& frame) { frame.idei = 1; }, false},
    {ES_ACL_MATCH_SRC_ADDR, [](Frame& frame) { frame.tags = ES_ACL_KEY_UNTAGGED; }, true},
    {ES_ACL_MATCH_VLAN, [](Frame& frame) { frame.tags = ES_ACL_KEY_UNTAGGED; }, false},
    {ES_ACL_MATCH_COS, [](Frame& frame) { frame.tags = ES_ACL_KEY_UNTAGGED; }, false},
    {ES_ACL_MATCH_DEI, [](Frame& frame) { frame.tags = ES_ACL_KEY_UNTAGGED; }, false},
    {ES_ACL_MATCH_VLAN, [](Frame& frame) { frame.tags = ES_ACL_KEY_TAGGED; }, true},
    {ES_ACL_MATCH_IVLAN, [](Frame& frame) { frame.tags = ES_ACL_KEY_TAGGED; }, false},
    {ES_ACL_MATCH_ICOS, [](Frame& frame) { frame.tags = ES_ACL_KEY_TAGGED; }, false},
    {ES_ACL_MATCH_IDEI, [](Frame& frame) { frame.tags = ES_ACL_KEY_TAGGED; }, false},
};

TEST_F(AclTest, MatchesByTable) {
  for (const auto& row : kMatchings) {
    SCOPED_TRACE(testing::Message() << "row " << &row - kMatchings);
    ASSERT_EQ(api().add_acl_item(acl, offer_rule(10, row.mask), 10, ES_ACL_ADD_REPLACE), 0u);
    Frame frame = kFrame;
    row.change(frame);
    EXPECT_EQ(api().match_complex(acl, &frame, 0, 0), row.matches ? ES_ACL_MATCH_DENY : ES_ACL_MATCH_NONE);
  }
}

TEST_F(AclTest, TheFirstMatchDecidesForEachKeyAndRemarksNever) {
  es_acl_ace* aces[] = {offer_rule(30, ES_ACL_MATCH_COS), offer_rule(20, kAll), offer_rule(10, 0)};
  aces[1]->grant = ES_ACL_PERMIT;
  aces[1]->log_option = 1;
  aces[2]->kind = ES_ACL_KIND_REMARK;
  for (es_acl_ace* ace : aces) ASSERT_EQ(api().add_acl_item(acl, ace, ace->seq, ES_ACL_ADD_KEEP), 0u);
  Frame frames[3] = {kFrame, kFrame, kFrame};
  frames[1].cos = 0;
  frames[2].dei = 0;
  es_acl_match_hit hits[3] = {{9, 9, 9}, {9, 9, 9}, {9, 9, 9}};
  EXPECT_EQ(api().match_complex(acl, &frames[0], 0, reinterpret_cast<uint64_t>(hits)), ES_ACL_MATCH_PERMIT);
  EXPECT_EQ(std::tie(hits[0].seq, hits[0].capture, hits[0].log_option), std::make_tuple(20u, 21u, 1u));
  EXPECT_EQ(api().match_complex_2(acl, frames, 3, 0), 2u);
  EXPECT_EQ(api().match_complex_2(acl, frames, 3, reinterpret_cast<uint64_t>(hits)), 2u);
  EXPECT_EQ(std::tie(hits[0].seq, hits[1].seq, hits[2].seq), std::make_tuple(20u, 0u, 30u));
}

}  // namespace store_test
