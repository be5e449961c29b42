// The one way in which the library retries a platform call: four attempts, a second's sleep after each
// retryable failure, the fourth included. A result of -1 is replaced by errno first; it stays a failure when errno says nothing.
#ifndef ES_ACL_SRC_RETRY_H_
#define ES_ACL_SRC_RETRY_H_

#include <time.h>

#include <cerrno>
#include <cstdint>

#include "es_platform/platform.h"

namespace es_acl {

// Status class "transient" of the platform: top three bits binary 100.
inline bool is_transient(uint32_t status) { return (status & 0xe0000000u) == 0x80000000u; }

// Passing failures of a count query or a bulk read.
inline bool is_bus_passing(uint32_t status) { return status == ESRCH || status == EAGAIN || status == ETIME; }

// The whole second, also when signals arrive.
inline void sleep_a_second() {
  timespec left = {1, 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

// What a platform call says that puts its status into errno and returns -1.
inline uint32_t status_of(uint32_t result) {
  return result == PLATFORM_FAILED && errno != 0 ? static_cast<uint32_t>(errno) : result;
}

template <typename Attempt>
uint32_t with_retries(bool (*retryable)(uint32_t), Attempt attempt) {
  constexpr int kAttempts = 4;
  uint32_t status = 0;
  for (int i = 0; i < kAttempts; ++i) {
    status = status_of(attempt());
    if (!retryable(status)) break;
    sleep_a_second();
  }
  return status;
}

}  // namespace es_acl

#endif  // ES_ACL_SRC_RETRY_H_
