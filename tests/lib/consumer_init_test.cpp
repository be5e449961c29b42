// The consumer's start-up: retries, counters, failures.
#include <functional>

#include "library_fixture.h"

using namespace es_test;

namespace {

const std::string kCreateClass = "dsv_create_class(\"DSV_CLASS_ACL_ES_NAME\", 0, 1)";
const std::string kSleep = "nanosleep(1, 0)";

Lines from_start(const Lines& rest) {
  Lines lines = {"I: Entering es_acl_pcx_consumer_init",
                 "pool_create(\"ES ACL RULES CHUNK\", 80, 100, 257, 0, 0)"};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return lines;
}

Lines from_class(const Lines& rest) {
  Lines lines = {"main[5]", "dsv_init(ctx, 1)", "main[10]", "pcx_lr_init(ctx)", "main[7]"};
  lines.insert(lines.end(), rest.begin(), rest.end());
  return from_start(lines);
}

const std::string kClassFailed = "E: es_acl_pcx_consumer_init: dsv_create_class failed : ";
const std::string kContextFailed = "E: es_acl_pcx_consumer_init: Failed to set PCX context for class ";

struct Case {
  const char* name;
  std::function<void()> arrange;
  uint32_t status;
  Lines expected;
};

void PrintTo(const Case& row, std::ostream* out) { *out << row.name; }

const Case kCases[] = {
    {"no_pool", [] { platform().pool_create.next(nullptr); }, 12,
     from_start({"E: Failed to create the rules chunk pool"})},
    {"dsv", [] { platform().dsv_init.next(5); }, 5,
     from_start({"main[5]", "dsv_init(ctx, 1)", "E: es_acl_pcx_consumer_init: dsv_init() failed: <0x5>",
                 "trace w", "error[6]"})},
    {"bus", [] { platform().pcx_lr_init.next(5); }, 5,
     from_start({"main[5]", "dsv_init(ctx, 1)", "main[10]", "pcx_lr_init(ctx)",
                 "E: es_acl_pcx_consumer_init: pcx_lr_init failed", "trace w", "error[10]"})},
    {"bus_is_started_already", [] { platform().pcx_lr_init.next(17); }, 0,
     from_class({kCreateClass, "pcx_set_context(ctx, 793173)"})},
    {"class_transient_at_first",
     [] {
       platform().dsv_create_class.next(0x80000001);
       platform().dsv_create_class.next(0x9fffffff);
     },
     0,
     from_class({kCreateClass, kSleep, kCreateClass, kSleep, kCreateClass, "pcx_set_context(ctx, 793173)"})},
    {"class_transient_throughout", [] { platform().dsv_create_class.next(0x80000007, 4); }, 0x80000007,
     from_class({kCreateClass, kSleep, kCreateClass, kSleep, kCreateClass, kSleep, kCreateClass, kSleep,
                 kClassFailed + "<0x80000007>", "trace w", "error[8]"})},
    {"class_bus_codes_are_final", [] { platform().dsv_create_class.next(11); }, 11,
     from_class({kCreateClass, kClassFailed + "<0xb>", "trace w", "error[8]"})},
    {"class_of_other_severity_is_final", [] { platform().dsv_create_class.next(0xa0000000); }, 0xa0000000,
     from_class({kCreateClass, kClassFailed + "<0xa0000000>", "trace w", "error[8]"})},
    {"class_failure_in_errno", [] { platform().dsv_create_class.next(failed_with(28)); }, 28,
     from_class({kCreateClass, kClassFailed + "<0x1c>", "trace w", "error[8]"})},
    {"context", [] { platform().pcx_set_context.next(22); }, 22,
     from_class({kCreateClass, "pcx_set_context(ctx, 793173)", kContextFailed + "0xc1a55, 0x16:<0x16>.",
                 "trace u"})},
};

class ConsumerInit : public LibraryTest, public ::testing::WithParamInterface<Case> {
 protected:
  void SetUp() override {
    initialise_owner();
    acl_client_relay_hdl = main_counters();
    acl_client_err_relay_hdl = error_counters();
    watch_counters(acl_client_relay_hdl, acl_client_err_relay_hdl);
  }
};

TEST_P(ConsumerInit, Sequence) {
  GetParam().arrange();
  uint32_t class_handle = 0;
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), GetParam().status);
  EXPECT_EQ(log(), GetParam().expected);
  clear_log();

  // After a success nothing more is to be done; after a failure everything is, the pool included.
  uint32_t again = 0;
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &again, 0), 0U);
  if (GetParam().status == 0) {
    EXPECT_EQ(class_handle, kClass);
    EXPECT_EQ(log(), (Lines{"I: Entering es_acl_pcx_consumer_init"}));
    EXPECT_EQ(again, 0U);
  } else {
    EXPECT_EQ(log(kAll & ~kTrace), (from_class({kCreateClass, "pcx_set_context(ctx, 793173)"})))
        << "second call";
    EXPECT_EQ(again, kClass);
  }
}

INSTANTIATE_TEST_SUITE_P(Steps, ConsumerInit, ::testing::ValuesIn(kCases),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(ConsumerInit, ContextRecord) {
  pcx_context_record seen{};
  platform().pcx_set_context.next([&seen](const pcx_context_record* record) {
    seen = *record;
    return 0U;
  });
  uint32_t class_handle = 0;
  ASSERT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), 0U);
  EXPECT_EQ(seen.reserved0, 0U);
  EXPECT_EQ(seen.evm_ctx, ctx());
  EXPECT_EQ(seen.class_handle, kClass);
  EXPECT_EQ(seen.reserved20, 0U);
  EXPECT_EQ(seen.one, 1U);
  EXPECT_EQ(seen.reserved28, 0U);
}

TEST_F(ConsumerInit, FailedContextLeavesOnlyTheCallersClassWritten) {
  platform().pcx_set_context.next(5);
  uint32_t class_handle = 0;
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), 5U);
  EXPECT_EQ(class_handle, kClass);
  clear_log();
  uint32_t aces = 0, remarks = 0;
  es_acl_cpcx_query_acl_count("edge", &aces, &remarks);
  EXPECT_THAT(log(), ::testing::Contains("dsv_lookup_data(0, \"edge\")"));
}

TEST_F(ConsumerInit, FailedPoolLeavesNoRecords) {
  platform().pool_create.next(nullptr);
  uint32_t class_handle = 0;
  EXPECT_EQ(es_acl_pcx_consumer_init(ctx(), &class_handle, 1), 12U);
  EXPECT_EQ(es_acl_alloc_rules(), nullptr);
}

}  // namespace
