// Filling a head from the producer, batch by batch of two records.
#include <algorithm>

#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kQueried = {"I: Entering es_acl_cpcx_read_acl for edge", "pcx_query_producer(reg)"};
const Lines kStart =
    lines(kQueried, "D: es_acl_cpcx_read_acl: Type ACL_TYPE_ACL", "I: Entering : es_acl_cpcx_read_tacl",
          "I: Entering : es_acl_cpcx_get_max_entries_per_request", "pcx_get_optimum_msg_size(793173)");
const std::string kRead = "pcx_read(reg, 84, cap 320)";
const Lines kThreeReads = {kRead, kSleep, kRead, kSleep, kRead, kSleep};
const std::string kMore = "D: es_acl_cpcx_read_tacl: Got back 2 records, need to read more.";

Lines batch(uint32_t records) {
  return {kRead, "D: es_acl_cpcx_read_tacl: pcx_read " + std::to_string(records * 160) + " bytes",
          "D: es_acl_cpcx_read_tacl: Got back " + std::to_string(records) + " records", "trace w"};
}
Lines offered(uint32_t seq) {
  return {"pool_take(pool)",
          "main[40]",
          "I: Entering : es_acl_add_acl_item",
          "I: Entering : es_acl_add_acl_item_common",
          "trylock(lock:edge)",
          "store.add_acl_item_iter(head:edge, ptr, " + std::to_string(seq) + ", 0, null)",
          "unlock(lock:edge)"};
}
Lines stored(uint32_t seq) { return lines(offered(seq), "D: es_acl_cpcx_read_tacl: Type is ACL"); }
Lines failed(const std::string& code) {
  return {"E: es_acl_cpcx_read_acl: es_acl_cpcx_read_tacl fail <" + code + ">", "trace w"};
}
Lines read_failed(const std::string& code) {
  return lines("E: es_acl_cpcx_read_tacl: pcx_read failed <" + code + ">", "trace w", failed(code));
}
const Lines kReleased = {"I: Entering : es_acl_db_owner_release", "store.acl_release(\"edge\")"};

void answers(std::initializer_list<Bytes> batches) {
  for (const Bytes& bytes : batches) platform().pcx_read.next(answer(bytes));
}

uint32_t shorten_buffer(void*, const void*, uint32_t, void*, uint32_t* length) {
  *length = 3;
  return 0x80000001U;
}

const Case kCases[] = {
    {"batches",
     [] {
       Bytes first = ace_records({5, 9});
       std::fill_n(first.begin() + 80 + offsetof(es_acl_ace, private_data), 8, uint8_t{1});
       answers({first, ace_records({11})});
     },
     0, lines(kStart, batch(2), stored(5), stored(9), kMore, batch(1), stored(11))},
    {"empty_answer", [] { answers({{}}); }, 0, lines(kStart, batch(0))},
    {"no_producer", [] { platform().pcx_query_producer.next(2); }, 0,
     lines(kQueried, "D: es_acl_cpcx_read_acl: No producer, nothing to read", "trace w")},
    {"populated_head_is_not_read_again",
     [] {
       es_acl_add_acl_item(held("edge"), make_ace(7), 7, 0);
       clear_log();
     },
     0, lines(kQueried, kStart[2])},
    {"passing_failures",
     [] {
       platform().pcx_read.next(shorten_buffer);
       platform().pcx_read.next(0x9fffffff);
       platform().pcx_read.next(0x80000000);
       answers({ace_records({5})});
     },
     0, lines(kStart, kThreeReads, batch(1), stored(5))},
    {"each_batch_has_four_attempts",
     [] {
       platform().pcx_read.next(0x80000001, 3);
       answers({ace_records({5, 9})});
       platform().pcx_read.next(0x80000001, 4);
     },
     0x80000001,
     lines(kStart, kThreeReads, batch(2), stored(5), stored(9), kMore, kThreeReads, kRead, kSleep,
           read_failed("0x80000001"))},
    {"other_failure_in_errno", [] { platform().pcx_read.next(failed_with(5)); }, 5,
     lines(kStart, kRead, read_failed("0x5"))},
    {"wrong_version_ends_the_read_at_that_record",
     [] {
       Bytes bytes = ace_records({5, 9});
       put_32(bytes, 164, 2);
       answers({bytes});
     },
     22,
     lines(kStart, batch(2), stored(5), "E: es_acl_cpcx_read_tacl:es_acl_pcx_acl_ace ver: crnt 1, rcv 2",
           "trace w", failed("0x16"))},
    {"no_buffer", [] { fail_allocation(1); }, 12,
     lines(kStart, "E: es_acl_cpcx_read_tacl: malloc size 320 failed", "trace w", failed("0xc"))},
    {"no_record_releases_the_head",
     [] {
       answers({ace_records({5, 9})});
       platform().pool_take.next([](pool*) { return calloc(1, sizeof(es_acl_ace)); });
       platform().pool_take.next(nullptr);
     },
     12,
     lines(kStart, batch(2), stored(5), "pool_take(pool)",
           "E: es_acl_cpcx_read_tacl: es_acl_alloc_ace failed", kReleased, "pool_give(pool, ptr)", "trace w",
           failed("0xc"))},
    {"refused_record_goes_back_and_releases_the_head",
     [] {
       answers({ace_records({5, 9})});
       store().add_acl_item_iter.next(28);
     },
     12,
     lines(kStart, batch(2), offered(5), "E: es_acl_cpcx_read_tacl: es_acl_add_acl_item fail", "trace w",
           "pool_give(pool, ptr)", kReleased, failed("0xc"))},
};

class Read : public LibraryTest, public ::testing::WithParamInterface<Case> {
 protected:
  void SetUp() override {
    initialise();
    platform().pcx_get_optimum_msg_size.always(320);
    head_ = make_acl("edge");
  }
  uint32_t read() {
    clear_log();
    return es_acl_cpcx_read_acl(head_);
  }
  es_acl_head* head_ = nullptr;
  es_acl_iter position_ = nullptr;
};

TEST_P(Read, Sequence) {
  GetParam().arrange();
  EXPECT_EQ(es_acl_cpcx_read_acl(head_), GetParam().status);
  end_allocation_failure();
  EXPECT_EQ(log(), GetParam().expected);
  for (const uint32_t seq : GetParam().status == 0 ? held_sequence(head_) : Numbers())
    EXPECT_EQ(es_acl_search_item(head_, seq)->private_data, nullptr);
  const bool released = !log_of("store.acl_release").empty();
  EXPECT_EQ(held("edge"), released ? nullptr : head_) << "what was read stays";
}

INSTANTIATE_CASES(Read, kCases);

TEST_F(Read, RequestsGoOnBehindTheLastRecord) {
  answers({ace_records({5, 9}), ace_records({0x80000000, 0xffffffff}), {}});
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(held_sequence(head_), (Numbers{5, 9, 0x80000000, 0xffffffff}));
  Numbers starts;
  for (const Bytes& request : requests()) {
    ASSERT_EQ(request.size(), 84U);
    EXPECT_EQ(get_32(request, 0), 5U);
    EXPECT_EQ(get_32(request, 4), 1U);
    EXPECT_EQ(get_name(request, 8), "edge");
    EXPECT_EQ(get_32(request, 80), 2U);
    starts.push_back(get_32(request, 76));
  }
  EXPECT_EQ(starts, (Numbers{0, 9, 0xffffffff}));
}

TEST_F(Read, RoomIsWhatTheOptimumSizeHolds) {
  const std::pair<uint32_t, const char*> sizes[] = {
      {160, "160)"}, {319, "160)"}, {320, "320)"}, {524287, "524160)"}, {1000000, "1000000)"}};
  for (const auto& [size, capacity] : sizes) {
    platform().pcx_get_optimum_msg_size.next(size);
    EXPECT_EQ(read(), 0U);
    EXPECT_EQ(log_of("pcx_read"), Lines{std::string("pcx_read(reg, 84, cap ") + capacity});
  }
  for (const uint32_t size : {0U, 1U, 159U}) {
    platform().pcx_get_optimum_msg_size.next(size);
    EXPECT_EQ(read(), 22U);
    EXPECT_EQ(log_of("pcx_read"), Lines{});
  }
  EXPECT_EQ(held("edge"), head_);
  EXPECT_EQ(es_acl_cpcx_read_acl(nullptr), 22U);
}

TEST_F(Read, OtherFailuresAndSizesAreFinalAndKeepTheHead) {
  const auto expect_final = [this](uint32_t status) {
    EXPECT_EQ(read(), status);
    EXPECT_EQ(log(kStore), Lines{});
    EXPECT_EQ(log_of("pcx_read"), Lines{kRead});
    EXPECT_EQ(held("edge"), head_);
  };
  for (const uint32_t code : {3U, 11U, 62U, 0xa0000000U, 0x40000001U, 12U}) {
    platform().pcx_read.next(code);
    expect_final(code);
  }
  for (const size_t size : {1U, 159U, 161U, 319U, 321U, 480U, 100000U}) {
    SCOPED_TRACE(size);
    Bytes bytes = ace_records({5, 9, 11});
    bytes.resize(size);
    answers({bytes});
    expect_final(22);
  }
}

// A full batch that does not advance would be asked for again and again.
TEST_F(Read, FullBatchThatDoesNotAdvanceEndsTheRead) {
  const std::pair<std::vector<Bytes>, size_t> rows[] = {
      {{ace_records({5, 9}), ace_records({5, 9})}, 2},
      {{ace_records({5, 9}), ace_records({4, 8})}, 2},
      {{ace_records({0, 0})}, 1},
  };
  for (const auto& [batches, reads] : rows) {
    for (const Bytes& bytes : batches) platform().pcx_read.next(answer(bytes));
    EXPECT_EQ(read(), 22U);
    EXPECT_EQ(log_of("pcx_read").size(), reads);
    EXPECT_EQ(records_out(), held_sequence(head_).size());
    for (const uint32_t seq : held_sequence(head_)) es_acl_delete_item_common(head_, seq, 0, &position_);
  }
}

}  // namespace
