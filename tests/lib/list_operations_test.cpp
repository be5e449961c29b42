// The operations on one ACL's list: print, check, lock, one store call, unlock, count - in that order.
#include <cstring>
#include <future>
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

uint8_t key;
es_acl_ace ace;
uint32_t skip_list[2] = {20, 30};
es_acl_iter position = nullptr;

struct Operation {
  const char* name;
  std::function<uint64_t(es_acl_head*)> call;  // the result as a number
  std::function<void()> answer;                // lets the store return 77, where it returns a number
  Lines before_lock;                           // with a head; none for the usual one
  std::string store_call;
  Lines after_unlock;
  Lines refused;  // the whole log for a null head
};
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

std::string entering(const std::string& operation) { return "I: Entering : es_acl_" + operation; }
std::string error(const std::string& operation, const std::string& text) {
  return "E: es_acl_" + operation + ": " + text;
}

uint64_t number(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

// A refusal with its trace record before and behind the text.
Lines traced_refusal(const std::string& operation, const std::string& text) {
  return {entering(operation), "trace w", error(operation, text)};
}
Lines refusal_traced(const std::string& operation, const std::string& text) {
  return {entering(operation), error(operation, text), "trace w"};
}

const Lines kUsual, kNothing;
const Operation kOperations[] = {
    {"search_item", [](es_acl_head* acl) { return number(es_acl_search_item(acl, 7)); }, nullptr, kUsual,
     "store.search_entry(head:edge, 7)", kNothing, traced_refusal("search_item", "Invalid arguments.")},
    {"search_item_fiter",
     [](es_acl_head* acl) { return number(es_acl_search_item_fiter(acl, 7, &position)); }, nullptr, kUsual,
     "store.search_entry_iter(head:edge, 7, 1, position)", kNothing,
     traced_refusal("search_item_fiter", "Invalid arguments.")},
    {"search_item_biter",
     [](es_acl_head* acl) { return number(es_acl_search_item_biter(acl, 7, &position)); }, nullptr, kUsual,
     "store.search_entry_iter(head:edge, 7, 0, position)", kNothing,
     traced_refusal("search_item_biter", "Invalid arguments.")},
    {"add_acl_item_common",
     [](es_acl_head* acl) { return es_acl_add_acl_item_common(acl, &ace, 7, 1, &position); },
     [] { store().add_acl_item_iter.next(77); }, kUsual,
     "store.add_acl_item_iter(head:edge, ace, 7, 1, position)", kNothing,
     refusal_traced("add_acl_item_common", "ACL or ace is NULL")},
    {"add_acl_item", [](es_acl_head* acl) { return es_acl_add_acl_item(acl, &ace, 7, 0); },
     [] { store().add_acl_item_iter.next(77); },
     lines("main[40]", entering("add_acl_item"), entering("add_acl_item_common")),
     "store.add_acl_item_iter(head:edge, ace, 7, 0, null)", kNothing,
     lines("main[40]", entering("add_acl_item"), entering("add_acl_item_common"),
           error("add_acl_item_common", "ACL or ace is NULL"), "trace w")},
    {"delete_item_common",
     [](es_acl_head* acl) { return es_acl_delete_item_common(acl, 7, 0, &position), 0; }, nullptr, kUsual,
     "store.delete_entry_iter(head:edge, 7, 0, position)", kNothing,
     traced_refusal("delete_item_common", "Invalid arguments. ")},
    {"delete_item", [](es_acl_head* acl) { return es_acl_delete_item(acl, 7), 0; }, nullptr, kUsual,
     "store.delete_entry_iter(head:edge, 7, 1, null)", Lines{"main[41]"},
     refusal_traced("delete_item", "es_acl_handle = NULL || sequence is 0")},
    {"match_complex", [](es_acl_head* acl) { return es_acl_match_complex(acl, &key, 5, 6); },
     [] { store().match_complex.next(77); }, kUsual, "store.match_complex(head:edge, key, 5, 6)",
     Lines{"main[119]"}, traced_refusal("match_complex", "Invalid arguments. handle = NULL")},
    {"match_complex_2", [](es_acl_head* acl) { return es_acl_match_complex_2(acl, &key, 5, 6); },
     [] { store().match_complex_2.next(77); }, kUsual, "store.match_complex_2(head:edge, key, 5, 6)",
     kNothing,
     lines(entering("match_complex_2"), error("match_complex_2", "Invalid arguments. handle = NULL"))},
    {"resequence", [](es_acl_head* acl) { return es_acl_resequence(acl, 100, 10, 2, skip_list); },
     [] { store().resequence.next(77); },
     lines(entering("resequence. name:edge, start_seq: 100,step:10, num_skip_seqs:2")),
     "store.resequence(head:edge, 100, 10, 2, skips)", kNothing,
     Lines{error("resequence", "Invalid arguments")}},
};

class ListOperation : public LibraryTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    initialise();
    name_pointer(&key, "key");
    name_pointer(&ace, "ace");
    name_pointer(&position, "position");
    name_pointer(skip_list, "skips");
    acl_ = make_acl("edge");
  }

  // The operation on the ACL makes these lock steps around its store call and returns the store's answer.
  void expect_operation(const Lines& lock_steps) {
    const Operation& operation = GetParam();
    if (operation.answer) operation.answer();
    EXPECT_EQ(operation.call(acl_), operation.answer ? 77U : 0U);
    EXPECT_EQ(take_log(),
              lines(operation.before_lock.empty() ? Lines{entering(operation.name)} : operation.before_lock,
                    lock_steps, operation.store_call, "unlock(lock:edge)", operation.after_unlock));
  }

  es_acl_head* acl_ = nullptr;
};

TEST_P(ListOperation, OneStoreCallUnderTheLock) {
  expect_operation({"trylock(lock:edge)"});
  const std::string name = GetParam().name;
  const bool status = name.starts_with("add") || name == "resequence";
  EXPECT_EQ(GetParam().call(nullptr), status ? 22U : 0U);
  EXPECT_EQ(log(), GetParam().refused);
}

TEST_P(ListOperation, WaitsForTheLockAndSaysSo) {
  std::promise<void> held, waiting;
  std::thread holder([&] {
    const Backstage unrecorded;
    pthread_mutex_lock(&acl_->lock);
    held.set_value();
    waiting.get_future().wait();
    pthread_mutex_unlock(&acl_->lock);
  });
  held.get_future().wait();
  platform().thread_mark_mutex_block.next([&](const void*, const char*, uint32_t) { waiting.set_value(); });
  expect_operation({"trylock(lock:edge)", "thread_mark_mutex_block(lock:edge, \"es_acl_lock\", 254)",
                    "lock(lock:edge)", "thread_unmark_mutex_block()"});
  holder.join();
}

INSTANTIATE_CASES(ListOperation, kOperations);

// --- What only some of them do ---

using ListOperations = ListOperation;

TEST_F(ListOperations, OtherBadArguments) {
  es_acl_delete_item(acl_, 0);
  es_acl_delete_item_common(acl_, 7, 1, nullptr);
  EXPECT_EQ(es_acl_add_acl_item(acl_, nullptr, 7, 0), 22U);
  EXPECT_EQ(es_acl_match_complex(acl_, nullptr, 0, 0), 0U);
  EXPECT_EQ(es_acl_match_complex_2(acl_, nullptr, 0, 0), 0U);
  EXPECT_EQ(log(kStore | kLock), Lines{});
  EXPECT_EQ(log(kCount), Lines{"main[40]"});
}

TEST_F(ListOperations, MatchResultsAreCountedWhereTheBlockHasACounter) {
  for (const uint32_t result : {0U, 1U, 85U, 86U, 100000U, 0x80000000U, 0xffffffffU}) {
    store().match_complex.next(result);
    EXPECT_EQ(es_acl_match_complex(acl_, &key, 0, 0), result);
  }
  EXPECT_EQ(log(kCount), (Lines{"main[42]", "main[43]", "main[127]"}));
}

TEST_F(ListOperations, CompareLooksAtAll80Bytes) {
  const std::string start = entering("compare_ace");
  const std::string invalid = error("compare_ace", "Invalid arguments. ACE or rules doesn't exist");
  es_acl_ace one;
  memset(&one, 0x5a, sizeof one);
  es_acl_ace other = one;
  EXPECT_EQ(es_acl_compare_ace(&one, &other), 1U);
  EXPECT_EQ(es_acl_compare_ace(&one, nullptr), 0U);
  EXPECT_EQ(es_acl_compare_ace(nullptr, &one), 0U);
  EXPECT_EQ(take_log(), (Lines{start, start, invalid, start, invalid}));
  for (size_t i = 0; i < 80; ++i) {
    other = one;
    reinterpret_cast<uint8_t*>(&other)[i] ^= 0x80;
    EXPECT_EQ(es_acl_compare_ace(&one, &other), 0U) << "byte " << i;
    EXPECT_EQ(take_log(), (Lines{start, "I: es_acl_compare_ace: rule structure doesn't match."}));
  }
}

TEST_F(ListOperations, ModifyMode) {
  EXPECT_EQ(es_acl_get_modify_mode(), 0U);
  const std::pair<uint32_t, std::string> modes[] = {{1, "Add only"}, {7, "Add only"}, {0, "Delete and Add"}};
  for (const auto& [mode, shown] : modes) {
    clear_log();
    es_acl_set_modify_mode(mode);
    EXPECT_EQ(es_acl_get_modify_mode(), mode);
    EXPECT_EQ(log(), (Lines{"D: es_acl_set_modify_mode: modify_mode = " + shown,
                            "I: es_acl_get_modify_mode: modify_mode = " + shown}));
  }
}

// A broken lock ends the process.
TEST_F(ListOperations, BrokenLock) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer ends the process first";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  pthread_mutexattr_t checked;
  pthread_mutexattr_init(&checked);
  pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&acl_->lock, &checked);
  const std::string source = "apps/acl/es/lib/src/es_db_private";
  EXPECT_DEATH(
      {
        store().search_entry.next([](es_acl_head* acl, uint32_t) {
          pthread_mutex_unlock(&acl->lock);
          return nullptr;
        });
        es_acl_search_item(acl_, 7);
      },
      source + ":268: es_acl_unlock: assertion `_err == 0' failed");
  EXPECT_DEATH(
      {
        pthread_mutex_lock(&acl_->lock);
        es_acl_search_item(acl_, 7);
      },
      source + ":258: es_acl_lock: assertion `_err == 0' failed");
}

}  // namespace
