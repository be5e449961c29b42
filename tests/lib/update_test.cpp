// Applying pushed batches in both modes: what the callbacks are shown, what the store is then told, and what goes back
// to the pool on each failure.
#include "push_fixture.h"

using namespace es_test;

namespace {

constexpr Ace kRemark = {30, 3, 1};
const Aces kStored = {{10, 1}, {20, 2}, kRemark, {40, 4}};

Lines searched(const std::string& direction, const Numbers& sequence) {
  Lines all;
  for (const uint32_t seq : sequence)
    all.push_back("store.search_entry_iter(head:edge, " + std::to_string(seq) + ", " + direction + ", ptr)");
  return all;
}
std::string deleted(uint32_t seq) {
  return "store.delete_entry_iter(head:edge, " + std::to_string(seq) + ", 1, ptr)";
}
std::string added(uint32_t seq, int copy, const std::string& flag) {
  return "store.add_acl_item_iter(head:edge, copy" + std::to_string(copy) + ", " + std::to_string(seq) +
         ", " + flag + ", ptr)";
}
std::string given(const std::string& record) { return "pool_give(pool, " + record + ")"; }
const std::string kTake = "pool_take(pool)";

// One batch, and what the store, the pool and the callback then see. What random batches leave behind, refused or not,
// is compared with a model elsewhere.
struct Row {
  const char* name;
  uint32_t mode, command;
  Aces pushed;
  Lines expected;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

const Aces kMixed = {{10, 1}, {20, 9}, kRemark, {50, 5}};  // equal, changed, remark, new
const Aces kToRemove = {{20, 77}, {60}, kRemark, {10, 1}};
const Aces kTwice = {{50, 1}, {50, 2}, {20, 8}, {20, 9}};
const Row kRows[] = {
    {"delete_and_add", 0, kAdd, kMixed,
     lines(searched("0", {50, 30, 20, 10}), "remove(head:edge, 20=2 stored20)", kTake, kTake, kTake,
           "add(head:edge, 20=9 copy1 new, 30=3 copy2 new, 50=5 copy3 new)", added(20, 1, "1"),
           given("stored20"), added(30, 2, "1"), given("stored30"), added(50, 3, "1"))},
    {"add_only", 1, kAdd, kMixed,
     lines(searched("1", {10, 20}), kTake, searched("1", {30, 50}), kTake,
           "add(head:edge, 20=9 copy1 old stored20, 50=5 copy2 new)", added(20, 1, "1"), given("stored20"),
           added(50, 2, "0"))},
    {"only_1_is_add_only", 7, kAdd, kStored,
     lines(searched("0", {40, 30, 20, 10}), kTake, "add(head:edge, 30=3 copy1 new)", added(30, 1, "1"),
           given("stored30"))},
    {"removal", 1, kRemove, kToRemove,
     lines(searched("0", {20, 60, 30, 10}), "remove(head:edge, 20=2 stored20, 10=1 stored10)", deleted(20),
           given("stored20"), deleted(60), deleted(30), given("stored30"), deleted(10), given("stored10"))},
    {"number_0_add_only", 1, kAdd, {{0, 1}}, {}},
    {"one_number_twice_add_only", 1, kAdd, kTwice,
     lines(searched("1", {50}), kTake, searched("1", {50}), kTake, searched("1", {20}), kTake,
           searched("1", {20}), kTake,
           "add(head:edge, 50=1 copy1 new, 50=2 copy2 new, 20=8 copy3 old stored20, 20=9 copy4 old stored20)",
           added(50, 1, "0"), added(50, 2, "0"), given("copy2"), added(20, 3, "1"), given("stored20"),
           added(20, 4, "1"), given("copy3"))},
};

class Update : public PushTest {
 protected:
  void SetUp() override {
    PushTest::SetUp();
    if (told_) {
      ASSERT_EQ(es_acl_register_update_callback(on_update, &client_), 0U);
    }
    head_ = hold(kStored);
  }

  // Applies the batch in host byte order; what was marked in it stays to be seen in records_.
  uint32_t apply(uint32_t command, const Aces& aces, const std::string& name = "edge") {
    records_.assign(aces.size(), {});
    for (size_t i = 0; i < aces.size(); ++i) {
      es_acl_wire_set_name(records_[i].acl_name, name.c_str());
      records_[i].ace.kind = aces[i].kind;
      records_[i].ace.seq = aces[i].seq;
      records_[i].ace.log_option = aces[i].content;
    }
    found_ = nullptr;
    changed_ = 0;
    return es_acl_cpcx_handle_pcx_update_ace(command, records_.data(), static_cast<uint32_t>(aces.size()),
                                             &found_, &changed_);
  }
  static Lines steps() {
    Lines all = log(kStore | kCall);
    std::erase_if(all, [](const std::string& line) {
      return line.starts_with("store.acl_lookup") || line.starts_with("list_registry");
    });
    return all;
  }

  bool told_ = true;
  es_acl_head* head_ = nullptr;
  Client client_;
  std::vector<es_acl_pcx_acl_ace> records_;
  es_acl_head* found_ = nullptr;
  uint32_t changed_ = 0;
};

class Batch : public Update, public ::testing::WithParamInterface<Row> {};

TEST_P(Batch, StepsAndResult) {
  const Row& row = GetParam();
  es_acl_set_modify_mode(row.mode);
  EXPECT_EQ(apply(row.command, row.pushed), 0U);
  EXPECT_EQ(found_, head_);
  EXPECT_EQ(steps(), row.expected);
  for (size_t i = 0; i < row.pushed.size(); ++i) {
    const Ace& ace = row.pushed[i];
    const bool stored = std::count(kStored.begin(), kStored.end(), ace) != 0;
    const bool marked = row.command == kAdd && row.mode != 1 && stored && ace.kind != 1;
    EXPECT_EQ(records_[i].ace.seq, marked ? 0 : ace.seq) << i;
  }
}
INSTANTIATE_CASES(Batch, kRows);

TEST_F(Update, TextsOfFailures) {
  const std::string failure = "E: es_acl_cpcx_handle_pcx_update_ace: ";
  const std::string refused = "E: es_acl_invoke_update_callback: callback func failed <0x5>";
  client_.answer = 5;
  const auto expect = [&](uint32_t status, uint32_t expected, const Lines& errors) {
    EXPECT_EQ(status, expected);
    EXPECT_EQ(log_of("E:"), errors);
    EXPECT_EQ(changed_, 0U);
    EXPECT_EQ(list(head_), kStored);
    EXPECT_EQ(records_out(), 0U);
    clear_log();
  };
  expect(apply(kRemove, {{20}}), 5, {refused, failure + "failed for ACL_REMOVE_ACE: <0x5>"});
  expect(apply(kAdd, {{50}}), 5, {refused, failure + "failed for ACL_ADD_ACE: <0x5>"});
  expect(apply(kAdd, {{50}}, "other"), 22, {failure + "acl lookup failed"});
  EXPECT_EQ(found_, nullptr);
  const Lines invalid = {failure + "Invalid arguments"};
  expect(es_acl_cpcx_handle_pcx_update_ace(kAdd, nullptr, 1, &found_, &changed_), 22, invalid);
  expect(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 0, &found_, &changed_), 22, invalid);
  expect(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 1, nullptr, &changed_), 22, invalid);
  apply(kAdd, {{20, 9}, {50}});
  clear_log();
  fail_allocation(1);
  const uint32_t status = es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 2, &found_, &changed_);
  EXPECT_TRUE(end_allocation_failure());
  EXPECT_EQ(found_, head_);
  expect(status, 12, {failure + "memory alloc for ace_edit_info failed: ACL name:edge"});
}

TEST_F(Update, ThePoolIsEmptyAtEachRecord) {
  for (const uint32_t mode : {0U, 1U}) {
    es_acl_set_modify_mode(mode);
    for (int room = 0; room < 3; ++room) {
      leave_in_pool(room);
      clear_log();
      EXPECT_EQ(apply(kAdd, {{20, 9}, {50}, {60}}), 12U);
      EXPECT_EQ(log_of("E:"),
                Lines{"E: es_acl_cpcx_handle_pcx_update_ace: Memory cannot be allocated for ace"});
      EXPECT_EQ(log_of("pool_give").size(), static_cast<size_t>(room));
      EXPECT_EQ(log_of("remove(").size(), mode == 0 ? 1U : 0U);
      EXPECT_EQ(log_of("add("), Lines{});
      EXPECT_EQ(list(head_), kStored);
    }
  }
}

TEST_F(Update, WhatTheStoreRefusesGoesBackAndTheRestIsAdded) {
  store().add_acl_item_iter.next(77);
  EXPECT_EQ(apply(kAdd, {{50}, {60, 6}}), 0U);
  EXPECT_EQ(changed_, 1U);
  EXPECT_EQ(
      log_of("D: es_acl_cpcx_handle_pcx_update_ace: es_acl_add"),
      Lines{
          "D: es_acl_cpcx_handle_pcx_update_ace: es_acl_add_acl_item_common fail for acl edge sequence 50"});
  EXPECT_EQ(log_of("pool_give"), Lines{given("copy1")});
  EXPECT_EQ(list(head_).back(), (Ace{60, 6}));
}

// Nothing of the pointer-sized bytes on the wire reaches the store; who does not ask is not told of the change.
TEST_F(Update, PointerBytesAreCleared) {
  apply(kAdd, {{20, 2}});
  records_[0].ace.private_data = this;
  records_[0].ace.seq = 20;
  EXPECT_EQ(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 1, &found_, nullptr), 0U);
  EXPECT_EQ(es_acl_search_item(head_, 20)->private_data, nullptr);
}

// Each pass begins without a position and carries it from one store call to the next.
TEST_F(Update, CarriesPositions) {
  const auto seen = [](es_acl_iter* iter, uint32_t seq) {
    record(kCall, "at " + std::to_string(reinterpret_cast<uintptr_t>(*iter)));
    *iter = reinterpret_cast<void*>(uintptr_t{seq});
  };
  store().search_entry_iter.always(
      [&](es_acl_head*, uint32_t seq, uint32_t, es_acl_iter* iter) { return seen(iter, seq), nullptr; });
  store().add_acl_item_iter.always([&](es_acl_head*, es_acl_ace*, uint32_t seq, uint32_t, es_acl_iter* iter) {
    return seen(iter, seq), 1U;
  });
  store().delete_entry_iter.always(
      [&](es_acl_head*, uint32_t seq, uint32_t, es_acl_iter* iter) { seen(iter, seq); });
  const std::tuple<uint32_t, uint32_t, Lines> rows[] = {{0, kAdd, {"at 0", "at 70", "at 0", "at 60"}},
                                                        {1, kAdd, {"at 0", "at 60", "at 0", "at 60"}},
                                                        {0, kRemove, {"at 0", "at 60", "at 0", "at 60"}}};
  for (const auto& [mode, command, positions] : rows) {
    es_acl_set_modify_mode(mode);
    clear_log();
    EXPECT_EQ(apply(command, {{60}, {70}}), 0U);
    EXPECT_EQ(log_of("at "), positions);
  }
}

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
  print_lines(0);
  fail_allocation(1);
  EXPECT_EQ(es_acl_cpcx_handle_pcx_update_ace(kAdd, records_.data(), 2, &found_, &changed_), 12U);
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
