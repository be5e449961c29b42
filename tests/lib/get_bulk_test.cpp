// Getting many ACLs in one call: who is shared, fetched and left out, and what a failure leaves behind.
#include <thread>

#include "bulk_fixture.h"
#include "push_fixture.h"

using namespace es_test;

namespace {

using Heads = std::vector<es_acl_head*>;
constexpr uint32_t kNoRules = 0x26b19e00;

Got define(std::vector<const char*> names) { return get_by(es_acl_get_definition, std::move(names)); }

Lines error(const std::string& text) { return {"E: es_acl_getlist_acl_bulk" + text}; }
Lines detail(const std::string& text) { return {"D: es_acl_getlist_acl_bulk: " + text}; }

// The log without what the operations inside say; heads show under their names.
Lines shown() {
  Lines all;
  for (std::string line : log()) {
    const auto inner = {"I: Entering es_acl_c",
                        "I: Entering es_acl_l",
                        "I: Entering :",
                        "D: es_acl_c",
                        "E: es_acl_c",
                        "dsv_lookup",
                        "pcx_get_opt",
                        "pool_",
                        "trylock",
                        "unlock",
                        "store.a"};
    if (std::any_of(inner.begin(), inner.end(), [&](const char* start) { return line.starts_with(start); }))
      continue;
    if (const size_t at = line.find("(0x"); at != std::string::npos)
      line.replace(at + 1, line.find(')', at) - at - 1,
                   pointer_name(reinterpret_cast<void*>(std::stoull(line.substr(at + 1), nullptr, 16))));
    all.push_back(line);
  }
  return all;
}

class Define : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    make_acl("held", {1});
    serve(acls_);
  }
  const Acls acls_ = {{"held", {{1}, 0}}, {"edge", {{10, 20}, 1}}, {"core", {{30}, 0}},
                      {"none", {{}, 0}},  {"text", {{}, 2}},       {"last", {{40}, 0}}};
};

// --- One after the other ---

Lines started(uint32_t names) {
  return {"I: Entering es_acl_get_definition", "main[70]",
          "I: Entering es_acl_get_definition: number of handles: " + show(names), "trace w",
          "pcx_read(producer, " + show(16 + 65 * names) + ", cap " + show(16 * names) + ")"};
}
const Lines kHeld = lines("trace w", detail("ACL: held(head:held) alreadyexists locally"));
const std::string kDsv = "dsv_register_bulk(793173, [\"edge\", \"core\"], 2, ptr, ptr)";
const std::string kBus = "pcx_bulk_register([reg:edge, reg:core], ptr, 2, 0, 0, 0, es_acl_cpcx_handler)";
const std::string kLimit = "pcx_get_num_bulk_handles(793173)";
const Lines kCreated = {"store.get_header(\"edge\")", "store.get_header(\"core\")"};
const Lines kToBus = lines(kCreated, kDsv, kLimit, detail("pcx_get_num_bulk_handles returned: 1000"), kBus);
const Lines kToRead = lines(kToBus, "pcx_read(producer, 146, cap 480)");

TEST_F(Define, SharedFetchedTwiceAndWithoutRules) {
  const Got got = define({"edge", "held", "none", "gone", "core", "text", "edge", "held", nullptr});
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(got.results, (Numbers{0, 0, kNoRules, kNoRules, 0, kNoRules, 0, 0, kNoRules}));
  es_acl_head *const edge = held("edge"), *const core = held("core"), *const old = held("held");
  EXPECT_EQ(got.heads, (Heads{edge, old, nullptr, nullptr, core, nullptr, edge, old, nullptr}));
  EXPECT_EQ(held_names(), (Lines{"core", "edge", "held"}));
  const Lines none = error(": No non-remark aces in ACL to query");
  const Lines given = lines(detail("returns handle for ACL: edge (head:edge)"));
  Lines begun = started(9);
  begun.back() = "trace w";  // "gone" and the null name are not sent
  begun = lines(begun, "trace w", "pcx_read(producer, 471, cap 144)");
  EXPECT_EQ(shown(), lines(begun, kHeld, none, none, none, kHeld, none, kToRead, given, given,
                           detail("returns handle for ACL: core (head:core)")));
  EXPECT_EQ(old->refcount, 3);
  EXPECT_EQ(edge->refcount, 2);
  EXPECT_EQ(core->refcount, 1);
  EXPECT_EQ(held_sequence(edge), (Numbers{10, 20}));
  EXPECT_EQ(held_sequence(core), Numbers{30});
  EXPECT_EQ(pointer_name(core->reg_handle), "reg:core");
  EXPECT_EQ(edge->created_by_get, 1);
  EXPECT_EQ(edge->evm_ctx, ctx());
  release({edge, core, edge});
  EXPECT_EQ(held_names(), Lines{"held"});
}

TEST_F(Define, NothingNew) {
  const Lines end = error(": No new ACL to query from producer.");
  EXPECT_EQ(define({}).status, 0U);
  EXPECT_EQ(take_log().back(), end[0]);
  EXPECT_EQ(define({"held", "held"}).heads, (Heads{held("held"), held("held")}));
  EXPECT_EQ(shown(), lines(started(2), kHeld, kHeld, end));
  EXPECT_EQ(held("held")->refcount, 3);
}

TEST_F(Define, NullArguments) {
  es_acl_handle_list list[1] = {};
  uint32_t results[1] = {};
  for (int missing = 0; missing < 3; ++missing) {
    clear_log();
    const auto given = [missing](int index, auto* argument) { return index == missing ? nullptr : argument; };
    EXPECT_EQ(es_acl_get_definition(given(0, list), given(1, list), given(2, results)), 22U);
    EXPECT_EQ(log(),
              (Lines{"I: Entering es_acl_get_definition", "main[70]",
                     "E: es_acl_get_definition: Invalid arguments in_data:" + hex(given(0, list)) +
                         ", out_data: " + hex(given(1, list)) + ",ret_data: " + hex(given(2, results))}));
  }
}

// --- Failures of the call: "held" keeps its reference, the others are gone ---

Lines freed(bool registered) {
  Lines all;
  for (const std::string name : {"edge", "core"})
    append(all, lines(error(": Freeing acl_head_type for " + name + "(ptr)"),
                      registered ? Lines{"pcx_unregister(reg:" + name + ")"} : Lines{},
                      "store.freelist(head:" + name + ", null)"));
  return all;
}
void fail_read(uint32_t status) {
  platform().pcx_read.next(producer({{"held", {{1}, 0}}, {"edge", {{10, 20}, 1}}, {"core", {{30}, 0}}}));
  platform().pcx_read.next(status);
}

const Case kFailures[] = {
    {"count", [] { platform().pcx_read.next(5); }, 5,
     lines("trace w", error(": es_acl_query_acl_count_bulk failed <0x5>"), "trace w")},
    {"directory", [] { platform().dsv_register_bulk.next(failed_with(28)); }, 28,
     lines(kHeld, kCreated, kDsv, error(": dsv_register_bulk register failed: <0x1c>"), "trace w",
           freed(false))},
    {"no_limit", [] { platform().pcx_get_num_bulk_handles.next(0); }, 22,
     lines(kHeld, kCreated, kDsv, kLimit, detail("pcx_get_num_bulk_handles returned: 0"),
           error(": pcx_get_num_bulk_handles returned NULL"), "trace w", freed(true))},
    {"bus", [] { platform().pcx_bulk_register.next(11); }, 11,
     lines(kHeld, kToBus, error(":pcx_bulk_register failed: <0xb>"), freed(true))},
    {"read", [] { fail_read(12); }, 12,
     lines(kHeld, kToRead, "trace w", error(": PCX read failed: <0xc>"), freed(true))},
    {"store_refuses_the_second",
     [] {
       store().add_acl_item_iter.next(
           [](auto... arguments) { return es_acl_free_rules(std::get<1>(std::tuple(arguments...))), 0U; });
       store().add_acl_item_iter.next(28);
     },
     28, lines(kHeld, kToRead, "trace w", error(": PCX read failed: <0x1c>"), freed(true))},
};

class DefineFailure : public Define, public ::testing::WithParamInterface<Case> {};

TEST_P(DefineFailure, TakesBackWhatIsNew) {
  GetParam().arrange();
  const Got got = define({"held", "edge", "core", "edge"});
  EXPECT_EQ(got.status, GetParam().status);
  EXPECT_EQ(shown(), lines(started(4), GetParam().expected));
  const bool shared = GetParam().expected[1] == kHeld[1];
  EXPECT_EQ(got.heads, (Heads{shared ? held("held") : nullptr, nullptr, nullptr, nullptr}));
  EXPECT_EQ(got.results, Numbers(4, 0));
  EXPECT_EQ(held("held")->refcount, shared ? 2 : 1);
  EXPECT_EQ(held_names(), Lines{"held"});
  EXPECT_EQ(records_out(), 0U);
  EXPECT_NE(define({"edge"}).heads[0], nullptr) << "it can be got again";
}

INSTANTIATE_CASES(DefineFailure, kFailures);

// --- Failures of single names ---

TEST_F(Define, RegistrationsFailOneByOne) {
  platform().dsv_register_bulk.next(0x80000001);
  platform().dsv_register_bulk.next(
      [](uint32_t of, const char* const* names, uint32_t count, void*** made, uint32_t** codes) {
        make_registrations(of, names, count, made, codes);
        (*made)[1] = nullptr;
        (*codes)[1] = 5;
        return 0U;
      });
  platform().pcx_get_num_bulk_handles.next(2);
  platform().pcx_bulk_register.next([](void* const*, uint32_t* codes, auto...) {
    EXPECT_EQ(codes[1], 5U);
    return 0U;
  });
  platform().pcx_bulk_register.next([](void* const*, uint32_t* codes, auto...) { return codes[0] = 17, 0U; });
  const Got got = define({"edge", "core", "last"});
  EXPECT_EQ(got.results, Numbers(3, 0));
  const Lines expected =
      lines(error(": dsv_register_bulk failed for item 1 "), error(": pcx_bulk_register failed for item 1"),
            error(": pcx_bulk_register failed for item 2"),
            error(": DSV/PCX Register failed for 1 DSV Registration 2 PCX Registration"));
  EXPECT_EQ(log_of("E: "), expected);
  EXPECT_EQ(log_of("pcx_bulk_register"),
            (Lines{"pcx_bulk_register([reg:edge, null], ptr, 2, 0, 0, 0, es_acl_cpcx_handler)",
                   "pcx_bulk_register([reg:last], ptr, 1, 0, 0, 0, es_acl_cpcx_handler)"}));
  EXPECT_EQ(log_of("pcx_unregister"), Lines{"pcx_unregister(reg:last)"});
  EXPECT_EQ(pointer_name(got.heads[0]->reg_handle), "reg:edge");
  for (const size_t i : {1U, 2U}) EXPECT_EQ(got.heads[i]->reg_handle, nullptr);
  EXPECT_EQ(held_sequence(got.heads[2]), Numbers{40});
}

// The second of the three batches is tried again, as it is.
TEST_F(Define, RegistersAsManyAtOnceAsTheBusTakes) {
  Acls acls;
  Lines names = numbered(10);
  for (const std::string& name : names) acls[name] = {{7}, 0};
  serve(acls);
  platform().pcx_get_num_bulk_handles.next(4);
  platform().pcx_bulk_register.next(0);
  platform().pcx_bulk_register.next(0x80000001);
  std::vector<const char*> wanted;
  for (const std::string& name : names) wanted.push_back(name.c_str());
  EXPECT_EQ(define(wanted).results, Numbers(10, 0));
  const auto call = [](uint32_t from, uint32_t to) {
    std::string list = "reg:acl-" + show(from);
    for (uint32_t i = from + 1; i < to; ++i) list += ", reg:acl-" + show(i);
    return "pcx_bulk_register([" + list + "], ptr, " + show(to - from) + ", 0, 0, 0, es_acl_cpcx_handler)";
  };
  EXPECT_EQ(log_of("pcx_bulk_register"), (Lines{call(0, 4), call(4, 8), call(4, 8), call(8, 10)}));
}

TEST_F(Define, AHeadThatCannotBeCreatedIsLeftOut) {
  store().get_header.next(nullptr);
  const Got got = define({"core", "edge", "core", "last"});
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(got.results, (Numbers{12, 0, 12, 0}));
  EXPECT_EQ(got.heads, (Heads{nullptr, held("edge"), nullptr, held("last")}));
  EXPECT_EQ(held_sequence(held("edge")), (Numbers{10, 20}));
  EXPECT_EQ(held_sequence(held("last")), Numbers{40});
  EXPECT_EQ(log_of("E: "), error(": acl core get_header failed"));
  EXPECT_EQ(names_in(requests().at(1), 17), (Lines{"edge", "last"}));
  EXPECT_EQ(log_of("dsv_register_bulk"),
            Lines{"dsv_register_bulk(793173, [\"edge\", \"last\"], 2, ptr, ptr)"});

  clear_log();
  store().get_header.next(nullptr);
  EXPECT_EQ(define({"core", "core", "core"}).results, Numbers(3, 12));
  EXPECT_EQ(log_of("dsv_register_bulk"), Lines{});
}

TEST_F(Define, MemoryRunsOutAtEveryAllocation) {
  const char* names[] = {"edge", "held", "core", "edge"};
  void* handles[4];
  uint32_t results[4];
  const es_acl_handle_list in = {4, reinterpret_cast<void**>(const_cast<char**>(names))};
  es_acl_handle_list out = {0, handles};
  sweep_allocations([&] { return es_acl_get_definition(&in, &out, results); },
                    [&] {
                      EXPECT_EQ(held_names(), Lines{"held"});
                      EXPECT_EQ(records_out(), 0U);
                      EXPECT_EQ(log_of("pcx_unregister").size(), 2 * log_of("dsv_register_bulk").size());
                      if (handles[1] != nullptr) release({held("held")});
                      EXPECT_EQ(held("held")->refcount, 1);
                    });
  EXPECT_EQ(held("edge")->refcount, 2);
  EXPECT_EQ(held("core")->refcount, 1);
}

// --- Pushes that arrive meanwhile ---

TEST_F(Define, PushesMeetTheRead) {
  for (const uint32_t status : {5U, 0U}) {
    platform().pcx_bulk_register.next([&](auto...) {
      std::thread([] { push(batch(kAdd, {{50}}, "core")), push(batch(kRemove, {{10}}, "edge")); }).join();
      push(batch(kAdd, {{60}}, "edge"));
      EXPECT_EQ(held_sequence(held("core")), Numbers{});
      EXPECT_EQ(held_sequence(held("edge")), Numbers{60});
      if (status != 0) platform().pcx_read.next(status);
      return 0U;
    });
    EXPECT_EQ(define({"edge", "core"}).status, status);
  }
  EXPECT_EQ(held_sequence(held("edge")), (Numbers{20, 60}));
  EXPECT_EQ(held_sequence(held("core")), (Numbers{30, 50}));
}

// Not one that a longer name, which is no ACL's, begins with.
TEST_F(Define, AnAclThatIsHeldMissesNoChange) {
  const std::string name = long_name(64), longer = name + "n";
  make_acl(name, {});
  serve({{name, {{1}, 0}}, {"core", {{30}, 0}}});
  store().get_header.next(nullptr);
  platform().pcx_bulk_register.next([&](auto...) {
    std::thread([&] { push(batch(kAdd, {{50}}, name)); }).join();
    return 5U;
  });
  EXPECT_EQ(define({longer.c_str(), "core"}).status, 5U);
  EXPECT_EQ(held_sequence(held(name)), Numbers{50});
}

}  // namespace
