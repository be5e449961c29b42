#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "diag_reader.h"
#include "es_platform/diag.h"
#include "private_directory.h"

namespace {

es_diag::trace_dump dump_of(const std::string& name) {
  for (const es_diag::region& one :
       es_diag::read_directory(diagnostics_directory(), es_diag::diag_kind::trace, getpid()).regions) {
    if (one.name == name) return es_diag::decode_trace(one);
  }
  ADD_FAILURE() << "no buffer " << name;
  return {};
}

class Trace : public testing::Test {
 protected:
  rlog_ctx* open(uint32_t unique, uint32_t wrapping) {
    rlog_ctx* ctx = nullptr;
    EXPECT_EQ(acl_rlog_init("/trace/", "_t", unique, wrapping, &ctx), 0u);
    opened.push_back(ctx);
    return ctx;
  }
  void TearDown() override {
    for (rlog_ctx* ctx : opened) acl_rlog_close(ctx);
  }
  std::vector<rlog_ctx*> opened;
};

TEST_F(Trace, RecordsTellEverythingThatWasWritten) {
  rlog_ctx* ctx = open(0, 16);
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
  using values = std::vector<uint64_t>;
  const struct {
    std::string operation, event, text;
    values written;
  } expected[] = {
      {"op", "one", "", {1}},
      {"op", "two", "", {1, 2}},
      {"op", "three", "", {1, 2, 3}},
      {"op", "four", "", {1, 2, 3, UINT64_MAX}},
      {longer.substr(0, 39), longer.substr(0, 31), longer.substr(0, 64), {8, 9}},
      {"(null)", "(null)", "(null)", {0, 0}},
  };
  const auto entries = dump_of("/trace/_t").entries;
  ASSERT_EQ(entries.size(), std::size(expected));
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].operation, expected[i].operation);
    EXPECT_EQ(entries[i].event, expected[i].event);
    EXPECT_EQ(entries[i].text.value_or(""), expected[i].text);
    EXPECT_EQ(entries[i].values, expected[i].written);
    EXPECT_EQ(entries[i].thread, static_cast<uint32_t>(gettid()));
  }
}

TEST_F(Trace, AWrappingBufferKeepsTheLast) {
  rlog_ctx* ctx = open(0, 9);
  for (uint64_t i = 0; i < 100; ++i) _rlog_1(ctx, "op", "count", i);
  const auto entries = dump_of("/trace/_t").entries;
  ASSERT_EQ(entries.size(), 16u) << "rounded up";
  for (size_t i = 0; i < 16; ++i) EXPECT_EQ(entries[i].values[0], 84 + i);
}

TEST_F(Trace, AUniqueBufferKeepsTheFirstAndCountsEqualOnes) {
  rlog_ctx* ctx = open(3, 0);
  for (int round = 0; round < 4; ++round) {
    _rlog_1(ctx, "op", "event", 1);
    _rlog_1(ctx, "op", "event", 2);
    _rlog_2(ctx, "op", "event", 1, 0);
    _rlog_1(ctx, "op", "late", 1);
  }
  const es_diag::trace_dump dump = dump_of("/trace/_t");
  ASSERT_EQ(dump.entries.size(), 3u);
  for (const auto& entry : dump.entries) {
    EXPECT_EQ(entry.event, "event");
    EXPECT_EQ(entry.count, 4u);
  }
  EXPECT_TRUE(dump.unique);
  EXPECT_EQ(dump.dropped, 4u);
}

TEST_F(Trace, AnOpenNameIsTheSameBufferUntilTheLastClose) {
  rlog_ctx* first = open(0, 16);
  rlog_ctx* again = nullptr;
  ASSERT_EQ(acl_rlog_init("/trace", "/_t", 256, 0, &again), 0u);
  EXPECT_EQ(again, first);
  acl_rlog_close(again);
  _rlog_1(first, "op", "still open", 1);
  EXPECT_EQ(dump_of("/trace/_t").entries.size(), 1u);
  acl_rlog_close(nullptr);
}

TEST_F(Trace, RefusesSizesThatSayNothing) {
  rlog_ctx* ctx = nullptr;
  const uint32_t sizes[][2] = {{0, 0}, {1, 1}, {0, UINT32_MAX}, {1u << 21, 0}};
  for (const auto& size : sizes) EXPECT_EQ(acl_rlog_init("/trace/", "_bad", size[0], size[1], &ctx), 22u);
  EXPECT_EQ(acl_rlog_init(nullptr, "_bad", 0, 16, &ctx), 22u);
  EXPECT_EQ(ctx, nullptr);
}

// Every record's parts follow from its number: a torn one, or one of two writers, would show.
TEST_F(Trace, ReadersSeeWholeRecordsOnlyWhileTwoThreadsWrite) {
  rlog_ctx* ctx = open(0, 64);
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
    for (const auto& entry : dump_of("/trace/_t").entries) {
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

TEST_F(Trace, ThreadsShareAUniqueBuffer) {
  rlog_ctx* ctx = open(64, 0);
  auto write = [&] {
    for (uint64_t i = 0; i < 20000; ++i) _rlog_1(ctx, "op", "shared", i % 16);
  };
  std::thread other(write);
  write();
  other.join();
  uint64_t total = 0;
  for (const auto& entry : dump_of("/trace/_t").entries) total += entry.count;
  EXPECT_EQ(total, 40000u) << "nothing lost, whoever placed the record";
}

}  // namespace
