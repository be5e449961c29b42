// An answer on its way to a consumer: the header, then the body, written with as few calls as the socket
// allows. Owned by one connection of the service thread.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_ANSWER_H_
#define ES_PLATFORM_SRC_BUS_UNIX_ANSWER_H_

#include <memory>

#include "bus/frame.h"

namespace es_platform::bus {

struct UnixAnswer {
  FrameHeader header{};
  std::unique_ptr<char[]> body;  // header.length bytes of it go out
  size_t capacity = 0;           // of the body
  size_t sent = 0;               // of header and body together
  bool under_way = false;

  // Writes what the socket takes; under_way ends with the last byte. 0 or an errno value.
  int flush(int fd);
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_ANSWER_H_
