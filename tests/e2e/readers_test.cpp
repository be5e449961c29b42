// Who reads the output: a pipe that is left, a full disk, a terminal.
#include <gtest/gtest.h>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

constexpr int kMany = 20000;  // entries: more than a pipe and the command's own buffer hold
constexpr char kEscape[] = "\033[";

bool coloured(const Ended& ended) { return ended.out.find(kEscape) != std::string::npos; }

TEST(Output, ReaderThatLeavesIsNoError) {
  World world;
  const auto producer = world.produce_faulty(kMany, kMany, "none");
  const Ended ended = world.shell("{ $CLIENT show victim victim; echo code $? >&2; } | head -n 1");
  EXPECT_EQ(ended.out, "victim: 20000 entries\n");
  EXPECT_EQ(ended.err, "code 0\n");
}

TEST(Output, FullDiskIsAnError) {
  World world;
  const auto producer = world.produce_faulty(kMany, kMany, "none");
  const Ended ended = world.shell("$CLIENT show victim > /dev/full");
  EXPECT_EQ(ended.code, 5);
  EXPECT_EQ(ended.err, "es-acl: standard output: No space left on device\n");
}

TEST(Output, ColourOnlyOnATerminalThatWantsIt) {
  World world;
  const auto producer = world.produce(json::parse(
      R"([{"name": "one", "aces": {"ace": [{"sequence": 1, "actions": {"forwarding": "drop"}}]}}])"));
  world.environment["TERM"] = "xterm";
  EXPECT_FALSE(coloured(world.client({"show", "one"})));
  EXPECT_TRUE(coloured(world.client({"show", "one"}, Stdout::kTerminal)));
  EXPECT_FALSE(coloured(world.client({"show", "--json", "one"}, Stdout::kTerminal)));
  world.environment["NO_COLOR"] = "";
  EXPECT_TRUE(coloured(world.client({"show", "one"}, Stdout::kTerminal)));
  world.environment["NO_COLOR"] = "1";
  EXPECT_FALSE(coloured(world.client({"show", "one"}, Stdout::kTerminal)));
  world.environment.erase("NO_COLOR");
  world.environment["TERM"] = "dumb";
  EXPECT_FALSE(coloured(world.client({"show", "one"}, Stdout::kTerminal)));
}

}  // namespace
}  // namespace es_acl::e2e
