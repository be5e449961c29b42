// `es-acl watch` beside a producer whose configuration is changed: what arrives, in which order, and what an
// answer does to a change.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <list>
#include <sstream>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

json rule(uint32_t sequence, const char* action) {
  return {{"sequence", sequence}, {"actions", {{"forwarding", action}}}};
}
json remark(uint32_t sequence) { return {{"sequence", sequence}, {"remark", "what follows"}}; }
json acl(const std::string& name, const std::vector<json>& aces) {
  return {{"name", name}, {"aces", {{"ace", aces}}}};
}

// Whether the line begins so; 0 stands for any digit.
bool begins(const std::string& line, const std::string& pattern) {
  return line.size() >= pattern.size() &&
         std::equal(pattern.begin(), pattern.end(), line.begin(),
                    [](char wanted, char c) { return wanted == '0' ? c >= '0' && c <= '9' : wanted == c; });
}

// The text without this at the beginning of its lines.
std::string without(const std::string& beginning, const std::string& text) {
  std::string rest, line;
  for (std::istringstream lines(text); std::getline(lines, line);)
    rest += line.substr(begins(line, beginning) ? beginning.size() : 0) + '\n';
  return rest;
}
std::string untimed(const std::string& text) { return without("00:00:00.000 ", text); }

const std::vector<json> kBefore = {rule(10, "accept"), remark(20), rule(30, "drop"), rule(40, "accept")};

TEST(Watch, ShowsWhatAChangeDoesAndTellsWhenItIsDone) {
  const struct {
    const char* name;
    const char* mode;
    std::vector<json> after;
    const char* told;
  } cases[] = {
      {"replaced.two",
       "delete-and-add",
       {rule(10, "drop"), remark(20), rule(30, "drop"), rule(40, "accept"), rule(50, "drop"), remark(60)},
       "removing 1 entry\n  - 10 permit\n"
       "adding 3 entries\n  + 10 deny\n  + 50 deny\n  + 60 remark\n"
       "has changed, 6 entries, 2 of them remarks\n"},
      {"replaced.one",
       "add-only",
       {rule(10, "drop"), remark(20), rule(30, "drop"), rule(40, "accept"), rule(50, "drop"), remark(60)},
       "adding 3 entries\n  - 10 permit\n  + 10 deny\n  + 50 deny\n  + 60 remark\n"
       "has changed, 6 entries, 2 of them remarks\n"},
      {"removed-before-added",
       "add-only",
       {remark(20), rule(25, "drop"), rule(40, "accept")},
       "removing 2 entries\n  - 10 permit\n  - 30 deny\n"
       "adding 1 entry\n  + 25 deny\n"
       "has changed, 3 entries, 1 of them a remark\n"},
      {"renumbered",
       "delete-and-add",
       {rule(100, "accept"), remark(105), rule(110, "drop"), rule(115, "accept")},
       "renumbered from 100 in steps of 5\n"
       "has changed, 4 entries, 1 of them a remark\n"},
  };
  World world;
  std::vector<json> before, after;
  for (const auto& row : cases) {
    before.push_back(acl(row.name, kBefore));
    after.push_back(acl(row.name, row.after));
  }
  world.produce(before);
  std::list<Running> watches;  // each its own ACL; they all wait for their notices at once
  for (const auto& row : cases) {
    Running& watch =
        watches.emplace_back(world, std::string("es-acl watch --modify-mode ") + row.mode + " " + row.name);
    EXPECT_EQ(untimed(watch.until("held")),
              row.name + std::string(": held, 4 entries, 1 of them a remark\n"));
  }
  world.reconfigure(after);
  for (const auto& row : cases) {
    Running& watch = watches.front();
    EXPECT_EQ(without(row.name + std::string(": "), untimed(watch.until("has changed"))), row.told);
    const Ended ended = watch.end_by(SIGTERM);
    EXPECT_EQ(ended.code, 0) << row.name;
    EXPECT_EQ(ended.out + ended.err, "");
    watches.pop_front();
  }
}

// Each of two clients watches with room of its own. What one of them refuses is made nowhere.
TEST(Watch, RefusesForWantOfResourcesForEverybody) {
  World world;
  world.produce({acl("a", kBefore)}, "--check-resources");
  Running roomy(world, "es-acl watch a"), tight(world, "es-acl watch --refuse-above 5 a");
  roomy.until("held");
  tight.until("held");
  std::vector<json> aces = kBefore;
  aces.push_back(rule(50, "drop"));
  aces.push_back(rule(60, "drop"));
  world.reconfigure({acl("a", aces)});
  const std::string candidates = "  + 50 deny\n  + 60 deny\n";
  EXPECT_EQ(untimed(tight.until("+ 60")),
            "a: resources for 2 entries, 6 in all? no, status 28, No space left on device\n" + candidates);
  EXPECT_EQ(untimed(roomy.until("+ 60")), "a: resources for 2 entries, 6 in all? yes\n" + candidates);
  EXPECT_EQ(untimed(roomy.until("+ 60")),
            "a: resources for 2 entries are no longer asked for\n" + candidates);
  EXPECT_PRED2(contains, world.producer_says("change refused"), "by es-acl (process ");
  EXPECT_EQ(world.client("--json count a").acls()[0]["entries"], 4);

  aces.pop_back();  // nothing of the refused change comes behind the one that has room
  world.reconfigure({acl("a", aces)});
  for (Running* watch : {&tight, &roomy})
    EXPECT_EQ(untimed(watch->until("has changed")),
              "a: resources for 1 entry, 5 in all? yes\n  + 50 deny\n"
              "a: adding 1 entry\n  + 50 deny\n"
              "a: has changed, 5 entries, 1 of them a remark\n");
}

TEST(Watch, KeepsAnAclThatIsUsedFromBeingDropped) {
  World world;
  world.produce({acl("a", kBefore), acl("b", kBefore)});
  Running watch(world, "es-acl --json watch a b");
  watch.until("\"acl\":\"b\"");
  world.reconfigure({acl("b", {})});
  EXPECT_EQ(json::parse(watch.until("usage"))["answer"], 1);
  EXPECT_PRED2(contains, world.producer_says("acl 'a' cannot be dropped: it is in use by "),
               "es-acl (process ");
  const json acls = world.client("--json count a b").acls();
  EXPECT_EQ(acls[0]["entries"], 4);
  EXPECT_EQ(acls[1]["entries"], 4) << "a change is made as a whole or not at all";
  const Ended ended = watch.end_by(SIGINT);
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.out, "");
}

TEST(Watch, SeesAnAclGoThatItDoesNotUse) {
  World world;
  world.produce({acl("a", kBefore)});
  Running watch(world, "es-acl watch --not-in-use a");
  watch.until("held");
  world.reconfigure({});
  EXPECT_EQ(untimed(watch.until("has changed")),
            "in use? no\na: removing 3 entries\n  - 10 permit\n  - 30 deny\n  - 40 permit\n"
            "a: has changed, 0 entries\n");
  EXPECT_EQ(world.client("--json show a").acls()[0]["state"], "not-configured");
  world.reconfigure({acl("a", {rule(7, "drop")})});
  EXPECT_EQ(untimed(watch.until("has changed")), "a: adding 1 entry\n  + 7 deny\na: has changed, 1 entry\n");
}

TEST(Watch, EndsByItselfWhenThatIsAskedFor) {
  const struct {
    const char* arguments;
    int code;
    int lines;
  } cases[] = {
      {"a --timeout 0.01", 0, 1},
      {"a --timeout 0.01 --count 1", 6, 1},
      {"a missing --timeout 0.01", 1, 1},
      {"missing usage", 1, 0},
      {"a a --timeout 0.01 > /dev/full", 5, 0},
  };
  World world;
  world.produce({acl("a", kBefore)});
  for (const auto& [arguments, code, lines] : cases) {
    const Ended ended = world.client(std::string("watch ") + arguments);
    EXPECT_EQ(ended.code, code) << arguments << ended.err;
    EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), lines) << ended.out;
  }
  const Ended left = world.shell("{ es-acl watch a; echo code $? >&2; } | head -n 1");
  EXPECT_EQ(left.err, "code 0\n") << "nothing happens, and yet it is seen that the reader has gone";

  Running watch(world, "es-acl watch --count 1 a");
  watch.until("held");
  world.reconfigure({acl("a", {rule(5, "drop")})});
  const Ended counted = watch.end();
  EXPECT_EQ(counted.code, 0) << counted.err;
  EXPECT_EQ(untimed(counted.out), "a: removing 3 entries\n  - 10 permit\n  - 30 deny\n  - 40 permit\n");
  EXPECT_EQ(world.client("watch --json a --count 1 --timeout 9 --store /missing").code, 3);
}

// What changed while there was no producer, or while it did not answer, is made up for as a change, and nothing else is
// told.
TEST(Watch, CatchesUpWithARestartedProducer) {
  World world;
  world.environment["ES_PCX_BEAT_MS"] = "500";
  world.produce({acl("edge", kBefore), acl("gone", {rule(1, "drop")})});
  Running watch(world, "es-acl watch edge"), dropped(world, "es-acl watch gone");
  watch.until("held"), dropped.until("held");
  const std::string around[] = {"edge: out of touch with the producer\nedge: catching up with the producer\n",
                                "edge: in step with the producer\n"};
  const std::vector<json> after = {rule(10, "accept"), rule(35, "drop"), rule(40, "drop")};
  world.restart(SIGKILL, {acl("edge", after)});
  EXPECT_EQ(untimed(watch.until("has changed")),
            around[0] +
                "edge: removing 1 entry\n  - 30 deny\nedge: removing 1 entry\n  - 40 permit\n"
                "edge: adding 2 entries\n  + 35 deny\n  + 40 deny\n" +
                around[1] + "edge: has changed, 3 entries\n");
  EXPECT_TRUE(
      contains(untimed(dropped.until("has changed")), "  - 1 deny\ngone: in step with the producer\n"));
  world.restart(SIGTERM, {acl("edge", after)});
  EXPECT_EQ(untimed(watch.until("in step")), around[0] + around[1]) << "nothing has changed";
  world.signal_producer(SIGSTOP);
  EXPECT_EQ(untimed(watch.until("out of touch")), "edge: out of touch with the producer\n");
  world.signal_producer(SIGCONT);
  EXPECT_EQ(untimed(watch.until("in step")), around[0].substr(around[0].find("edge: catching")) + around[1]);
  world.reconfigure({acl("edge", {rule(10, "accept")})});
  EXPECT_EQ(untimed(watch.until("has changed")),
            "edge: removing 2 entries\n  - 35 deny\n  - 40 deny\nedge: has changed, 1 entry\n");
  EXPECT_EQ(watch.end_by(SIGTERM).code, 0);
}

}  // namespace
}  // namespace es_acl::e2e
