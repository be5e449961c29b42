// Producers that fail: each is told for what it is, and nothing takes longer than its deadline.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

json acl(const std::string& name) { return {{"name", name}}; }

TEST(Producers, NoneIsToldWithTheDirectory) {
  World world;
  for (const char* command : {"show edge", "count edge"}) {
    const Ended ended = world.client(command);
    EXPECT_EQ(ended.code, 4);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "es-acl: edge: no producer serves " + world.path("bus") + " (from ES_PCX_DIR)\n");
  }
  const Ended watched = world.client("--json watch edge");
  EXPECT_EQ(watched.code, 4);
  EXPECT_EQ(watched.err, "es-acl: edge: no producer serves " + world.path("bus") + " (from ES_PCX_DIR)\n");
  const json event = json::parse(watched.out);
  EXPECT_EQ(event["event"], "unavailable");
  EXPECT_EQ(event["state"], "no-producer");
  world.environment.erase("ES_PCX_DIR");
  world.environment["XDG_RUNTIME_DIR"] = world.path("xdg");
  const Ended ended = world.client("--json show edge");
  EXPECT_EQ(ended.acls()[0]["state"], "no-producer");
  EXPECT_PRED2(contains, ended.err, world.path("xdg/es-acl (from XDG_RUNTIME_DIR"));
}

TEST(Producers, DirectoryThatCannotBeMade) {
  World world;
  const std::string directory = world.write("file", R"({"es-acl:acls": {}})") + "/bus";
  world.environment["ES_PCX_DIR"] = directory;
  const Ended producer = world.shell("es-acl-producer --config " + world.path("file"));
  EXPECT_EQ(producer.code, 3);
  EXPECT_PRED2(contains, producer.err, directory);
  EXPECT_PRED2(contains, producer.err, "Not a directory");
  const Ended client = world.client("show edge");
  EXPECT_EQ(client.code, 4);
  EXPECT_PRED2(contains, client.err, "es-acl: edge: no producer can be reached in " + directory);
  EXPECT_PRED2(contains, client.err, ": Not a directory");
}

// A read of a hundred entries in batches of two, which goes wrong at its eleventh batch.
TEST(Producers, FailHalfWayThroughARead) {
  const std::tuple<std::string, uint32_t, const char*> cases[] = {
      {"kill", ESRCH, "went away half-way"}, {"stop", ETIME, "did not answer in time"},
      {"busy", EAGAIN, "is busy"},           {"odd", EINVAL, "Invalid argument"},
      {"again", EINVAL, "Invalid argument"},
  };
  for (const auto& [fault, status, message] : cases) {
    SCOPED_TRACE(fault);
    World world;
    world.environment["ES_PCX_OPTIMUM_SIZE"] = "320";
    world.environment["ES_PCX_DEADLINE_MS"] = "1500";
    world.start_producer("e2e_faulty_producer 100 10 " + fault);
    const Ended ended = world.client("show --json victim");
    EXPECT_EQ(ended.code, 1);
    EXPECT_PRED2(contains, ended.err, message);
    const json told = ended.acls()[0];
    EXPECT_EQ(told["state"], "failed");
    EXPECT_EQ(told["status"], status);
    EXPECT_FALSE(told.contains("ace")) << "half an ACL is none";
  }
}

TEST(Producers, StoppedOneCostsOneDeadlineHoweverManyNames) {
  World world;
  constexpr milliseconds kDeadline{800};
  world.environment["ES_PCX_DEADLINE_MS"] = std::to_string(kDeadline.count());
  world.produce({acl("a")});
  world.signal_producer(SIGSTOP);
  for (const char* command : {"--json show a b c d e f g h i j", "--json count a b c d e f g h i j"}) {
    const Ended ended = world.client(command);
    EXPECT_EQ(ended.code, 1) << ended.err;
    EXPECT_GE(ended.took, kDeadline) << ended.err;
    EXPECT_LT(ended.took, 10 * kDeadline) << ended.err;
    const json acls = ended.acls();
    EXPECT_EQ(acls.size(), 10u);
    for (const json& told : acls) EXPECT_EQ(told["status"], ETIME) << told;
  }
  world.signal_producer(SIGCONT);
  EXPECT_EQ(world.client("show a").code, 0);
}

}  // namespace
}  // namespace es_acl::e2e
