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
  api().acl_release("edge-in");
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

TEST(Heads, InitAgainLosesNothingAndTheRootCounts) {
  const auto* root = static_cast<es_acl_tree_root*>(
      api().get_db_pointer(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  const uint32_t before = root->acl_count;
  es_acl_head* head = api().get_header("kept");
  EXPECT_EQ(api().init(nullptr), 0u);
  EXPECT_EQ(api().acl_lookup("kept"), head);
  EXPECT_EQ(root->acl_count, before + 1);
  api().acl_release("kept");
  EXPECT_EQ(root->acl_count, before);
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

TEST(Heads, Slot13IsTheLibrarys) { EXPECT_EQ(api().reserved_13, nullptr); }

// --- Entries ---

TEST_F(AclTest, TheEdgesOfTheNumbers) {
  for (const uint32_t seq : {kMax, 0u, 1u, kMax - 1}) ASSERT_EQ(add(seq), 0u);
  EXPECT_EQ(walk(), (Seqs{0, 1, kMax - 1, kMax}));
  for (const uint32_t seq : {0u, 1u, kMax - 1, kMax}) EXPECT_EQ(api().search_entry(acl, seq)->seq, seq);
  remove(kMax);
  remove(0);
  EXPECT_EQ(walk(), (Seqs{1, kMax - 1}));
}

TEST_F(AclTest, TheLargestNumberIsFoundInADeepIndex) {
  fill(10'000);
  for (const uint32_t seq : {kMax, kMax - 1, 0u}) ASSERT_EQ(add(seq, 7), 0u);
  for (const uint32_t seq : {kMax, kMax - 1, 0u}) {
    ASSERT_NE(api().search_entry(acl, seq), nullptr);
    EXPECT_EQ(api().search_entry(acl, seq)->capture, 7u);
    remove(seq);
    EXPECT_EQ(api().search_entry(acl, seq), nullptr);
  }
}

TEST_F(AclTest, TheNumberGivenIsTheKeyWhateverTheRecordSays) {
  ASSERT_EQ(api().add_acl_item_iter(acl, offer(5), 7, ES_ACL_ADD_KEEP, nullptr), 0u);
  EXPECT_EQ(api().search_entry(acl, 5), nullptr);
  EXPECT_EQ(api().search_entry(acl, 7)->seq, 7u);
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
  void (*ace)(es_acl_ace&);
  void (*key)(es_acl_match_key&);
  bool matches;
};

// The key is double tagged, outer VLAN 100, inner 200, CoS 3 and 5, DEI 1 and 0, IPv4, from 00:11:22:33:44:55
// to 66:77:88:99:aa:bb; each case changes what it says.
const Matching kMatchings[] = {
    {"no field compared", [](es_acl_ace&) {}, nullptr, true},
    {"a remark never", [](es_acl_ace& a) { a.kind = ES_ACL_KIND_REMARK; }, nullptr, false},
    {"fields that are not compared",
     [](es_acl_ace& a) {
       a.src_addr[0] = 9, a.dst_addr[1] = 9, a.vlan_first = 9, a.eth_type = 9, a.icos = 9;
     },
     nullptr, true},
    {"source", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_SRC_ADDR); }, nullptr, false},
    {"source, equal",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_SRC_ADDR);
       a.src_addr[0] = 0x0011, a.src_addr[1] = 0x2233, a.src_addr[2] = 0x4455;
     },
     nullptr, true},
    {"source, the last bit differs",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_SRC_ADDR);
       a.src_addr[0] = 0x0011, a.src_addr[1] = 0x2233, a.src_addr[2] = 0x4454;
     },
     nullptr, false},
    {"source, the last bit is wild",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_SRC_ADDR);
       a.src_addr[0] = 0x0011, a.src_addr[1] = 0x2233, a.src_addr[2] = 0x4454, a.src_wild[2] = 1;
     },
     nullptr, true},
    {"destination, the vendor's part",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_DST_ADDR);
       a.dst_addr[0] = 0x6677, a.dst_addr[1] = 0x8800, a.dst_wild[1] = 0x00ff, a.dst_wild[2] = 0xffff;
     },
     nullptr, true},
    {"destination, another vendor",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_DST_ADDR);
       a.dst_addr[0] = 0x6677, a.dst_addr[1] = 0x8900, a.dst_wild[1] = 0x00ff, a.dst_wild[2] = 0xffff;
     },
     nullptr, false},
    {"outer range, its first",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_VLAN), a.vlan_first = 100, a.vlan_last = 200;
     },
     nullptr, true},
    {"outer range, its last",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_VLAN), a.vlan_first = 1, a.vlan_last = 100;
     },
     nullptr, true},
    {"outer range, above",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_VLAN), a.vlan_first = 1, a.vlan_last = 99;
     },
     nullptr, false},
    {"outer range, below",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_VLAN), a.vlan_first = 101, a.vlan_last = 200;
     },
     nullptr, false},
    {"outer range, no tag",
     [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_VLAN), a.vlan_last = 4095; },
     [](es_acl_match_key& k) { k.tags = ES_ACL_KEY_UNTAGGED; }, false},
    {"inner range",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_IVLAN), a.ivlan_first = a.ivlan_last = 200;
     },
     nullptr, true},
    {"inner range, one tag",
     [](es_acl_ace& a) {
       es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_IVLAN), a.ivlan_first = a.ivlan_last = 200;
     },
     [](es_acl_match_key& k) { k.tags = ES_ACL_KEY_TAGGED; }, false},
    {"EtherType",
     [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_ETH_TYPE), a.eth_type = 0x0800; },
     nullptr, true},
    {"another EtherType",
     [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_ETH_TYPE), a.eth_type = 0x86dd; },
     nullptr, false},
    {"CoS", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_COS), a.cos = 3; }, nullptr, true},
    {"another CoS", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_COS), a.cos = 5; },
     nullptr, false},
    {"DEI 0 of no tag", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_DEI); },
     [](es_acl_match_key& k) { k.tags = ES_ACL_KEY_UNTAGGED, k.dei = 0; }, false},
    {"DEI", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_DEI), a.dei = 1; }, nullptr, true},
    {"inner CoS", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_ICOS), a.icos = 5; },
     nullptr, true},
    {"inner CoS is not the outer",
     [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_ICOS), a.icos = 3; }, nullptr, false},
    {"inner DEI", [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_IDEI); }, nullptr, true},
    {"inner DEI is not the outer",
     [](es_acl_ace& a) { es_acl_ace_set_match_mask(&a, ES_ACL_MATCH_IDEI), a.idei = 1; }, nullptr, false},
};

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
    c.ace(*ace);
    es_acl_match_key key = frame();
    if (c.key != nullptr) c.key(key);
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
