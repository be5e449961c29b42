// The consumer's start-up: retries, counters, failures.
#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kUpToClass = lines(kConsumerUpToBus, "main[7]", kCreateClass);

Lines class_failed(const std::string& code) {
  return {"E: es_acl_pcx_consumer_init: dsv_create_class failed : <" + code + ">", "trace w", "error[8]"};
}

const Case kCases[] = {
    {"no_pool", [] { platform().pool_create.next(nullptr); }, 12,
     lines(kConsumerUpToDsv[0], kConsumerUpToDsv[1], "E: Failed to create the rules chunk pool")},
    {"dsv", [] { platform().dsv_init.next(5); }, 5,
     lines(kConsumerUpToDsv, "E: es_acl_pcx_consumer_init: dsv_init() failed: <0x5>", "trace w", "error[6]")},
    {"bus_is_started_already", [] { platform().pcx_lr_init.next(17); }, 0, lines(kUpToClass, kSetContext)},
    {"class_transient_at_first",
     [] {
       platform().dsv_create_class.next(0x80000001);
       platform().dsv_create_class.next(0x9fffffff);
     },
     0, lines(kUpToClass, kSleep, kCreateClass, kSleep, kCreateClass, kSetContext)},
    {"class_bus_codes_are_final", [] { platform().dsv_create_class.next(11); }, 11,
     lines(kUpToClass, class_failed("0xb"))},
    {"context", [] { platform().pcx_set_context.next(22); }, 22,
     lines(kUpToClass, kSetContext,
           "E: es_acl_pcx_consumer_init: Failed to set PCX context for class 0xc1a55, 0x16:<0x16>.",
           "trace u")},
};

class ConsumerInit : public LibraryTest, public ::testing::WithParamInterface<Case> {
 protected:
  void SetUp() override {
    initialise_owner();
    acl_client_relay_hdl = main_counters;
    acl_client_err_relay_hdl = error_counters;
  }
};

TEST_P(ConsumerInit, Sequence) {
  GetParam().arrange();
  uint32_t class_handle = 0, again = 0;
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), GetParam().status);
  EXPECT_EQ(take_log(), GetParam().expected);

  // After a success nothing more is to be done; after a failure everything is, the pool included.
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &again, 0), 0U);
  const bool done = GetParam().status == 0;
  EXPECT_EQ(class_handle, done || GetParam().status == 22 ? kClass : 0U);
  EXPECT_EQ(again, done ? 0U : kClass);
  EXPECT_EQ(log(), done ? Lines{kConsumerUpToDsv[0]} : lines(kUpToClass, kSetContext)) << "second call";
}

INSTANTIATE_CASES(ConsumerInit, kCases);

TEST_F(ConsumerInit, FailuresLeaveNeitherClassNorRecords) {
  uint32_t class_handle = 0, aces = 0, remarks = 0;
  platform().pcx_set_context.next(5);
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), 5U);
  es_acl_cpcx_query_acl_count("edge", &aces, &remarks);
  EXPECT_EQ(log_of("dsv_lookup_data"), Lines{"dsv_lookup_data(0, \"edge\", ptr)"});

  platform().pool_create.next(nullptr);
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), 12U);
  EXPECT_EQ(es_acl_alloc_rules(), nullptr);
}

}  // namespace
