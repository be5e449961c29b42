#include "line_limiter.h"

#include <new>
#include <utility>

namespace es_acl::producer {
namespace {

constexpr uint64_t kQuietMs = 1000;
constexpr size_t kMostLines = 64;
constexpr std::string_view kFurtherLines = "further lines of this kind are not shown";

}  // namespace

LineLimiter::LineLimiter(Log log, Milliseconds now) : log_(std::move(log)), now_(std::move(now)) {}

LineLimiter::~LineLimiter() {
  try {
    for (const auto& [line, seen] : seen_) tell_suppressed(line, seen);
  } catch (const std::bad_alloc&) {
    // the counts are lost
  }
}

void LineLimiter::write(std::string_view line) {
  const uint64_t now = now_();
  sweep(now);
  auto seen = seen_.find(line);
  if (seen == seen_.end() && seen_.size() >= kMostLines) {
    line = kFurtherLines;
    seen = seen_.find(line);
  }
  if (seen != seen_.end()) {
    ++seen->second.suppressed;
    return;
  }
  seen_.emplace(line, Seen{now, 0});
  log_(line);
}

void LineLimiter::tell_suppressed(const std::string& line, const Seen& seen) const {
  if (seen.suppressed != 0) log_(line + " (" + std::to_string(seen.suppressed) + " more times)");
}

// A line whose count has just been written begins another second.
void LineLimiter::sweep(uint64_t now) {
  for (auto at = seen_.begin(); at != seen_.end();) {
    auto& [line, seen] = *at;
    const bool over = now - seen.since >= kQuietMs;
    if (over && seen.suppressed == 0) {
      at = seen_.erase(at);
      continue;
    }
    if (over) {
      tell_suppressed(line, seen);
      seen = {now, 0};
    }
    ++at;
  }
}

}  // namespace es_acl::producer
