// Filling a head from the producer, batch by batch.
#include <cstring>
#include <functional>

#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kStart = {"I: Entering es_acl_cpcx_read_acl for edge",
                      "pcx_query_producer(reg)",
                      "D: es_acl_cpcx_read_acl: Type ACL_TYPE_ACL",
                      "I: Entering : es_acl_cpcx_read_tacl",
                      "I: Entering : es_acl_cpcx_get_max_entries_per_request",
                      "pcx_get_optimum_msg_size(793173)"};
const std::string kRead = "pcx_read(reg, 84 bytes, cap 320)";
const std::string kSleep = "nanosleep(1, 0)";
const std::string kMore = "D: es_acl_cpcx_read_tacl: Got back 2 records, need to read more.";

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

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
          "store.add_acl_item_iter(head:edge, " + std::to_string(seq) + ", 0, null)",
          "unlock(lock:edge)"};
}

Lines stored(uint32_t seq) { return offered(seq) + Lines{"D: es_acl_cpcx_read_tacl: Type is ACL"}; }

Lines failed(const std::string& code) {
  return {"E: es_acl_cpcx_read_acl: es_acl_cpcx_read_tacl fail <" + code + ">", "trace w"};
}

const Lines kReleased = {"I: Entering : es_acl_db_owner_release", "store.acl_release(\"edge\")"};

class Read : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    platform().pcx_get_optimum_msg_size.always(320);  // two records a batch
    head_ = make_acl("edge");
  }
  void answers(std::initializer_list<Bytes> batches) {
    for (const Bytes& bytes : batches) platform().pcx_read.next(answer(bytes));
  }
  uint32_t read() { return es_acl_cpcx_read_acl(head_); }
  Lines reads() const {
    Lines calls = log(kCall);
    std::erase_if(calls, [](const std::string& call) { return !call.starts_with("pcx_read"); });
    return calls;
  }
  // Records that the library took from the pool and neither stored nor gave back.
  long strays() const {
    long taken = 0;
    for (const std::string& call : log(kCall))
      taken += call == "pool_take(pool)" ? 1 : call == "pool_give(pool)" ? -1 : 0;
    return taken;
  }
  es_acl_head* head_ = nullptr;
};

TEST_F(Read, SeveralBatches) {
  answers({ace_records({5, 9}), ace_records({11})});
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(log(), (kStart + batch(2) + stored(5) + stored(9) + Lines{kMore} + batch(1) + stored(11)));
  EXPECT_EQ(held_sequence(head_), (std::vector<uint32_t>{5, 9, 11}));

  uint32_t expected_start = 0;
  for (const Event& call : events(kCall)) {
    if (call.bytes.empty()) continue;
    ASSERT_EQ(call.bytes.size(), 84U);
    EXPECT_EQ(get_32(call.bytes, 0), 5U);
    EXPECT_EQ(get_32(call.bytes, 4), 1U);
    EXPECT_EQ(get_name(call.bytes, 8), "edge");
    EXPECT_EQ(get_32(call.bytes, 76), expected_start);
    EXPECT_EQ(get_32(call.bytes, 80), 2U);
    expected_start = 9;
  }
}

TEST_F(Read, ExactlyFullBatchesTakeOneMoreRequest) {
  answers({ace_records({5, 9}), ace_records({0x80000000, 0xffffffff}), {}});
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(reads(), (Lines{kRead, kRead, kRead}));
  EXPECT_EQ(get_32(events(kCall).back().bytes, 76), 0xffffffffU);
  EXPECT_EQ(held_sequence(head_), (std::vector<uint32_t>{5, 9, 0x80000000, 0xffffffff}));
}

TEST_F(Read, EmptyAnswerIsAnEmptyAcl) {
  answers({{}});
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(log(), kStart + batch(0));
}

TEST_F(Read, RoomIsWhatTheOptimumSizeHolds) {
  const std::pair<uint32_t, std::string> sizes[] = {{160, "cap 160)"},
                                                    {319, "cap 160)"},
                                                    {320, "cap 320)"},
                                                    {524287, "cap 524160)"},
                                                    {1000000, "cap 1000000)"}};
  for (const auto& [size, capacity] : sizes) {
    clear_log();
    platform().pcx_get_optimum_msg_size.next(size);
    EXPECT_EQ(read(), 0U);
    EXPECT_EQ(reads(), (Lines{"pcx_read(reg, 84 bytes, " + capacity}));
  }
}

TEST_F(Read, NoRoomForOneRecord) {
  for (const uint32_t size : {0U, 1U, 159U}) {
    platform().pcx_get_optimum_msg_size.next(size);
    EXPECT_EQ(read(), 22U);
  }
  EXPECT_EQ(reads(), (Lines{}));
  EXPECT_EQ(held("edge"), head_);
}

TEST_F(Read, ProducerStates) {
  platform().pcx_query_producer.next(2);
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(log(), (Lines{kStart[0], kStart[1], "D: es_acl_cpcx_read_acl: No producer, nothing to read",
                          "trace w"}));
  clear_log();
  platform().pcx_query_producer.next(62);
  EXPECT_EQ(read(), 62U);
  EXPECT_EQ(log(), (Lines{kStart[0], kStart[1],
                          "D: es_acl_cpcx_read_acl: pcx_query_producer failed, return code 62", "trace w"}));
}

TEST_F(Read, PopulatedHeadIsNotReadAgain) {
  es_acl_add_acl_item(head_, make_ace(7), 7, 0);
  clear_log();
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(log(), (Lines{kStart[0], kStart[1], kStart[2]}));
}

TEST_F(Read, NullHead) {
  EXPECT_EQ(es_acl_cpcx_read_acl(nullptr), 22U);
  EXPECT_EQ(log(kCall | kStore | kLock), (Lines{}));
}

TEST_F(Read, RecordIsTheConvertedBlockWithoutThePointer) {
  Bytes wire = ace_record(0);
  for (size_t i = 80; i < 160; ++i) wire[i] = static_cast<uint8_t>(i);
  answers({wire});
  EXPECT_EQ(read(), 0U);
  const es_acl_ace* const ace = es_acl_search_item(head_, 0x64656667);
  ASSERT_NE(ace, nullptr);
  EXPECT_EQ(ace->kind, 0x50515253U);
  EXPECT_EQ(memcmp(ace->match_mask, "\x54\x55\x56\x57\x58\x59\x5a\x5b", 8), 0);
  EXPECT_EQ(memcmp(ace->reserved12, "\x5c\x5d\x5e\x5f", 4), 0);
  EXPECT_EQ(ace->reserved16, 0x60616263U);
  EXPECT_EQ(ace->seq, 0x64656667U);
  uint16_t word = 0x6869;
  for (const uint16_t* words : {ace->src_addr, ace->src_wild, ace->dst_addr, ace->dst_wild})
    for (int i = 0; i < 3; ++i, word = static_cast<uint16_t>(word + 0x0202)) EXPECT_EQ(words[i], word);
  EXPECT_EQ(ace->vlan_first, 0x8081);
  EXPECT_EQ(ace->vlan_last, 0x8283);
  EXPECT_EQ(ace->cos, 0x84);
  EXPECT_EQ(ace->dei, 0x85);
  EXPECT_EQ(ace->ivlan_first, 0x8687);
  EXPECT_EQ(ace->ivlan_last, 0x8889);
  EXPECT_EQ(ace->icos, 0x8a);
  EXPECT_EQ(ace->idei, 0x8b);
  EXPECT_EQ(ace->capture, 0x8c8d8e8fU);
  EXPECT_EQ(ace->eth_type, 0x9091);
  EXPECT_EQ(ace->grant, 0x92);
  EXPECT_EQ(ace->log_option, 0x93);
  EXPECT_EQ(memcmp(ace->reserved68, "\x94\x95\x96\x97", 4), 0);
  EXPECT_EQ(ace->private_data, nullptr);
}

TEST_F(Read, PassingFailuresAreRetriedEachTimeWithTheWholeBuffer) {
  platform().pcx_read.next([](void*, const void*, uint32_t, void*, uint32_t* length) {
    *length = 3;
    return 0x80000001U;
  });
  platform().pcx_read.next(0x9fffffff);
  platform().pcx_read.next(0x80000000);
  answers({ace_records({5})});
  EXPECT_EQ(read(), 0U);
  EXPECT_EQ(log(), (kStart + Lines{kRead, kSleep, kRead, kSleep, kRead, kSleep} + batch(1) + stored(5)));
}

TEST_F(Read, EachBatchHasItsOwnFourAttempts) {
  platform().pcx_read.next(0x80000001, 3);
  answers({ace_records({5, 9})});
  platform().pcx_read.next(0x80000001, 4);
  EXPECT_EQ(read(), 0x80000001);
  EXPECT_EQ(log(),
            (kStart + Lines{kRead, kSleep, kRead, kSleep, kRead, kSleep} + batch(2) + stored(5) + stored(9) +
             Lines{kMore, kRead, kSleep, kRead, kSleep, kRead, kSleep, kRead, kSleep,
                   "E: es_acl_cpcx_read_tacl: pcx_read failed <0x80000001>", "trace w"} +
             failed("0x80000001")));
  EXPECT_EQ(held_sequence(head_), (std::vector<uint32_t>{5, 9})) << "what was read stays";
}

TEST_F(Read, OtherFailuresAreFinal) {
  for (const uint32_t code : {3U, 11U, 62U, 0xa0000000U, 0x40000001U, 12U}) {
    clear_log();
    platform().pcx_read.next(code);
    EXPECT_EQ(read(), code);
    EXPECT_EQ(reads(), (Lines{kRead}));
    EXPECT_EQ(held("edge"), head_) << "only a read that runs out of records releases the head";
  }
  clear_log();
  platform().pcx_read.next(failed_with(5));
  EXPECT_EQ(read(), 5U);
  EXPECT_EQ(log(), (kStart + Lines{kRead, "E: es_acl_cpcx_read_tacl: pcx_read failed <0x5>", "trace w"} +
                    failed("0x5")));
}

TEST_F(Read, WrongVersionEndsTheReadAtThatRecord) {
  Bytes bytes = ace_records({5});
  const Bytes wrong = ace_record(9, 2);
  bytes.insert(bytes.end(), wrong.begin(), wrong.end());
  answers({bytes});
  EXPECT_EQ(read(), 22U);
  EXPECT_EQ(log(), (kStart + batch(2) + stored(5) +
                    Lines{"E: es_acl_cpcx_read_tacl:es_acl_pcx_acl_ace ver: crnt 1, rcv 2", "trace w"} +
                    failed("0x16")));
  EXPECT_EQ(held_sequence(head_), (std::vector<uint32_t>{5}));
}

TEST_F(Read, AnswerOfTheWrongSizeIsNotUsed) {
  for (const size_t size : {1U, 159U, 161U, 319U, 321U, 480U, 100000U}) {
    Bytes bytes = ace_records({5, 9, 11});
    bytes.resize(size);
    clear_log();
    answers({bytes});
    EXPECT_EQ(read(), 22U) << size;
    EXPECT_EQ(log(kStore), (Lines{})) << size;
    EXPECT_EQ(reads(), (Lines{kRead})) << size;
  }
}

TEST_F(Read, FullBatchThatDoesNotAdvanceEndsTheRead) {
  platform().pcx_read.next(answer(ace_records({5, 9})), 5);
  EXPECT_EQ(read(), 22U);
  EXPECT_LE(reads().size(), 2U);
  EXPECT_EQ(strays(), 2) << "the two stored";
}

TEST_F(Read, FullBatchThatGoesBackEndsTheRead) {
  answers({ace_records({5, 9}), ace_records({4, 8}), ace_records({6, 7})});
  EXPECT_EQ(read(), 22U);
  EXPECT_EQ(reads().size(), 2U);
}

TEST_F(Read, FullBatchOfNumberZeroDoesNotRepeat) {
  platform().pcx_read.next(answer(ace_records({0, 0})), 5);
  EXPECT_EQ(read(), 22U);
  EXPECT_EQ(reads().size(), 1U);
}

TEST_F(Read, WithoutARecordTheHeadIsReleased) {
  answers({ace_records({5, 9})});
  platform().pool_take.next([](pool*) { return calloc(1, sizeof(es_acl_ace)); });
  platform().pool_take.next(nullptr);
  EXPECT_EQ(read(), 12U);
  EXPECT_EQ(log(), (kStart + batch(2) + stored(5) +
                    Lines{"pool_take(pool)", "E: es_acl_cpcx_read_tacl: es_acl_alloc_ace failed"} +
                    kReleased + Lines{"pool_give(pool)", "trace w"} + failed("0xc")));
  EXPECT_EQ(held("edge"), nullptr);
}

TEST_F(Read, RefusedRecordGoesBackAndTheHeadIsReleased) {
  answers({ace_records({5, 9})});
  store().add_acl_item_iter.next(28);
  EXPECT_EQ(read(), 12U);
  EXPECT_EQ(log(),
            (kStart + batch(2) + offered(5) +
             Lines{"E: es_acl_cpcx_read_tacl: es_acl_add_acl_item fail", "trace w", "pool_give(pool)"} +
             kReleased + failed("0xc")));
  EXPECT_EQ(held("edge"), nullptr);
  EXPECT_EQ(strays(), 0);
}

TEST_F(Read, WithoutABufferTheHeadStays) {
  bool fired = true;
  for (int nth = 1; fired; ++nth) {
    platform().pcx_read.always(answer(ace_records({5})));
    clear_log();
    uint32_t status;
    {
      const FailAllocation failure(nth);
      status = read();
      fired = failure.fired();
    }
    if (!fired) {
      EXPECT_EQ(status, 0U);
      EXPECT_GT(nth, 1) << "the batch buffer comes from the heap";
      break;
    }
    EXPECT_EQ(status, 12U);
    EXPECT_EQ(log(), (kStart + Lines{"E: es_acl_cpcx_read_tacl: malloc size 320 failed", "trace w"} +
                      failed("0xc")));
    ASSERT_EQ(held("edge"), head_);
    EXPECT_EQ(strays(), 0);
  }
}

}  // namespace
