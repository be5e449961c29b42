// The place in the file system where a producer serves a class: directory, lock and socket. Held from open()
// to the object's end.
//
// The lock decides who serves: the kernel drops it with its holder, however that one ends. Whoever has it
// knows that a socket found there is stale, and replaces it. The lock file itself stays: removing it would
// race with the next taker.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_ENDPOINT_H_
#define ES_PLATFORM_SRC_BUS_UNIX_ENDPOINT_H_

#include <string>

#include "bus/unix_socket.h"

namespace es_platform::bus {

class UnixEndpoint {
 public:
  explicit UnixEndpoint(const std::string& class_name);
  ~UnixEndpoint();
  UnixEndpoint(const UnixEndpoint&) = delete;
  UnixEndpoint& operator=(const UnixEndpoint&) = delete;

  // 0, EADDRINUSE when another process serves the class, or an errno value; *why then says what failed, where
  // and why.
  int open(std::string* why);
  int listener() const { return listener_.get(); }
  const std::string& directory() const { return address_.directory; }
  const std::string& class_name() const { return class_name_; }

 private:
  int lock(std::string* why);

  const std::string class_name_;
  const UnixAddress address_;
  Fd lock_, listener_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_ENDPOINT_H_
