// Log lines over time, with a clock that stands until it is set.
#include "line_limiter.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace es_acl::producer {

TEST(LineLimiterTest, OneOfAKindASecond) {
  std::vector<std::string> log;
  uint64_t now = 0;
  LineLimiter limiter([&](std::string_view line) { log.emplace_back(line); }, [&] { return now; });
  const struct {
    uint64_t time;
    const char* line;
    std::vector<std::string> logged;
  } table[] = {
      {5000, "a", {"a"}},
      {5000, "a", {}},
      {5000, "b", {"b"}},
      {5999, "a", {}},
      {6000, "b", {"a (2 more times)", "b"}},  // its second is over, and that of "a"
      {6999, "a", {}},
      {7000, "c", {"a (1 more times)", "c"}},
      {9000, "a", {"a"}},
  };
  for (const auto& one : table) {
    now = one.time;
    limiter.write(one.line);
    EXPECT_EQ(std::exchange(log, {}), one.logged) << "at " << now;
  }
}

TEST(LineLimiterTest, IsBoundedHoweverManyKindsThereAreAndLeavesNothingUntold) {
  size_t lines = 0;
  uint64_t now = 0;
  {
    LineLimiter limiter([&](std::string_view) { ++lines; }, [&] { return now; });
    for (int i = 0; i < 10'000; ++i) limiter.write(std::to_string(i));
    EXPECT_LE(lines, 100u);
    now = 1000;
    limiter.write("another second");
    lines = 0;
    for (int i = 0; i < 2; ++i) limiter.write("and another line of it");
    EXPECT_EQ(lines, 1u);
  }
  EXPECT_EQ(lines, 2u);
}

}  // namespace es_acl::producer
