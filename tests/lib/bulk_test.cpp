// Counting and reading many ACLs in one call.
#include <thread>

#include "bulk_fixture.h"
#include "push_fixture.h"

using namespace es_test;

namespace {

const std::string kCount = "es_acl_cpcx_query_acl_count_bulk:";
const std::string kBulkRead = "es_acl_cpcx_read_acl_bulk:";
constexpr uint32_t kTwoNames = 268 + 2 * 65;  // the optimum size at which a request has two

int failing_allocation = -1;  // of the operation; none

struct Counted {
  uint32_t status;
  Numbers aces, remarks;
};

Counted count(const Lines& names) {
  const auto number = static_cast<uint32_t>(names.size());
  Counted counted = {0, Numbers(number + 1, kUntouched), Numbers(number + 1, kUntouched)};
  const std::vector<char> fields_of_names = fields(names);
  fail_allocation(failing_allocation);
  counted.status = es_acl_cpcx_query_acl_count_bulk(fields_of_names.data(), counted.aces.data(),
                                                    counted.remarks.data(), number);
  end_allocation_failure();
  EXPECT_EQ(counted.aces[number], kUntouched);
  EXPECT_EQ(counted.remarks[number], kUntouched);
  counted.aces.pop_back();
  counted.remarks.pop_back();
  return counted;
}

class Bulk : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    platform().pcx_get_optimum_msg_size.always(8192);
  }
  // Fills heads of these names, with counts as the producer has told them.
  static uint32_t read(const Lines& names, const Numbers& aces, const Numbers& remarks) {
    std::vector<es_acl_head*> heads;
    for (const std::string& name : names) heads.push_back(held(name));
    heads.push_back(nullptr);
    const std::vector<char> fields_of_names = fields(names);
    fail_allocation(failing_allocation);
    const uint32_t status = es_acl_cpcx_read_acl_bulk(heads.data(), fields_of_names.data(), aces.data(),
                                                      remarks.data(), static_cast<uint32_t>(names.size()));
    end_allocation_failure();
    return status;
  }
  void make_acls(const Lines& names) {
    for (const std::string& name : names) make_acl(name);
  }
};

// --- The count query, step by step ---

const Lines kCountStart = {"I: Entering es_acl_cpcx_query_acl_count_bulk for 3 ACLs in batch"};
const Lines kCountSized = lines(kCountStart, "pcx_get_optimum_msg_size(793173)",
                                "D: " + kCount + " pcx_opt_size: 8192 batch_size: 3 num_entries_req: 3");
const Lines kCountReady = lines(
    kCountSized, "D: " + kCount + " ACL[0]: a", "dsv_lookup_data(793173, \"a\", ptr)",
    "D: " + kCount + " ACL[1]: b", "dsv_lookup_data(793173, \"b\", ptr)", "D: " + kCount + " ACL[2]: c",
    "dsv_lookup_data(793173, \"c\", ptr)",
    "D: " + kCount +
        " Invoking pcx_read to get acl types and number of aces in each acl for 3 entries entries read: 0 "
        "remaining entries: 3");
const std::string kCountRead = "pcx_read(address:c, 211, cap 48)";
const std::string kCountedAll =
    "D: " + kCount + " total entries read: 3 out of 3 entries and 0 remaining entries to read";
Lines counted(const std::string& numbers) {
  return {"D: " + kCount + " Producer returned for ACL: " + numbers};
}
const Lines kCountedAB = lines(kCountedAll, counted("a num_aces: 3 num_remark_aces: 1"),
                               counted("b num_aces: 0 num_remark_aces: 0"));
Lines wrong_count_length(uint32_t entries, uint32_t length) {
  return {"E: " + kCount + " entries read: " + show(entries) +
              " from producer does not match with expected number: 3 of entries, bytes_req: 48 bytes_ret: " +
              show(length) + " req_len: 211 batch_sz: 3 loop_cnt# 1",
          "trace w"};
}
Bytes counts(uint32_t last_version = 1) {
  Bytes bytes = count_answer(3, 1);
  bytes += count_answer(0, 0);
  return bytes += count_answer(0x01020304, 0x01020303, last_version);
}
void answer_bytes(size_t size) {
  Bytes bytes = counts();
  bytes.resize(size);
  platform().pcx_read.next(answer(bytes));
}
uint32_t shorten_buffer(void*, const void*, uint32_t, void*, uint32_t* length) {
  *length = 3;
  return 3;
}

const Case kCounts[] = {
    {"answered", [] { answer_bytes(48); }, 0,
     lines(kCountReady, kCountRead, kCountedAB, counted("c num_aces: 16909060 num_remark_aces: 16909059"))},
    {"passing_failures",
     [] {
       platform().pcx_read.next(shorten_buffer);
       platform().pcx_read.next(failed_with(11));
       platform().pcx_read.next(62);
       answer_bytes(48);
     },
     0,
     lines(kCountReady, kCountRead, kSleep, kCountRead, kSleep, kCountRead, kSleep, kCountRead, kCountedAB,
           counted("c num_aces: 16909060 num_remark_aces: 16909059"))},
    {"other_failure_in_errno", [] { platform().pcx_read.next(failed_with(5)); }, 5,
     lines(kCountReady, kCountRead,
           "E: " + kCount + " pcx_read failed for pcx_read # 1batch of 3 out of total: 3rc 0x5: <0x5>",
           "trace w")},
    {"one_less", [] { answer_bytes(32); }, 22, lines(kCountReady, kCountRead, wrong_count_length(2, 32))},
    {"one_byte_more", [] { answer_bytes(49); }, 22,
     lines(kCountReady, kCountRead, wrong_count_length(3, 49))},
    {"third_of_another_version", [] { platform().pcx_read.next(answer(counts(2))); }, 22,
     lines(kCountReady, kCountRead, kCountedAB,
           "E: es_acl_cpcx_query_acl_count_bulk:acl_pcx_query_resp ver: crnt 1, rcv 2", "trace w")},
    {"no_memory_for_the_request", [] { failing_allocation = 1; }, 12,
     lines(kCountStart, "E: " + kCount + " Memory allocation failed")},
    {"no_memory_for_the_answer", [] { failing_allocation = 2; }, 12,
     lines(kCountStart, "E: " + kCount + " Memory allocation for acl_query_resp failed")},
};

class BulkCount : public Bulk, public ::testing::WithParamInterface<Case> {};

TEST_P(BulkCount, Sequence) {
  GetParam().arrange();
  const Counted counted = count({"a", "b", "c"});
  EXPECT_EQ(counted.status, GetParam().status);
  EXPECT_EQ(log(), GetParam().expected);
  Numbers aces = {3, 0, 0x01020304}, remarks = {1, 0, 0x01020303};
  const auto written = static_cast<long>(log_of("D: " + kCount + " Producer returned").size());
  std::fill(aces.begin() + written, aces.end(), kUntouched);
  std::fill(remarks.begin() + written, remarks.end(), kUntouched);
  EXPECT_EQ(counted.aces, aces);
  EXPECT_EQ(counted.remarks, remarks);
}

INSTANTIATE_CASES(BulkCount, kCounts);

// --- The read, step by step: of two ACEs and a remark, of remarks alone, of one ACE ---

const Lines kReadStart = {"I: Entering es_acl_cpcx_read_acl_bulk with batch of 3 entries..."};
const Lines kReadReady = lines(
    kReadStart, "pcx_get_optimum_msg_size(793173)",
    "D: " + kBulkRead + " pcx_opt_size: 8192 batch_size: 3 num_entries_req: 3",
    "D: " + kBulkRead + " ACL[0]: a", "D: " + kBulkRead + " ACL[1]: b", "D: " + kBulkRead + " ACL[2]: c",
    "D: " + kBulkRead +
        " Invoking pcx_read to get ace definitions in each acl for 3 ACLs having 3 aces... ACLs read: 0 "
        "remaining entries: 3");
const std::string kReadCall = "pcx_read(producer, 211, cap 480)";
const Lines kDecoding = {
    "D: " + kBulkRead +
        " ACLs read: 3 having total 3 ACEs out of total ACLs: 3 and 0 remaining entries to read",
    "D: " + kBulkRead + " Decoding 2 ACEs info for ACL: a"};
Lines offered(const std::string& name, uint32_t seq) {
  return {"pool_take(pool)", "I: Entering : es_acl_add_acl_item_common", "trylock(lock:" + name + ")",
          "store.add_acl_item_iter(head:" + name + ", ptr, " + show(seq) + ", 0, null)",
          "unlock(lock:" + name + ")"};
}
const Lines kStoredAll =
    lines(kDecoding, offered("a", 5), offered("a", 9), "D: " + kBulkRead + " Decoding 0 ACEs info for ACL: b",
          "D: " + kBulkRead + " Decoding 1 ACEs info for ACL: c", offered("c", 7));
Lines wrong_read_length(uint32_t length) {
  return {"E: " + kBulkRead + " length read: " + show(length) +
              " from producer does not match with expected length: 480 of data. req_len: 211 batch_size: 3 "
              "loop_cnt: 1",
          "trace w"};
}
constexpr size_t kPointer = 80 + offsetof(es_acl_ace, private_data);  // in the first record
void answer_records(size_t size) {
  Bytes bytes = ace_records({5, 9, 7});
  std::fill_n(bytes.begin() + kPointer, 8, uint8_t{1});
  bytes.resize(size);
  platform().pcx_read.next(answer(bytes));
}

const Case kReads[] = {
    {"answered", [] { answer_records(480); }, 0, lines(kReadReady, kReadCall, kStoredAll)},
    {"other_failure_in_errno", [] { platform().pcx_read.next(failed_with(5)); }, 5,
     lines(kReadReady, kReadCall,
           "E: " + kBulkRead +
               " pcx_read failed for pcx_read # 1for a batch of 3 ACLs for 3 aces out of total: 3 ACLs error "
               "0x5: <0x5>",
           "trace w")},
    {"one_byte_less", [] { answer_records(479); }, 22, lines(kReadReady, kReadCall, wrong_read_length(479))},
    {"second_of_another_version",
     [] {
       Bytes bytes = ace_records({5, 9, 7});
       put_32(bytes, 164, 3);
       platform().pcx_read.next(answer(bytes));
     },
     22,
     lines(kReadReady, kReadCall, kDecoding, offered("a", 5),
           "E: es_acl_cpcx_read_acl_bulk:es_acl_pcx_acl_ace ver: crnt 1, rcv 3")},
    {"no_second_record",
     [] {
       platform().pool_take.next([](pool*) { return calloc(1, sizeof(es_acl_ace)); });
       platform().pool_take.next(nullptr);
     },
     12, lines(kReadReady, kReadCall, kDecoding, offered("a", 5), "pool_take(pool)")},
    {"store_refuses_the_first", [] { store().add_acl_item_iter.next(28); }, 28,
     lines(kReadReady, kReadCall, kDecoding, offered("a", 5), "pool_give(pool, ptr)",
           "E: " + kBulkRead + " es_acl_add_acl_item_common failed <0x1c>", "trace w")},
    {"no_memory_for_the_request", [] { failing_allocation = 2; }, 12,
     lines(kReadStart, "E: " + kBulkRead + " Memory allocation failed for acl_read_req")},
    {"no_memory_for_the_answer", [] { failing_allocation = 3; }, 12,
     lines(kReadStart, "E: " + kBulkRead + " Memory allocation failed for ace_info_bulk")},
};

class BulkRead : public Bulk, public ::testing::WithParamInterface<Case> {};

TEST_P(BulkRead, Sequence) {
  make_acls({"a", "b", "c"});
  serve({{"a", {{5, 9}, 1}}, {"b", {{}, 2}}, {"c", {{7}, 0}}});
  GetParam().arrange();
  EXPECT_EQ(read({"a", "b", "c"}, {3, 2, 1}, {1, 2, 0}), GetParam().status);
  EXPECT_EQ(log(), GetParam().expected);
  if (GetParam().status != 0) return;
  EXPECT_EQ(held_sequence(held("a")), (Numbers{5, 9}));
  EXPECT_EQ(held_sequence(held("c")), Numbers{7});
  EXPECT_EQ(es_acl_search_item(held("a"), 5)->private_data, nullptr);
}

INSTANTIATE_CASES(BulkRead, kReads);

TEST_F(Bulk, RequestIsZeroBehindItsNamesAndALongNameIsCut) {
  platform().pcx_get_optimum_msg_size.always(kTwoNames);
  const std::string longest = long_name(64);
  serve({{longest, {{1}, 0}}, {"b", {{}, 0}}, {"c", {{}, 0}}});
  EXPECT_EQ(count({longest + "n", "b", "c"}).aces, (Numbers{1, 0, 0}));
  Bytes expected(16 + 65);
  const uint32_t header[] = {16, 1, 1, 1};
  for (size_t i = 0; i < 4; ++i) put_32(expected, 4 * i, header[i]);
  expected[16] = 'c';
  EXPECT_EQ(requests().at(1), expected);
}

// Below 268 bytes the number of names wraps.
TEST_F(Bulk, OptimumSizeDecidesHowManyNamesGoTogether) {
  const std::tuple<uint32_t, uint32_t, size_t> rows[] = {{0, 0, 1},   {267, 0, 1}, {268, 22, 0}, {332, 22, 0},
                                                         {333, 0, 3}, {397, 0, 3}, {398, 0, 2},  {463, 0, 1}};
  serve({{"a", {{5}, 0}}, {"b", {{5}, 0}}, {"c", {{5}, 0}}});
  make_acls({"a", "b", "c"});
  for (const auto& [size, status, calls] : rows) {
    SCOPED_TRACE(size);
    platform().pcx_get_optimum_msg_size.always(size);
    clear_log();
    EXPECT_EQ(count({"a", "b", "c"}).status, status);
    EXPECT_EQ(log_of("pcx_read").size(), calls);
    EXPECT_EQ(read({"a", "b", "c"}, {1, 1, 1}, {0, 0, 0}), status);
    EXPECT_EQ(log_of("pcx_read").size(), 2 * calls);
  }
}

TEST_F(Bulk, NoNames) {
  serve({});
  EXPECT_EQ(count({}).status, 0U);
  EXPECT_EQ(read({}, {0}, {0}), 0U);
  EXPECT_EQ(log_of("pcx_read"), (Lines{"pcx_read(producer, 16, cap 0)", "pcx_read(producer, 16, cap 0)"}));
  for (const Bytes& request : requests()) EXPECT_EQ(request.size(), 16U);
  platform().pcx_read.always(answer(counts()));
  EXPECT_EQ(count({}).status, 22U);
  EXPECT_EQ(read({}, {0}, {0}), 22U);
}

TEST_F(Bulk, NullArrays) {
  char names[65] = "a";
  uint32_t numbers[1] = {};
  es_acl_head* heads[1] = {};
  for (int missing = 0; missing < 4; ++missing) {
    const auto given = [missing](int index, auto* array) { return index == missing ? nullptr : array; };
    clear_log();
    EXPECT_EQ(
        es_acl_cpcx_read_acl_bulk(given(0, heads), given(1, names), given(2, numbers), given(3, numbers), 1),
        22U);
    const auto shown = [&](int index, const void* array) { return hex(index == missing ? nullptr : array); };
    EXPECT_EQ(log(), (Lines{"I: Entering es_acl_cpcx_read_acl_bulk with batch of 1 entries...",
                            "E: " + kBulkRead + " Invalid parameters aclhead_type" + shown(0, heads) +
                                " acl_names " + shown(1, names) + "num_aces " + shown(2, numbers) +
                                " num_rem_aces" + shown(3, numbers)}));
    if (missing == 0) continue;
    clear_log();
    EXPECT_EQ(es_acl_cpcx_query_acl_count_bulk(given(1, names), given(2, numbers), given(3, numbers), 1),
              22U);
    EXPECT_EQ(log(), (Lines{"I: Entering es_acl_cpcx_query_acl_count_bulk for 1 ACLs in batch",
                            "E: " + kCount + " Invalid parameters aclname" + shown(1, names) + " num_aces " +
                                shown(2, numbers) + " num_remark_aces " + shown(3, numbers)}));
  }
}

// --- Names that nobody has registered ---

// Requests of two: an absent name in the middle of the first, the whole second, and then more names than in the first.
TEST_F(Bulk, AbsentNamesAreNotSentAndCountNothing) {
  platform().pcx_get_optimum_msg_size.always(kTwoNames);
  serve({{"a", {{1}, 1}}, {"d", {{1, 2}, 0}}, {"e", {{1, 2, 3}, 2}}});
  const Counted counted = count({"a", "x", "y", "z", "d", "e"});
  EXPECT_EQ(counted.status, 0U);
  EXPECT_EQ(counted.aces, (Numbers{2, 0, 0, 0, 2, 5}));
  EXPECT_EQ(counted.remarks, (Numbers{1, 0, 0, 0, 0, 2}));
  EXPECT_EQ(log_of("pcx_read"), (Lines{"pcx_read(producer, 81, cap 96)", "pcx_read(producer, 146, cap 32)"}));
  EXPECT_EQ(names_in(requests().at(1), 16), (Lines{"d", "e"}));
  EXPECT_EQ(log_of("E: "), (Lines{"E: " + kCount + " dsv_lookup_data data not found for acl x",
                                  "E: " + kCount + " dsv_lookup_data data not found for acl y",
                                  "E: " + kCount + " dsv_lookup_data data not found for acl z"}));
  clear_log();
  EXPECT_EQ(count({"x", "y", "z"}).aces, Numbers(3, 0));
  EXPECT_EQ(log_of("pcx_read"), Lines{});
  platform().dsv_lookup_data.next(62);
  EXPECT_EQ(count({"a", "d"}).aces, (Numbers{2, 2})) << "another failure of the lookup does not matter";
}

// --- Hostile counts and answers ---

TEST_F(Bulk, CountsThatDoNotAddUpAreRefused) {
  make_acls({"a", "b"});
  serve({{"a", {{}, 0}}, {"b", {{}, 0}}});
  EXPECT_EQ(read({"a", "b"}, {3, 1}, {1, 2}), 22U);
  EXPECT_EQ(log_of("pcx_read"), Lines{});
  EXPECT_EQ(log_of("E: "), Lines{"E: " + kBulkRead + " ACL b has 1 ACEs, and 2 remarks among them"});
  // Their sum is none in 32 bits, which an empty answer would fit.
  EXPECT_NE(read({"a", "b"}, {0x80000000, 0x80000000}, {0, 0}), 0U);
}

// The producer has more than it counted for the third ACL, which a request of its own asks for; then it has not.
TEST_F(Bulk, NothingIsStoredBeforeTheLastAnswer) {
  platform().pcx_get_optimum_msg_size.always(kTwoNames);
  make_acls({"a", "b", "c"});
  for (const Numbers& third : {Numbers{3, 4}, Numbers{3}}) {
    serve({{"a", {{1}, 0}}, {"b", {{2}, 0}}, {"c", {third, 0}}});
    clear_log();
    EXPECT_EQ(read({"a", "b", "c"}, {1, 1, 1}, {0, 0, 0}), third.size() == 1 ? 0U : 22U);
    EXPECT_EQ(log_of("pcx_read"),
              (Lines{"pcx_read(producer, 146, cap 480)", "pcx_read(producer, 81, cap 160)"}));
    EXPECT_EQ(log_of("pool_take").size(), third.size() == 1 ? 3U : 0U);
  }
  for (const uint32_t i : {0U, 1U, 2U})
    EXPECT_EQ(held_sequence(held(std::string(1, "abc"[i]))), Numbers{i + 1});
}

// Two ACLs have changed since they were counted, and their sum has not.
TEST_F(Bulk, AnAceOfAnotherAclIsNotTaken) {
  const std::string longest = long_name(64);
  make_acls({"a", longest});
  serve({{"a", {{1, 2}, 0}}, {longest, {{3}, 0}}});
  EXPECT_EQ(read({"a", longest}, {1, 2}, {0, 0}), 22U);
  EXPECT_EQ(log_of("E: "),
            Lines{"E: " + kBulkRead + " changed since it was counted: ACE 2 of ACL " + longest + " is of a"});
  EXPECT_EQ(held_sequence(held(longest)), Numbers{});
  EXPECT_EQ(read({"a", longest}, {2, 1}, {0, 0}), 0U);
  EXPECT_EQ(held_sequence(held(longest)), Numbers{3});
}

// --- Pushes that arrive meanwhile ---

// One on the delivery thread is kept to the end, one that the reading thread hands in itself is applied at once.
TEST_F(Bulk, PushesMeetTheRead) {
  make_acls({"a", "b"});
  const Acls acls = {{"a", {{10}, 0}}, {"b", {{20}, 0}}};
  serve(acls);
  for (const uint32_t status : {5U, 0U}) {
    platform().pcx_read.next([=](auto... arguments) {
      std::thread([] { push(batch(kAdd, {{30}}, "b")), push(batch(kRemove, {{10}}, "a")); }).join();
      EXPECT_EQ(log_of("store.add"), Lines{});
      push(batch(kAdd, {{40}}, "b"));
      EXPECT_EQ(held_sequence(held("b")), Numbers{40});
      return status == 0 ? producer(acls)(arguments...) : status;
    });
    clear_log();
    EXPECT_EQ(read({"a", "b"}, {1, 1}, {0, 0}), status);
    EXPECT_EQ(held_sequence(held("a")), Numbers{});
    EXPECT_EQ(held_sequence(held("b")), (status == 0 ? Numbers{20, 30, 40} : Numbers{40}));
    push(batch(kRemove, {{40}}, "b"));
  }
  EXPECT_EQ(held_sequence(held("b")), (Numbers{20, 30})) << "the fill is over";
}

}  // namespace
