// What es-acl says of configured ACLs, beside what the configuration says.
#include <gtest/gtest.h>

#include "expected.h"
#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

// One of everything.
json one_of_everything() {
  return json::parse(R"([{"name": "all", "aces": {"ace": [
    {"sequence": 4294967295, "actions": {"forwarding": "drop", "logging": true}},
    {"sequence": 5, "remark": "first in order, last but one in the file"},
    {"sequence": 10, "matches": {"eth": {"source-mac-address": "02:AB:00:00:00:00",
                                         "source-mac-address-wildcard": "00:00:00:00:00:ff",
                                         "destination-mac-address": "01:80:c2:00:00:0e"}},
     "actions": {"forwarding": "drop", "capture": true, "logging": true}},
    {"sequence": 20, "matches": {"eth": {"ethertype": "ipv6", "outer-vlan": {"id": 100, "last-id": 199, "pcp": 5}}},
     "actions": {"forwarding": "accept"}},
    {"sequence": 30, "matches": {"eth": {"outer-vlan": {"id": 7, "dei": true},
                                         "inner-vlan": {"id": 0, "last-id": 4094, "pcp": 0, "dei": false}}},
     "actions": {"forwarding": "accept", "capture": true}},
    {"sequence": 40, "matches": {"eth": {"ethertype": "0x9000", "outer-vlan": {"pcp": 7}}},
     "actions": {"forwarding": "drop"}}
  ]}}, {"name": "nothing"}])");
}

TEST(Show, TablesReadAsConfigured) {
  World world;
  const auto producer = world.produce(one_of_everything());
  const Ended ended = world.client({"show", "all", "nothing"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(ended.out, &R"(
all: 6 entries, 1 of them a remark
         Seq  Action  Source/mask                          Destination/mask   EtherType  Outer VLAN     Inner VLAN          Options
           5  remark
          10  deny    02:ab:00:00:00:00/ff:ff:ff:ff:ff:00  01:80:c2:00:00:0e  any        any            any                 capture log
          20  permit  any                                  any                ipv6       100-199 pcp 5  any
          30  permit  any                                  any                any        7 dei 1        0-4094 pcp 0 dei 0  capture
          40  deny    any                                  any                0x9000     any pcp 7      any
  4294967295  deny    any                                  any                any        any            any                 log

nothing: 0 entries
)"[1]);
}

TEST(Show, ExamplesAreToldAsTheyAreConfigured) {
  for (const char* file : {"campus-edge.json", "datacenter.json", "large.json"}) {
    SCOPED_TRACE(file);
    World world;
    const std::string configuration = std::string(E2E_EXAMPLES) + "/" + file;
    const auto producer = world.produce(configuration);
    const json configured = configured_acls(configuration);
    Arguments arguments = {"show"};
    for (const json& acl : configured) arguments.push_back(acl["name"]);
    const json told = world.document(arguments)["acls"];
    arguments[0] = "count";
    const json counted = world.document(arguments)["acls"];
    ASSERT_EQ(told.size(), configured.size());
    for (size_t i = 0; i < configured.size(); ++i) {
      const json expected = expected_entries(configured[i]);
      size_t remarks = 0;
      for (const json& entry : expected) remarks += entry.contains("remark");
      EXPECT_EQ(told[i]["ace"], expected) << configured[i]["name"];
      for (const json* answer : {&told[i], &counted[i]}) {
        EXPECT_EQ((*answer)["name"], configured[i]["name"]);
        EXPECT_EQ((*answer)["entries"], expected.size());
        EXPECT_EQ((*answer)["remarks"], remarks);
      }
    }
  }
}

TEST(Show, XmlConfigurationOfDoubleTaggedFrames) {
  World world;
  const auto producer = world.produce(std::string(E2E_EXAMPLES) + "/q-in-q.xml");
  const std::string names =
      world.shell("sed -n 's:.*<name>\\(.*\\)</name>.*:\\1:p' " E2E_EXAMPLES "/q-in-q.xml").out;
  const std::string first = names.substr(0, names.find('\n'));
  const json told = world.document({"show", first})["acls"][0];
  size_t with_inner_tag = 0;
  for (const json& entry : told["ace"])
    with_inner_tag += entry.contains("matches") && entry["matches"]["eth"].contains("inner-vlan");
  EXPECT_GT(with_inner_tag, 0u) << told;
}

TEST(Show, EveryBatchSizeGivesTheWholeAcl) {
  World world;
  json aces = json::array();
  for (int seq = 1; seq <= 12; ++seq)
    aces.push_back({{"sequence", seq}, {"actions", {{"forwarding", "drop"}}}});
  const json acl = {{"name", "twelve"}, {"aces", {{"ace", aces}}}};
  const auto producer = world.produce(json::array({acl}));
  for (const int records :
       {1, 3, 5, 12, 13}) {  // one at a time, a divisor of twelve, none, all, room to spare
    world.environment["ES_PCX_OPTIMUM_SIZE"] = std::to_string(160 * records + 159);
    EXPECT_EQ(world.document({"show", "twelve"})["acls"][0]["ace"], expected_entries(acl)) << records;
  }
}

TEST(Count, TextIsATable) {
  World world;
  const auto producer = world.produce(one_of_everything());
  EXPECT_EQ(world.client({"count", "all", "nothing"}).out,
            "ACL         Entries     Remarks\n"
            "all               6           1\n"
            "nothing           0           0\n");
}

TEST(Match, FirstEntryInOrderDecides) {
  struct Case {
    Arguments frame;
    const char* says;
  };
  const Case cases[] = {
      {{"--src", "02:ab:00:00:00:99", "--dst", "01:80:c2:00:00:0e"}, "all: deny by entry 10, capture, log ("},
      {{"--src", "02ab.0000.0199", "--dst", "01-80-C2-00-00-0E"}, "all: deny by entry 4294967295, log ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "100", "--pcp", "5",
        "--ethertype", "ipv6"},
       "all: permit by entry 20 ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "199", "--pcp", "5",
        "--ethertype", "0x86dd"},
       "all: permit by entry 20 ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "200", "--pcp", "5",
        "--ethertype", "ipv6"},
       "all: deny by entry 4294967295, log ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "7", "--dei", "1",
        "--inner-vlan", "4094"},
       "all: permit by entry 30, capture ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "7", "--dei", "1"},
       "all: deny by entry 4294967295, log ("},
      {{"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02", "--vlan", "1", "--pcp", "7",
        "--ethertype", "9000"},
       "all: deny by entry 40 ("},
  };
  World world;
  const auto producer = world.produce(one_of_everything());
  for (const Case& c : cases) {
    Arguments arguments = {"match", "all"};
    arguments.insert(arguments.end(), c.frame.begin(), c.frame.end());
    const Ended ended = world.client(arguments);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out.substr(0, std::string(c.says).size()), c.says) << ended.out;
  }
}

TEST(Match, JsonSaysWhichEntryAndWhatItAsksFor) {
  World world;
  const auto producer = world.produce(one_of_everything());
  const Arguments frame = {"--src", "02:00:00:00:00:01", "--dst", "02:00:00:00:00:02"};
  const auto match = [&](const std::string& name) {
    return world.document({"match", name, frame[0], frame[1], frame[2], frame[3]})["acls"][0];
  };
  EXPECT_EQ(match("all"), json::parse(R"({"name": "all", "state": "ok", "status": 0, "result": "deny",
                                          "sequence": 4294967295, "capture": false, "logging": true})"));
  EXPECT_EQ(match("nothing"),
            json::parse(R"({"name": "nothing", "state": "ok", "status": 0, "result": "none"})"));
}

}  // namespace
}  // namespace es_acl::e2e
