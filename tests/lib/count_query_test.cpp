// Asking the producer for an ACL's size.
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr uint32_t kUntouched = 4711;

const Lines kLookedUp = {"I: Entering es_acl_cpcx_query_acl_count for edge",
                         "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")",
                         "dsv_lookup_data(793173, \"edge\")"};
const std::string kAsking = "D: es_acl_cpcx_query_acl_count: need to get acl count";
const std::string kRead = "pcx_read(address:edge, 76 bytes, cap 16)";
const std::string kSleep = "nanosleep(1, 0)";

Lines looked_up(const Lines& rest) {
  Lines lines = kLookedUp;
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

std::string read_failed(const std::string& code) {
  return "E: es_acl_cpcx_query_acl_count: pcx_read failed for initial query rc " + code + ": <" + code + ">";
}

class CountQuery : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  uint32_t query(const char* name = "edge") {
    aces_ = remarks_ = kUntouched;
    return es_acl_cpcx_query_acl_count(name, &aces_, &remarks_);
  }
  void expect(uint32_t aces, uint32_t remarks) const {
    EXPECT_EQ(aces_, aces);
    EXPECT_EQ(remarks_, remarks);
  }
  uint32_t aces_ = 0, remarks_ = 0;
};

TEST_F(CountQuery, AsksTheProducer) {
  platform().pcx_read.next(answer(count_answer(0x01020304, 5)));
  EXPECT_EQ(query(), 0U);
  expect(0x01020304, 5);
  EXPECT_EQ(log(), (looked_up({kAsking, kRead})));
  const Bytes request = events(kCall)[1].bytes;
  ASSERT_EQ(request.size(), 76U);
  EXPECT_EQ(get_32(request, 0), 4U);
  EXPECT_EQ(get_32(request, 4), 1U);
  EXPECT_EQ(get_name(request, 8), "edge");
  EXPECT_EQ(pointer_name(es_acl_global_handle), "address:edge");
}

TEST_F(CountQuery, LongestNameIsSentWholeAndALongerOneIsCut) {
  for (const size_t length : {64U, 65U, 300U}) {
    clear_log();
    platform().pcx_read.next(answer(count_answer(1, 0)));
    EXPECT_EQ(query(long_name(length).c_str()), 0U);
    EXPECT_EQ(get_name(events(kCall)[1].bytes, 8), long_name(64));
  }
}

TEST_F(CountQuery, HeldAclIsAnsweredHere) {
  make_acl("edge", {10, 20, 30});
  EXPECT_EQ(query(), 0U);
  expect(3, kUntouched);
  EXPECT_EQ(log(kCall), (Lines{}));
}

TEST_F(CountQuery, HeldButEmptyAclIsAskedFor) {
  make_acl("edge");
  platform().pcx_read.next(answer(count_answer(2, 1)));
  EXPECT_EQ(query(), 0U);
  expect(2, 1);
}

TEST_F(CountQuery, NullArguments) {
  EXPECT_EQ(query(nullptr), 22U);
  expect(kUntouched, kUntouched);
  EXPECT_EQ(log(kAll & ~kTrace),
            (Lines{"I: Entering es_acl_cpcx_query_acl_count for (null)",
                   "E: es_acl_cpcx_query_acl_count: Invalid parameters aclname (null)"}));
  platform().pcx_read.always(answer(count_answer(2, 1)));
  EXPECT_EQ(es_acl_cpcx_query_acl_count("edge", nullptr, &remarks_), 22U);
  EXPECT_EQ(es_acl_cpcx_query_acl_count("edge", &aces_, nullptr), 22U);
}

TEST_F(CountQuery, NameThatNobodyRegistered) {
  platform().dsv_lookup_data.next(0xa2ce3000);
  EXPECT_EQ(query(), 0U);
  expect(0, kUntouched);
  EXPECT_EQ(log(), (looked_up({"E: es_acl_cpcx_query_acl_count: dsv_lookup_data data not found for acl edge",
                               "trace w"})));
}

TEST_F(CountQuery, FailedLookUpIsNotRetried) {
  platform().dsv_lookup_data.next(11);
  EXPECT_EQ(query(), 11U);
  expect(0, kUntouched);
  EXPECT_EQ(
      log(),
      (looked_up({"E: es_acl_cpcx_query_acl_count: dsv_lookup_data acl_name edge failed <0xb>", "trace w"})));
}

TEST_F(CountQuery, PassingFailuresAreRetriedEachTimeWithTheWholeBuffer) {
  platform().pcx_read.next([](void*, const void*, uint32_t, void*, uint32_t* length) {
    *length = 3;
    return 3U;
  });
  platform().pcx_read.next(failed_with(11));
  platform().pcx_read.next(62);
  platform().pcx_read.next(answer(count_answer(2, 1)));
  EXPECT_EQ(query(), 0U);
  expect(2, 1);
  EXPECT_EQ(log(), (looked_up({kAsking, kRead, kSleep, kRead, kSleep, kRead, kSleep, kRead})));
  for (size_t i = 2; i < 5; ++i) {
    const auto calls = events(kCall);
    EXPECT_EQ(calls.at(2 * i - 1).bytes, calls.at(1).bytes) << "every attempt sends the same request";
  }
}

TEST_F(CountQuery, FourthPassingFailureIsTheLast) {
  platform().pcx_read.next(62, 4);
  EXPECT_EQ(query(), 62U);
  expect(0, kUntouched);
  EXPECT_EQ(log(), (looked_up({kAsking, kRead, kSleep, kRead, kSleep, kRead, kSleep, kRead, kSleep,
                               read_failed("0x3e"), "trace w"})));
}

TEST_F(CountQuery, OtherFailuresAreFinal) {
  platform().pcx_read.next(failed_with(5));
  EXPECT_EQ(query(), 5U);
  EXPECT_EQ(log(), (looked_up({kAsking, kRead, read_failed("0x5"), "trace w"})));
  clear_log();
  platform().pcx_read.next(0x80000001);  // passing for the name service, not here
  EXPECT_EQ(query(), 0x80000001);
  expect(0, kUntouched);
  EXPECT_EQ(log(), (looked_up({kAsking, kRead, read_failed("0x80000001"), "trace w"})));
}

TEST_F(CountQuery, AnswerOfAnotherVersion) {
  platform().pcx_read.next(answer(count_answer(2, 1, 3)));
  EXPECT_EQ(query(), 275U);
  expect(0, kUntouched);
  EXPECT_EQ(
      log(kAll & ~kTrace),
      (looked_up({kAsking, kRead, "E: es_acl_cpcx_query_acl_count:acl_pcx_query_req ver: crnt 1, rcv 3"})));
}

TEST_F(CountQuery, AnswerOfTheWrongSizeIsNotUsed) {
  for (const size_t size : {0U, 1U, 8U, 15U, 17U, 32U}) {
    Bytes bytes = count_answer(2, 1);
    bytes.resize(size);
    platform().pcx_read.next(answer(bytes));
    EXPECT_NE(query(), 0U) << size;
    expect(0, kUntouched);
  }
}

// Another thread's query between this one's lookup and its read: each asks the address it found itself.
TEST_F(CountQuery, ConcurrentQueriesKeepTheirAddressesApart) {
  platform().pcx_read.always(answer(count_answer(2, 1)));
  bool other_done = false;
  platform().line_printed.always([&other_done](uint32_t, const std::string& text) {
    if (other_done || text != kAsking.substr(3)) return;
    other_done = true;
    std::thread([] {
      uint32_t aces = 0, remarks = 0;
      es_acl_cpcx_query_acl_count("core", &aces, &remarks);
    }).join();
  });
  EXPECT_EQ(query(), 0U);
  Lines reads = log(kCall);
  std::erase_if(reads, [](const std::string& call) { return !call.starts_with("pcx_read"); });
  EXPECT_EQ(reads, (Lines{"pcx_read(address:core, 76 bytes, cap 16)", kRead}));
}

// --- The same behind the retrieval interface ---

TEST_F(CountQuery, GetAceCount) {
  platform().pcx_read.next(answer(count_answer(2, 1)));
  uint32_t aces = 0, remarks = 0;
  EXPECT_EQ(es_acl_get_ace_count("edge", &aces, &remarks), 0U);
  EXPECT_EQ(aces, 2U);
  EXPECT_EQ(remarks, 1U);
  Lines expected = {"I: Entering es_acl_get_ace_count: acl name: edge"};
  for (const std::string& line : looked_up({kAsking, kRead})) expected.push_back(line);
  expected.push_back("D: es_acl_get_ace_count: Ace count = 2 remarks = 1");
  EXPECT_EQ(log(), expected);
}

TEST_F(CountQuery, GetAceCountFailures) {
  uint32_t aces = kUntouched, remarks = kUntouched;
  EXPECT_EQ(es_acl_get_ace_count(nullptr, &aces, &remarks), 22U);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_get_ace_count: acl name: (null)",
                          "E: es_acl_get_ace_count: Name cannot be null", "trace w"}));
  EXPECT_EQ(aces, kUntouched);
  clear_log();
  platform().pcx_read.next(5);
  EXPECT_EQ(es_acl_get_ace_count("edge", &aces, &remarks), 5U);
  Lines expected = {"I: Entering es_acl_get_ace_count: acl name: edge"};
  for (const std::string& line : looked_up({kAsking, kRead, read_failed("0x5"), "trace w"}))
    expected.push_back(line);
  expected.push_back("E: es_acl_get_ace_count: es_acl_cpcx_query_acl_count fail5(<0x5>)");
  expected.push_back("trace u");
  EXPECT_EQ(log(), expected);
}

}  // namespace
