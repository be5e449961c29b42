// The command line, and how the store plug-in is found or missed.
#include <gtest/gtest.h>

#include <filesystem>

#include "es_acl/es_acl_status.h"
#include "world.h"

namespace es_acl::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(CommandLine, WhatIsWrongIsSaid) {
  struct Case {
    Arguments arguments;
    const char* message;
  };
  const Case cases[] = {
      {{}, "subcommand"},
      {{"frobnicate"}, "frobnicate"},
      {{"show"}, "NAME"},
      {{"show", "--frobnicate", "a"}, "--frobnicate"},
      {{"match", "a", "--src", "00:11:22:33:44:55"}, "--dst"},
      {{"match", "a", "b", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55"}, "b"},
      {{"match", "a", "--src", "00:11:22:33:44", "--dst", "00:11:22:33:44:55"},
       "'00:11:22:33:44' is not a MAC"},
      {{"match", "a", "--src", "00:11:22:33:44:5g", "--dst", "00:11:22:33:44:55"}, "is not a MAC"},
      {{"match", "a", "--src", "00:11-22:33-44:55", "--dst", "00:11:22:33:44:55"}, "is not a MAC"},
      {{"match", "a", "--src", "0:0:0:0:0:1", "--dst", "00:11:22:33:44:55"}, "is not a MAC"},
      {{"match", "a", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55", "--vlan", "4096"},
       "--vlan"},
      {{"match", "a", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55", "--pcp", "1"}, "--vlan"},
      {{"match", "a", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55", "--inner-vlan", "1"},
       "--vlan"},
      {{"match", "a", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55", "--vlan", "1", "--pcp",
        "8"},
       "--pcp"},
      {{"match", "a", "--src", "00:11:22:33:44:55", "--dst", "00:11:22:33:44:55", "--ethertype", "0x10000"},
       "is not an EtherType"},
      {{"--store", std::string(256, 's'), "show", "a"}, "255"},
  };
  World world;
  for (const Case& c : cases) {
    const Ended ended = world.client(c.arguments);
    EXPECT_EQ(ended.code, 2) << c.message;
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, c.message)) << c.message << "\n" << ended.err;
  }
}

TEST(CommandLine, HelpNamesEveryOptionAndExitCode) {
  World world;
  const Ended help = world.client({"--help"});
  const Ended match_help = world.client({"match", "--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(match_help.code, 0);
  for (const char* word : {"show", "count", "match", "--json", "--store", "--version", "ES_PCX_DIR",
                           "NO_COLOR", "0 all", "1 at least", "2 wrong", "3 the", "4 there", "5 the"})
    EXPECT_TRUE(contains(help.out, word)) << word;
  for (const char* word : {"--src", "--dst", "--vlan", "--pcp", "--dei", "--inner-vlan", "--inner-pcp",
                           "--inner-dei", "--ethertype"})
    EXPECT_TRUE(contains(match_help.out, word)) << word;
}

TEST(Store, OneThatCannotServeIsToldWithPlaceAndReason) {
  World world;
  const std::string corrupt = world.write("corrupt.dll", "\177ELF and then nothing of the kind");
  const std::string missing = world.path("missing.dll");
  struct Case {
    std::string file;
    uint32_t status;
    const char* reason;
  };
  const Case cases[] = {{missing, ES_ACL_E_DB_OPEN, "No such file"},
                        {corrupt, ES_ACL_E_DB_OPEN, "reason: "},
                        {world.write("empty.dll", ""), ES_ACL_E_DB_OPEN, "file too short"},
                        {E2E_NO_STORE, ES_ACL_E_DB_SYMBOL, "es_acl_api_init_funcs"}};
  for (const Case& c : cases) {
    const Ended ended = world.client({"--json", "--store", c.file, "show", "a"});
    EXPECT_EQ(ended.code, 3) << c.file;
    EXPECT_TRUE(contains(ended.err, "plug-in: " + c.file + "\n")) << ended.err;
    EXPECT_TRUE(contains(ended.err, c.reason)) << ended.err;
    const json document = json::parse(ended.out);
    EXPECT_EQ(document["error"]["status"], c.status);
    EXPECT_EQ(document["acls"], json::array());
  }
}

// A tree of the command and its libraries alone, in the shape of an installed one.
void copy_tree(const World& world) {
  fs::create_directories(world.path("tree/bin"));
  fs::create_directories(world.path("tree/lib"));
  fs::copy(E2E_CLIENT, world.path("tree/bin/es-acl"));
  for (const char* library : {E2E_LIBRARY, E2E_PLATFORM})
    fs::copy(library, world.path("tree/lib/") + fs::path(library).filename().string());
}

TEST(Store, StandsBesideTheLibraryAndIsFoundThere) {
  World world;
  copy_tree(world);
  const auto client = [&] { return run({world.path("tree/bin/es-acl"), "show", "a"}, world.environment); };
  const Ended without = client();
  EXPECT_EQ(without.code, 3);
  EXPECT_TRUE(contains(without.err, "libes_acl_tree.dll")) << without.err;
  EXPECT_TRUE(contains(without.err, fs::canonical(world.path("tree/lib")).string())) << without.err;
  fs::copy(E2E_STORE, world.path("tree/lib/libes_acl_tree.dll"));
  const Ended with = client();
  EXPECT_EQ(with.code, 4) << with.err;  // the library is up, and nobody serves
}

}  // namespace
}  // namespace es_acl::e2e
