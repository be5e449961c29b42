// What the environment says about the bus. Read once, at the first use; a malformed value costs one log line
// and the default is used.
#ifndef ES_PLATFORM_SRC_BUS_SETTINGS_H_
#define ES_PLATFORM_SRC_BUS_SETTINGS_H_

#include <cstdint>

namespace es_platform::bus {

struct Settings {
  uint32_t deadline_ms;   // ES_PCX_DEADLINE_MS
  uint32_t optimum_size;  // ES_PCX_OPTIMUM_SIZE
  uint32_t beat_ms;       // ES_PCX_BEAT_MS: how often an end lets the other hear from it
};

const Settings& settings();

// Who has not been heard for so many beats is taken to be gone.
inline constexpr uint32_t kMissedBeats = 3;
inline uint32_t silence_limit_ms() { return kMissedBeats * settings().beat_ms; }

// A decimal number from the environment within [lowest, highest], else `otherwise` (with a log line when it
// is set).
uint32_t number_from_environment(const char* variable, uint32_t lowest, uint32_t highest, uint32_t otherwise);

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_SETTINGS_H_
