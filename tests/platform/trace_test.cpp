#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "es_platform/diag.h"
#include "private_directory.h"

namespace {

es_diag::trace_dump dump() {
  return es_diag::decode_trace(region_called(es_diag::diag_kind::trace, "/trace/_t"));
}

class Trace : public testing::Test {
 protected:
  void open(uint32_t unique, uint32_t wrapping) {
    ASSERT_EQ(acl_rlog_init("/trace/", "_t", unique, wrapping, &ctx), 0u);
  }
  void TearDown() override { acl_rlog_close(ctx); }
  rlog_ctx* ctx = nullptr;
};

TEST_F(Trace, RecordsTellEverythingThatWasWritten) {
  open(0, 16);
  const std::string longer(100, 'x');
  errno = 77;
  _rlog_1(ctx, "op", "one", 1);
  _rlog_2(ctx, "op", "two", 1, 2);
  _rlog_3(ctx, "op", "three", 1, 2, 3);
  _rlog_4(ctx, "op", "four", 1, 2, 3, UINT64_MAX);
  _rlog_str(ctx, longer.c_str(), longer.c_str(), longer.c_str(), 8, 9);
  _rlog_str(ctx, nullptr, nullptr, nullptr, 0, 0);
  _rlog_1(nullptr, "op", "nowhere", 1);
  EXPECT_EQ(errno, 77);
  const std::vector<std::string> expected = {
      "op one  1",
      "op two  1 2",
      "op three  1 2 3",
      "op four  1 2 3 18446744073709551615",
      longer.substr(0, 39) + ' ' + longer.substr(0, 31) + ' ' + longer.substr(0, 64) + " 8 9",
      "(null) (null) (null) 0 0"};
  std::vector<std::string> written;
  for (const auto& entry : dump().entries) {
    std::string& line =
        written.emplace_back(entry.operation + ' ' + entry.event + ' ' + entry.text.value_or(""));
    for (const uint64_t value : entry.values) line += ' ' + std::to_string(value);
    EXPECT_EQ(entry.thread, static_cast<uint32_t>(gettid()));
  }
  EXPECT_EQ(written, expected);
}

TEST_F(Trace, AWrappingBufferKeepsTheLast) {
  open(0, 9);
  for (uint64_t i = 0; i < 100; ++i) _rlog_1(ctx, "op", "count", i);
  const auto entries = dump().entries;
  ASSERT_EQ(entries.size(), 16u) << "rounded up";
  for (uint64_t i = 0; i < 16; ++i) EXPECT_EQ(entries[i].values[0], 84 + i);
}

// Two threads that write a new record at the same moment may both place it: room for twice the 16.
TEST_F(Trace, AUniqueBufferCountsEqualRecordsOfAllThreads) {
  open(32, 0);
  const auto write = [&] {
    for (uint64_t i = 0; i < 20000; ++i)
      i % 16 == 0 ? _rlog_1(ctx, "op", "shared", 1) : _rlog_2(ctx, "op", "shared", i % 16, 0);
  };
  std::thread other(write);
  write();
  other.join();
  const es_diag::trace_dump unique = dump();
  uint64_t total = 0;
  std::set<std::vector<uint64_t>> different;
  for (const auto& entry : unique.entries) {
    EXPECT_EQ(entry.event, "shared");
    total += entry.count;
    different.insert(entry.values);
  }
  EXPECT_EQ(different.size(), 16u);
  EXPECT_EQ(total, 40000u) << "nothing lost, whoever placed the record";
  EXPECT_EQ(unique.dropped, 0u);
}

TEST_F(Trace, AUniqueBufferKeepsTheFirst) {
  open(2, 0);
  for (const uint64_t value : {1, 2, 3, 1, 4}) _rlog_1(ctx, "op", "some", value);
  const es_diag::trace_dump unique = dump();
  ASSERT_EQ(unique.entries.size(), 2u);
  std::map<uint64_t, uint32_t> counts;
  for (const auto& entry : unique.entries) counts[entry.values.at(0)] = entry.count;
  EXPECT_EQ(counts, (std::map<uint64_t, uint32_t>{{1, 2}, {2, 1}}));
  EXPECT_TRUE(unique.unique);
  EXPECT_EQ(unique.dropped, 2u);
}

TEST_F(Trace, RefusesSizesThatSayNothing) {
  const uint32_t sizes[][2] = {{0, 0}, {1, 1}, {0, UINT32_MAX}, {1u << 21, 0}};
  for (const auto& size : sizes) EXPECT_EQ(acl_rlog_init("/trace/", "_bad", size[0], size[1], &ctx), 22u);
  EXPECT_EQ(acl_rlog_init(nullptr, "_bad", 0, 16, &ctx), 22u);
  EXPECT_EQ(ctx, nullptr);
}

// Every record's parts follow from its number: a torn one, or one of two writers, would show.
TEST_F(Trace, ReadersSeeWholeRecordsOnlyWhileTwoThreadsWrite) {
  open(0, 64);
  std::atomic<bool> done{false};
  auto write = [&](uint64_t number) {
    for (; !done; number += 2) {
      const std::string digits = std::to_string(number);
      _rlog_str(ctx, digits.c_str(), digits.c_str(), digits.c_str(), number, ~number);
    }
  };
  std::thread odd(write, 1), even(write, 2);
  size_t seen = 0;
  for (int i = 0; i < 100 || (seen == 0 && i < 100000); ++i) {
    for (const auto& entry : dump().entries) {
      const std::string digits = std::to_string(entry.values.at(0));
      ASSERT_EQ(entry.operation, digits);
      ASSERT_EQ(entry.event, digits);
      ASSERT_EQ(entry.text, digits);
      ASSERT_EQ(entry.values.at(1), ~entry.values[0]);
      ++seen;
    }
  }
  done = true;
  odd.join();
  even.join();
  EXPECT_GT(seen, 0u);
}

}  // namespace
