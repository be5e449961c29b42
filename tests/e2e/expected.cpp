#include "expected.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>

namespace es_acl::e2e {

using nlohmann::json;

namespace {

constexpr uint64_t kAllBits = 0xffffffffffff;

uint64_t mac_number(const std::string& text) {
  std::string digits = text;
  digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
  return std::stoull(digits, nullptr, 16);
}

std::string mac_text(uint64_t number) {
  std::string text;
  for (int shift = 40; shift >= 0; shift -= 8) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%02x:", static_cast<unsigned>(number >> shift & 0xff));
    text += pair;
  }
  text.pop_back();
  return text;
}

uint64_t wildcard_of(const json& eth, const std::string& leaf) {
  if (eth.contains(leaf + "-wildcard")) return mac_number(eth[leaf + "-wildcard"]);
  if (eth.contains(leaf + "-mask")) return kAllBits & ~mac_number(eth[leaf + "-mask"]);
  return 0;
}

void expect_address(const json& eth, const std::string& leaf, json* expected) {
  if (!eth.contains(leaf)) return;
  const uint64_t wildcard = wildcard_of(eth, leaf);
  (*expected)[leaf] = mac_text(mac_number(eth[leaf]) & ~wildcard);
  if (wildcard != 0) (*expected)[leaf + "-wildcard"] = mac_text(wildcard);
}

std::string ethertype(const std::string& configured) {
  static const std::map<std::string, std::string> kNames = {
      {"ipv4", "0x0800"},   {"arp", "0x0806"},  {"rarp", "0x8035"}, {"ipv6", "0x86dd"},
      {"mpls", "0x8847"},   {"slow", "0x8809"}, {"lldp", "0x88cc"}, {"eapol", "0x888e"},
      {"macsec", "0x88e5"}, {"cfm", "0x8902"},  {"ptp", "0x88f7"}};
  const auto known = kNames.find(configured);
  return known == kNames.end() ? configured : known->second;
}

json expected_eth(const json& eth) {
  json expected = json::object();
  expect_address(eth, "source-mac-address", &expected);
  expect_address(eth, "destination-mac-address", &expected);
  if (eth.contains("ethertype")) expected["ethertype"] = ethertype(eth["ethertype"]);
  for (const char* tag : {"outer-vlan", "inner-vlan"}) {
    if (!eth.contains(tag)) continue;
    expected[tag] = eth[tag];
    if (eth[tag].contains("last-id") && eth[tag]["last-id"] == eth[tag]["id"]) expected[tag].erase("last-id");
  }
  return expected;
}

json expected_entry(const json& ace) {
  if (ace.contains("remark")) return {{"sequence", ace["sequence"]}, {"remark", true}};
  const json& actions = ace["actions"];
  const json matches = ace.value("matches", json::object());
  return {{"sequence", ace["sequence"]},
          {"matches", {{"eth", expected_eth(matches.value("eth", json::object()))}}},
          {"actions",
           {{"forwarding", actions["forwarding"]},
            {"capture", actions.value("capture", false)},
            {"logging", actions.value("logging", false)}}}};
}

}  // namespace

json configured_acls(const std::string& file) {
  std::ifstream in(file);
  return json::parse(in)["es-acl:acls"]["acl"];
}

json expected_entries(const json& acl) {
  json entries = json::array();
  const json aces = acl.value("aces", json::object());
  for (const json& ace : aces.value("ace", json::array())) entries.push_back(expected_entry(ace));
  std::sort(entries.begin(), entries.end(),
            [](const json& a, const json& b) { return a["sequence"] < b["sequence"]; });
  return entries;
}

}  // namespace es_acl::e2e
