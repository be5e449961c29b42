// The command es-diag, looking at this very process.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "es_platform/diag.h"
#include "es_platform/process.h"
#include "private_directory.h"

namespace {

// Its exit code and what it wrote.
std::pair<int, std::string> run(const std::string& arguments) {
  FILE* pipe = popen((std::string(ES_DIAG_PROGRAM) + ' ' + arguments + " 2>/dev/null").c_str(), "r");
  std::string out;
  for (int byte; (byte = fgetc(pipe)) != EOF;) out += static_cast<char>(byte);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

class EsDiag : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(acl_rlog_init("/command/", "_wr", 0, 16, &ctx), 0u);
    ASSERT_EQ(acl_debug_init(&categories, nullptr, "/debug/command/", 3), 0u);
    for (acl_client_relay_entry** block : {&main_block, &again})
      ASSERT_EQ(acl_client_relay_init("command", "p", block, &error_block, &history), 0u);
  }
  void TearDown() override { acl_rlog_close(ctx); }

  rlog_ctx* ctx = nullptr;
  debug_category* categories = nullptr;
  acl_client_relay_entry *main_block = nullptr, *again = nullptr, *error_block = nullptr;
  void* history = nullptr;
  const std::string mine = " --pid " + std::to_string(getpid());
};

TEST_F(EsDiag, ExitCodesSayWhatHappened) {
  const std::string damaged = private_directory() + "/command";
  std::filesystem::create_directory(damaged);
  std::ofstream(damaged + '/' + std::to_string(getpid()) + ".trace.1") << "not one of ours";
  const std::pair<std::string, int> cases[] = {
      {"--help", 0},
      {"--version", 0},
      {"list --dir /no/such/directory", 1},
      {"clean --dir /no/such/directory", 0},
      {"debug --on nothing category1" + mine, 1},
      {"threads", 0},
      {"trace --buffer _wr" + mine, 0},
      {"trace --pid 999999999", 1},
      {"trace --buffer nothing" + mine, 1},
      {"", 2},
      {"trace --pid x", 2},
      {"debug --on info --off info", 2},
      {"trace --dir " + damaged, 3},
  };
  for (const auto& [arguments, code] : cases) EXPECT_EQ(run(arguments).first, code) << arguments;
}

TEST_F(EsDiag, PrintsRecordsAndCounters) {
  _rlog_str(ctx, "op", "ev\x1bnt", "a name", 1, 254);
  EXPECT_EQ(main_block, again);
  main_block[42].count = 7;
  error_block[127].count = 9;
  const auto lines = run("trace --buffer /command/_wr" + mine);
  EXPECT_NE(lines.second.find("op: ev?nt \"a name\" 1 254(0xfe)\n"), std::string::npos) << lines.second;
  const auto trace = nlohmann::json::parse(run("trace --json --buffer _wr" + mine).second);
  EXPECT_EQ(trace["buffers"][0]["records"][0]["values"][1], 254);
  const std::string counters = nlohmann::json::parse(run("counters --json" + mine).second).dump();
  for (const char* block : {R"("main":{"42":7})", R"("error":{"127":9})"})
    EXPECT_NE(counters.find(block), std::string::npos) << counters;
}

TEST_F(EsDiag, SwitchesTheCategoriesThatWereNamed) {
  run("debug --on category1 /debug/other/category2" + mine);
  EXPECT_EQ(categories[1].enabled, 1u);
  EXPECT_EQ(categories[2].enabled, 0u);
  run("debug --on /debug/command/category2" + mine);
  EXPECT_EQ(categories[2].enabled, 1u);
  EXPECT_EQ(run("debug --off all --json" + mine).second.find(":true"), std::string::npos);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(categories[i].enabled, 0u);
}

}  // namespace
