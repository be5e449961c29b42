// The command as a program: a command line that is wrong, a store plug-in that cannot serve, and who reads the
// output: a pipe that is left, a full disk, a terminal.
#include <gtest/gtest.h>

#include <algorithm>

#include "es_acl/es_acl_status.h"
#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

TEST(CommandLine, WhatIsWrongIsSaid) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "subcommand"},
      {"frobnicate", "frobnicate"},
      {"show", "NAME"},
      {"count --all-from", "--all-from"},
      {"show a --all-from /nowhere/names", "es-acl: /nowhere/names: the names cannot be read: No such file"},
      {"--json count --all-from /", "es-acl: /: the names cannot be read: Is a directory"},
      {"show a --all-from $EMPTY", "/empty: no name of an ACL"},
      {"watch a --all-from $BAD", "/bad, line 3: 'summary': invalid ACL name"},
      {"show --all-from - < /dev/zero", "es-acl: standard input: more than 64 MiB"},
      {"show --all-from - < $BAD", "es-acl: standard input, line 3: 'summary'"},
      {"show --frobnicate a", "--frobnicate"},
      {"--store " + std::string(256, 's') + " show a", "255"},
      {"match a --src $MAC", "--dst"},
      {"match a --src 00:11:22:33:44 --dst $MAC", "'00:11:22:33:44' is not a MAC"},
      {"match a --src 00:11:22:33:44:5g --dst $MAC", "is not a MAC"},
      {"match a --src 0:0:0:0:0:1 --dst $MAC", "is not a MAC"},
      {"match a --src 00:11-22:33-44:55 --dst $MAC", "is not a MAC"},
      {"match a --src $MAC --dst $MAC --vlan 4096", "--vlan"},
      {"match a --src $MAC --dst $MAC --pcp 1", "--vlan"},
      {"match a --src $MAC --dst $MAC --inner-vlan 1", "--vlan"},
      {"match a --src $MAC --dst $MAC --vlan 1 --pcp 8", "--pcp"},
      {"match a --src $MAC --dst $MAC --ethertype 0x10000", "is not an EtherType"},
  };
  World world;
  world.environment["MAC"] = "00:11:22:33:44:55";
  world.environment["EMPTY"] = world.write("empty", " # nothing\n\n");
  world.environment["BAD"] = world.write("bad", "a\n\n summary\n");
  for (const auto& [arguments, message] : cases) {
    const Ended ended = world.client(arguments);
    EXPECT_EQ(ended.code, 2) << arguments;
    EXPECT_EQ(ended.out, "");
    EXPECT_PRED2(contains, ended.err, message);
  }
}

// A path that this process does not have may belong to another one: only the category's name is judged.
TEST(Debug, AWordThatNamesNoCategoryIsTold) {
  World world;
  world.environment["ES_DEBUG"] = "bogus,/other/path/info,category7,/debug/es_acl_dll/nope";
  const std::string told = world.client("count a").err;
  EXPECT_PRED2(contains, told, "ES_DEBUG: \"bogus\" is no debug category; there are error, info, detail,");
  EXPECT_PRED2(contains, told, "ES_DEBUG: \"/debug/es_acl_dll/nope\"");
  EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 3)
      << told << "two of them, and that there is no producer";
}

TEST(Store, OneThatCannotServeIsToldWithPlaceAndReason) {
  World world;
  const std::tuple<std::string, uint32_t, const char*> cases[] = {
      {world.path("missing.dll"), ES_ACL_E_DB_OPEN, ": cannot open shared object file: No such file"},
      {world.write("empty.dll", ""), ES_ACL_E_DB_OPEN, ": file too short"},
      {world.write("corrupt.dll", std::string(10000, '\177')), ES_ACL_E_DB_OPEN, ": invalid ELF header"},
      {E2E_NO_STORE, ES_ACL_E_DB_SYMBOL, ": undefined symbol: es_acl_api_init_funcs"},
  };
  for (const auto& [file, status, reason] : cases) {
    const Ended ended = world.client("--json --store '" + file + "' show a");
    EXPECT_EQ(ended.code, 3) << file;
    EXPECT_PRED2(contains, ended.err, "\n  plug-in: " + file + "\n  reason: " + file + reason);
    const json document = json::parse(ended.out);
    EXPECT_EQ(document["error"]["status"], status);
    EXPECT_EQ(document["acls"], json::array());
  }
}

// The entries are more than a pipe and the command's own buffer hold.
TEST(Output, ReaderThatLeavesIsNoErrorAndAFullDiskIs) {
  World world;
  world.start_producer("e2e_faulty_producer 20000 100 none");
  const Ended left = world.shell("{ es-acl show victim victim; echo code $? >&2; } | head -n 1");
  EXPECT_EQ(left.out, "victim: 20000 entries, remarks left out\n");
  EXPECT_EQ(left.err, "code 0\n");
  const Ended full = world.client("show victim > /dev/full");
  EXPECT_EQ(full.code, 5);
  EXPECT_EQ(full.err, "es-acl: standard output: No space left on device\n");
}

TEST(Output, ColourOnlyOnATerminalThatWantsIt) {
  const std::pair<const char*, bool> cases[] = {
      {"TERM=xterm es-acl show victim", false},
      {"TERM=xterm script -qec 'es-acl show victim' /dev/null", true},
      {"TERM=xterm script -qec 'es-acl show --json victim' /dev/null", false},
      {"TERM=xterm NO_COLOR= script -qec 'es-acl show victim' /dev/null", true},
      {"TERM=xterm NO_COLOR=1 script -qec 'es-acl show victim' /dev/null", false},
      {"TERM=dumb script -qec 'es-acl show victim' /dev/null", false},
  };
  World world;
  world.start_producer("e2e_faulty_producer 1 100 none");
  for (const auto& [command, coloured] : cases) {
    const Ended ended = world.shell(command);
    EXPECT_PRED2(contains, ended.out, "victim") << command;
    EXPECT_EQ(contains(ended.out, "\033["), coloured) << command;
  }
}

}  // namespace
}  // namespace es_acl::e2e
