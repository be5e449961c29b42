// Applying pushed batches in both modes: what the callbacks are shown, what the store is then told, and what goes back
// to the pool on each failure.
#include "update_fixture.h"

using namespace es_test;

namespace {

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

// One batch, and what the store, the pool and the callback then see. What random batches leave behind, refused or not,
// is compared with a model elsewhere.
struct Row {
  const char* name;
  uint32_t mode, command;
  Aces pushed;
  Lines expected;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

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

}  // namespace
