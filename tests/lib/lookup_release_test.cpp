// Lookups, snapshot, traversal, and giving handles back.
#include <cstdarg>
#include <cstring>

#include "library_fixture.h"

using namespace es_test;

namespace {

class LookupTest : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }

  void release(std::vector<es_acl_head*> heads) {
    const es_acl_handle_list list = {static_cast<uint32_t>(heads.size()),
                                     reinterpret_cast<void**>(heads.data())};
    const std::vector<es_acl_head*> before = heads;
    es_acl_release(&list);
    EXPECT_EQ(heads, before) << "the entries are the caller's";
  }
};

TEST_F(LookupTest, ByName) {
  es_acl_head* const acl = make_acl("edge");
  EXPECT_EQ(es_acl_lookup("edge"), acl);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_lookup: name = edge", "main[22]",
                          "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")"}));
  clear_log();
  EXPECT_EQ(es_acl_lookup_internal("core"), nullptr);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_lookup_internal: name = core", "store.acl_lookup(\"core\")"}));
  clear_log();
  EXPECT_EQ(es_acl_lookup(nullptr), nullptr);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_lookup: name = (null)", "main[22]",
                          "I: Entering es_acl_lookup_internal: name = (null)", "store.acl_lookup(null)"}));
  EXPECT_EQ(acl->refcount, 1);
}

TEST_F(LookupTest, NewHead) {
  es_acl_head* const head = es_acl_get_header("edge");
  EXPECT_EQ(head, held("edge"));
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_get_header: name = edge", "store.get_header(\"edge\")"}));
  clear_log();
  EXPECT_EQ(es_acl_get_header(nullptr), nullptr);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_get_header: name = (null)",
                          "E: es_acl_get_header: Invalid argument", "trace w"}));
}

TEST_F(LookupTest, SnapshotSharesNothing) {
  es_acl_head* const acl = make_acl("edge", {10, 20});
  // Everything set, so that every word of the copy tells whether it was copied or cleared.
  char word[8];
  acl->store_word[0] = word;
  acl->store_word[1] = word + 1;
  acl->store_aux[0] = word + 2;
  acl->ace_list_aux = reinterpret_cast<es_acl_ace_node*>(word + 3);
  acl->cb_registry_a = word + 4;
  acl->cb_registry_b = word + 5;
  acl->cb_timer_leaf = word + 6;
  acl->store_tail[3] = word + 7;
  es_acl_head expected;
  memcpy(&expected, acl, sizeof expected);
  expected.store_word[1] = expected.cb_registry_a = expected.cb_registry_b = expected.cb_timer_leaf = nullptr;
  expected.ace_first = expected.ace_list_aux = nullptr;

  es_acl_head copy;
  memset(&copy, 0xee, sizeof copy);
  EXPECT_EQ(es_acl_lookup_read("edge", &copy), 0U);
  EXPECT_EQ(memcmp(&copy, &expected, sizeof copy), 0);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_lookup_read: ACL edge", "store.acl_lookup(\"edge\")"}));
  EXPECT_EQ(acl->cb_registry_a, word + 4) << "the live head keeps its own";
}

TEST_F(LookupTest, SnapshotRefusals) {
  make_acl("edge");
  es_acl_head copy;
  EXPECT_EQ(es_acl_lookup_read("core", &copy), 2U);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_lookup_read: ACL core", "store.acl_lookup(\"core\")"}));
  EXPECT_NE(es_acl_lookup_read(nullptr, &copy), 0U);
  EXPECT_NE(es_acl_lookup_read("edge", nullptr), 0U);
}

struct Visited {
  uint32_t seq, number;
  std::string text;
  bool operator==(const Visited&) const = default;
};
std::vector<Visited> visited;

// Reads its further arguments to the end each time: a shared list would run dry at the second entry.
uint32_t visit(es_acl_head*, const es_acl_ace* ace, va_list* arguments) {
  const uint32_t number = va_arg(*arguments, uint32_t);
  visited.push_back({ace->seq, number, va_arg(*arguments, const char*)});
  return visited.size() == 3 ? 1 : 0;
}

TEST_F(LookupTest, TraversalHandsOnItsArguments) {
  make_acl("edge", {10, 20, 30, 40});
  EXPECT_EQ(es_acl_traverse_list("edge", 0, visit, 42U, "text"), 0U);
  EXPECT_EQ(visited, (std::vector<Visited>{{10, 42, "text"}, {20, 42, "text"}, {30, 42, "text"}}));
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_traverse_list: ACL edge",
                          "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")",
                          "trylock(lock:edge)", "store.traverse_list(head:edge)", "unlock(lock:edge)"}));
}

TEST_F(LookupTest, TraversalRefusals) {
  make_acl("edge", {10});
  const Lines refused = {"I: Entering es_acl_traverse_list: ACL edge",
                         "E: es_acl_traverse_list: Invalid args."};
  EXPECT_EQ(es_acl_traverse_list("edge", 1, visit, 42U, "text"), 0x46b18400U);
  EXPECT_EQ(log(kAll & ~kTrace), refused);
  clear_log();
  EXPECT_EQ(es_acl_traverse_list("edge", 0, nullptr), 0x46b18400U);
  EXPECT_EQ(log(kAll & ~kTrace), refused);
  EXPECT_EQ(es_acl_traverse_list(nullptr, 0, visit, 42U, "text"), 0x46b18400U);
  EXPECT_EQ(es_acl_traverse_list("core", 0, visit, 42U, "text"), 0x46b19a00U);
  EXPECT_TRUE(visited.empty());
}

TEST_F(LookupTest, FreelistAndRootPassThrough) {
  es_acl_head* const acl = make_acl("edge", {10});
  uint32_t out = 9;
  name_pointer(&out, "out");
  es_acl_freelist(nullptr, &out);
  EXPECT_EQ(out, 9U);
  es_acl_freelist(acl, &out);
  EXPECT_EQ(log(kLine | kStore), (Lines{"I: Entering : es_acl_freelist", "I: Entering : es_acl_freelist",
                                        "store.freelist(head:edge, out)"}));
  char words[6];
  for (char& word : words) name_pointer(&word, "w" + std::to_string(&word - words));
  store().get_db_pointer.next(words);
  clear_log();
  EXPECT_EQ(es_acl_get_db_pointer(words, words + 1, words + 2, words + 3, words + 4, words + 5), words);
  EXPECT_EQ(log(kStore), (Lines{"store.get_db_pointer(w0, w1, w2, w3, w4, w5)"}));
}

// --- Release ---

const Lines kReleaseStart = {"I: Entering : es_acl_release", "main[15]"};

Lines after_start(const Lines& rest) {
  Lines lines = kReleaseStart;
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

TEST_F(LookupTest, ReleaseRefusals) {
  es_acl_release(nullptr);
  EXPECT_EQ(log(), (after_start({"E: es_acl_release: Invalid acl batch handles", "trace w"})));
  clear_log();
  const es_acl_handle_list empty = {1, nullptr};
  es_acl_release(&empty);
  EXPECT_EQ(log(), (after_start({"E: es_acl_release: No es_acl_handle to process", "trace w"})));
  clear_log();
  release({nullptr, nullptr});
  EXPECT_EQ(log(), (after_start({"trace w"})));
}

TEST_F(LookupTest, LastReleaseTearsDown) {
  es_acl_head* const acl = make_acl("edge", {10});
  int leaf, a, b;
  name_pointer(&leaf, "leaf");
  name_pointer(&a, "registry a");
  name_pointer(&b, "registry b");
  acl->cb_timer_leaf = &leaf;
  acl->cb_registry_a = &a;
  acl->cb_registry_b = &b;
  acl->refcount = 2;
  store().acl_release.next([acl](const char*) {
    EXPECT_EQ(acl->cb_registry_a, nullptr);
    EXPECT_EQ(acl->cb_registry_b, nullptr);
  });
  release({acl});
  EXPECT_EQ(log(), (after_start({"trace w", "D: es_acl_release: Releasing ACL edge"})));
  EXPECT_EQ(acl->refcount, 1);
  clear_log();
  release({nullptr, acl});
  EXPECT_EQ(log(), (after_start({"trace w", "D: es_acl_release: Releasing ACL edge",
                                 "D: es_acl_release: Removing ACL ..refcount 0: edge", "pcx_unregister(reg)",
                                 "I: Entering : es_acl_db_owner_release",
                                 "D: es_acl_db_owner_release: Freeing timer for acl edge",
                                 "mtimer_leaf_free(leaf)", "list_registry_destroy(registry a)",
                                 "list_registry_destroy(registry b)", "store.acl_release(\"edge\")"})));
}

TEST_F(LookupTest, TwiceInOneListCountsTwice) {
  es_acl_head* const acl = make_acl("edge", {10});
  acl->refcount = 2;
  release({acl, nullptr, acl});
  EXPECT_EQ(held("edge"), nullptr);
  EXPECT_EQ(log(kCall), (Lines{"pcx_unregister(reg)", "pool_give(pool)"}));
}

TEST_F(LookupTest, FailedUnregistrationDoesNotStopTheTeardown) {
  release({make_acl("edge")});
  clear_log();
  platform().pcx_unregister.next(22);
  release({make_acl("edge")});
  EXPECT_EQ(log(), (after_start({"trace w", "D: es_acl_release: Releasing ACL edge",
                                 "D: es_acl_release: Removing ACL ..refcount 0: edge", "pcx_unregister(reg)",
                                 "E: es_acl_release: pcx_unregister failed <0x16>", "trace w", "error[12]",
                                 "I: Entering : es_acl_db_owner_release", "store.acl_release(\"edge\")"})));
  EXPECT_EQ(held("edge"), nullptr);
}

TEST_F(LookupTest, OwnerReleaseIgnoresCountAndBus) {
  es_acl_head* const acl = make_acl("edge");
  acl->refcount = 5;
  es_acl_db_owner_release(acl);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_db_owner_release", "store.acl_release(\"edge\")"}));
  clear_log();
  es_acl_db_owner_release(nullptr);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_db_owner_release", "trace w",
                          "E: es_acl_db_owner_release: Invalid arguments. handle = NULL"}));
}

// --- Walking ---

TEST_F(LookupTest, Walk) {
  es_acl_head* const acl = make_acl("edge", {10, 20, 30});
  std::vector<uint32_t> seen;
  es_acl_ace_node* node = es_get_first_ace(acl);
  for (; es_get_ace_data(acl, node) != nullptr; node = es_get_next_ace(acl, node))
    seen.push_back(es_get_ace_data(acl, node)->seq);
  EXPECT_EQ(seen, (std::vector<uint32_t>{10, 20, 30}));
  EXPECT_EQ(node, reinterpret_cast<es_acl_ace_node*>(&acl->ace_first)) << "the walk ends on the sentinel";
  EXPECT_EQ(es_get_next_ace(acl, node), nullptr);
  EXPECT_STREQ(es_acl_get_acl_name(acl), "edge");
  EXPECT_EQ(log(), (Lines{})) << "a walk neither prints nor locks nor calls the store";
}

TEST_F(LookupTest, WalkOfNothing) {
  es_acl_head* const acl = make_acl("edge", {10});
  es_acl_ace_node* const node = es_get_first_ace(acl);
  EXPECT_EQ(es_get_first_ace(make_acl("empty")), nullptr);
  EXPECT_EQ(es_get_next_ace(nullptr, node), nullptr);
  EXPECT_EQ(es_get_next_ace(acl, nullptr), nullptr);
  EXPECT_EQ(es_get_ace_data(nullptr, node), nullptr);
  EXPECT_EQ(es_get_ace_data(acl, nullptr), nullptr);
  EXPECT_EQ(es_acl_get_acl_name(nullptr), nullptr);
  es_acl_ace_node bare = {nullptr, nullptr, nullptr};
  EXPECT_EQ(es_get_ace_data(acl, &bare), nullptr);
  EXPECT_EQ(log(), (Lines{}));
  EXPECT_EQ(es_get_first_ace(nullptr), nullptr);
  ASSERT_EQ(log(), Lines{"trace w"});
  EXPECT_EQ(events()[0].operation, "es_get_first_ace");
}

}  // namespace
