// The door of a producer: takes in the connections of those who may connect and refuses the others. Service
// thread only.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_ACCEPTOR_H_
#define ES_PLATFORM_SRC_BUS_UNIX_ACCEPTOR_H_

#include "bus/server_log.h"
#include "bus/unix_endpoint.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

class UnixAcceptor {
 public:
  UnixAcceptor(const UnixEndpoint& endpoint, const ServerLog& log) : endpoint_(endpoint), log_(log) {}
  // False and errno.
  bool open();
  // The next connection that waits and who is at its other end; false when there is none.
  bool next(Fd* fd, Credentials* who);

 private:
  void refuse_for_want_of_descriptors();
  bool is_allowed(const Fd& fd, Credentials* who);

  const UnixEndpoint& endpoint_;
  const ServerLog& log_;
  Fd reserve_;
  pid_t last_refused_ = 0;
  bool out_of_descriptors_ = false;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_ACCEPTOR_H_
