// Resource questions: what the callbacks are asked, and how long a question is held.
#include "push_fixture.h"

using namespace es_test;

namespace {

constexpr Key kFirst = {7, 1}, kSecond = {7, 2}, kOther = {8, 1};
const Aces kStored = {{10, 1}, {20, 2}};
const Aces kCandidates = {{10, 1}, {20, 9}, {50, 5}};  // equal, changed, new

const std::string kPrefix = "es_acl_cpcx_verify_resource_availability: ";
std::string not_held(int cancel) {
  return "E: " + kPrefix + "req held was not there cancel_request " + std::to_string(cancel);
}
const std::string kWrong = "E: " + kPrefix + "req held was not there, something is wrong";
class Resources : public PushTest {
 protected:
  void SetUp() override {
    PushTest::SetUp();
    ASSERT_EQ(es_acl_register_res_check_callback(on_res_check, &client_), 0U);
    head_ = hold(kStored);
  }
  // Nothing that was taken for a question stays out, and the list is as it was.
  ~Resources() override {
    EXPECT_EQ(records_out(), 0U);
    EXPECT_EQ(list(head_), kStored);
  }

  void hold_question(Key key, const Aces& candidates = kCandidates) {
    push(question(kQuery, key, candidates));
  }
  // The answer to a synchronous request, whose own candidates are never looked at.
  uint32_t check(Key key) { return ask(question(kQuery, key, {{99}})); }
  uint32_t withdraw(Key key, uint32_t res_state = 1) { return ask(question(kCancel, key, {}, res_state)); }
  // Whether the question is held, found out by withdrawing it.
  bool take_back(Key key) {
    clear_log();
    EXPECT_EQ(withdraw(key, 0), 0U);
    return log_of("E:").empty();
  }

  es_acl_head* head_ = nullptr;
  Client client_;
};

TEST_F(Resources, WhatTheCallbacksAreAsked) {
  hold_question(kFirst);
  clear_log();
  EXPECT_EQ(check(kFirst), 0U);
  Lines shown = log_of("D: " + kPrefix);
  EXPECT_EQ(shown, (Lines{"D: " + kPrefix + "Update_ace found: seq: 10", "D: " + kPrefix + "Compare passed",
                          "D: " + kPrefix + "Update_ace found: seq: 20",
                          "D: " + kPrefix + "Update_ace not found: seq: 50",
                          "D: " + kPrefix + "About to invoke res_check_cbfor acl:edge. curr_batch_size: 2"}));
  shown = log(kStore | kCall);
  std::erase_if(shown, [](const std::string& line) { return line.find("name_get") != line.npos; });
  EXPECT_EQ(
      shown,
      (Lines{"store.acl_lookup(\"edge\")", "store.search_entry(head:edge, 10)",
             "store.search_entry(head:edge, 20)", "pool_take(pool)", "store.search_entry(head:edge, 50)",
             "pool_take(pool)", "list_registry_first(registry, ptr, ptr)",
             "check0(head:edge, 20=9 copy1 old stored20, 50=5 copy2 new)",
             "list_registry_next(ptr, ptr, ptr)", "pool_give(pool, copy1)", "pool_give(pool, copy2)"}));
  EXPECT_TRUE(take_back(kFirst));
}

// --- How long a question is held ---

TEST_F(Resources, LifeOfAQuestion) {
  EXPECT_EQ(check(kFirst), 22U) << "never held";
  EXPECT_EQ(log_of("E:"), (Lines{not_held(0), kWrong}));
  clear_log();
  EXPECT_EQ(withdraw(kFirst), 0U);
  EXPECT_EQ(log_of("E:"), Lines{not_held(1)});

  hold_question(kFirst, kStored);
  EXPECT_EQ(check(kFirst), 0U) << "nothing differs";
  EXPECT_EQ(log_of("check"), Lines{});
  EXPECT_TRUE(take_back(kFirst)) << "an answer of 0 keeps it";
  EXPECT_EQ(log_of("check"), Lines{}) << "there is nothing to release";
  EXPECT_FALSE(take_back(kFirst)) << "withdrawn";

  hold_question(kFirst, {});
  EXPECT_EQ(check(kFirst), 0U) << "nothing asked";
  EXPECT_TRUE(take_back(kFirst));

  hold_question(kFirst);
  client_.answer = 5;
  clear_log();
  EXPECT_EQ(check(kFirst), 5U);
  EXPECT_EQ(log_of("E: " + kPrefix), Lines{"E: " + kPrefix + "res_chk_cb failed: <0x5>"});
  EXPECT_FALSE(take_back(kFirst)) << "a refusal drops it";

  for (const uint32_t answer : {0U, 5U}) {
    hold_question(kFirst);
    client_.answer = answer;
    clear_log();
    EXPECT_EQ(withdraw(kFirst, 0xffffffff), answer);
    EXPECT_EQ(log_of("check1").size(), 1U);
    EXPECT_EQ(log_of("E: " + kPrefix), Lines{});
    EXPECT_FALSE(take_back(kFirst)) << "withdrawn, whatever the callbacks say";
  }
}

TEST_F(Resources, KeysOfOneOrigin) {
  hold_question(kFirst);
  hold_question(kOther);
  hold_question(kSecond);
  EXPECT_EQ(check(kSecond), 0U);
  EXPECT_FALSE(take_back(kFirst)) << "dropped on the way to a later one of its origin";
  EXPECT_FALSE(take_back(kSecond)) << "the same, by the question about the first";
  EXPECT_TRUE(take_back(kOther));
}

// Of equal keys the last one is meant; the earlier come to light when it has gone.
TEST_F(Resources, EqualKeys) {
  hold_question(kFirst, {{50, 5}});
  hold_question(kFirst, {{60, 6}});
  EXPECT_EQ(check(kFirst), 0U);
  client_.answer = 5;
  EXPECT_EQ(check(kFirst), 5U);
  EXPECT_EQ(withdraw(kFirst), 5U);
  EXPECT_EQ(log_of("check"), (Lines{"check0(head:edge, 60=6 copy1 new)", "check0(head:edge, 60=6 copy2 new)",
                                    "check1(head:edge, 50=5 copy3 new)"}));
  EXPECT_FALSE(take_back(kFirst));
}

TEST_F(Resources, AnAclThatIsNotHeldLeavesTheQueueAlone) {
  hold_question(kFirst);
  for (const uint32_t command : {kQuery, kCancel}) {
    clear_log();
    EXPECT_EQ(ask(question(command, kSecond, {}, 0, "other")), 0U);
    EXPECT_EQ(log_of("E:"), Lines{"E: " + kPrefix + "acl lookup for other failed"});
  }
  EXPECT_TRUE(take_back(kFirst));
}

// --- Failures of memory ---

TEST_F(Resources, ThePoolIsEmptyAtEachCandidate) {
  for (int room = 0; room < 2; ++room) {
    hold_question(kFirst);
    leave_in_pool(room);
    clear_log();
    EXPECT_EQ(check(kFirst), 12U);
    EXPECT_EQ(withdraw(kFirst), 12U) << "kept, though withdrawn";
    EXPECT_EQ(log_of("E:"), Lines(2, "E: " + kPrefix + "Memory cannot be allocated for ace. acl:edge"));
    EXPECT_EQ(log_of("pool_give").size(), static_cast<size_t>(room));
    EXPECT_TRUE(take_back(kFirst));
  }
}

TEST_F(Resources, NoMemoryForTheBatch) {
  hold_question(kFirst);
  const std::string text = "E: " + kPrefix + "memory alloc for ace_edit_info failed";
  for (const Bytes& message : {question(kQuery, kFirst), question(kCancel, kFirst)}) {
    clear_log();
    fail_allocation(2);  // the first is the answer's
    const Bytes answer = deliver(kSync, message);
    EXPECT_TRUE(end_allocation_failure());
    EXPECT_EQ(answer, response(12, 0));
    EXPECT_EQ(log_of("E:"), Lines{text});
  }
  EXPECT_FALSE(take_back(kFirst)) << "kept by the check, dropped by the withdrawal";
}

// --- Names ---

// In every message: the 64 characters that can be a name count.
TEST_F(Resources, NamesWithoutAnEnd) {
  const std::string name = long_name(64), endless = long_name(65);
  es_acl_head* const head = hold({}, name);
  push(batch(kAdd, {{40}}, endless));
  EXPECT_EQ(held_sequence(head), Numbers{40});
  push(resequencing(100, 10, {}, endless));
  EXPECT_EQ(log_of("store.resequence").size(), 1U);
  EXPECT_EQ(deliver(kSync, usage_question(endless)), response(0, 0));
  push(question(kQuery, {}, {{50}}, 1, endless));
  EXPECT_EQ(ask(question(kQuery, {}, {}, 1, endless)), 0U);
  EXPECT_EQ(log_of("check0").size(), 1U);
  push(batch(kRemove, {{40}}, endless));
  EXPECT_EQ(held_sequence(head), Numbers{});
}

}  // namespace
