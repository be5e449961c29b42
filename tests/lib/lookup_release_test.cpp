// Lookups, snapshot, traversal, walking, and giving handles back.
#include <cstring>

#include "library_fixture.h"

using namespace es_test;

namespace {

class LookupTest : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
};

TEST_F(LookupTest, ByName) {
  const auto shown = [](const std::string& text, const std::string& name) {
    return "I: Entering es_acl_" + text + ": name = " + name;
  };
  es_acl_head* const acl = make_acl("edge");
  EXPECT_EQ(es_acl_lookup("edge"), acl);
  EXPECT_EQ(take_log(), (Lines{shown("lookup", "edge"), "main[22]", shown("lookup_internal", "edge"),
                               "store.acl_lookup(\"edge\")"}));
  EXPECT_EQ(es_acl_lookup(nullptr), nullptr);
  EXPECT_EQ(take_log(), (Lines{shown("lookup", "(null)"), "main[22]", shown("lookup_internal", "(null)"),
                               "store.acl_lookup(null)"}));
  EXPECT_EQ(acl->refcount, 1);

  es_acl_head* const core = es_acl_get_header("core");
  EXPECT_EQ(core, held("core"));
  EXPECT_EQ(take_log(), (Lines{shown("get_header", "core"), "store.get_header(\"core\")"}));
  EXPECT_EQ(es_acl_get_header(nullptr), nullptr);
  EXPECT_EQ(log(),
            (Lines{shown("get_header", "(null)"), "E: es_acl_get_header: Invalid argument", "trace w"}));
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
  es_acl_head expected, copy;
  memcpy(&expected, acl, sizeof expected);
  expected.store_word[1] = expected.cb_registry_a = expected.cb_registry_b = expected.cb_timer_leaf = nullptr;
  expected.ace_first = expected.ace_list_aux = nullptr;
  memset(&copy, 0xee, sizeof copy);
  EXPECT_EQ(es_acl_lookup_read("edge", &copy), 0U);
  EXPECT_EQ(memcmp(&copy, &expected, sizeof copy), 0);
  EXPECT_EQ(acl->cb_registry_a, word + 4) << "the live head keeps its own";
  EXPECT_EQ(take_log(), (Lines{"I: Entering es_acl_lookup_read: ACL edge", "store.acl_lookup(\"edge\")"}));

  EXPECT_EQ(es_acl_lookup_read("core", &copy), 2U);
  EXPECT_NE(es_acl_lookup_read(nullptr, &copy), 0U);
  EXPECT_NE(es_acl_lookup_read("edge", nullptr), 0U);
}

Lines visited;

// Reads its further arguments to the end each time: a shared list would run dry at the second entry.
uint32_t visit(es_acl_head*, const es_acl_ace* ace, va_list* arguments) {
  const uint32_t number = va_arg(*arguments, uint32_t);
  visited.push_back(describe("visit", ace->seq, number, va_arg(*arguments, const char*)));
  return visited.size() == 3 ? 1 : 0;
}

TEST_F(LookupTest, TraversalHandsOnItsArguments) {
  make_acl("edge", {10, 20, 30, 40});
  const std::string entering = "I: Entering es_acl_traverse_list: ACL edge";
  EXPECT_EQ(es_acl_traverse_list("edge", 1, visit, 42U, "text"), 0x46b18400U);
  EXPECT_EQ(take_log(), (Lines{entering, "E: es_acl_traverse_list: Invalid args."}));
  EXPECT_EQ(es_acl_traverse_list("edge", 0, nullptr), 0x46b18400U);
  EXPECT_EQ(es_acl_traverse_list(nullptr, 0, visit, 42U, "text"), 0x46b18400U);
  EXPECT_EQ(es_acl_traverse_list("core", 0, visit, 42U, "text"), 0x46b19a00U);
  EXPECT_EQ(visited, Lines{});
  clear_log();
  EXPECT_EQ(es_acl_traverse_list("edge", 0, visit, 42U, "text"), 0U);
  EXPECT_EQ(visited,
            (Lines{"visit(10, 42, \"text\")", "visit(20, 42, \"text\")", "visit(30, 42, \"text\")"}));
  EXPECT_EQ(log(),
            (Lines{entering, "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")",
                   "trylock(lock:edge)", "store.traverse_list(head:edge, ptr, ptr)", "unlock(lock:edge)"}));
}

TEST_F(LookupTest, FreelistAndRootPassThrough) {
  uint32_t out = 9;
  name_pointer(&out, "out");
  es_acl_freelist(nullptr, &out);
  EXPECT_EQ(out, 9U);
  es_acl_freelist(make_acl("edge"), &out);
  EXPECT_EQ(take_log(), (Lines{"I: Entering : es_acl_freelist", "store.freelist(head:edge, out)"}));
  char words[6];
  for (char& word : words) name_pointer(&word, "w" + std::to_string(&word - words));
  store().get_db_pointer.next(words);
  EXPECT_EQ(es_acl_get_db_pointer(words, words + 1, words + 2, words + 3, words + 4, words + 5), words);
  EXPECT_EQ(log(), Lines{"store.get_db_pointer(w0, w1, w2, w3, w4, w5)"});
}

// --- Release ---

const Lines kStart = {"I: Entering : es_acl_release", "main[15]"};
const Lines kReleasing = lines(kStart, "trace w", "D: es_acl_release: Releasing ACL edge");
const Lines kRemoving =
    lines(kReleasing, "D: es_acl_release: Removing ACL ..refcount 0: edge", "pcx_unregister(reg)");
const std::string kOwner = "I: Entering : es_acl_db_owner_release";
const std::string kReleased = "store.acl_release(\"edge\")";

TEST_F(LookupTest, ReleaseRefusals) {
  const es_acl_handle_list empty = {1, nullptr};
  es_acl_release(nullptr);
  EXPECT_EQ(take_log(), lines(kStart, "E: es_acl_release: Invalid acl batch handles", "trace w"));
  es_acl_release(&empty);
  EXPECT_EQ(take_log(), lines(kStart, "E: es_acl_release: No es_acl_handle to process", "trace w"));
  es_acl_db_owner_release(nullptr);
  EXPECT_EQ(log(), lines(kOwner, "trace w", "E: es_acl_db_owner_release: Invalid arguments. handle = NULL"));
}

TEST_F(LookupTest, LastReleaseTearsDown) {
  es_acl_head* const acl = make_acl("edge", {10});
  acl->refcount = 4;
  int leaf, a, b;
  name_pointer(acl->cb_timer_leaf = &leaf, "leaf");
  name_pointer(acl->cb_registry_a = &a, "registry a");
  name_pointer(acl->cb_registry_b = &b, "registry b");
  store().acl_release.next([acl](const char*) {
    EXPECT_EQ(acl->cb_registry_a, nullptr);
    EXPECT_EQ(acl->cb_registry_b, nullptr);
  });
  release({acl});
  EXPECT_EQ(take_log(), kReleasing);
  release({acl, nullptr, acl});
  EXPECT_EQ(acl->refcount, 1) << "twice in one list counts twice";
  clear_log();
  release({nullptr, acl});
  EXPECT_EQ(log(), lines(kRemoving, kOwner, "D: es_acl_db_owner_release: Freeing timer for acl edge",
                         "mtimer_leaf_free(leaf)", "list_registry_destroy(registry a)",
                         "list_registry_destroy(registry b)", kReleased));
}

TEST_F(LookupTest, FailedUnregistrationDoesNotStopTheTeardown) {
  platform().pcx_unregister.next(22);
  release({make_acl("edge")});
  EXPECT_EQ(take_log(), lines(kRemoving, "E: es_acl_release: pcx_unregister failed <0x16>", "trace w",
                              "error[12]", kOwner, kReleased));
  EXPECT_EQ(held("edge"), nullptr);
  es_acl_head* const again = make_acl("edge");
  again->refcount = 5;
  es_acl_db_owner_release(again);
  EXPECT_EQ(log(), lines(kOwner, kReleased)) << "the owner's release ignores count and bus";
}

// --- Walking ---

TEST_F(LookupTest, Walk) {
  es_acl_head* const acl = make_acl("edge", {10, 20, 30});
  EXPECT_EQ(walk(acl), (Numbers{10, 20, 30}));
  es_acl_ace_node* const node = es_get_first_ace(acl);
  auto* const sentinel = reinterpret_cast<es_acl_ace_node*>(&acl->ace_first);
  es_acl_ace_node bare = {nullptr, 0, nullptr};
  EXPECT_EQ(es_get_next_ace(acl, es_get_next_ace(acl, es_get_next_ace(acl, node))), sentinel);
  EXPECT_EQ(es_get_next_ace(acl, sentinel), nullptr);
  EXPECT_EQ(es_get_next_ace(acl, nullptr), nullptr);
  EXPECT_EQ(es_get_next_ace(nullptr, node), nullptr);
  EXPECT_EQ(es_get_ace_data(acl, &bare), nullptr);
  EXPECT_EQ(es_get_ace_data(acl, nullptr), nullptr);
  EXPECT_EQ(es_get_ace_data(nullptr, node), nullptr);
  EXPECT_STREQ(es_acl_get_acl_name(acl), "edge");
  EXPECT_EQ(es_acl_get_acl_name(nullptr), nullptr);
  EXPECT_EQ(log(), Lines{}) << "a walk neither prints nor locks nor calls the store";
  EXPECT_EQ(es_get_first_ace(make_acl("empty")), nullptr);
  EXPECT_EQ(es_get_first_ace(nullptr), nullptr);
  EXPECT_EQ(log(), Lines{"trace w"});
}

// The store takes note by making the number even.
TEST_F(LookupTest, EachStepOfAWalkIsALook) {
  es_acl_head* const acl = make_acl("edge", {10, 20, 30});
  EXPECT_EQ(es_acl_search_item(acl, 10)->seq, 10U);
  EXPECT_EQ(acl->looks, 0U);
  es_acl_ace_node* node = es_get_first_ace(acl);
  EXPECT_EQ(acl->looks, 1U);
  node = es_get_next_ace(acl, node);
  EXPECT_EQ(acl->looks, 1U);
  acl->looks = 2;
  EXPECT_EQ(es_get_ace_data(acl, node)->seq, 20U);
  EXPECT_EQ(acl->looks, 2U);
  es_get_next_ace(acl, node);
  EXPECT_EQ(acl->looks, 3U);
}

}  // namespace
