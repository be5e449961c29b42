// The operations on one ACL's list: print, check, lock, one store call, unlock, count - in that order.
#include <pthread.h>

#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

uint8_t key;
uint32_t skip_list[2] = {20, 30};
es_acl_iter position = nullptr;

struct Operation {
  const char* name;
  std::function<uint64_t(es_acl_head*)> call;  // the result as a number
  Lines before_lock, store, after_unlock;      // with a head
  std::function<void()> refuse;                // makes the store return 77, where it returns a number
  Lines refused_null_head;                     // the whole log for a null head, and the result
  uint64_t null_result;
};

// A refused record stays the caller's.
es_acl_ace* offered = nullptr;
uint32_t give_back_refused(uint32_t status) {
  const Backstage backstage;
  if (status != 0) es_acl_free_rules(offered);
  return status;
}

uint64_t number(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

const Operation kOperations[] = {
    {"search_item",
     [](es_acl_head* acl) { return number(es_acl_search_item(acl, 7)); },
     {"I: Entering : es_acl_search_item"},
     {"store.search_entry(head:edge, 7)"},
     {},
     nullptr,
     {"I: Entering : es_acl_search_item", "trace w", "E: es_acl_search_item: Invalid arguments."},
     0},
    {"search_item_fiter",
     [](es_acl_head* acl) { return number(es_acl_search_item_fiter(acl, 7, &position)); },
     {"I: Entering : es_acl_search_item_fiter"},
     {"store.search_entry_iter(head:edge, 7, 1, position)"},
     {},
     nullptr,
     {"I: Entering : es_acl_search_item_fiter", "trace w", "E: es_acl_search_item_fiter: Invalid arguments."},
     0},
    {"search_item_biter",
     [](es_acl_head* acl) { return number(es_acl_search_item_biter(acl, 7, &position)); },
     {"I: Entering : es_acl_search_item_biter"},
     {"store.search_entry_iter(head:edge, 7, 0, position)"},
     {},
     nullptr,
     {"I: Entering : es_acl_search_item_biter", "trace w", "E: es_acl_search_item_biter: Invalid arguments."},
     0},
    {"add_acl_item_common",
     [](es_acl_head* acl) {
       return give_back_refused(es_acl_add_acl_item_common(acl, offered = make_ace(7), 7, 1, &position));
     },
     {"pool_take(pool)", "I: Entering : es_acl_add_acl_item_common"},
     {"store.add_acl_item_iter(head:edge, 7, 1, position)"},
     {},
     [] { store().add_acl_item_iter.next(77); },
     {"pool_take(pool)", "I: Entering : es_acl_add_acl_item_common",
      "E: es_acl_add_acl_item_common: ACL or ace is NULL", "trace w", "pool_give(pool)"},
     22},
    {"add_acl_item",
     [](es_acl_head* acl) {
       return give_back_refused(es_acl_add_acl_item(acl, offered = make_ace(7), 7, 0));
     },
     {"pool_take(pool)", "main[40]", "I: Entering : es_acl_add_acl_item",
      "I: Entering : es_acl_add_acl_item_common"},
     {"store.add_acl_item_iter(head:edge, 7, 0, null)"},
     {},
     [] { store().add_acl_item_iter.next(77); },
     {"pool_take(pool)", "main[40]", "I: Entering : es_acl_add_acl_item",
      "I: Entering : es_acl_add_acl_item_common", "E: es_acl_add_acl_item_common: ACL or ace is NULL",
      "trace w", "pool_give(pool)"},
     22},
    {"delete_item_common",
     [](es_acl_head* acl) {
       es_acl_delete_item_common(acl, 7, 0, &position);
       return 0;
     },
     {"I: Entering : es_acl_delete_item_common"},
     {"store.delete_entry_iter(head:edge, 7, 0, position)"},
     {},
     nullptr,
     {"I: Entering : es_acl_delete_item_common", "trace w",
      "E: es_acl_delete_item_common: Invalid arguments. "},
     0},
    {"delete_item",
     [](es_acl_head* acl) {
       es_acl_delete_item(acl, 7);
       return 0;
     },
     {"I: Entering : es_acl_delete_item"},
     {"store.delete_entry_iter(head:edge, 7, 1, null)"},
     {"main[41]"},
     nullptr,
     {"I: Entering : es_acl_delete_item", "E: es_acl_delete_item: es_acl_handle = NULL || sequence is 0",
      "trace w"},
     0},
    {"match_complex",
     [](es_acl_head* acl) { return es_acl_match_complex(acl, &key, 5, 6); },
     {"I: Entering : es_acl_match_complex"},
     {"store.match_complex(head:edge, key, 5, 6)"},
     {"main[42]"},
     [] { store().match_complex.next(77); },
     {"I: Entering : es_acl_match_complex", "trace w",
      "E: es_acl_match_complex: Invalid arguments. handle = NULL"},
     0},
    {"match_complex_2",
     [](es_acl_head* acl) { return es_acl_match_complex_2(acl, &key, 5, 6); },
     {"I: Entering : es_acl_match_complex_2"},
     {"store.match_complex_2(head:edge, key, 5, 6)"},
     {},
     [] { store().match_complex_2.next(77); },
     {"I: Entering : es_acl_match_complex_2", "E: es_acl_match_complex_2: Invalid arguments. handle = NULL"},
     0},
    {"resequence",
     [](es_acl_head* acl) { return es_acl_resequence(acl, 100, 10, 2, skip_list); },
     {"I: Entering : es_acl_resequence. name:edge, start_seq: 100,step:10, num_skip_seqs:2"},
     {"store.resequence(head:edge, 100, 10, 2, skips)"},
     {},
     [] { store().resequence.next(77); },
     {"E: es_acl_resequence: Invalid arguments"},
     22},
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class ListOperation : public LibraryTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    initialise();
    name_pointer(&key, "key");
    name_pointer(&position, "position");
    name_pointer(skip_list, "skips");
    acl_ = make_acl("edge");
  }

  Lines expected_with(const Lines& lock_steps, Lines after) const {
    Lines lines = GetParam().before_lock;
    lines.insert(lines.end(), lock_steps.begin(), lock_steps.end());
    lines.insert(lines.end(), GetParam().store.begin(), GetParam().store.end());
    lines.push_back("unlock(lock:edge)");
    lines.insert(lines.end(), after.begin(), after.end());
    return lines;
  }

  es_acl_head* acl_ = nullptr;
};

TEST_P(ListOperation, OneStoreCallUnderTheLock) {
  GetParam().call(acl_);
  EXPECT_EQ(log(), (expected_with({"trylock(lock:edge)"}, GetParam().after_unlock)));
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
  GetParam().call(acl_);
  holder.join();
  EXPECT_EQ(log(),
            (expected_with({"trylock(lock:edge)", "thread_mark_mutex_block(lock:edge, \"es_acl_lock\", 254)",
                            "lock(lock:edge)", "thread_unmark_mutex_block()"},
                           GetParam().after_unlock)));
}

TEST_P(ListOperation, NullHeadIsRefusedWithoutTheLock) {
  EXPECT_EQ(GetParam().call(nullptr), GetParam().null_result);
  EXPECT_EQ(log(), GetParam().refused_null_head);
}

TEST_P(ListOperation, TheStoresAnswerComesBackAndTheLockIsFree) {
  if (GetParam().refuse) GetParam().refuse();
  const uint64_t result = GetParam().call(acl_);
  EXPECT_EQ(result, GetParam().refuse ? 77U : 0U);
  EXPECT_EQ(pthread_mutex_trylock(&acl_->lock), 0);
  EXPECT_EQ(pthread_mutex_unlock(&acl_->lock), 0);
}

INSTANTIATE_TEST_SUITE_P(All, ListOperation, ::testing::ValuesIn(kOperations),
                         [](const auto& instance) { return instance.param.name; });

// --- What only some of them do ---

using ListOperations = ListOperation;

TEST_F(ListOperations, SearchesGiveTheStoredRecord) {
  es_acl_ace* const ace = make_ace(9);
  ASSERT_EQ(es_acl_add_acl_item(acl_, ace, 9, 0), 0U);
  EXPECT_EQ(es_acl_search_item(acl_, 9), ace);
  EXPECT_EQ(es_acl_search_item_fiter(acl_, 9, &position), ace);
  EXPECT_EQ(es_acl_search_item_biter(acl_, 9, nullptr), ace);
  EXPECT_EQ(es_acl_search_item(acl_, 8), nullptr);
  es_acl_delete_item(acl_, 9);
  EXPECT_EQ(es_acl_search_item(acl_, 9), nullptr);
}

TEST_F(ListOperations, OtherBadArguments) {
  es_acl_delete_item(acl_, 0);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_delete_item",
                          "E: es_acl_delete_item: es_acl_handle = NULL || sequence is 0", "trace w"}));
  clear_log();
  es_acl_delete_item_common(acl_, 7, 1, nullptr);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_delete_item_common", "trace w",
                          "E: es_acl_delete_item_common: Invalid arguments. "}));
  clear_log();
  EXPECT_EQ(es_acl_add_acl_item(acl_, nullptr, 7, 0), 22U);
  EXPECT_EQ(log(), (Lines{"main[40]", "I: Entering : es_acl_add_acl_item",
                          "I: Entering : es_acl_add_acl_item_common",
                          "E: es_acl_add_acl_item_common: ACL or ace is NULL", "trace w"}));
  clear_log();
  EXPECT_EQ(es_acl_match_complex(acl_, nullptr, 0, 0), 0U);
  EXPECT_EQ(es_acl_match_complex_2(acl_, nullptr, 0, 0), 0U);
  EXPECT_EQ(log(kStore | kLock | kCount), (Lines{}));
}

TEST_F(ListOperations, MatchResultsAreCountedWhereTheBlockHasACounter) {
  store().match_complex.next(1);
  store().match_complex.next(2);
  store().match_complex.next(ACL_CLIENT_RELAY_ENTRIES - 43);
  for (int i = 0; i < 3; ++i) es_acl_match_complex(acl_, &key, 0, 0);
  EXPECT_EQ(log(kCount), (Lines{"main[43]", "main[44]", "main[127]"}));
  clear_log();
  for (const uint32_t beyond : {uint32_t{ACL_CLIENT_RELAY_ENTRIES} - 42, 100000U, 0x80000000U, 0xffffffffU}) {
    store().match_complex.next(beyond);
    EXPECT_EQ(es_acl_match_complex(acl_, &key, 0, 0), beyond);
  }
  EXPECT_EQ(log(kCount), (Lines{}));
}

TEST_F(ListOperations, CompareLooksAtAll80Bytes) {
  es_acl_ace one, other;
  memset(&one, 0x5a, sizeof one);
  memcpy(&other, &one, sizeof other);
  EXPECT_EQ(es_acl_compare_ace(&one, &other), 1U);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_compare_ace"}));
  for (size_t i = 0; i < 80; ++i) {
    reinterpret_cast<uint8_t*>(&other)[i] ^= 0x80;
    clear_log();
    EXPECT_EQ(es_acl_compare_ace(&one, &other), 0U) << "byte " << i;
    EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_compare_ace",
                            "I: es_acl_compare_ace: rule structure doesn't match."}));
    reinterpret_cast<uint8_t*>(&other)[i] ^= 0x80;
  }
  for (const auto& [left, right] : {std::pair{&one, static_cast<es_acl_ace*>(nullptr)}, {nullptr, &one}}) {
    clear_log();
    EXPECT_EQ(es_acl_compare_ace(left, right), 0U);
    EXPECT_EQ(log(kLine), (Lines{"I: Entering : es_acl_compare_ace",
                                 "E: es_acl_compare_ace: Invalid arguments. ACE or rules doesn't exist"}));
  }
}

TEST_F(ListOperations, ModifyMode) {
  EXPECT_EQ(es_acl_get_modify_mode(), 0U);
  EXPECT_EQ(log(), (Lines{"I: es_acl_get_modify_mode: modify_mode = Delete and Add"}));
  const std::pair<uint32_t, std::string> modes[] = {{1, "Add only"}, {7, "Add only"}, {0, "Delete and Add"}};
  for (const auto& [mode, shown] : modes) {
    clear_log();
    es_acl_set_modify_mode(mode);
    EXPECT_EQ(es_acl_get_modify_mode(), mode);
    EXPECT_EQ(log(), (Lines{"D: es_acl_set_modify_mode: modify_mode = " + shown,
                            "I: es_acl_get_modify_mode: modify_mode = " + shown}));
  }
}

// --- A broken lock ends the process ---

class BrokenLock : public LibraryTest {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    initialise();
    pthread_mutexattr_t checked;
    pthread_mutexattr_init(&checked);
    pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
    store().lock_type = &checked;
    acl_ = make_acl("edge");
    store().lock_type = nullptr;
    pthread_mutexattr_destroy(&checked);
  }
  es_acl_head* acl_ = nullptr;
};

TEST_F(BrokenLock, LockFails) {
  EXPECT_DEATH(
      {
        pthread_mutex_lock(&acl_->lock);
        es_acl_search_item(acl_, 7);
      },
      "apps/acl/es/lib/src/es_db_private:258: es_acl_lock: assertion `_err == 0' failed");
}

TEST_F(BrokenLock, UnlockFails) {
  EXPECT_DEATH(
      {
        store().search_entry.next([](es_acl_head* acl, uint32_t) -> es_acl_ace* {
          pthread_mutex_unlock(&acl->lock);
          return nullptr;
        });
        es_acl_search_item(acl_, 7);
      },
      "apps/acl/es/lib/src/es_db_private:268: es_acl_unlock: assertion `_err == 0' failed");
}

}  // namespace
