// Getting ACLs by name: shared, new and failed handles, and what a failure leaves behind.
#include <functional>

#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr uint32_t kUntouched = 4711;
constexpr uint32_t kBadName = 0xc6b18a00;

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Lines kStart = {"I: Entering es_acl_getlist_acl: number of handles: 1", "trace w"};
const Lines kChecked = {"I: Entering es_acl_check_acl_name: acl_name: edge"};
const Lines kLookedUp = {"I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")"};
const Lines kCreated = {"D: es_acl_getlist_acl: Creating new ACL head type", "store.get_header(\"edge\")"};
const std::string kDsv = "dsv_register(793173, \"edge\")";
const std::string kBus = "pcx_register(reg:edge, 0, 0, es_acl_cpcx_handler)";
const std::string kSleep = "nanosleep(1, 0)";
const Lines kReading = {"I: Entering es_acl_cpcx_read_acl for edge", "pcx_query_producer(reg:edge)"};
const Lines kDiscarded = {"I: Entering : es_acl_freelist", "store.freelist(head:edge, null)"};
const Lines kUpToHead = kStart + kChecked + kLookedUp + kCreated;

class Get : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }

  // A get of these names; handles_ and results_ have one slot more than needed, which must stay as it is.
  uint32_t get(std::vector<const char*> names, uint32_t check_count = 0) {
    handles_.assign(names.size() + 1, this);
    results_.assign(names.size() + 1, kUntouched);
    const es_acl_handle_list in = {static_cast<uint32_t>(names.size()),
                                   const_cast<void**>(reinterpret_cast<const void**>(names.data()))};
    out_ = {kUntouched, handles_.data()};
    const uint32_t status = es_acl_getlist_acl(&in, &out_, results_.data(), check_count);
    EXPECT_EQ(out_.count, names.size());
    EXPECT_EQ(handles_.back(), this);
    EXPECT_EQ(results_.back(), kUntouched);
    handles_.pop_back();
    results_.pop_back();
    return status;
  }

  es_acl_head* head(size_t i) const { return static_cast<es_acl_head*>(handles_.at(i)); }

  std::vector<void*> handles_;
  std::vector<uint32_t> results_;
  es_acl_handle_list out_{};
};

TEST_F(Get, NewAcl) {
  platform().pcx_read.next(answer(ace_records({10, 20})));
  EXPECT_EQ(get({"edge"}), 0U);
  ASSERT_EQ(head(0), held("edge"));
  EXPECT_EQ(results_, (std::vector<uint32_t>{0}));
  EXPECT_EQ(head(0)->refcount, 1);
  EXPECT_EQ(head(0)->created_by_get, 1);
  EXPECT_EQ(head(0)->evm_ctx, ctx());
  EXPECT_EQ(pointer_name(head(0)->reg_handle), "reg:edge");
  EXPECT_EQ(held_sequence(head(0)), (std::vector<uint32_t>{10, 20}));
  Lines until_read = log();
  until_read.resize(kUpToHead.size() + 4);
  EXPECT_EQ(until_read, (kUpToHead + Lines{kDsv, kBus} + kReading));
}

TEST_F(Get, HeadIsPreparedBeforeItIsRegistered) {
  platform().dsv_register.next([this](uint32_t, const char* name, void**) {
    EXPECT_EQ(held(name)->created_by_get, 1);
    EXPECT_EQ(held(name)->evm_ctx, ctx());
    return 5U;
  });
  EXPECT_EQ(get({"edge"}), 5U);
}

TEST_F(Get, HeldAclIsShared) {
  EXPECT_EQ(get({"edge"}), 0U);
  es_acl_head* const first = head(0);
  clear_log();
  EXPECT_EQ(get({"edge"}), 0U);
  EXPECT_EQ(head(0), first);
  EXPECT_EQ(results_, (std::vector<uint32_t>{0}));
  EXPECT_EQ(first->refcount, 2);
  EXPECT_EQ(log(), (kStart + kChecked + kLookedUp + Lines{"trace w"}));
  es_acl_release(&out_);
  EXPECT_EQ(held("edge"), first);
  es_acl_release(&out_);
  EXPECT_EQ(held("edge"), nullptr);
}

TEST_F(Get, SameNameTwiceInOneList) {
  EXPECT_EQ(get({"edge", "edge"}), 0U);
  EXPECT_EQ(head(0), head(1));
  EXPECT_EQ(head(0)->refcount, 2);
}

TEST_F(Get, EmptyList) {
  EXPECT_EQ(get({}), 0U);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_getlist_acl: number of handles: 0", "trace w"}));
}

TEST_F(Get, WithoutAProducerTheAclIsEmpty) {
  platform().pcx_query_producer.always(2);
  EXPECT_EQ(get({"edge"}), 0U);
  ASSERT_NE(head(0), nullptr);
  EXPECT_EQ(es_get_first_ace(head(0)), nullptr);
}

// --- One list, several fates ---

TEST_F(Get, InvalidNamesAreReportedAndSkipped) {
  const std::string too_long = long_name(65);
  EXPECT_EQ(get({"edge", "", "a b", nullptr, "trace", too_long.c_str(), "core"}), 0U);
  EXPECT_EQ(results_, (std::vector<uint32_t>{0, kBadName, kBadName, kBadName, kBadName, kBadName, 0}));
  for (size_t i = 1; i < 6; ++i) EXPECT_EQ(head(i), nullptr);
  EXPECT_EQ(held_names(), (std::vector<std::string>{"core", "edge"}));
  EXPECT_THAT(log(),
              ::testing::IsSupersetOf({"E: es_acl_getlist_acl: acl name a b is invalid: <0xc6b18a00>",
                                       "E: es_acl_getlist_acl: acl name (null) is invalid: <0xc6b18a00>",
                                       "E: es_acl_getlist_acl: acl name trace is invalid: <0xc6b18a00>"}));
}

TEST_F(Get, TheLastNamesStatusIsReturned) {
  EXPECT_EQ(get({"edge", "a b"}), kBadName);
  EXPECT_EQ(log(kAll & ~kCall).back(), "trace w");
  EXPECT_EQ(get({"a b", "edge"}), 0U);
  platform().dsv_register.next(5);
  EXPECT_EQ(get({"core"}), 5U);
  store().get_header.next(nullptr);
  EXPECT_EQ(get({"edge", "core"}), 12U);
}

// --- Asking for the count first ---

TEST_F(Get, CheckCountVariants) {
  platform().pcx_read.next(answer(count_answer(2, 1)));
  EXPECT_EQ(get({"edge"}, 1), 0U);
  EXPECT_NE(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{0}));

  platform().pcx_read.next(answer(count_answer(0, 0)));
  clear_log();
  EXPECT_EQ(get({"core"}, 7), 0U);
  EXPECT_EQ(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{kUntouched}));
  EXPECT_EQ(log().back(), "E: es_acl_getlist_acl: ACL is not configured yet");

  platform().dsv_lookup_data.next(0xa2ce3000);
  EXPECT_EQ(get({"core"}, 1), 0U);
  EXPECT_EQ(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{kUntouched}));
  EXPECT_EQ(held("core"), nullptr);
}

TEST_F(Get, FailedCountLeavesNoHandleEvenForAHeldAcl) {
  platform().pcx_query_producer.always(2);
  EXPECT_EQ(get({"edge"}), 0U);
  es_acl_head* const first = head(0);
  platform().pcx_read.next(5);
  clear_log();
  EXPECT_EQ(get({"edge"}, 1), 5U);
  EXPECT_EQ(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{5}));
  EXPECT_EQ(first->refcount, 1);
  const Lines lines = log();
  EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
            (Lines{"E: es_acl_getlist_acl: es_acl_query_acl_type failed <0x5>", "trace w"}));
}

TEST_F(Get, NotConfiguredYetEndsWithStatus0) {
  platform().pcx_read.next(5);
  platform().pcx_read.next(answer(count_answer(0, 0)));
  EXPECT_EQ(get({"edge", "core"}, 1), 0U);
  EXPECT_EQ(results_, (std::vector<uint32_t>{5, kUntouched}));
}

// --- Failures of a new head ---

struct Failure {
  const char* name;
  std::function<void()> arrange;
  uint32_t status;
  Lines expected;  // behind the head's creation
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }

const Failure kFailures[] = {
    {"name_service", [] { platform().dsv_register.next(5); }, 5,
     Lines{kDsv, "E: es_acl_getlist_acl: DSV register failed: <0x5>", "trace w"} + kDiscarded},
    {"name_service_errno", [] { platform().dsv_register.next(failed_with(28)); }, 28,
     Lines{kDsv, "E: es_acl_getlist_acl: DSV register failed: <0x1c>", "trace w"} + kDiscarded},
    {"name_service_permanent_class", [] { platform().dsv_register.next(0xa0000000); }, 0xa0000000,
     Lines{kDsv, "E: es_acl_getlist_acl: DSV register failed: <0xa0000000>", "trace w"} + kDiscarded},
    {"name_service_other_class", [] { platform().dsv_register.next(0x40000001); }, 0x40000001,
     Lines{kDsv, "E: es_acl_getlist_acl: DSV register failed: <0x40000001>", "trace w"} + kDiscarded},
    {"name_service_transient_throughout", [] { platform().dsv_register.next(0x80000001, 4); }, 0x80000001,
     Lines{kDsv, kSleep, kDsv, kSleep, kDsv, kSleep, kDsv, kSleep,
           "E: es_acl_getlist_acl: DSV register failed: <0x80000001>", "trace w"} +
         kDiscarded},
    {"bus", [] { platform().pcx_register.next(17); }, 17,
     Lines{kDsv, kBus, "E: es_acl_getlist_acl: PCX register failed: <0x11>", "trace w",
           "pcx_unregister(reg:edge)"} +
         kDiscarded},
    {"bus_is_not_retried", [] { platform().pcx_register.next(0x80000001); }, 0x80000001,
     Lines{kDsv, kBus, "E: es_acl_getlist_acl: PCX register failed: <0x80000001>", "trace w",
           "pcx_unregister(reg:edge)"} +
         kDiscarded},
    {"producer_query", [] { platform().pcx_query_producer.next(62); }, 62,
     Lines{kDsv, kBus} + kReading +
         Lines{"D: es_acl_cpcx_read_acl: pcx_query_producer failed, return code 62", "trace w",
               "E: es_acl_getlist_acl: PCX read failed: <0x3e>", "trace w", "pcx_unregister(reg:edge)"} +
         kDiscarded},
};

class GetFailure : public Get, public ::testing::WithParamInterface<Failure> {};

TEST_P(GetFailure, LeavesNoTrace) {
  GetParam().arrange();
  EXPECT_EQ(get({"edge"}), GetParam().status);
  EXPECT_EQ(log(), kUpToHead + GetParam().expected);
  EXPECT_EQ(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{GetParam().status}));
  EXPECT_EQ(held("edge"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Steps, GetFailure, ::testing::ValuesIn(kFailures),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(Get, TransientNameServiceFailuresPass) {
  platform().dsv_register.next(0x80000001, 3);
  EXPECT_EQ(get({"edge"}), 0U);
  Lines until_bus = log();
  until_bus.resize(kUpToHead.size() + 8);
  EXPECT_EQ(until_bus, (kUpToHead + Lines{kDsv, kSleep, kDsv, kSleep, kDsv, kSleep, kDsv, kBus}));
}

TEST_F(Get, NoHead) {
  store().get_header.next(nullptr);
  EXPECT_EQ(get({"edge"}), 12U);
  EXPECT_EQ(results_, (std::vector<uint32_t>{12}));
  EXPECT_EQ(log(), (kUpToHead + Lines{"E: es_acl_getlist_acl: acl edge get_header failed", "trace w"}));
}

// A failed read discards the head, unless the read has released it itself: then only the registration is left
// to be withdrawn. The status does not tell the two apart.
struct FailedRead {
  const char* name;
  std::function<void()> arrange;
  uint32_t status;
  bool released;  // by the read
};

void PrintTo(const FailedRead& row, std::ostream* out) { *out << row.name; }

const FailedRead kFailedReads[] = {
    {"bus_status", [] { platform().pcx_read.next(5); }, 5, false},
    {"bus_status_12", [] { platform().pcx_read.next(12); }, 12, false},
    {"wrong_version", [] { platform().pcx_read.next(answer(ace_record(5, 2))); }, 22, false},
    {"odd_length", [] { platform().pcx_read.next(answer(Bytes(161))); }, 22, false},
    {"no_room", [] { platform().pcx_get_optimum_msg_size.next(0); }, 22, false},
    {"no_record",
     [] {
       platform().pcx_read.next(answer(ace_records({5})));
       platform().pool_take.next(nullptr);
     },
     12, true},
    {"store_refuses",
     [] {
       platform().pcx_read.next(answer(ace_records({5})));
       store().add_acl_item_iter.next(28);
     },
     12, true},
};

class GetFailedRead : public Get, public ::testing::WithParamInterface<FailedRead> {};

TEST_P(GetFailedRead, TheHeadGoesOnceAndItsRegistrationToo) {
  GetParam().arrange();
  EXPECT_EQ(get({"edge"}), GetParam().status);
  EXPECT_EQ(head(0), nullptr);
  EXPECT_EQ(results_, (std::vector<uint32_t>{GetParam().status}));
  EXPECT_EQ(held("edge"), nullptr);
  const Lines lines = log();
  const auto times = [&lines](const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
  };
  char reported[128];
  snprintf(reported, sizeof reported, "E: es_acl_getlist_acl: PCX read failed: <%#x>", GetParam().status);
  EXPECT_EQ(times(reported), 1);
  EXPECT_EQ(times("pcx_unregister(reg:edge)"), 1);
  EXPECT_EQ(times("store.acl_release(\"edge\")"), GetParam().released ? 1 : 0);
  EXPECT_EQ(times("store.freelist(head:edge, null)"), GetParam().released ? 0 : 1);
  EXPECT_EQ(times("pool_take(pool)") >= times("pool_give(pool)"), true);

  // And the name can be got again.
  EXPECT_EQ(get({"edge"}), 0U);
  EXPECT_NE(head(0), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Causes, GetFailedRead, ::testing::ValuesIn(kFailedReads),
                         [](const auto& instance) { return instance.param.name; });

// --- es_acl_get_acl ---

TEST_F(Get, WithoutCount) {
  void* names_[] = {const_cast<char*>("edge")};
  void* handles_array[1] = {this};
  uint32_t result = kUntouched;
  const es_acl_handle_list names = {1, names_};
  es_acl_handle_list handles = {kUntouched, handles_array};
  EXPECT_EQ(es_acl_get_acl(&names, &handles, &result), 0U);
  EXPECT_EQ(handles.count, 1U);
  EXPECT_EQ(handles_array[0], held("edge"));
  EXPECT_EQ(result, 0U);
  EXPECT_EQ(log()[0], "I: Entering es_acl_get_acl");
  EXPECT_EQ(log()[1], kStart[0]);
  EXPECT_THAT(log(), ::testing::Not(::testing::Contains("dsv_lookup_data(793173, \"edge\")")));
}

TEST_F(Get, NullListsAreRefused) {
  void* slot = this;
  uint32_t result = kUntouched;
  es_acl_handle_list list = {1, &slot};
  for (const auto& [names, handles] :
       {std::pair{static_cast<es_acl_handle_list*>(nullptr), &list}, {&list, nullptr}}) {
    clear_log();
    EXPECT_EQ(es_acl_get_acl(names, handles, &result), 22U);
    EXPECT_EQ(log(kAll & ~kTrace),
              (Lines{"I: Entering es_acl_get_acl", "E: es_acl_get_acl: Invalid arguments"}));
  }
  EXPECT_EQ(list.count, 1U);
  EXPECT_EQ(slot, this);
  EXPECT_EQ(result, kUntouched);
}

}  // namespace
