// Names that cannot be had and producers that fail: each is told for what it is, and nothing takes longer
// than its deadline.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "es_acl/es_acl_status.h"
#include "es_platform/dsv.h"
#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

json one_entry(const std::string& name) {
  return {{"name", name}, {"aces", {{"ace", {{{"sequence", 1}, {"actions", {{"forwarding", "accept"}}}}}}}}};
}

TEST(Names, EachIsToldForWhatItIs) {
  const std::string longest(64, 'x');
  struct Case {
    std::string name;
    const char* state;
    uint32_t status;
    const char* message;
  };
  const Case cases[] = {
      {longest, "ok", 0, ""},
      {longest + "x", "invalid-name", ES_ACL_E_NAME, "invalid ACL name"},
      {"usage", "invalid-name", ES_ACL_E_NAME, "reserved"},
      {"", "invalid-name", ES_ACL_E_NAME, "invalid ACL name"},
      {"_a", "invalid-name", ES_ACL_E_NAME, "letter or digit"},
      {"a/b\n\"c", "invalid-name", ES_ACL_E_NAME, "es-acl: a/b\\x0a\"c: invalid ACL name"},
      {"unknown", "not-configured", DSV_NO_DATA, "es-acl: unknown: not configured"},
      {"empty", "ok", 0, ""},
  };
  World world;
  const auto producer = world.produce(json::array({one_entry(longest), {{"name", "empty"}}}));
  for (const char* command : {"show", "count"}) {
    Arguments arguments = {"--json", command};
    for (const Case& c : cases) arguments.push_back(c.name);
    const Ended ended = world.client(arguments);
    EXPECT_EQ(ended.code, 1);
    const json acls = json::parse(ended.out)["acls"];
    ASSERT_EQ(acls.size(), std::size(cases));
    for (size_t i = 0; i < acls.size(); ++i) {
      EXPECT_EQ(acls[i]["name"], cases[i].name);
      EXPECT_EQ(acls[i]["state"], cases[i].state) << acls[i];
      EXPECT_EQ(acls[i]["status"], cases[i].status) << acls[i];
      EXPECT_TRUE(contains(ended.err, cases[i].message)) << ended.err;
    }
  }
}

TEST(Producer, NoneIsToldWithTheDirectory) {
  World world;
  for (const char* command : {"show", "count"}) {
    const Ended ended = world.client({command, "edge"});
    EXPECT_EQ(ended.code, 4);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "es-acl: edge: no producer serves " + world.path("bus") + " (from ES_PCX_DIR)\n");
  }
  world.environment.erase("ES_PCX_DIR");
  world.environment["XDG_RUNTIME_DIR"] = world.path("xdg");
  const json told = world.document({"show", "edge"}, 4);
  EXPECT_EQ(told["directory"], world.path("xdg") + "/es-acl");
  EXPECT_EQ(told["acls"][0]["state"], "no-producer");
}

TEST(Producer, DirectoryThatCannotBeMade) {
  World world;
  world.environment["ES_PCX_DIR"] = world.write("file", "") + "/bus";
  const std::string configuration = world.write("c.json", R"({"es-acl:acls": {}})");
  const Ended producer = run({E2E_PRODUCER, "--config", configuration}, world.environment);
  EXPECT_EQ(producer.code, 3);
  EXPECT_TRUE(contains(producer.err, world.environment["ES_PCX_DIR"])) << producer.err;
  EXPECT_TRUE(contains(producer.err, "Not a directory")) << producer.err;
  const Ended client = world.client({"show", "edge"});
  EXPECT_EQ(client.code, 4);
  EXPECT_TRUE(contains(client.err, world.environment["ES_PCX_DIR"])) << client.err;
}

// A read of a hundred entries in batches of two, which goes wrong at its eleventh batch.
TEST(Producer, FailsHalfWayThroughARead) {
  struct Case {
    const char* fault;
    uint32_t status;
    const char* message;
  };
  const Case cases[] = {{"kill", ESRCH, "went away half-way"},
                        {"stop", ETIME, "did not answer in time"},
                        {"busy", EAGAIN, "is busy"},
                        {"odd", EINVAL, "Invalid argument"},
                        {"again", EINVAL, "Invalid argument"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    World world;
    world.environment["ES_PCX_OPTIMUM_SIZE"] = "320";
    world.environment["ES_PCX_DEADLINE_MS"] = "1500";
    const auto producer = world.produce_faulty(100, 10, c.fault);
    const Ended ended = world.client({"show", "--json", "victim"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(contains(ended.err, c.message)) << ended.err;
    const json acl = json::parse(ended.out)["acls"][0];
    EXPECT_EQ(acl["state"], "failed");
    EXPECT_EQ(acl["status"], c.status);
    EXPECT_FALSE(acl.contains("ace")) << "half an ACL is none";
  }
}

TEST(Producer, FaultyOneIsFineWithoutItsFault) {
  World world;
  world.environment["ES_PCX_OPTIMUM_SIZE"] = "320";
  const auto producer = world.produce_faulty(100, 1000, "none");
  EXPECT_EQ(world.document({"show", "victim"})["acls"][0]["ace"].size(), 100u);
}

TEST(Producer, StoppedOneCostsOneDeadlineHoweverManyNames) {
  World world;
  constexpr milliseconds kDeadline{800};
  world.environment["ES_PCX_DEADLINE_MS"] = std::to_string(kDeadline.count());
  const auto producer = world.produce(json::array({one_entry("a")}));
  producer->stop();
  for (const char* command : {"show", "count"}) {
    const Ended ended = world.client({"--json", command, "a", "b", "c", "d", "e", "f", "g", "h", "i", "j"});
    EXPECT_EQ(ended.code, 1) << ended.err;
    EXPECT_GE(ended.took, kDeadline) << ended.err;
    EXPECT_LT(ended.took, 10 * kDeadline) << ended.err;
    const json acls = json::parse(ended.out)["acls"];
    EXPECT_EQ(acls.size(), 10u);
    for (const json& acl : acls) EXPECT_EQ(acl["status"], ETIME) << acl;
  }
  producer->signal(SIGCONT);
  EXPECT_EQ(world.client({"show", "a"}).code, 0);
}

TEST(Producer, NextOneTakesOverFromOneThatWasKilled) {
  World world;
  world.produce(json::array({one_entry("old")}))->signal(SIGKILL);
  EXPECT_EQ(world.client({"show", "old"}).code, 4);
  const auto next = world.produce(json::array({one_entry("new")}));
  EXPECT_EQ(world.client({"show", "new"}).code, 0);
  EXPECT_EQ(world.client({"show", "old"}).code, 1);
}

TEST(Producer, TwoSideBySideInTheirOwnDirectories) {
  World left, right;
  const auto left_producer = left.produce(json::array({one_entry("shared"), one_entry("left")}));
  const auto right_producer = right.produce(json::array({{{"name", "shared"}}, one_entry("right")}));
  EXPECT_EQ(left.document({"count", "shared"})["acls"][0]["entries"], 1);
  EXPECT_EQ(right.document({"count", "shared"})["acls"][0]["entries"], 0);
  EXPECT_EQ(left.client({"show", "right"}).code, 1);
  EXPECT_EQ(right.client({"show", "right"}).code, 0);
}

}  // namespace
}  // namespace es_acl::e2e
