#include "diag_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "diag_reader.h"
#include "es_platform/diag.h"
#include "es_platform/process.h"
#include "private_directory.h"

namespace {

namespace fs = std::filesystem;
using es_diag::diag_kind;

std::vector<es_diag::region> regions_of(pid_t pid) {
  return es_diag::read_directory(diagnostics_directory(), std::nullopt, pid).regions;
}

ptrdiff_t files_of(pid_t pid) {
  return std::count_if(fs::directory_iterator(diagnostics_directory()), {}, [pid](const auto& file) {
    return file.path().filename().string().starts_with(std::to_string(pid) + '.');
  });
}

// Runs `body` in a forked child, which ends at once with its result; it is not reaped yet.
template <typename Body>
pid_t zombie(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  siginfo_t ended;
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(ended.si_status, 0);
  return child;
}

template <typename Body>
pid_t ended_child(Body body) {
  const pid_t child = zombie(body);
  waitpid(child, nullptr, 0);
  return child;
}

// Opens a trace buffer; 0 when this process then has exactly one file.
int open_only_buffer() {
  rlog_ctx* own = nullptr;
  return acl_rlog_init("/file/", "_child", 0, 16, &own) == 0 && files_of(getpid()) == 1 ? 0 : 1;
}

class DiagFile : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(acl_rlog_init("/file/", "_t", 0, 16, &ctx), 0u); }
  void TearDown() override { acl_rlog_close(ctx); }
  rlog_ctx* ctx = nullptr;
};

TEST_F(DiagFile, AForkedChildHasMemoryAndFilesOfItsOwn) {
  const ptrdiff_t mine = files_of(getpid());
  ended_child([&] {
    _rlog_1(ctx, "child", "after", 2);
    return open_only_buffer();
  });
  EXPECT_EQ(files_of(ended_child([]() -> int { std::exit(open_only_buffer()); })), 0)
      << "exit takes them away";
  EXPECT_EQ(files_of(getpid()), mine) << "and those of nobody else";
  EXPECT_TRUE(es_diag::decode_trace(region_called(diag_kind::trace, "/file/_t")).entries.empty());
}

TEST_F(DiagFile, WhatTheDeadLeaveStaysReadableUntilItIsRemoved) {
  const pid_t older = ended_child(open_only_buffer), dead = zombie(open_only_buffer);
  const std::string directory = diagnostics_directory(), mine = directory + '/' + std::to_string(getpid());
  const std::string not_ours = directory + '/' + std::to_string(dead) + ".trace.77";
  std::ofstream(not_ours) << std::string(1000, 'x');
  for (const es_diag::region& one : regions_of(older))
    fs::last_write_time(one.path, fs::last_write_time(one.path) - std::chrono::hours(1));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(regions_of(dead).at(0).dead) << "reading removes nothing";
  // The id of this process, which started later.
  es_platform::diag_header earlier{};
  std::copy(std::begin(es_platform::kDiagMagic), std::end(es_platform::kDiagMagic), earlier.magic);
  earlier.pid = getpid();
  earlier.process_start = es_platform::diag_process_start(getpid()) - 1;
  std::ofstream(mine + ".trace.9999").write(reinterpret_cast<const char*>(&earlier), sizeof earlier);
  const ptrdiff_t files = files_of(getpid());

  es_platform::diag_remove_dead(directory, {.owner = geteuid() + 1}, 0);
  es_platform::diag_remove_dead(directory, {}, 2);
  EXPECT_EQ(files_of(older), 0) << "the oldest go first";
  EXPECT_EQ(files_of(dead), 2);
  EXPECT_EQ(files_of(getpid()), files);
  es_platform::diag_remove_dead(directory, {}, 0);
  EXPECT_EQ(files_of(getpid()), files - 1);
  EXPECT_EQ(files_of(dead), 1) << "what is no diagnostics file stays";
  EXPECT_TRUE(fs::remove(not_ours));
  waitpid(dead, nullptr, 0);
}

// Whether every service that keeps diagnostics works where there can be no files.
bool works_without_directory() {
  setenv("ES_DIAG_DIR", "/proc/nowhere/diag", 1);
  rlog_ctx* own = nullptr;
  debug_category* categories = nullptr;
  acl_client_relay_entry *main_block = nullptr, *error_block = nullptr;
  void* history = nullptr;
  const bool open = acl_rlog_init("/file/", "_t", 0, 16, &own) == 0 &&
                    acl_debug_init(&categories, nullptr, "/debug/x/", 3) == 0 &&
                    acl_client_relay_init("c", "p", &main_block, &error_block, &history) == 0;
  if (!open) return false;
  _rlog_1(own, "op", "event", 1);
  main_block[1].count++;
  acl_rlog_close(own);
  return true;
}

// In a process of its own, where nothing has looked for the directory before.
TEST(DiagFileDeathTest, WithoutADirectoryEverythingWorksInMemory) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(works_without_directory() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// What readers do with one file, whatever stands in it.
void decode_any(const es_diag::region& one) {
  if (one.kind == diag_kind::trace) es_diag::decode_trace(one);
  if (one.kind == diag_kind::debug) es_diag::decode_categories(one);
  if (one.kind == diag_kind::counters) es_diag::decode_counters(one);
  if (one.kind == diag_kind::threads) es_diag::decode_threads(one);
}

void damage(std::string& content, std::minstd_rand& random) {
  const auto kind = random() % 3;
  if (kind == 0) content.resize(random() % content.size());
  if (kind == 1) content.resize(content.size() + random() % 200);
  // Mostly where the sizes stand.
  for (unsigned flips = random() % 6; flips > 0 && !content.empty(); --flips) {
    const size_t within = random() % 4 != 0 ? std::min<size_t>(content.size(), 340) : content.size();
    content[random() % within] = static_cast<char>(random() % 3 == 0 ? 0xff : random());
  }
}

TEST_F(DiagFile, ADamagedOneGivesAnErrorAndNothingWorse) {
  debug_category* categories = nullptr;
  acl_client_relay_entry* block = nullptr;
  void* history = nullptr;
  ASSERT_EQ(acl_debug_init(&categories, nullptr, "/debug/damaged/", 6), 0u);
  ASSERT_EQ(acl_client_relay_init("damaged", "p", &block, &block, &history), 0u);
  _rlog_str(ctx, "op", "event", "text", 1, 2);
  std::vector<std::string> valid;
  for (const es_diag::region& one : regions_of(getpid())) {
    std::ifstream file(one.path, std::ios::binary);
    valid.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  ASSERT_GE(valid.size(), 3u);

  const std::string directory = private_directory() + "/damaged";
  const std::string path = directory + '/' + std::to_string(getpid()) + ".trace.1";
  fs::create_directory(directory);
  std::minstd_rand random(3);
  size_t refused = 0;
  for (int i = 0; i < 1000; ++i) {
    std::string content = valid[random() % valid.size()];
    damage(content, random);
    fs::remove(path);
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    const es_diag::directory read = es_diag::read_directory(directory, std::nullopt, std::nullopt);
    refused += read.errors.size();
    for (const es_diag::region& one : read.regions) {
      try {
        decode_any(one);
      } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(path), std::string::npos) << error.what();
        ++refused;
      }
    }
  }
  EXPECT_GT(refused, 300u);
}

}  // namespace
