// The entry point of what the producer sends: telling the message types apart.
#include <cstring>

#include "library_fixture.h"

using namespace es_test;

namespace {

class Handler : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  void deliver(uint32_t type, void* payload, uint32_t length) {
    response_ = nullptr;
    response_length_ = 0;
    clear_log();
    es_acl_cpcx_handler(7, type, payload, length, &response_, &response_length_);
  }
  void* response_ = nullptr;
  uint32_t response_length_ = 0;
};

TEST_F(Handler, MessageTypes) {
  alignas(8) uint8_t payload[160] = {0, 0, 0, 99};
  const std::pair<uint32_t, std::string> types[] = {
      {17, "D: es_acl_cpcx_handler: mtype PCX_CMD_PROD_REQ"},
      {18, "D: es_acl_cpcx_handler: mtype PCX_CMD_PROD_SYNC_REQ"},
      {6, "D: es_acl_cpcx_handler: mtype is PCX_CMD_WRITE"},
      {0, "D: es_acl_cpcx_handler: mtype 0x0 is unknown"},
      {7, "D: es_acl_cpcx_handler: mtype 0x7 is unknown"},
      {0xffffffff, "D: es_acl_cpcx_handler: mtype 0xffffffff is unknown"},
  };
  for (const auto& [type, line] : types) {
    SCOPED_TRACE(line);
    deliver(type, payload, sizeof payload);
    const Lines lines = log();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "I: Entering es_acl_cpcx_handler: length: 160");
    EXPECT_EQ(lines[1], "trace w");
    EXPECT_EQ(lines[2], line);
    if (type != 6 && type != 18) {
      EXPECT_EQ(lines.size(), 3U);
    }
    EXPECT_EQ(response_, nullptr) << "sub-command 99 has no answer";
    EXPECT_EQ(response_length_, 0U);
    EXPECT_EQ(log(kStore | kLock), (Lines{}));
  }
}

// Whatever their first words promise, messages are never read beyond their end: each lies in a block of
// exactly its size, so that AddressSanitizer tells.
TEST_F(Handler, NullEmptyAndShortMessages) {
  for (const uint32_t type : {6U, 17U, 18U, 99U}) {
    deliver(type, nullptr, 0);
    EXPECT_EQ(response_, nullptr);
    for (const uint8_t command : {0, 1, 10, 13, 14, 15}) {
      for (const uint32_t length : {0U, 1U, 4U, 8U, 72U, 73U, 76U, 87U}) {
        if (command == 13 && length >= 73) continue;  // whole
        const std::unique_ptr<uint8_t[]> payload(new uint8_t[length]);
        memset(payload.get(), 0xff, length);
        const uint8_t words[8] = {0, 0, 0, command, 0, 0, 0, 1};
        memcpy(payload.get(), words, std::min<size_t>(length, sizeof words));
        deliver(type, payload.get(), length);
        EXPECT_EQ(response_, nullptr);
        EXPECT_EQ(response_length_, 0U);
        EXPECT_EQ(log(kStore | kLock), (Lines{}));
      }
    }
  }
}

// A handler runs inside a bus call of this thread as well.
TEST_F(Handler, InsideABusCall) {
  platform().pcx_query_producer.next([this](void*) {
    es_acl_cpcx_handler(7, 17, nullptr, 0, &response_, &response_length_);
    return 0U;
  });
  es_acl_head* const head = make_acl("edge");
  platform().pcx_read.next(answer(ace_records({5})));
  EXPECT_EQ(es_acl_cpcx_read_acl(head), 0U);
  EXPECT_THAT(log(), ::testing::Contains("D: es_acl_cpcx_handler: mtype PCX_CMD_PROD_REQ"));
  EXPECT_EQ(held_sequence(head), (std::vector<uint32_t>{5}));
}

}  // namespace
