#include "bus/known_names.h"

#include <utility>

#include "es_platform/clock.h"

namespace es_platform::bus {

namespace {

constexpr uint64_t kMomentNs = 100'000'000;
constexpr uint32_t kFew = 8;

}  // namespace

void KnownNames::forget_locked() {
  names_ = {};
  text_ = {};
  known_until_ns_ = 0;
}

bool KnownNames::has(std::string_view name) {
  std::lock_guard lock(mutex_);
  if (known_until_ns_ == 0) return false;
  if (clock_now_ns() < known_until_ns_) return names_.contains(name);
  forget_locked();
  return false;
}

bool KnownNames::wants_all() {
  std::lock_guard lock(mutex_);
  const uint64_t now = clock_now_ns();
  if (now - asked_since_ns_ > kMomentNs) {
    asked_since_ns_ = now;
    asked_ = 0;
  }
  if (++asked_ <= kFew || known_until_ns_ != 0) return false;
  asked_ = 0;
  return true;
}

void KnownNames::learn(std::vector<char> names) {
  std::lock_guard lock(mutex_);
  forget_locked();
  text_ = std::move(names);
  const std::string_view text(text_.data(), text_.size());
  for (size_t at = 0, end; (end = text.find('\0', at)) != text.npos; at = end + 1)
    names_.insert(text.substr(at, end - at));
  known_until_ns_ = clock_now_ns() + kMomentNs;
}

}  // namespace es_platform::bus
