// Log lines over time, with a clock that stands until it is set.
#include "line_limiter.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>
#include <vector>

namespace es_acl::producer {

TEST(LineLimiterTest, OneOfAKindASecond) {
  std::vector<std::string> log;
  uint64_t now = 5000;
  std::optional<LineLimiter> limiter;
  limiter.emplace([&](std::string_view line) { log.emplace_back(line); }, [&] { return now; });
  const auto expect = [&](const std::vector<std::string>& expected) {
    EXPECT_EQ(std::exchange(log, {}), expected) << "at " << now;
  };
  const auto write = [&](uint64_t time, const char* line) {
    now = time;
    limiter->write(line);
  };
  for (const char* line : {"a", "a", "b", "a"}) write(5000, line);
  expect({"a", "b"});
  write(5999, "a");
  expect({});
  write(6000, "b");  // its second is over, and that of "a"
  expect({"a (3 more times)", "b"});
  write(6999, "a");
  expect({});
  write(7000, "c");
  expect({"a (1 more times)", "c"});
  write(9000, "a");
  expect({"a"});
  write(9000, "a");
  limiter.reset();  // nothing is left untold
  expect({"a (1 more times)"});
}

TEST(LineLimiterTest, IsBoundedHoweverManyKindsThereAre) {
  size_t lines = 0;
  uint64_t now = 0;
  LineLimiter limiter([&](std::string_view) { ++lines; }, [&] { return now; });
  for (int i = 0; i < 10'000; ++i) limiter.write(std::to_string(i));
  EXPECT_LE(lines, 100u);
  now = 1000;
  limiter.write("another second");
  const size_t before = lines;
  limiter.write("and another line of it");
  EXPECT_EQ(lines, before + 1);
}

}  // namespace es_acl::producer
