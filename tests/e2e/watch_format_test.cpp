// How `es-acl watch` writes events: each kind, with what it may and may not have.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "es_acl/es_acl_callback.h"
#include "event.h"

namespace es_acl::tool {
namespace {

using nlohmann::json;

es_acl_ace rule(uint32_t seq, uint64_t mask, uint8_t grant) {
  es_acl_ace ace = {};
  ace.seq = seq;
  ace.grant = grant;
  ace.eth_type = 0x88cc;
  ace.vlan_first = 100;
  ace.vlan_last = 199;
  es_acl_ace_set_match_mask(&ace, mask);
  return ace;
}

// A batch of one entry each: new, in place of another, a remark.
struct Batches {
  es_acl_ace fresh = rule(4294967295, 0, ES_ACL_DENY);
  es_acl_ace old_rule = rule(20, ES_ACL_MATCH_ETH_TYPE, ES_ACL_PERMIT);
  es_acl_ace new_rule = rule(20, ES_ACL_MATCH_VLAN, ES_ACL_DENY);
  es_acl_ace remark = rule(5, 0, ES_ACL_DENY);
  ace_edit_info edits[3] = {
      {4294967295, &fresh, nullptr, 1}, {20, &new_rule, &old_rule, 0}, {5, &remark, nullptr, 1}};
  ace_edit_info removals[1] = {{20, &old_rule, nullptr, 0}};

  Batches() {
    fresh.log_option = 1;
    remark.kind = ES_ACL_KIND_REMARK;
  }
};

const char kEditsText[] =
    "  + 4294967295 deny, log\n"
    "  - 20 permit, ethertype lldp\n"
    "  + 20 deny, outer vlan 100-199\n"
    "  + 5 remark\n";
const char kEditsJson[] = R"([
  {"sequence": 4294967295, "new": {"sequence": 4294967295, "matches": {"eth": {}},
      "actions": {"forwarding": "drop", "capture": false, "logging": true}}},
  {"sequence": 20, "old": {"sequence": 20, "matches": {"eth": {"ethertype": "0x88cc"}},
      "actions": {"forwarding": "accept", "capture": false, "logging": false}},
    "new": {"sequence": 20, "matches": {"eth": {"outer-vlan": {"id": 100, "last-id": 199}}},
      "actions": {"forwarding": "drop", "capture": false, "logging": false}}},
  {"sequence": 5, "new": {"sequence": 5, "remark": true}}])";
const char kRemovalsJson[] = R"([
  {"sequence": 20, "old": {"sequence": 20, "matches": {"eth": {"ethertype": "0x88cc"}},
      "actions": {"forwarding": "accept", "capture": false, "logging": false}}}])";

TEST(WatchFormat, EachEventAsTextAndAsJson) {
  const Batches batches;
  const uint32_t skipped[] = {30, 40};
  const Problem problem = {State::kNotConfigured, 7, "not \"there\"\n"};
  const json edits = json::parse(kEditsJson), removals = json::parse(kRemovalsJson), none = json::array();
  const std::string edits_text = kEditsText;
  const struct {
    Event event;
    std::string text;
    const char* members;  // without the time and the changes
    json changes = nullptr;
  } cases[] = {
      {Held{"a", {4, 1}}, "a: held, 4 entries, 1 of them a remark\n",
       R"("event": "held", "acl": "a", "entries": 4, "remarks": 1)"},
      {Update{"a", ACL_ADD_ACE, batches.edits}, "a: adding 3 entries\n" + edits_text,
       R"("event": "add", "acl": "a")", edits},
      {Update{"a", ACL_REMOVE_ACE, batches.removals}, "a: removing 1 entry\n  - 20 permit, ethertype lldp\n",
       R"("event": "remove", "acl": "a")", removals},
      {Resequencing{"a", 4294967295, 10, {}}, "a: renumbered from 4294967295 in steps of 10\n",
       R"("event": "resequence", "acl": "a", "start": 4294967295, "step": 10, "skip": [])"},
      {Resequencing{"a", 10, 1, skipped}, "a: renumbered from 10 in steps of 1, passing over 30 40\n",
       R"("event": "resequence", "acl": "a", "start": 10, "step": 1, "skip": [30, 40])"},
      {ResourceQuestion{"a", batches.edits, false, 12, 0},
       "a: resources for 3 entries, 12 in all? yes\n" + edits_text,
       R"("event": "resources", "acl": "a", "entries": 12, "answer": 0)", edits},
      {ResourceQuestion{"a", {}, false, 5000000000, ENOSPC},
       "a: resources for 0 entries, 5000000000 in all? no, status 28, No space left on device\n",
       R"("event": "resources", "acl": "a", "entries": 5000000000, "answer": 28)", none},
      {ResourceQuestion{"a", batches.edits, true, 12, 0},
       "a: resources for 3 entries are no longer asked for\n" + edits_text,
       R"("event": "resources-withdrawn", "acl": "a")", edits},
      {UsageQuestion{1}, "in use? yes\n", R"("event": "usage", "answer": 1)"},
      {UsageQuestion{0}, "in use? no\n", R"("event": "usage", "answer": 0)"},
      {Changed{"a", {0, 0}}, "a: has changed, 0 entries\n",
       R"("event": "changed", "acl": "a", "entries": 0, "remarks": 0)"},
      {Unavailable{"b\x1b", problem}, "b\\x1b: not \"there\"\n\n",
       R"("event": "unavailable", "acl": "b\u001b", "state": "not-configured", "status": 7, "text": "not \"there\"\n")"},
      {Unavailable{nullptr, problem}, "not \"there\"\n\n",
       R"("event": "error", "state": "not-configured", "status": 7, "text": "not \"there\"\n")"},
  };
  setenv("TZ", "XST-2", 1);  // two hours ahead of UTC
  tzset();
  const Moment moment{std::chrono::microseconds(1700000000012345)};
  for (const auto& row : cases) {
    std::string text, line;
    append_text(text, row.event, moment, false);
    EXPECT_EQ(text, "00:13:20.012 " + row.text);
    append_json(line, row.event, moment);
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
    const json members = json::parse(line);
    EXPECT_EQ(members["time"], "2023-11-14T22:13:20.012345Z");
    json expected = json::parse("{" + std::string(row.members) + "}");
    expected["time"] = members["time"];
    if (!row.changes.is_null()) expected["changes"] = row.changes;
    EXPECT_EQ(members, expected) << line;
  }
}

TEST(WatchFormat, ColourMarksTheNameAndTheSigns) {
  const Batches batches;
  std::string text;
  append_text(text, Update{"a", ACL_ADD_ACE, std::span(batches.edits).subspan(1, 1)}, {}, true);
  EXPECT_EQ(text.substr(text.find(' ') + 1),
            "\033[1ma\033[0m: adding 1 entry\n"
            "  \033[31m- 20 permit, ethertype lldp\033[0m\n"
            "  \033[32m+ 20 deny, outer vlan 100-199\033[0m\n");
}

}  // namespace
}  // namespace es_acl::tool
