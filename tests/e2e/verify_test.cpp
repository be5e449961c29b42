// `es-acl verify`: what producer and clients have, when all is well, when one goes its own way, and when one does not answer.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

TEST(Verify, EveryFieldOfAnEntryIsInBothDigests) {
  const json entry = json::parse(R"({"sequence": 10, "matches": {"eth": {"ethertype": "arp",
    "source-mac-address": "02:00:00:00:00:00", "source-mac-address-wildcard": "00:00:00:00:00:0f",
    "destination-mac-address": "04:00:00:00:00:00", "destination-mac-address-wildcard": "00:00:00:00:00:0f",
    "outer-vlan": {"id": 1, "last-id": 9, "pcp": 1, "dei": true}, "inner-vlan": {"id": 1, "last-id": 9, "pcp": 1, "dei": true}}},
    "actions": {"forwarding": "drop", "capture": false, "logging": false}})");
  const json changes =
      json::parse(R"([{}, {"/sequence": 11}, {"/actions/forwarding": "accept"}, {"/actions/capture": true},
    {"/actions/logging": true}, {"/matches/eth/ethertype": "ipv4"}, {"/matches/eth/source-mac-address": "02:00:00:00:00:10"},
    {"/matches/eth/source-mac-address-wildcard": "00:00:00:00:0f:00"}, {"/matches/eth/destination-mac-address": "04:00:00:00:00:10"},
    {"/matches/eth/destination-mac-address-wildcard": "00:00:00:00:0f:00"}, {"/matches/eth/outer-vlan/id": 2},
    {"/matches/eth/outer-vlan/last-id": 8}, {"/matches/eth/outer-vlan/pcp": 2}, {"/matches/eth/outer-vlan/dei": false},
    {"/matches/eth/inner-vlan/id": 2}, {"/matches/eth/inner-vlan/last-id": 8}, {"/matches/eth/inner-vlan/pcp": 2},
    {"/matches/eth/inner-vlan/dei": false}, {"": {"sequence": 10, "remark": "r"}}])");
  std::vector<json> acls;
  std::string names;
  for (const json& change : changes) {
    const std::string name = "a" + std::to_string(acls.size());
    json changed = entry;
    for (const auto& [field, value] : change.items()) changed[json::json_pointer(field)] = value;
    acls.push_back({{"name", name}, {"aces", {{"ace", {changed}}}}});
    names += " " + name;
  }
  World world;
  world.produce(acls);
  Running holder(world, "es-acl watch" + names);
  holder.until("a18: held");
  std::set<std::string> digests;
  for (const json& told : world.client("--json verify" + names).acls()) {
    EXPECT_TRUE(digests.insert(told["digest"]).second) << told;
    EXPECT_EQ(told["clients"][0]["digest"], told["digest"]) << told;
  }
  EXPECT_EQ(digests.size(), changes.size());
}

TEST(Verify, NamesWhoDiffersAndWhoDoesNotAnswer) {
  const std::vector<json> acls =
      json::parse(R"([{"name": "b"}, {"name": "a", "aces": {"ace": [{"sequence": 5, "remark": "r"},
    {"sequence": 10, "actions": {"forwarding": "drop"}}]}}])");
  World world;
  world.produce(acls);
  Running whole(world, "es-acl watch a"), rules(world, "es-acl watch a b"),
      editor(world, E2E_EDITING_CLIENT " a");
  whole.until("held"), rules.until("b: held"), editor.until("edited");
  whole.signal(SIGSTOP);
  const Ended ended = world.client("--json verify a --wait 3");
  EXPECT_EQ(ended.code, 7);
  std::multiset<std::string> told;
  const json answer = ended.acls()[0];
  for (const json& client : answer["clients"])
    told.insert(client["sync"].get<std::string>() + (client.value("equal", false) ? " equal" : ""));
  EXPECT_EQ(told, (std::multiset<std::string>{"in-step", "in-step equal", "no-answer"}));
  whole.signal(SIGCONT);
  world.restart(SIGTERM, acls);  // catching up takes the edit back
  Ended after;
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
       std::ranges::count(after.out, '\n') != 7 || after.code != 0;) {
    after = world.client("verify a");
    ASSERT_LT(std::chrono::steady_clock::now(), end) << after.out;
  }
}

}  // namespace
}  // namespace es_acl::e2e
