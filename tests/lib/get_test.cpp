// Getting ACLs by name: shared, new and failed handles, and what a failure leaves behind.
#include "library_fixture.h"

using namespace es_test;

namespace {

constexpr uint32_t kBadName = 0xc6b18a00;

const Lines kChecked = {"I: Entering es_acl_getlist_acl: number of handles: 1", "trace w",
                        "I: Entering es_acl_check_acl_name: acl_name: edge"};
const Lines kLookedUp =
    lines(kChecked, "I: Entering es_acl_lookup_internal: name = edge", "store.acl_lookup(\"edge\")");
const Lines kCreated =
    lines(kLookedUp, "D: es_acl_getlist_acl: Creating new ACL head type", "store.get_header(\"edge\")");
const std::string kDsv = "dsv_register(793173, \"edge\", ptr)";
const Lines kUpToDsv = lines(kCreated, kDsv);
const Lines kUpToBus = lines(kUpToDsv, "pcx_register(reg:edge, 0, 0, es_acl_cpcx_handler)");
const Lines kUpToProducer =
    lines(kUpToBus, "I: Entering es_acl_cpcx_read_acl for edge", "pcx_query_producer(reg:edge)");

// What the log ends with when one step of a new head fails with this status.
Lines failed(const std::string& step, const std::string& code) {
  return {"E: es_acl_getlist_acl: " + step + " failed: " + code, "trace w"};
}
const std::string kUnregistered = "pcx_unregister(reg:edge)";
const Lines kDiscarded = {"I: Entering : es_acl_freelist", "store.freelist(head:edge, null)"};

const Case kFailures[] = {
    {"no_head", [] { store().get_header.next(nullptr); }, 12,
     lines(kCreated, "E: es_acl_getlist_acl: acl edge get_header failed", "trace w")},
    {"name_service", [] { platform().dsv_register.next(5); }, 5,
     lines(kUpToDsv, failed("DSV register", "<0x5>"), kDiscarded)},
    {"name_service_transient_throughout", [] { platform().dsv_register.next(0x80000001, 4); }, 0x80000001,
     lines(kUpToDsv, kSleep, kDsv, kSleep, kDsv, kSleep, kDsv, kSleep, failed("DSV register", "<0x80000001>"),
           kDiscarded)},
    {"bus", [] { platform().pcx_register.next(17); }, 17,
     lines(kUpToBus, failed("PCX register", "<0x11>"), kUnregistered, kDiscarded)},
    {"producer_query", [] { platform().pcx_query_producer.next(62); }, 62,
     lines(kUpToProducer, "D: es_acl_cpcx_read_acl: pcx_query_producer failed, return code 62", "trace w",
           failed("PCX read", "<0x3e>"), kUnregistered, kDiscarded)},
};

class Get : public LibraryTest {
 protected:
  void SetUp() override { initialise(); }
  static void expect_failed(const Got& got, uint32_t status) {
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(got.heads, std::vector<es_acl_head*>{nullptr});
    EXPECT_EQ(got.results, Numbers{status});
    EXPECT_EQ(held("edge"), nullptr);
  }
};

class GetFailure : public Get, public ::testing::WithParamInterface<Case> {};

TEST_P(GetFailure, LeavesNoTrace) {
  GetParam().arrange();
  expect_failed(get({"edge"}), GetParam().status);
  EXPECT_EQ(log(), GetParam().expected);
}

INSTANTIATE_CASES(GetFailure, kFailures);

// A failed read discards the head, unless the read has released it itself: then only the registration is left to be
// withdrawn. The status does not tell the two apart.
TEST_F(Get, AFailedReadTakesTheHeadOnceAndItsRegistrationToo) {
  const std::pair<std::function<void()>, size_t> rows[] = {
      {[] { platform().pcx_read.next(12); }, 0},
      {[] { platform().pcx_read.next(answer(Bytes(161))); }, 0},
      {[] { platform().pcx_read.next(answer(ace_record(5))), platform().pool_take.next(nullptr); }, 1},
  };
  for (const auto& [arrange, released] : rows) {
    clear_log();
    arrange();
    const uint32_t status = &arrange == &rows[1].first ? 22 : 12;
    expect_failed(get({"edge"}), status);
    EXPECT_EQ(log_of("E: es_acl_getlist_acl"), Lines{failed("PCX read", errcode_string(status))[0]});
    EXPECT_EQ(log_of("pcx_unregister"), Lines{kUnregistered});
    EXPECT_EQ(log_of("store.acl_release").size(), released);
    EXPECT_EQ(log_of("store.freelist").size(), 1 - released);
  }
  EXPECT_NE(get({"edge"}).heads[0], nullptr) << "the name can be got again";
}

TEST_F(Get, NewAcl) {
  platform().dsv_register.next(0x80000001, 2);
  platform().dsv_register.next([this](uint32_t, const char* name, void**) {
    EXPECT_EQ(held(name)->created_by_get, 1) << "prepared before it is registered";
    EXPECT_EQ(held(name)->evm_ctx, ctx());
    return 0x80000001;
  });
  platform().pcx_read.next(answer(ace_records({10, 20})));
  const Got got = get({"edge"});
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(got.results, Numbers{0});
  ASSERT_EQ(got.heads[0], held("edge"));
  EXPECT_EQ(got.heads[0]->refcount, 1);
  EXPECT_EQ(pointer_name(got.heads[0]->reg_handle), "reg:edge");
  EXPECT_EQ(held_sequence(got.heads[0]), (Numbers{10, 20}));
  Lines until_read = log();
  until_read.resize(kUpToProducer.size() + 6);
  EXPECT_EQ(until_read, lines(kUpToDsv, kSleep, kDsv, kSleep, kDsv, kSleep, kDsv,
                              Lines(kUpToProducer.end() - 3, kUpToProducer.end())));
}

TEST_F(Get, HeldAclIsShared) {
  es_acl_head* const first = get({"edge"}).heads[0];
  clear_log();
  const Got again = get({"edge"});
  EXPECT_EQ(again.heads, std::vector{first});
  EXPECT_EQ(again.results, Numbers{0});
  EXPECT_EQ(log(), lines(kLookedUp, "trace w"));
  EXPECT_EQ(get({"edge", "edge"}).heads, (std::vector{first, first})) << "twice in one list";
  EXPECT_EQ(first->refcount, 4);
  release({first, first, first});
  EXPECT_EQ(held("edge"), first);
  release({first});
  EXPECT_EQ(held("edge"), nullptr);
}

TEST_F(Get, NoNames) {
  EXPECT_EQ(get({}).status, 0U);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_getlist_acl: number of handles: 0", "trace w"}));
}

// --- One list, several fates ---

TEST_F(Get, InvalidNamesAreReportedAndSkipped) {
  const std::string too_long = long_name(65);
  const Got got = get({"edge", "", "a b", nullptr, "trace", too_long.c_str(), "core"});
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(got.results, (Numbers{0, kBadName, kBadName, kBadName, kBadName, kBadName, 0}));
  for (size_t i = 1; i < 6; ++i) EXPECT_EQ(got.heads[i], nullptr);
  EXPECT_EQ(held_names(), (Lines{"core", "edge"}));
  const auto invalid = [](const std::string& name) {
    return "E: es_acl_getlist_acl: acl name " + name + " is invalid: <0xc6b18a00>";
  };
  EXPECT_EQ(log_of("E: es_acl_getlist_acl"),
            (Lines{invalid(""), invalid("a b"), invalid("(null)"), invalid("trace"), invalid(too_long)}));
  EXPECT_EQ(get({"edge", "a b"}).status, kBadName) << "the last one's";
}

// --- Asking for the count first ---

TEST_F(Get, CountDecides) {
  platform().pcx_read.next(answer(count_answer(2, 1)));
  const Got got = get({"edge"}, 1);
  EXPECT_NE(got.heads[0], nullptr);
  EXPECT_EQ(got.results, Numbers{0});
  EXPECT_EQ(log_of("dsv_lookup_data").size(), 1U);

  for (const bool registered : {true, false}) {
    if (!registered) platform().dsv_lookup_data.next(0xa2ce3000);
    platform().pcx_read.next(answer(count_answer(0, 0)));
    const Got unconfigured = get({"core"}, 7);
    EXPECT_EQ(unconfigured.status, 0U);
    EXPECT_EQ(unconfigured.heads[0], nullptr);
    EXPECT_EQ(unconfigured.results, Numbers{kUntouched});
    EXPECT_EQ(log().back(), "E: es_acl_getlist_acl: ACL is not configured yet");
  }
  EXPECT_EQ(held("core"), nullptr);
}

TEST_F(Get, FailedCountLeavesNoHandleEvenForAHeldAcl) {
  es_acl_head* const first = get({"edge"}).heads[0];
  platform().pcx_read.next(5);
  clear_log();
  const Got got = get({"edge"}, 1);
  EXPECT_EQ(got.status, 5U);
  EXPECT_EQ(got.heads[0], nullptr);
  EXPECT_EQ(got.results, Numbers{5});
  EXPECT_EQ(first->refcount, 1);
  const Lines shown = log();
  EXPECT_EQ(Lines(shown.end() - 2, shown.end()),
            (Lines{"E: es_acl_getlist_acl: es_acl_query_acl_type failed <0x5>", "trace w"}));
}

TEST_F(Get, WithoutCount) {
  void* name = const_cast<char*>("edge");
  void* handle = this;
  uint32_t result = kUntouched;
  const es_acl_handle_list names = {1, &name};
  es_acl_handle_list handles = {kUntouched, &handle};
  const Lines refused = {"I: Entering es_acl_get_acl", "E: es_acl_get_acl: Invalid arguments"};
  EXPECT_EQ(es_acl_get_acl(nullptr, &handles, &result), 22U);
  EXPECT_EQ(es_acl_get_acl(&names, nullptr, &result), 22U);
  EXPECT_EQ(take_log(), lines(refused, refused));
  EXPECT_EQ(handles.count, kUntouched);
  EXPECT_EQ(handle, this);
  EXPECT_EQ(result, kUntouched);

  EXPECT_EQ(es_acl_get_acl(&names, &handles, &result), 0U);
  EXPECT_EQ(handles.count, 1U);
  EXPECT_EQ(handle, held("edge"));
  EXPECT_EQ(result, 0U);
  EXPECT_EQ(log()[0], refused[0]);
  EXPECT_EQ(log()[1], kChecked[0]);
  EXPECT_EQ(log_of("dsv_lookup_data"), Lines{});

  EXPECT_EQ(es_acl_get_acl(&names, &handles, nullptr), 0U);  // nobody asked for the results
  EXPECT_EQ(handle, held("edge"));
}

TEST_F(Get, MemoryRunsOutAtEveryAllocation) {
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  void* name = const_cast<char*>("edge");
  void* handle = nullptr;
  uint32_t result = 0;
  const es_acl_handle_list names = {1, &name};
  es_acl_handle_list handles = {0, &handle};
  sweep_allocations([&] { return es_acl_get_acl(&names, &handles, &result); },
                    [&] {
                      EXPECT_EQ(handle, nullptr);
                      EXPECT_EQ(held("edge"), nullptr);
                      EXPECT_EQ(log_of("dsv_register").size(), log_of("pcx_unregister").size());
                      EXPECT_EQ(records_out(), 0U);
                    });
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(held_sequence(held("edge")), (Numbers{5, 9, 11}));

  // What answers without a status has nothing to allocate, or copes.
  fail_allocation(1);
  EXPECT_EQ(es_acl_lookup("edge"), handle);
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  EXPECT_EQ(es_acl_search_item(held("edge"), 7), nullptr);
  es_acl_release(&handles);
  end_allocation_failure();
  EXPECT_EQ(held("edge"), nullptr);
}

}  // namespace
