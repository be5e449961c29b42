// Pushed batches in a store that offers one call for several ACEs: what it is called for, and how one is applied that nobody
// is told of.
#include "update_fixture.h"

using namespace es_test;

namespace {

// A store that offers it gets several ACEs with one call, under the lock, unless lines about each are printed.
class StoreWithBatches : public Update {
 protected:
  void SetUp() override {
    Update::SetUp();
    tells_ = told_;
    meanwhile_ = [] {};
    static const es_acl_batch_table table = {search, add, remove};
    es_acl_offer_batches(&table);
  }
  ~StoreWithBatches() override { es_acl_offer_batches(nullptr); }

  // What another thread does while the store is searched the next time.
  static inline std::function<void()> meanwhile_;

  static void print_lines(uint32_t enabled) {
    for (debug_category& category : platform().categories) category.enabled = enabled;
  }
  static void print_only(uint32_t category) {
    print_lines(0);
    platform().categories[category].enabled = 1;
  }

 private:
  static void show_call(const std::string& what, es_acl_head* acl, const es_acl_batch_item* items,
                        uint32_t n) {
    EXPECT_EQ(pthread_mutex_trylock(&acl->lock), EBUSY);
    record(kCall, "batch " + what + " " + show(items[0].seq) + " to " + show(items[n - 1].seq));
  }
  static void search(es_acl_head* acl, es_acl_batch_item* items, uint32_t n) {
    const Backstage backstage;
    show_call("search", acl, items, n);
    std::exchange(meanwhile_, [] {})();
    if (tells_) {
      EXPECT_EQ(acl->looks % 2, 1U) << "what is found is shown";
      ++acl->looks;
    }
    for (uint32_t i = 0; i < n; ++i) {
      items[i].ace = es_acl_apis->search_entry(acl, items[i].seq);
      items[i].mark = mark_of(items[i].seq);
    }
  }
  static inline bool tells_;
  static void* mark_of(uint32_t seq) { return reinterpret_cast<void*>(uintptr_t{seq} * 1000); }
  // Refuses 77.
  static void add(es_acl_head* acl, es_acl_batch_item* items, uint32_t n) {
    const Backstage backstage;
    show_call("add", acl, items, n);
    for (es_acl_batch_item* item = items; item != items + n; ++item) {
      EXPECT_EQ(item->mark, mark_of(item->seq));
      item->status = item->seq == 77 ? 28 : 0;
      if (item->status != 0) continue;
      auto* const kept = new (malloc(80)) es_acl_ace(*item->ace);
      EXPECT_EQ(kept->private_data, nullptr);
      EXPECT_EQ(es_acl_apis->add_acl_item_iter(acl, kept, item->seq, item->flag, nullptr), 0U);
    }
  }
  static void remove(es_acl_head* acl, es_acl_batch_item* items, uint32_t n) {
    const Backstage backstage;
    show_call("remove", acl, items, n);
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(items[i].mark, mark_of(items[i].seq));
      es_acl_apis->delete_entry_iter(acl, items[i].seq, ES_ACL_FORWARD, nullptr);
    }
  }
};

TEST_F(StoreWithBatches, GetsPiecesOfABatch) {
  static_assert(ES_ACL_BATCH_MAX == 32);
  Aces many;
  for (uint32_t seq = 101; seq <= 133; ++seq) many.push_back({seq, 1});
  const std::tuple<uint32_t, uint32_t, Lines> rows[] = {
      {0,
       kAdd,
       {"batch search 133 to 102", "batch search 101 to 101", "batch add 101 to 132",
        "batch add 133 to 133"}},
      {0, kAdd, {"batch search 133 to 102", "batch search 101 to 101"}},
      {1, kAdd, {"batch search 101 to 132", "batch search 133 to 133"}},
      {1,
       kRemove,
       {"batch search 101 to 132", "batch search 133 to 133", "batch remove 101 to 132",
        "batch remove 133 to 133"}},
  };
  print_lines(0);
  for (const auto& [mode, command, calls] : rows) {
    es_acl_set_modify_mode(mode);
    clear_log();
    EXPECT_EQ(apply(command, many), 0U);
    EXPECT_EQ(log_of("batch "), calls);
  }
  EXPECT_EQ(list(head_), kStored);
  for (const uint32_t category : {1U, 2U}) {
    print_only(category);
    clear_log();
    EXPECT_EQ(apply(kAdd, {{50}}) + apply(kRemove, {{50}}), 0U);
    EXPECT_EQ(log_of("batch "), Lines{}) << category;
  }
}

// What is not searched for moves nothing that is.
TEST_F(StoreWithBatches, FindsEachItsOwn) {
  es_acl_set_modify_mode(ES_ACL_MODIFY_ADD_ONLY);
  print_lines(0);
  EXPECT_EQ(apply(kAdd, {{10, 1}, {0, 1}, {20, 9}, {60, 6}, {0, 2}, {40, 5}}), 0U);
  EXPECT_EQ(log_of("add("),
            Lines{"add(head:edge, 20=9 copy1 old stored20, 60=6 copy2 new, 40=5 copy3 old stored40)"});
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 9}, kRemark, {40, 5}, {60, 6}}));
}

TEST_F(StoreWithBatches, RecordsThatItDoesNotKeepGoBack) {
  print_lines(0);
  EXPECT_EQ(apply(kAdd, {{0, 1}, {20, 9}, {60, 6}, {61, 7}, {77, 8}, {10, 1}, {62, 9}}), 0U);
  EXPECT_EQ(log_of("remove("), Lines{"remove(head:edge, 20=2 stored20)"});
  EXPECT_EQ(log_of("pool_give"), (Lines{given("stored20"), given("copy4"), given("copy1"), given("copy2"),
                                        given("copy3"), given("copy5")}));
  EXPECT_EQ(changed_, 1U);
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 9}, kRemark, {40, 4}, {60, 6}, {61, 7}, {62, 9}}));
}

// Where nobody is told, such a store is offered the ACEs where they are.
class Untold : public StoreWithBatches {
 protected:
  Untold() { told_ = false; }

  // What one batch leaves behind in an ACL of its own. With lines it is applied as those are that somebody is told of.
  Lines left_by(uint32_t command, const Aces& stored, const Aces& pushed, uint32_t with_lines) {
    hold(stored, "own");
    print_lines(with_lines);
    const uint32_t status = apply(command, pushed, "own");
    Lines left = {show(status) + " " + show(changed_)};
    for (const std::string& line : take_log(kTrace)) left.push_back(line);
    for (const Ace& ace : list(found_)) left.push_back(show(ace.seq) + "=" + show(ace.content));
    for (const es_acl_pcx_acl_ace& record : records_) left.push_back("record " + show(record.ace.seq));
    release({found_});
    return left;
  }
};

TEST_F(Untold, LeavesWhatBeingToldLeaves) {
  Aces many;
  for (uint32_t i = 0; i < 70; ++i)
    many.push_back({i % 45, static_cast<uint8_t>(i % 3), i % 7 == 0 ? 1U : 0U});
  const Aces rows[] = {kMixed,    kToRemove, kTwice, {{0, 5}}, {{0, 6}, {20, 9}}, {{30, 8, 1}, {10, 1, 1}},
                       {{10, 1}}, many};
  for (const uint32_t mode : {0U, 1U, 7U}) {
    es_acl_set_modify_mode(mode);
    for (const Aces& stored : {kStored, Aces{{0, 5}, {10, 1}, {20, 2}, kRemark}})
      for (const uint32_t command : {0U, 1U, 7U})
        for (const Aces& row : rows)
          EXPECT_EQ(left_by(command, stored, row, 0), left_by(command, stored, row, 1))
              << "mode " << mode << ", command " << command << ", row " << &row - rows;
  }
}

TEST_F(Untold, WhoComesMeanwhileHearsOfTheNext) {
  print_lines(0);
  meanwhile_ = [this] { es_acl_register_update_callback(on_update, &client_); };
  EXPECT_EQ(apply(kAdd, {{20, 9}, {60, 6}}), 0U);
  EXPECT_EQ(lines(log_of("remove("), log_of("add(")), Lines{});
  EXPECT_EQ(apply(kRemove, {{60}}), 0U);
  EXPECT_EQ(log_of("remove(").size(), 1U);
}

TEST_F(Untold, PointerBytesAreCleared) {
  print_lines(0);
  apply(kAdd, {{50}});
  records_[0].ace.private_data = this;
  EXPECT_EQ(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 1, &found_, nullptr), 0U);
  EXPECT_EQ(log_of("batch add").size(), 2U);
}

TEST_F(Untold, WithoutMemoryNothingChanges) {
  apply(kAdd, {{20, 9}, {50}});
  records_[0].ace.log_option = 7;
  records_.resize(65, records_[0]);
  print_lines(0);
  fail_allocation(1);
  EXPECT_EQ(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 65, &found_, &changed_), 12U);
  EXPECT_TRUE(end_allocation_failure());
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 9}, kRemark, {40, 4}, {50}}));
}

TEST_F(Untold, NothingIsCopiedForNobody) {
  print_lines(0);
  leave_in_pool(0);
  EXPECT_EQ(apply(kAdd, {{10, 1}, {20, 8}, {77, 8}, {60, 5}, {60, 6}}), 0U);
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 8}, kRemark, {40, 4}, {60, 6}}));
  es_acl_set_modify_mode(ES_ACL_MODIFY_ADD_ONLY);
  EXPECT_EQ(apply(kAdd, {{10, 1}, {20, 9}, {77, 8}, {50, 5}}), 0U);
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 9}, kRemark, {40, 4}, {50, 5}, {60, 6}}));
  EXPECT_EQ(changed_, 1U);
}

TEST_F(Untold, WhatTheStoreKeepsIsACopy) {
  print_lines(1);
  EXPECT_EQ(apply(kAdd, {{60, 6}}), 0U);
  print_lines(0);
  es_acl_offer_batches(nullptr);
  EXPECT_EQ(apply(kAdd, {{61, 7}}), 0U);
  EXPECT_EQ(log_of("pool_take"), (Lines{kTake, kTake}));
}

}  // namespace
