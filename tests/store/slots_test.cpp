// The slots one by one: names and heads, the edges of numbers, renumbering and matching by table, what a
// replaced or removed entry leaves behind.
#include <cerrno>
#include <cstdarg>
#include <limits>
#include <numeric>

#include "fixture.h"
#include "root.h"

namespace store_test {
namespace {

constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();

using Seqs = std::vector<uint32_t>;

// --- Names and heads ---

TEST(Heads, ANewHeadIsEmptyAndFindableOnce) {
  es_acl_head* head = api().get_header("edge-in");
  ASSERT_NE(head, nullptr);
  EXPECT_STREQ(head->name, "edge-in");
  EXPECT_EQ(head->refcount, 1);
  EXPECT_EQ(head->ace_count, 0u);
  EXPECT_EQ(head->ace_first->element, head->ace_end);
  EXPECT_EQ(head->cb_list.first, nullptr);
  EXPECT_EQ(api().acl_lookup("edge-in"), head);
  EXPECT_EQ(api().get_header("edge-in"), nullptr);
  EXPECT_EQ(api().init(nullptr), 0u) << "once more, and nothing is lost";
  EXPECT_EQ(api().acl_lookup("edge-in"), head);
  const auto* root = static_cast<es_acl_tree_root*>(api().get_db_pointer(0, 0, 0, 0, 0, 0));
  EXPECT_EQ(root->acl_count, 1u);
  api().acl_release("edge-in");
  EXPECT_EQ(root->acl_count, 0u);
  EXPECT_EQ(api().acl_lookup("edge-in"), nullptr);
}

TEST(Heads, NamesThatCannotBe) {
  const std::string longest(64, 'a');
  const char unterminated[65] = {'b', 'b'};
  std::vector<char> too_long(65, 'b');  // without a NUL: reading on would leave the buffer
  for (const char* name :
       {static_cast<const char*>(nullptr), "", static_cast<const char*>(too_long.data())}) {
    EXPECT_EQ(api().get_header(name), nullptr);
    EXPECT_EQ(api().acl_lookup(name), nullptr);
    api().acl_release(name);
  }
  EXPECT_NE(api().get_header(longest.c_str()), nullptr);
  EXPECT_EQ(api().acl_lookup(unterminated), nullptr);
  api().acl_release(longest.c_str());
}

TEST(Heads, FreelistDiscardsAndCounts) {
  es_acl_head* head = api().get_header("failed");
  for (uint32_t seq = 1; seq <= 3; ++seq) api().add_acl_item(head, offer(seq), seq, ES_ACL_ADD_KEEP);
  uint32_t discarded = 99;
  api().freelist(head, &discarded);
  EXPECT_EQ(discarded, 3u);
  EXPECT_EQ(api().acl_lookup("failed"), nullptr);
  api().freelist(api().get_header("failed"), nullptr);
  EXPECT_EQ(api().acl_lookup("failed"), nullptr);
}

// --- Entries ---

TEST_F(AclTest, TheEdgesOfTheNumbersInADeepIndex) {
  fill(10'000);
  for (const uint32_t seq : {kMax, kMax - 1, 0u}) {  // the record's own number does not count
    ASSERT_EQ(api().add_acl_item_iter(acl, offer(5, 7), seq, ES_ACL_ADD_KEEP, nullptr), 0u);
  }
  for (const uint32_t seq : {kMax, kMax - 1, 0u}) {
    ASSERT_NE(api().search_entry(acl, seq), nullptr);
    EXPECT_EQ(api().search_entry(acl, seq)->seq, seq);
    remove(seq);
    EXPECT_EQ(api().search_entry(acl, seq), nullptr);
  }
}

TEST_F(AclTest, AHeldNumberIsKeptOrReplaced) {
  fill(3);
  const es_acl_ace_node* first = first_of(acl);
  es_acl_ace_node* old_node = next_of(first);
  const es_acl_ace* old = ace_of(old_node);

  ASSERT_EQ(add(20, 77, ES_ACL_ADD_KEEP), 0u);
  EXPECT_EQ(api().search_entry(acl, 20), old);
  EXPECT_EQ(old->capture, 2u);

  ASSERT_EQ(add(20, 77, ES_ACL_ADD_REPLACE), 0u);
  EXPECT_EQ(api().search_entry(acl, 20)->capture, 77u);
  EXPECT_EQ(walk(), (Seqs{10, 20, 30}));
  // A reader that stands on the replaced node still has its ACE, and its way on.
  EXPECT_EQ(old->capture, 2u);
  EXPECT_EQ(seq_of(ace_of(next_of(old_node))), 30u);
}

TEST_F(AclTest, ARemovedNodeStaysAsItIsForTheGraceTime) {
  fill(100);
  es_acl_ace_node* node = first_of(acl);
  const es_acl_ace* ace = ace_of(node);
  remove(10);
  for (uint32_t i = 0; i != 2900; ++i) {
    advance_clock_ms(1);
    ASSERT_EQ(add(5, i, ES_ACL_ADD_REPLACE), 0u);  // takes a slot each time
  }
  EXPECT_EQ(ace->seq, 10u);
  EXPECT_EQ(ace->capture, 1u);
  EXPECT_EQ(seq_of(ace_of(next_of(node))), 20u);
}

TEST_F(AclTest, APositionOfAnotherAclOrOfNobodyIsHarmless) {
  fill(1000);
  for (const uintptr_t word :
       {uintptr_t{1}, uintptr_t{0xff}, uintptr_t{0x100}, uintptr_t{0x12345678}, ~uintptr_t{0}}) {
    for (const uint32_t direction : {ES_ACL_BACKWARD, ES_ACL_FORWARD}) {
      auto* iter = reinterpret_cast<es_acl_iter>(word);
      ASSERT_NE(api().search_entry_iter(acl, 5000, direction, &iter), nullptr);
      iter = reinterpret_cast<es_acl_iter>(word);
      EXPECT_EQ(add(5001, 0, ES_ACL_ADD_KEEP, &iter), 0u);
      iter = reinterpret_cast<es_acl_iter>(word);
      remove(5001, &iter);
      EXPECT_EQ(acl->ace_count, 1000u);
    }
  }
}

uint32_t visit_until(es_acl_head*, const es_acl_ace* ace, va_list* args) {
  const uint32_t last = va_arg(*args, uint32_t);
  Seqs* seen = va_arg(*args, Seqs*);
  seen->push_back(ace->seq);
  return ace->seq == last;
}

void traverse(es_acl_head* acl, ...) {
  va_list args;
  va_start(args, acl);
  api().traverse_list(acl, visit_until, &args);
  va_end(args);
}

TEST_F(AclTest, ATraversalGivesEachVisitItsArgumentsAndStopsWhenTold) {
  fill(5);
  Seqs seen;
  traverse(acl, 30u, &seen);
  EXPECT_EQ(seen, (Seqs{10, 20, 30}));
}

// --- Renumbering ---

struct Renumbering {
  uint32_t start;
  uint32_t step;
  Seqs skip;
  es_acl_status status;
  Seqs expected;  // of three ACEs; {10, 20, 30} before
};

TEST(Resequence, ByTable) {
  const Renumbering cases[] = {
      {1, 1, {}, 0, {1, 2, 3}},
      {100, 5, {105}, 0, {100, 110, 115}},
      {100, 5, {110, 100, 105, 105, 7}, 0, {115, 120, 125}},  // in no order, twice, below the start
      {100, 5, {101, 120}, 0, {100, 105, 110}},               // on no new number, behind the last
      {kMax - 2, 1, {}, 0, {kMax - 2, kMax - 1, kMax}},
      {kMax - 1, 1, {}, EINVAL, {10, 20, 30}},
      {kMax - 2, 1, {kMax}, EINVAL, {10, 20, 30}},
      {1, kMax, {}, EINVAL, {10, 20, 30}},
      {1, 0, {}, EINVAL, {10, 20, 30}},
      {0, 1, {}, EINVAL, {10, 20, 30}},
  };
  for (const Renumbering& c : cases) {
    SCOPED_TRACE(testing::Message() << "start " << c.start << " step " << c.step);
    es_acl_head* acl = api().get_header("r");
    for (const uint32_t seq : {10u, 20u, 30u}) api().add_acl_item(acl, offer(seq), seq, ES_ACL_ADD_KEEP);
    EXPECT_EQ(api().resequence(acl, c.start, c.step, static_cast<uint32_t>(c.skip.size()), c.skip.data()),
              c.status);
    Seqs seqs;
    for (es_acl_ace_node* n = first_of(acl); !is_end(acl, n); n = next_of(n)) seqs.push_back(ace_of(n)->seq);
    EXPECT_EQ(seqs, c.expected);
    for (const uint32_t seq : c.expected) EXPECT_NE(api().search_entry(acl, seq), nullptr) << seq;
    api().acl_release("r");
  }
}

TEST_F(AclTest, RenumberingADeepIndexKeepsEveryEntryFindableAndRoomInFront) {
  fill(10'000);
  ASSERT_EQ(api().resequence(acl, 1'000'000, 3, 0, nullptr), 0u);
  for (uint32_t i = 0; i != 10'000; ++i)
    ASSERT_EQ(api().search_entry(acl, 1'000'000 + 3 * i)->capture, i + 1);
  for (uint32_t seq = 500; seq != 0; --seq) ASSERT_EQ(add(seq), 0u);
  for (uint32_t seq = 500; seq != 0; --seq) ASSERT_NE(api().search_entry(acl, seq), nullptr);
  EXPECT_EQ(api().resequence(acl, 1, 1, 1, nullptr), EINVAL) << "a skip list that is not there";
}

// --- Matching ---

struct Matching {
  const char* what;
  uint64_t mask;
  es_acl_ace ace;
  bool matches;
  uint8_t tags = ES_ACL_KEY_DOUBLE_TAGGED;
};

// Against frame(), with the number of tags that the case says. What a case does not name is zero.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
const Matching kMatchings[] = {
    {"no field compared", 0, {.src_addr = {9}, .vlan_first = 9, .icos = 9, .eth_type = 9}, true},
    {"a remark", 0, {.kind = ES_ACL_KIND_REMARK}, false},
    {"source", ES_ACL_MATCH_SRC_ADDR, {.src_addr = {0x0011, 0x2233, 0x4455}}, true},
    {"source, last bit", ES_ACL_MATCH_SRC_ADDR, {.src_addr = {0x0011, 0x2233, 0x4454}}, false},
    {"source, last bit wild",
     ES_ACL_MATCH_SRC_ADDR,
     {.src_addr = {0x0011, 0x2233, 0x4454}, .src_wild = {0, 0, 1}},
     true},
    {"vendor", ES_ACL_MATCH_DST_ADDR, {.dst_addr = {0x6677, 0x8800}, .dst_wild = {0, 0xff, 0xffff}}, true},
    {"other vendor",
     ES_ACL_MATCH_DST_ADDR,
     {.dst_addr = {0x6677, 0x8900}, .dst_wild = {0, 0xff, 0xffff}},
     false},
    {"outer, first", ES_ACL_MATCH_VLAN, {.vlan_first = 100, .vlan_last = 200}, true},
    {"outer, last", ES_ACL_MATCH_VLAN, {.vlan_first = 1, .vlan_last = 100}, true},
    {"outer, above", ES_ACL_MATCH_VLAN, {.vlan_first = 1, .vlan_last = 99}, false},
    {"outer, below", ES_ACL_MATCH_VLAN, {.vlan_first = 101, .vlan_last = 200}, false},
    {"outer, no tag", ES_ACL_MATCH_VLAN, {.vlan_first = 0, .vlan_last = 4095}, false, ES_ACL_KEY_UNTAGGED},
    {"inner", ES_ACL_MATCH_IVLAN, {.ivlan_first = 200, .ivlan_last = 200}, true},
    {"inner, the outer's", ES_ACL_MATCH_IVLAN, {.ivlan_first = 100, .ivlan_last = 100}, false},
    {"inner, one tag", ES_ACL_MATCH_IVLAN, {.ivlan_first = 0, .ivlan_last = 4095}, false, ES_ACL_KEY_TAGGED},
    {"EtherType", ES_ACL_MATCH_ETH_TYPE, {.eth_type = 0x0800}, true},
    {"other EtherType", ES_ACL_MATCH_ETH_TYPE, {.eth_type = 0x86dd}, false},
    {"CoS", ES_ACL_MATCH_COS, {.cos = 3}, true},
    {"CoS, the inner's", ES_ACL_MATCH_COS, {.cos = 5}, false},
    {"DEI", ES_ACL_MATCH_DEI, {.dei = 1}, true},
    {"DEI, no tag", ES_ACL_MATCH_DEI, {.dei = 1}, false, ES_ACL_KEY_UNTAGGED},
    {"inner CoS", ES_ACL_MATCH_ICOS, {.icos = 5}, true},
    {"inner CoS, the outer's", ES_ACL_MATCH_ICOS, {.icos = 3}, false},
    {"inner DEI", ES_ACL_MATCH_IDEI, {.idei = 0}, true},
    {"inner DEI, the outer's", ES_ACL_MATCH_IDEI, {.idei = 1}, false},
    {"one of two differs", ES_ACL_MATCH_COS | ES_ACL_MATCH_ICOS, {.cos = 3, .icos = 3}, false},
};
#pragma GCC diagnostic pop

es_acl_match_key frame() {
  return {{0x0011, 0x2233, 0x4455},
          {0x6677, 0x8899, 0xaabb},
          100,
          200,
          0x0800,
          3,
          1,
          5,
          0,
          ES_ACL_KEY_DOUBLE_TAGGED,
          0};
}

TEST_F(AclTest, MatchesByTable) {
  for (const Matching& c : kMatchings) {
    SCOPED_TRACE(c.what);
    es_acl_ace* ace = offer(10);
    *ace = c.ace;
    es_acl_ace_set_match_mask(ace, c.mask);
    es_acl_match_key key = frame();
    key.tags = c.tags;
    ASSERT_EQ(api().add_acl_item_iter(acl, ace, 10, ES_ACL_ADD_REPLACE, nullptr), 0u);
    EXPECT_EQ(api().match_complex(acl, &key, 0, 0), c.matches ? ES_ACL_MATCH_DENY : ES_ACL_MATCH_NONE);
  }
}

TEST_F(AclTest, TheFirstMatchDecidesForEachKey) {
  const auto add_rule = [&](uint32_t seq, uint16_t eth_type, uint8_t grant) {
    es_acl_ace* ace = offer(seq, 1);
    es_acl_ace_set_match_mask(ace, ES_ACL_MATCH_ETH_TYPE);
    ace->eth_type = eth_type;
    ace->grant = grant;
    ace->log_option = 1;
    ASSERT_EQ(api().add_acl_item_iter(acl, ace, seq, ES_ACL_ADD_KEEP, nullptr), 0u);
  };
  add_rule(30, 0x0800, ES_ACL_DENY);
  add_rule(20, 0x0800, ES_ACL_PERMIT);
  add_rule(10, 0x86dd, ES_ACL_DENY);

  es_acl_match_key keys[3] = {frame(), frame(), frame()};
  keys[1].eth_type = 0x0806;
  keys[2].eth_type = 0x86dd;
  es_acl_match_hit hit{};
  EXPECT_EQ(api().match_complex(acl, &keys[0], 0, reinterpret_cast<uint64_t>(&hit)), ES_ACL_MATCH_PERMIT);
  EXPECT_EQ(hit.seq, 20u);
  EXPECT_EQ(hit.capture, 1u);
  EXPECT_EQ(hit.log_option, 1u);
  EXPECT_EQ(api().match_complex(acl, &keys[2], 0, 0), ES_ACL_MATCH_DENY);

  es_acl_match_hit hits[3] = {{9, 9, 9}, {9, 9, 9}, {9, 9, 9}};
  EXPECT_EQ(api().match_complex_2(acl, keys, 3, reinterpret_cast<uint64_t>(hits)), 2u);
  EXPECT_EQ(hits[0].seq, 20u);
  EXPECT_EQ(hits[1].seq, 0u);
  EXPECT_EQ(hits[2].seq, 10u);
  EXPECT_EQ(api().match_complex_2(acl, keys, 3, 0), 2u);
}

}  // namespace
}  // namespace store_test
