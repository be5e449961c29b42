// The entry point of what the producer sends: telling messages apart, who is notified, what is answered, and what
// becomes of messages that are not what they say.
#include <set>

#include "push_fixture.h"

using namespace es_test;

namespace {

const Aces kStored = {{20, 5}, {30, 1}};

std::string debug(const std::string& text) { return "D: es_acl_cpcx_handler: " + text; }
std::string error(const std::string& text) { return "E: es_acl_cpcx_handler: " + text; }
const std::string kNotified = debug("ACL change, update clients");

// One of each kind that is understood.
struct Message {
  uint32_t type;
  Bytes message;
  std::string record;  // its name in the text about versions
};
const Message kMessages[] = {
    {kWrite, batch(kAdd, {{40}}), "acl_pcx_acl_ace"},
    {kWrite, batch(kRemove, {{20}}), "acl_pcx_acl_ace"},
    {kWrite, resequencing(100, 10, {110, 120}), "acl_pcx_reseq"},
    {kWrite, question(kQuery, {}, {{40}, {50}}), "es_acl_pcx_res_query_req"},
    {kSync, question(kQuery, {}), "es_acl_pcx_res_query_req"},
    {kSync, question(kCancel, {}), "es_acl_pcx_res_query_req"},
    {kSync, usage_question(), "acl_pcx_cons_req"},
};

class Handler : public PushTest {
 protected:
  void SetUp() override {
    PushTest::SetUp();
    head_ = hold(kStored);
  }
  void require_resource_checks() {
    ASSERT_EQ(es_acl_register_res_check_callback(on_res_check, &client_), 0U);
    clear_log();
  }
  // The message is neither answered nor stored, and nobody is notified.
  void expect_refused(uint32_t type, const Bytes& message) {
    EXPECT_EQ(deliver(type, message), Bytes{});
    EXPECT_EQ(list(head_), kStored);
    EXPECT_FALSE(armed(head_));
    EXPECT_EQ(log_of("store.add"), Lines{});
    EXPECT_EQ(log_of("store.resequence"), Lines{});
  }

  es_acl_head* head_ = nullptr;
  Client client_;
};

TEST_F(Handler, MessageTypes) {
  const std::pair<uint32_t, std::string> types[] = {
      {17, "mtype PCX_CMD_PROD_REQ"},
      {18, "mtype PCX_CMD_PROD_SYNC_REQ"},
      {6, "mtype is PCX_CMD_WRITE"},
      {0, "mtype 0x0 is unknown"},
      {7, "mtype 0x7 is unknown"},
      {0x06000000, "mtype 0x6000000 is unknown"},
      {0xffffffff, "mtype 0xffffffff is unknown"},
  };
  for (const auto& [type, text] : types) {
    es_acl_cpcx_handler(7, type, nullptr, 0, nullptr, nullptr);
    Lines expected = {"I: Entering es_acl_cpcx_handler: length: 0", "trace w", debug(text)};
    if (type == 6 || type == 18) expected.push_back(error("Handler called with no data"));
    EXPECT_EQ(take_log(), expected);
  }
  deliver(17, batch(kAdd, {{40}}));
  EXPECT_EQ(log(kStore), Lines{});
}

TEST_F(Handler, UnknownCommands) {
  for (uint32_t command = 0; command < 40; ++command) {
    Bytes message = batch(command == 39 ? 0x0e000000 : command, {{40}});
    if (std::set<uint32_t>{0, 1, 10, 14}.count(command) == 0) {
      expect_refused(kWrite, message);
      EXPECT_EQ(take_log().back(), debug("UNKOWN-COMMAND...."));
    }
    if (command < 13 || command > 15) {
      expect_refused(kSync, message);
      EXPECT_EQ(take_log().back(), debug("Unkown PCX_CMD_PROD_SYNC_REQ type"));
    }
  }
}

TEST_F(Handler, Versions) {
  require_resource_checks();
  for (auto [type, message, record] : kMessages) {
    for (const uint32_t version : {0U, 2U, 0x01000000U, 0xffffffffU}) {
      put_32(message, 4, version);
      expect_refused(type, message);
      Lines shown = take_log(kLine | kTrace);
      EXPECT_EQ(Lines(shown.end() - 2, shown.end()),
                (Lines{"E: es_acl_cpcx_handler:" + record + " ver: crnt 1, rcv " +
                           std::to_string(static_cast<int>(version)),
                       "trace w"}));
    }
  }
  push(batch(kAdd, {{40}}));
  Bytes second = batch(kAdd, {{50}, {60}});
  put_32(second, 164, 2);
  push(second);
  EXPECT_EQ(list(head_).size(), 5U) << "the first record's version stands for the batch";
}

// --- Who is notified ---

struct Rule {
  const char* name;
  std::function<void()> arrange;
  Bytes message;
  bool notified;
  std::string last_line;  // of the dispatcher
};
void PrintTo(const Rule& rule, std::ostream* out) { *out << rule.name; }

Client refusing = {"", 5};
void nothing() {}

const std::string kSkipped = debug("Skipping invocation of es_acl_invoke_list");
// Changes that are made, and those to nobody's ACL, are the model's.
const Rule kRules[] = {
    {"addition_of_what_is_there", nothing, batch(kAdd, kStored), false, kSkipped},
    {"addition_refused", [] { es_acl_register_update_callback(on_update, &refusing); }, batch(kAdd, {{40}}),
     false, error("es_acl_cpcx_pcx_update_ace failed for ACL: edge Seq: 40")},
    {"addition_that_the_store_refuses", [] { store().add_acl_item_iter.next(12); }, batch(kAdd, {{40}}), true,
     kNotified},
    {"resequencing_refused", [] { es_acl_register_resequence_callback(on_resequence, &refusing); },
     resequencing(100, 10, {}), true, kNotified},
    {"resequencing_that_the_store_refuses", [] { store().resequence.next(22); }, resequencing(100, 0, {}),
     true, kNotified},
    {"resequencing_for_nobody", nothing, resequencing(100, 10, {}, "other"), false,
     error("acl lookup failed")},
    {"question_ignored", nothing, question(kQuery, {}, {{40}}), false,
     debug("PCX_WRITE Resource check ignored")},
};

class Notification : public Handler, public ::testing::WithParamInterface<Rule> {};

TEST_P(Notification, Rule) {
  GetParam().arrange();
  push(GetParam().message);
  EXPECT_EQ(running_for(head_->cb_timer_leaf), GetParam().notified ? timer_one_second() : 0);
  Lines own = log(kLine);
  std::erase_if(own, [](const std::string& line) { return line.find("es_acl_cpcx_handler:") == line.npos; });
  EXPECT_EQ(own.back(), GetParam().last_line);
}
INSTANTIATE_CASES(Notification, kRules);

// --- Everything that one message does, in order ---

Lines received(size_t length, const std::string& event) {
  return {"I: Entering es_acl_cpcx_handler: length: " + std::to_string(length), "trace w",
          debug("mtype is PCX_CMD_WRITE"), debug("Event for " + event)};
}
Lines looked_up(const std::string& counted) {
  return lines(counted.empty() ? Lines() : Lines{"I: Entering es_acl_lookup: name = edge", counted},
               "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")");
}
Lines locked(const std::string& entry, const std::string& call, const Lines& inside = {}) {
  return lines("I: Entering : " + entry, "trylock(lock:edge)", "store." + call, inside, "unlock(lock:edge)");
}
std::string step(const std::string& text) { return "D: es_acl_cpcx_handle_pcx_update_ace: " + text; }
// One record's part of the scan for removals, up to what the search found.
Lines scanned(uint32_t i, uint32_t seq, const void* found) {
  char address[32];
  snprintf(address, sizeof address, "%p", found);
  const std::string number = std::to_string(seq), where = "i " + std::to_string(i) + " acl edge ";
  const Lines search =
      lines(step(where + "Looking for ace " + number + " iter(nil)"),
            locked("es_acl_search_item_biter", "search_entry_iter(head:edge, " + number + ", 0, ptr)"),
            step("es_acl_search_item_biter returned" + std::string(address) + " iter (nil)"));
  return found == nullptr ? search : lines(search, step(where + "ace " + number + " found"));
}
const Lines kTimerStarted = {kNotified, "I: Entering es_acl_start_cb_timer for acl edge",
                             "D: es_acl_start_cb_timer: Staring the timer", "timer_one_second()"};
// Pushes a change that starts the timer last; the log up to there.
Lines pushed(const Bytes& message) {
  push(message);
  Lines shown = take_log();
  EXPECT_TRUE(shown.back().starts_with("mtimer_leaf_start(leaf, "));
  shown.pop_back();
  return shown;
}
const Lines kNoCallbacks = {"I: Entering : es_acl_invoke_update_callback", "trace w"};

TEST_F(Handler, WholeAddition) {
  const void* const stored = es_get_ace_data(head_, es_get_first_ace(head_));
  const Lines shown = pushed(batch(kAdd, {{20, 5}, {40, 1}}));
  EXPECT_EQ(
      shown,
      lines(received(320, "seq 335544320 of acl edge cmd 0"), debug("ACL_PCX_ADD/REMOVE_ACE"),
            "I: Entering es_acl_cpcx_handle_pcx_update_ace", looked_up(""),
            "D: es_acl_cpcx_handle_pcx_update_ace Received a batch of 2 of ACL edge for ACL_PCX_ADD_ACE",
            "trace w", scanned(1, 40, nullptr), scanned(0, 20, stored), "I: Entering : es_acl_compare_ace",
            step("i 0 compare ace succeeded, seq 20"), step("skipping item 0 duplicate"),
            step("Adding entry 40"), "pool_take(pool)", kNoCallbacks,
            locked("es_acl_add_acl_item_common", "add_acl_item_iter(head:edge, copy1, 40, 1, ptr)"),
            kTimerStarted));
}

TEST_F(Handler, WholeRemoval) {
  const void* const stored = es_get_ace_data(head_, es_get_first_ace(head_));
  const Lines shown = pushed(batch(kRemove, {{20, 99}, {40}}));
  const auto deleted = [](uint32_t i, const std::string& seq, const Lines& given) {
    return lines(
        step("Removing entry " + show(i) + ": sequence: " + seq),
        locked("es_acl_delete_item_common", "delete_entry_iter(head:edge, " + seq + ", 1, ptr)", given));
  };
  EXPECT_EQ(
      shown,
      lines(received(320, "seq 335544320 of acl edge cmd 16777216"), debug("ACL_PCX_ADD/REMOVE_ACE"),
            "I: Entering es_acl_cpcx_handle_pcx_update_ace", looked_up(""),
            "D: es_acl_cpcx_handle_pcx_update_ace Received a batch of 2 of ACL edge for ACL_PCX_REMOVE_ACE",
            "trace w", scanned(0, 20, stored), step("adding to batch, i 0 seq 20 curr_batch_size 0"),
            scanned(1, 40, nullptr), step("calling incremental_callback for remove: batch_size 1"), "trace w",
            kNoCallbacks, deleted(0, "20", {"pool_give(pool, stored20)"}), deleted(1, "40", {}),
            kTimerStarted));
}

TEST_F(Handler, WholeResequencing) {
  const Lines shown = pushed(resequencing(100, 10, {120, 130}));
  EXPECT_EQ(
      Lines(shown.begin(), shown.begin() + 13),
      lines(received(96, "seq 0 of acl edge cmd 167772160"), debug("ACL_PCX_RESEQ"), looked_up("main[22]"),
            "I: Entering : es_acl_resequence. name:edge, start_seq: 100,step:10, num_skip_seqs:2",
            "trylock(lock:edge)", "store.resequence(head:edge, 100, 10, 2, ptr)", "unlock(lock:edge)"));
  EXPECT_EQ(Lines(shown.begin() + 14, shown.end()),
            lines("trace w", error("Error es_acl_invoke_resequence_callback fail <0x16>"), "trace w",
                  kTimerStarted))
      << "no callback was ever registered";
  ASSERT_EQ(es_acl_register_resequence_callback(on_resequence, &client_), 0U);
  clear_log();
  push(resequencing(100, 10, {120, 130}));
  EXPECT_EQ(log_of("reseq("), Lines{"reseq(head:edge, 100, 10) 120 130"});
  EXPECT_EQ(log_of("E:"), Lines{});
  store().resequence.next(77);
  push(resequencing(100, 10, {}));
  EXPECT_EQ(log_of("E:"), Lines{error("Error es_acl_resequence fail <0x4d>")});
  EXPECT_EQ(log_of("reseq(").size(), 1U) << "not called after a failure of the store";
}

// --- Answers ---

uint32_t usage_answer = 0;
uint32_t on_usage() { return usage_answer; }
void use(uint32_t how) {
  usage_answer = how;
  es_acl_register_check_usage_callback(on_usage);
}

struct Answer {
  const char* name;
  std::function<void()> arrange;
  Bytes message;
  Bytes expected;
  Lines errors;
};
void PrintTo(const Answer& row, std::ostream* out) { *out << row.name; }

// A name of x without an end.
auto name_of_process(uint32_t status) {
  return [status] {
    platform().proc_name_get.next([status](int32_t, char* name, uint32_t size) {
      memset(name, 'x', size);
      return status;
    });
  };
}
void refuse_question() {
  es_acl_register_res_check_callback(on_res_check, &refusing);
  push(question(kQuery, {}, {{40}}));
}

const Lines kNone;
const Answer kAnswers[] = {
    {"usage", [] { use(0x81020304); }, usage_question(), response(0, 0x81020304), kNone},
    {"usage_of_an_unknown_acl", [] { use(1); }, usage_question("other"), response(2, 1, "", "", 0), kNone},
    {"no_process_name", name_of_process(3), usage_question(), response(0, 0, "Unknown"), kNone},
    {"full_process_name", name_of_process(0), usage_question(), response(0, 0, std::string(127, 'x')), kNone},
    {"no_node_name", [] { platform().node_name_get.next(3); }, usage_question(),
     response(0, 0, "test-process", ""), lines("E: es_acl_cpcx_handler:platform_get_node_name edge:<0x3>")},
    {"check_without_callbacks", nothing, question(kQuery, {}), response(0, 0), kNone},
    {"withdrawal_without_callbacks", nothing, question(kCancel, {}), response(0, 0), kNone},
    {"check_refused", refuse_question, question(kQuery, {}), response(5, 0),
     lines("E: es_acl_invoke_res_check_callback: callback func failed <0x5>",
           "E: es_acl_cpcx_verify_resource_availability: res_chk_cb failed: <0x5>")},
};

class Answering : public Handler, public ::testing::WithParamInterface<Answer> {};

TEST_P(Answering, All176Bytes) {
  const Answer& row = GetParam();
  row.arrange();
  clear_log();
  EXPECT_EQ(deliver(kSync, row.message), row.expected);
  EXPECT_EQ(log_of("E:"), row.errors);
  EXPECT_FALSE(armed(head_));
  if (get_32(row.expected, 8) == 0) return;
  EXPECT_EQ(log_of("proc_name_get"), Lines{"proc_name_get(" + std::to_string(getpid()) + ", \"\", 127)"});
  EXPECT_EQ(log_of("node_name_get"), Lines{"node_name_get(\"\", 32)"});
}
INSTANTIATE_CASES(Answering, kAnswers);

// The question, which is held, and the two that ask about it: one answers and keeps it, the other drops it.
TEST_F(Handler, WholeQuestions) {
  require_resource_checks();
  const Bytes held = question(kQuery, {}, {{40}, {50}});
  fail_allocation(1);
  push(held);
  EXPECT_TRUE(end_allocation_failure());
  EXPECT_EQ(log_of("E:"), Lines{error("memory allocation failed")});
  clear_log();
  push(held);
  Lines shown = take_log();
  std::erase_if(shown, [](const std::string& line) { return line.starts_with(debug("Event for seq ")); });
  EXPECT_EQ(shown, lines("I: Entering es_acl_cpcx_handler: length: 408", "trace w",
                         debug("mtype is PCX_CMD_WRITE"), debug("Processing ACL_PCX_QUERY_RES_AVAIL write")));
  const std::tuple<uint32_t, const char*, const char*> rows[] = {
      {kQuery, "ACL_PCX_QUERY_RES_AVAIL sync req", "ACL_PCX_QUERY_RES_AVAIL"},
      {kCancel, "ACL_PCX_CANCEL_RES_AVIAL_QUERY sync req", "ACL_PCX_CANCEL_QUERY_RES_AVAIL"}};
  for (const auto& [command, name, check] : rows) {
    clear_log();
    EXPECT_EQ(deliver(kSync, question(command, {})), response(0, 0));
    EXPECT_EQ(log_of("check").size(), 1U);
    EXPECT_EQ(log_of("D: es_acl_cpcx_handler: "),
              (Lines{debug("mtype PCX_CMD_PROD_SYNC_REQ"), debug("Query is " + show(command)), debug(name),
                     debug(check + std::string(":Resource check required")), debug("cons_resp->rc = <0>")}));
  }
  deliver(kSync, usage_question("other"));
  EXPECT_EQ(log_of("D: es_acl_cpcx_handler: ").back(), debug("acl lookup for other failed"));
}

TEST_F(Handler, NoMemoryForAnAnswer) {
  require_resource_checks();
  const std::pair<Bytes, Lines> rows[] = {
      {usage_question(), {error("calloc failed for response"), "trace w"}},
      {question(kQuery, {}), {error("Memory allocation failed for response")}},
      {question(kCancel, {}), {error("Memory allocation failed for responnse")}},
  };
  for (const auto& [message, shown] : rows) {
    clear_log();
    fail_allocation(1);
    expect_refused(kSync, message);
    EXPECT_TRUE(end_allocation_failure());
    const Lines all = log(kLine | kTrace);
    EXPECT_EQ(Lines(all.end() - static_cast<long>(shown.size()), all.end()), shown);
  }
}

// --- Messages that are not what they say ---

TEST_F(Handler, EveryShorterLength) {
  require_resource_checks();
  for (const auto& [type, message, record] : kMessages) {
    for (size_t length = 0; length < message.size(); ++length) {
      SCOPED_TRACE(std::to_string(message[3]) + ": " + std::to_string(length));
      clear_log();
      expect_refused(type, Bytes(message.begin(), message.begin() + static_cast<long>(length)));
      EXPECT_EQ(log_of("E:").size(), 1U);
    }
  }
  EXPECT_EQ(ask(question(kQuery, {})), 22U) << "none of them is held";
  for (size_t length = 0; length < 320; ++length) expect_refused(length < 160 ? 17 : 99, Bytes(length % 160));
  const Bytes two = batch(kAdd, {{40}, {50}});
  for (long length = 160; length < 320; ++length) push(Bytes(two.begin(), two.begin() + length));
  EXPECT_EQ(held_sequence(head_), (Numbers{20, 30, 40})) << "a rest behind the last whole record";
}

// Also where the size that they name wraps around in 32 bits.
TEST_F(Handler, CountsBeyondTheMessage) {
  require_resource_checks();
  const Bytes reseq = resequencing(100, 10, {110, 120}), held = question(kQuery, {}, {{40}, {50}});
  const std::tuple<Bytes, size_t, Numbers> rows[] = {
      {reseq, 84, {3, 0x3fffffff, 0x40000000, 0x40000002, 0x80000000, 0xffffffff}},
      {held, 16, {3, 0x08000000, 0x08000002, 0x10000000, 0x80000000, 0xffffffff}},
  };
  for (auto [message, offset, counts] : rows) {
    for (const uint32_t count : counts) {
      clear_log();
      put_32(message, offset, count);
      expect_refused(kWrite, message);
      EXPECT_EQ(log_of("E:").size(), 1U) << count;
    }
  }
  EXPECT_EQ(ask(question(kQuery, {})), 22U);
}

}  // namespace
