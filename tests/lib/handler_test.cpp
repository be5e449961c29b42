// The entry point of what the producer sends: telling the message types apart.
#include <cstring>

#include "library_fixture.h"

using namespace es_test;

namespace {

class Handler : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  // The log of one message, which none of these tests lets be answered or stored.
  Lines deliver(uint32_t type, void* payload, uint32_t length) {
    void* response = nullptr;
    uint32_t response_length = 0;
    es_acl_cpcx_handler(7, type, payload, length, &response, &response_length);
    EXPECT_EQ(response, nullptr);
    EXPECT_EQ(response_length, 0U);
    EXPECT_EQ(log(kStore | kLock), Lines{});
    return take_log();
  }
};

TEST_F(Handler, MessageTypes) {
  alignas(8) uint8_t payload[160] = {0, 0, 0, 99};
  const std::pair<uint32_t, std::string> types[] = {
      {17, "mtype PCX_CMD_PROD_REQ"}, {18, "mtype PCX_CMD_PROD_SYNC_REQ"},
      {6, "mtype is PCX_CMD_WRITE"},  {0, "mtype 0x0 is unknown"},
      {7, "mtype 0x7 is unknown"},    {-1U, "mtype 0xffffffff is unknown"},
  };
  for (const auto& [type, text] : types) {
    Lines shown = deliver(type, payload, sizeof payload);
    if (type == 6 || type == 18) shown.resize(3);  // sub-command 99 may be remarked on
    EXPECT_EQ(shown, (Lines{"I: Entering es_acl_cpcx_handler: length: 160", "trace w",
                            "D: es_acl_cpcx_handler: " + text}));
  }
  EXPECT_EQ(deliver(6, nullptr, 0).back(), "E: es_acl_cpcx_handler: Handler called with no data");
}

// Whatever their first words promise, messages are never read beyond their end: each lies in a block of
// exactly its size, so that AddressSanitizer tells.
TEST_F(Handler, NullEmptyAndShortMessages) {
  for (const uint32_t type : {6U, 17U, 18U, 99U}) {
    deliver(type, nullptr, 0);
    for (const uint8_t command : {0, 1, 10, 13, 14, 15}) {
      for (const uint32_t length : {0U, 1U, 4U, 8U, 72U, 73U, 76U, 87U}) {
        if (command == 13 && length >= 73) continue;  // whole
        Bytes payload(length, 0xff);
        const uint8_t words[8] = {0, 0, 0, command, 0, 0, 0, 1};
        std::copy_n(words, std::min<size_t>(length, sizeof words), payload.begin());
        payload.shrink_to_fit();
        deliver(type, payload.data(), length);
      }
    }
  }
}

// A handler runs inside a bus call of this thread as well.
TEST_F(Handler, InsideABusCall) {
  es_acl_head* const head = make_acl("edge");
  platform().pcx_query_producer.next([this](void*) {
    deliver(17, nullptr, 0);
    return 0U;
  });
  platform().pcx_read.next(answer(ace_records({5})));
  EXPECT_EQ(es_acl_cpcx_read_acl(head), 0U);
  EXPECT_EQ(held_sequence(head), Numbers{5});
}

}  // namespace
