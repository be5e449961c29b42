// Class names become file names, in the consumer's process as in the producer's.
#ifndef ES_PLATFORM_SRC_BUS_CLASS_NAME_H_
#define ES_PLATFORM_SRC_BUS_CLASS_NAME_H_

#include <cstring>

namespace es_platform::bus {

inline constexpr size_t kMaxClassName = 64;

// [A-Za-z0-9_.-], 1 to 64 of them, and none that a directory has for itself.
inline bool is_class_name(const char* name) {
  const size_t length = strnlen(name, kMaxClassName + 1);
  const size_t accepted =
      std::strspn(name, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-");
  return length >= 1 && length <= kMaxClassName && accepted == length && name[0] != '.';
}

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_CLASS_NAME_H_
