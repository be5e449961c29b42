// What es-acl says of configured ACLs, beside what the configuration says.
#include <gtest/gtest.h>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

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

TEST(Text, IsATableOfWhatIsConfigured) {
  World world;
  world.produce(one_of_everything());
  EXPECT_EQ(world.shell("es-acl show all; echo; es-acl show nothing").out, &R"(
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
  EXPECT_EQ(world.client("count all nothing").out, &R"(
ACL         Entries     Remarks
all               6           1
nothing           0           0
)"[1]);
}

// A configured entry as the answer has it: the defaults filled in.
json expected_entry(const json& ace) {
  if (ace.contains("remark")) return {{"sequence", ace["sequence"]}, {"remark", true}};
  json entry = {{"matches", {{"eth", json::object()}}},
                {"actions", {{"capture", false}, {"logging", false}}}};
  entry.merge_patch(ace);
  json& eth = entry["matches"]["eth"];
  if (eth.value("ethertype", "") == "ipv4") eth["ethertype"] = "0x0800";
  return entry;
}

void expect_as_configured(const World& world, const json& acl) {
  const std::string name = acl["name"];
  const json& aces = acl["aces"]["ace"];
  json told = world.client("--json show " + name).acls()[0];
  const json entries = told["ace"];
  ASSERT_EQ(entries.size(), aces.size());
  int remarks = 0;
  for (size_t i = 0; i < aces.size(); ++i) {
    ASSERT_EQ(entries[i], expected_entry(aces[i]));
    remarks += aces[i].contains("remark");
  }
  told.erase("ace");
  EXPECT_EQ(told["entries"], aces.size());
  EXPECT_EQ(told["remarks"], remarks);
  EXPECT_EQ(world.client("--json count " + name).acls()[0], told);
}

TEST(Json, IsTheConfigurationWhateverTheSizes) {
  // Entries in each ACL, ACLs, and entries to a remark; entries that fit in one message.
  std::vector<std::pair<std::string, int>> cases = {{E2E_MANY " 1 100", 2000}, {"40 3 7", 7}};
  for (const int records : {1, 3, 5, 12, 13}) cases.emplace_back("12 1 5", records);
  for (const auto& [size, records] : cases) {
    SCOPED_TRACE(size + " in messages of " + std::to_string(records));
    World world;
    world.environment["ES_PCX_OPTIMUM_SIZE"] = std::to_string(160 * records + 159);
    const json configuration = json::parse(world.shell("generate-acl " + size).out);
    const json& acls = configuration["es-acl:acls"]["acl"];
    world.produce(acls);
    for (const json& acl : acls) expect_as_configured(world, acl);
  }
}

TEST(Json, OfManyTogetherIsTheConfigurationWithoutRemarks) {
  World world;
  const json acls = json::parse(world.shell("generate-acl 3 " E2E_MANY " 3").out)["es-acl:acls"]["acl"];
  world.produce(acls);
  std::string names;
  for (const json& acl : acls) names += std::string(acl["name"]) + '\n';
  const json told = world.client("--json show --all-from " + world.write("names", names)).acls();
  ASSERT_EQ(told.size(), acls.size());
  for (size_t i = 0; i < acls.size(); ++i) {
    json rules = json::array();
    for (const json& ace : acls[i]["aces"]["ace"])
      if (!ace.contains("remark")) rules.push_back(expected_entry(ace));
    ASSERT_EQ(told[i]["ace"], rules) << told[i]["name"];
  }
}

TEST(Match, FirstEntryInOrderDecides) {
  const std::pair<std::string, std::string> cases[] = {
      {"--src 02:ab:00:00:00:99 --dst 01:80:c2:00:00:0e", "deny by entry 10, capture, log"},
      {"--src 02ab.0000.0199 --dst 01-80-C2-00-00-0E", "deny by entry 4294967295, log"},
      {"$ADDRESSES --vlan 100 --pcp 5 --ethertype ipv6", "permit by entry 20"},
      {"$ADDRESSES --vlan 199 --pcp 5 --ethertype 0x86dd", "permit by entry 20"},
      {"$ADDRESSES --vlan 200 --pcp 5 --ethertype ipv6", "deny by entry 4294967295, log"},
      {"$ADDRESSES --vlan 7 --dei 1 --inner-vlan 4094", "permit by entry 30, capture"},
      {"$ADDRESSES --vlan 7 --dei 1", "deny by entry 4294967295, log"},
      {"$ADDRESSES --vlan 1 --pcp 7 --ethertype 9000", "deny by entry 40"},
  };
  World world;
  world.environment["ADDRESSES"] = "--src 02:00:00:00:00:01 --dst 02:00:00:00:00:02";
  world.produce(one_of_everything());
  for (const auto& [frame, verdict] : cases) {
    const Ended ended = world.client("match all " + frame);
    EXPECT_EQ(ended.out.substr(0, ended.out.find(" (")), "all: " + verdict) << ended.err;
  }
  EXPECT_EQ(world.client("--json match all $ADDRESSES").acls()[0], json::parse(R"(
            {"name": "all", "state": "ok", "status": 0, "result": "deny", "sequence": 4294967295,
             "capture": false, "logging": true})"));
  EXPECT_EQ(world.client("--json match nothing $ADDRESSES").acls()[0]["result"], "none");
}

}  // namespace
}  // namespace es_acl::e2e
