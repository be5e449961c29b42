// Two states of an ACL in, what has to be pushed out; and that a consumer that does as it is told comes to hold the
// second state.
#include "difference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "acl_change.h"
#include "model_consumer.h"
#include "support.h"

namespace es_acl::producer {

constexpr size_t kMuch = 512 << 10;

using test::Entries;

AclPtr make(const Entries& entries) { return test::make_acl("a", entries); }

// "-10 -20 +30" or "start 5 step 5 skip 10 15"
std::string told(const Difference& difference) {
  std::string text;
  if (const auto& series = difference.resequencing) {
    text = " start " + std::to_string(series->start) + " step " + std::to_string(series->step) + " skip";
    for (const uint32_t number : series->skip) text += " " + std::to_string(number);
    return text.substr(1);
  }
  for (const AceRecord& record : difference.removals)
    text += " -" + std::to_string(es_acl_wire_32(record.ace.seq));
  for (const AceRecord& record : difference.additions)
    text += " +" + std::to_string(es_acl_wire_32(record.ace.seq));
  return text.empty() ? text : text.substr(1);
}

TEST(DifferenceOfStates, IsTheLeastThatHasToBeTold) {
  const Entries abc = {{10, 'a'}, {20, 'b'}, {30, 'c'}};
  const struct {
    Entries before, after;
    const char* expected;
    size_t changed = 0;
    size_t max_message = kMuch;
  } table[] = {
      {{}, {}, ""},
      {abc, abc, ""},
      {{}, abc, "+10 +20 +30"},
      {abc, {}, "-10 -20 -30"},
      {abc, {{10, 'a'}, {20, 'x'}, {30, 'c'}}, "+20", 1},
      {abc, {{5, 'x'}, {10, 'a'}, {25, 'x'}, {30, 'c'}, {40, 'x'}}, "-20 +5 +25 +40"},
      {abc, {{10, 'b'}, {20, 'a'}, {30, 'c'}}, "+10 +20", 2},
      {{{1, 'a'}, {UINT32_MAX, 'b'}}, {{2, 'a'}, {UINT32_MAX, 'x'}}, "-1 +2 +4294967295", 1},
      {{{10, 'R'}}, {{10, 'a'}}, "+10", 1},
      // Renumbered.
      {abc, {{100, 'a'}, {200, 'b'}, {300, 'c'}}, "start 100 step 100 skip"},
      {abc, {{1, 'a'}, {2, 'b'}, {3, 'c'}}, "start 1 step 1 skip"},
      {abc, {{20, 'a'}, {30, 'b'}, {40, 'c'}}, "start 20 step 10 skip", 2},
      {abc, {{10, 'a'}, {20, 'b'}, {40, 'c'}}, "start 10 step 10 skip 30"},
      {{{10, 'a'}}, {{11, 'a'}}, "start 11 step 1 skip"},
      {{{10, 'a'}, {20, 'a'}}, {{10, 'a'}, {30, 'a'}}, "start 10 step 20 skip"},  // equal entries
      {{{10, 'R'}, {20, 'a'}}, {{10, 'R'}, {30, 'a'}}, "start 10 step 20 skip"},
      {{{1, 'a'}, {2, 'b'}}, {{UINT32_MAX - 1, 'a'}, {UINT32_MAX, 'b'}}, "start 4294967294 step 1 skip"},
      // As many bytes as the two records, and one number more.
      {{{1, 'a'}, {2, 'b'}, {3, 'c'}}, {{1, 'a'}, {2, 'b'}, {61, 'c'}}, nullptr},
      {{{1, 'a'}, {2, 'b'}, {3, 'c'}}, {{1, 'a'}, {2, 'b'}, {62, 'c'}}, "-3 +62"},
      {{{1, 'a'}, {2, 'b'}}, {{1, 'a'}, {UINT32_MAX, 'b'}}, "start 1 step 4294967294 skip"},
      // Not above the limit.
      {abc, {{10, 'a'}, {20, 'b'}, {50, 'c'}}, "start 10 step 10 skip 30 40", 0, 96},
      {abc, {{10, 'a'}, {20, 'b'}, {50, 'c'}}, "-30 +50", 0, 95},
      {abc, {{100, 'a'}, {200, 'b'}, {300, 'c'}}, "-10 -20 -30 +100 +200 +300", 0, 87},
      // The order or the entries differ.
      {abc, {{100, 'a'}, {200, 'c'}, {300, 'b'}}, "-10 -20 -30 +100 +200 +300"},
      {abc, {{100, 'a'}, {200, 'b'}}, "-10 -20 -30 +100 +200"},
      {abc, {{100, 'a'}, {200, 'b'}, {300, 'x'}}, "-10 -20 -30 +100 +200 +300"},
  };
  for (const auto& one : table) {
    const auto difference =
        find_difference(make(one.before)->records(), make(one.after)->records(), one.max_message);
    SCOPED_TRACE(told(difference));
    if (one.expected)
      EXPECT_EQ(told(difference), one.expected);
    else
      EXPECT_EQ(difference.resequencing->skip.size(), 58u);  // 88 + 4 * 58 bytes against 2 * 160
    EXPECT_EQ(difference.changed, one.changed);
  }
}

// Pushes the change to a consumer that holds the first state; returns how many messages that took.
size_t bring_along(const AclPtr& before, const AclPtr& after, size_t max_message, Form form) {
  const auto holds = [&](const AclPtr& acl) {
    std::map<uint32_t, AceRecord> copy;
    for (const AceRecord& record : acl->records()) {
      const bool is_remark = es_acl_wire_32(record.ace.kind) == ES_ACL_KIND_REMARK;
      if (form != Form::kRules || !is_remark) copy.emplace(es_acl_wire_32(record.ace.seq), record);
    }
    return copy;
  };
  test::ModelConsumer consumer(1);
  consumer.copies["a"] = holds(before);
  const AclChange change("a", before, after, max_message);
  for (const Message message : change.messages(form)) {
    EXPECT_LE(message.size(), std::max(max_message, sizeof(AceRecord)));
    consumer.apply("a", message);
  }
  const auto same = [](const auto& a, const auto& b) {
    return a.first == b.first && std::memcmp(&a.second, &b.second, sizeof a.second) == 0;
  };
  const auto expected = holds(after);
  EXPECT_TRUE(std::ranges::equal(consumer.copies["a"], expected, same));
  return consumer.messages;
}

TEST(DifferenceOfStates, BatchesAreAsFewAsTheSizeAllows) {
  Entries hundred;
  for (uint32_t i = 1; i <= 100; ++i) hundred[i] = 'a';
  const struct {
    Entries before, after;
    size_t max_message;
    Form form;
    size_t messages;
  } table[] = {
      {{}, hundred, 100 * 160, Form::kWhole, 1},
      {{}, hundred, 100 * 160 - 1, Form::kWhole, 2},
      {hundred, {}, 1, Form::kWhole, 100},
      // A remark is nothing to those who hold the rules only, and its place no reason to tell all numbers.
      {{{1, 'a'}, {3, 'b'}}, {{1, 'a'}, {2, 'R'}, {3, 'b'}}, kMuch, Form::kRules, 0},
      {{{1, 'a'}, {2, 'R'}, {3, 'b'}}, {{2, 'a'}, {3, 'R'}, {4, 'b'}}, kMuch, Form::kRules, 1},
  };
  for (const auto& one : table)
    EXPECT_EQ(bring_along(make(one.before), make(one.after), one.max_message, one.form), one.messages)
        << one.max_message;
}

// Random states, random edits of them, random sizes: whatever the form, the consumer holds what it should.
TEST(DifferenceOfStates, BringsEveryConsumerToTheNewState) {
  std::mt19937 random(20261123);
  const auto upto = [&](uint32_t most) { return std::uniform_int_distribution<uint32_t>(0, most)(random); };
  const auto content = [&] { return "abR"[upto(2)]; };
  size_t resequenced = 0;
  for (int round = 0; round < 3000; ++round) {
    Entries state, next;
    for (uint32_t left = upto(30); left != 0; --left) state[1 + upto(60)] = content();
    switch (upto(2)) {
      case 0:  // numbered anew, with gaps or a new entry now and then
        for (uint32_t number = 1 + upto(9), step = 1 + upto(9); const auto& [old_number, what] : state) {
          next[number] = upto(40) != 0 ? what : content();
          number += step * (1 + (upto(5) == 0 ? upto(3) : 0));
        }
        break;
      case 1:  // edited
        next = state;
        for (uint32_t left = upto(6); left != 0; --left) next[1 + upto(60)] = content();
        for (uint32_t left = upto(6); left != 0; --left) next.erase(1 + upto(60));
        break;
      default:  // another one
        for (uint32_t left = upto(30); left != 0; --left) next[1 + upto(60)] = content();
    }
    const AclPtr before = make(state), after = make(next);
    const size_t max_message = 60 + upto(2000);
    SCOPED_TRACE(round);
    for (const Form form : {Form::kWhole, Form::kRules}) bring_along(before, after, max_message, form);
    resequenced += AclChange("a", before, after, max_message).is_resequencing();
    if (::testing::Test::HasFailure()) return;
  }
  EXPECT_GT(resequenced, 200u);
}

}  // namespace es_acl::producer
