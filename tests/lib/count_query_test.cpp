// Asking the producer for an ACL's size.
#include <thread>

#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kLookedUp = {"I: Entering es_acl_cpcx_query_acl_count for edge",
                         "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")",
                         "dsv_lookup_data(793173, \"edge\", ptr)"};
const std::string kRead = "pcx_read(address:edge, 76, cap 16)";
const Lines kAsked = lines(kLookedUp, "D: es_acl_cpcx_query_acl_count: need to get acl count", kRead);
const Lines kAskedThreeTimes = lines(kAsked, kSleep, kRead, kSleep, kRead, kSleep);

Lines read_failed(const std::string& code) {
  return {"E: es_acl_cpcx_query_acl_count: pcx_read failed for initial query rc " + code + ": <" + code + ">",
          "trace w"};
}

uint32_t shorten_buffer(void*, const void*, uint32_t, void*, uint32_t* length) {
  *length = 3;
  return 3;
}

// A query that succeeds finds 2 ACEs and 1 remark, where there is somebody to be asked.
const Case kCases[] = {
    {"answered", [] { platform().pcx_read.next(answer(count_answer(2, 1))); }, 0, kAsked},
    {"look_up_is_not_retried", [] { platform().dsv_lookup_data.next(11); }, 11,
     lines(kLookedUp, "E: es_acl_cpcx_query_acl_count: dsv_lookup_data acl_name edge failed <0xb>",
           "trace w")},
    {"nobody_has_registered_the_name", [] { platform().dsv_lookup_data.next(0xa2ce3000); }, 0,
     lines(kLookedUp, "E: es_acl_cpcx_query_acl_count: dsv_lookup_data data not found for acl edge",
           "trace w")},
    {"passing_failures",
     [] {
       platform().pcx_read.next(shorten_buffer);
       platform().pcx_read.next(failed_with(11));
       platform().pcx_read.next(62);
       platform().pcx_read.next(answer(count_answer(2, 1)));
     },
     0, lines(kAskedThreeTimes, kRead)},
    {"fourth_passing_failure", [] { platform().pcx_read.next(62, 4); }, 62,
     lines(kAskedThreeTimes, kRead, kSleep, read_failed("0x3e"))},
    {"other_failure_in_errno", [] { platform().pcx_read.next(failed_with(5)); }, 5,
     lines(kAsked, read_failed("0x5"))},
    {"failure_that_errno_does_not_tell", [] { platform().pcx_read.next(failed_with(0)); }, 0xffffffff,
     lines(kAsked, read_failed("0xffffffff"))},
    {"answer_of_another_version", [] { platform().pcx_read.next(answer(count_answer(2, 1, 3))); }, 275,
     lines(kAsked, "E: es_acl_cpcx_query_acl_count:acl_pcx_query_req ver: crnt 1, rcv 3")},
};

class CountQuery : public LibraryTest, public ::testing::WithParamInterface<Case> {
 protected:
  void SetUp() override { initialise(); }
  // The status; what it found is in found_.
  uint32_t query(const char* name = "edge") {
    uint32_t aces = kUntouched, remarks = kUntouched;
    const uint32_t status = es_acl_cpcx_query_acl_count(name, &aces, &remarks);
    found_ = {aces, remarks};
    return status;
  }
  Numbers found_;
};

const Numbers kNothing = {0, kUntouched};

TEST_P(CountQuery, Exchange) {
  GetParam().arrange();
  EXPECT_EQ(query(), GetParam().status);
  EXPECT_EQ(found_, (GetParam().status == 0 && !requests().empty() ? Numbers{2, 1} : kNothing));
  EXPECT_EQ(log(), GetParam().expected);
  for (const Bytes& request : requests()) {
    ASSERT_EQ(request.size(), 76U);
    EXPECT_EQ(get_32(request, 0), 4U);
    EXPECT_EQ(get_32(request, 4), 1U);
    EXPECT_EQ(get_name(request, 8), "edge");
  }
}

INSTANTIATE_CASES(CountQuery, kCases);

TEST_F(CountQuery, LongestNameIsSentWholeAndALongerOneIsCut) {
  for (const size_t length : {64U, 65U, 300U}) {
    clear_log();
    platform().pcx_read.next(answer(count_answer(0x01020304, 0)));
    EXPECT_EQ(query(long_name(length).c_str()), 0U);
    EXPECT_EQ(found_[0], 0x01020304U);
    EXPECT_EQ(get_name(requests().at(0), 8), long_name(64));
  }
}

TEST_F(CountQuery, HeldAclIsAnsweredHereUnlessItIsEmpty) {
  make_acl("edge", {10, 20, 30});
  make_acl("empty");
  EXPECT_EQ(query(), 0U);
  EXPECT_EQ(found_, (Numbers{3, kUntouched}));
  EXPECT_EQ(log(kCall), Lines{});
  platform().pcx_read.next(answer(count_answer(2, 1)));
  EXPECT_EQ(query("empty"), 0U);
  EXPECT_EQ(found_, (Numbers{2, 1}));
}

TEST_F(CountQuery, NullArguments) {
  EXPECT_EQ(query(nullptr), 22U);
  EXPECT_EQ(found_, (Numbers{kUntouched, kUntouched}));
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_cpcx_query_acl_count for (null)",
                          "E: es_acl_cpcx_query_acl_count: Invalid parameters aclname (null)"}));
  EXPECT_EQ(es_acl_cpcx_query_acl_count("edge", nullptr, &found_[1]), 22U);
  EXPECT_EQ(es_acl_cpcx_query_acl_count("edge", &found_[0], nullptr), 22U);
}

TEST_F(CountQuery, AnswerOfTheWrongSizeIsNotUsed) {
  for (const size_t size : {0U, 8U, 15U, 17U}) {
    Bytes bytes = count_answer(2, 1);
    bytes.resize(size);
    platform().pcx_read.next(answer(bytes));
    EXPECT_NE(query(), 0U) << size;
    EXPECT_EQ(found_, kNothing) << size;
  }
}

// Another thread's query between this one's lookup and its read: each asks the address it found itself.
TEST_F(CountQuery, ConcurrentQueriesKeepTheirAddressesApart) {
  platform().pcx_read.always(answer(count_answer(2, 1)));
  bool other_done = false;
  platform().line_printed.always([&other_done](uint32_t, const std::string& text) {
    if (other_done || !text.ends_with("need to get acl count")) return;
    other_done = true;
    std::thread([] {
      uint32_t aces = 0, remarks = 0;
      es_acl_cpcx_query_acl_count("core", &aces, &remarks);
    }).join();
  });
  EXPECT_EQ(query(), 0U);
  EXPECT_EQ(log_of("pcx_read"), (Lines{"pcx_read(address:core, 76, cap 16)", kRead}));
  EXPECT_EQ(pointer_name(es_acl_global_handle), "address:core");
}

TEST_F(CountQuery, BehindTheRetrievalInterface) {
  const std::string entering = "I: Entering es_acl_get_ace_count: acl name: ";
  uint32_t aces = kUntouched, remarks = kUntouched;
  EXPECT_EQ(es_acl_get_ace_count(nullptr, &aces, &remarks), 22U);
  EXPECT_EQ(take_log(),
            (Lines{entering + "(null)", "E: es_acl_get_ace_count: Name cannot be null", "trace w"}));
  EXPECT_EQ(aces, kUntouched);
  platform().pcx_read.next(5);
  EXPECT_EQ(es_acl_get_ace_count("edge", &aces, &remarks), 5U);
  EXPECT_EQ(take_log(),
            lines(entering + "edge", kAsked, read_failed("0x5"),
                  "E: es_acl_get_ace_count: es_acl_cpcx_query_acl_count fail5(<0x5>)", "trace u"));
  platform().pcx_read.next(answer(count_answer(2, 1)));
  EXPECT_EQ(es_acl_get_ace_count("edge", &aces, &remarks), 0U);
  EXPECT_EQ(aces, 2U);
  EXPECT_EQ(remarks, 1U);
  EXPECT_EQ(log(), lines(entering + "edge", kAsked, "D: es_acl_get_ace_count: Ace count = 2 remarks = 1"));
}

}  // namespace
