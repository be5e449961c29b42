#include "bus/settings.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "log.h"

namespace es_platform::bus {

namespace {

constexpr uint32_t kDeadlineMs = 5000;
constexpr uint32_t kMaxDeadlineMs = 3600000;
constexpr uint32_t kOptimumSize = 512 << 10;
constexpr uint32_t kMinOptimumSize = 160;
constexpr uint32_t kMaxOptimumSize = 16 << 20;
constexpr uint32_t kBeatMs = 1000;
constexpr uint32_t kMinBeatMs = 10;
constexpr uint32_t kMaxBeatMs = 3600000;

}  // namespace

uint32_t number_from_environment(const char* variable, uint32_t lowest, uint32_t highest,
                                 uint32_t otherwise) {
  const char* text = std::getenv(variable);
  if (text == nullptr || *text == '\0') return otherwise;
  const char* end = text + std::strlen(text);
  uint32_t value = 0;
  const auto [stop, error] = std::from_chars(text, end, value);
  if (error == std::errc() && stop == end && value >= lowest && value <= highest) return value;
  log_line("%s: \"%.64s\" is not a number from %u to %u; using %u", variable, text, lowest, highest,
           otherwise);
  return otherwise;
}

const Settings& settings() {
  static const Settings read = {
      number_from_environment("ES_PCX_DEADLINE_MS", 1, kMaxDeadlineMs, kDeadlineMs),
      number_from_environment("ES_PCX_OPTIMUM_SIZE", kMinOptimumSize, kMaxOptimumSize, kOptimumSize),
      number_from_environment("ES_PCX_BEAT_MS", kMinBeatMs, kMaxBeatMs, kBeatMs),
  };
  return read;
}

}  // namespace es_platform::bus
