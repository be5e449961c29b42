// Many names in one command: fetched together, told one by one.
#include <gtest/gtest.h>

#include <csignal>

#include "es_acl/es_acl_status.h"
#include "es_platform/dsv.h"
#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

// The sequence numbers of what is told of an ACL.
std::vector<uint32_t> numbers(const json& acl) {
  std::vector<uint32_t> all;
  for (const json& ace : acl.value("ace", json::array())) all.push_back(ace["sequence"]);
  return all;
}

json acl(const char* name, std::initializer_list<uint32_t> rules, std::initializer_list<uint32_t> remarks) {
  json aces = json::array();
  for (const uint32_t sequence : remarks) aces.push_back({{"sequence", sequence}, {"remark", "r"}});
  for (const uint32_t sequence : rules)
    aces.push_back({{"sequence", sequence}, {"actions", {{"forwarding", "drop"}}}});
  return {{"name", name}, {"aces", {{"ace", aces}}}};
}

TEST(Bulk, EachNameIsToldForWhatItIs) {
  const std::string longest(64, 'x');
  const struct {
    std::string name;
    uint32_t status;
    const char* message;
    std::vector<uint32_t> numbers;
    bool rules_only;
  } cases[] = {
      {"mixed", 0, "", {20, 30}, true},
      {"unknown", DSV_NO_DATA, "es-acl: unknown: not configured", {}, false},
      {"empty", 0, "", {}, false},
      {"rule", 0, "", {4294967295}, true},
      {"a/b\n\"c", ES_ACL_E_NAME, "es-acl: a/b\\x0a\"c: invalid ACL name", {}, false},
      {"", ES_ACL_E_NAME, "letter or digit", {}, false},
      {"usage", ES_ACL_E_NAME, "reserved", {}, false},
      {longest + "x", ES_ACL_E_NAME, "invalid ACL name", {}, false},
      {longest, 0, "", {}, false},
      {"remarks", 0, "", {10, 20}, false},
      {"mixed", 0, "", {20, 30}, true},
  };
  World world;
  world.produce({acl("mixed", {20, 30}, {10}), acl("remarks", {}, {10, 20}), acl("rule", {4294967295}, {}),
                 acl("empty", {}, {}), acl(longest.c_str(), {}, {})});
  world.environment["LIST"] = world.write("list", "# the rest\r\n\n\t rule \r\nremarks#alone\nmixed");
  for (const std::string command : {"--json show", "--json count"}) {
    std::string names;
    for (const auto& row : cases) names += " '" + row.name + "'";
    const Ended ended = world.client(command + names);
    EXPECT_EQ(ended.code, 1);
    const json acls = ended.acls();
    ASSERT_EQ(acls.size(), std::size(cases));
    for (size_t i = 0; i < acls.size(); ++i) {
      const auto& [name, status, message, entries, rules_only] = cases[i];
      EXPECT_EQ(acls[i]["name"], name);
      EXPECT_EQ(acls[i]["status"], status) << name;
      EXPECT_EQ(acls[i]["state"], status == 0             ? "ok"
                                  : status == DSV_NO_DATA ? "not-configured"
                                                          : "invalid-name");
      EXPECT_PRED2(contains, ended.err, message);
      if (command == "--json count") continue;
      EXPECT_EQ(numbers(acls[i]), entries) << name;
      EXPECT_EQ(acls[i].value("remarks-left-out", false), rules_only) << name;
    }
  }
  for (const char* names : {"mixed empty --all-from $LIST", "--all-from - mixed empty < $LIST"})
    EXPECT_EQ(world.client(std::string("show ") + names).out,
              world.client("show mixed empty rule remarks mixed").out);
}

// A producer whose first bulk reads do not have what it counted: again, and in the end one by one.
TEST(Bulk, AChangeBetweenCountAndReadIsOvercome) {
  const std::tuple<const char*, bool> cases[] = {
      {"shrink", true}, {"grow", true}, {"shrink", false}, {"grow", false}};
  for (const auto& [fault, passes] : cases) {
    World world;
    world.start_producer(std::string("e2e_faulty_producer 3 ") + (passes ? "4 " : "1000 ") + fault);
    const Ended ended = world.client("--json show victim victim");
    EXPECT_EQ(ended.code, 0) << ended.err;
    for (const json& acl : ended.acls()) {
      EXPECT_EQ(numbers(acl), (std::vector<uint32_t>{1, 2, 3})) << fault;
      EXPECT_EQ(acl.value("remarks-left-out", false), passes) << fault << ": whether it was got with others";
    }
  }
}

// Without the remarks, which are not told of and not counted when entries are renumbered.
TEST(Bulk, WhatIsPushedReachesEachAcl) {
  World world;
  world.produce({acl("a", {10, 30, 40}, {20}), acl("b", {10, 30, 40}, {20}), acl("c", {}, {20})});
  Running watch(world, "es-acl --json watch a b c");
  EXPECT_EQ(json::parse(watch.until("\"a\""))["remarks-left-out"], true);
  EXPECT_EQ(json::parse(watch.until("\"b\""))["entries"], 3);
  EXPECT_EQ(json::parse(watch.until("\"c\""))["remarks"], 1);
  world.reconfigure({acl("a", {100, 104, 106}, {102}), acl("b", {10, 40}, {25}), acl("c", {5}, {20})});
  std::map<std::string, std::string> told;  // the events of each ACL
  for (int changed = 0; changed < 3;) {
    const json event = json::parse(watch.until("\n"));
    changed += event["event"] == "changed";
    told[event["acl"]] += std::string(event["event"]) + ' ' + event.value("entries", json()).dump() + ' ';
  }
  EXPECT_EQ(told["a"], "resequence null changed 3 ");
  EXPECT_EQ(told["b"], "remove null changed 2 ");
  EXPECT_EQ(told["c"], "add null changed 2 ");
  EXPECT_EQ(watch.end_by(SIGTERM).code, 0);
}

}  // namespace
}  // namespace es_acl::e2e
