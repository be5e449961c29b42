// Unix-domain stream sockets: addresses, descriptors, credentials. All descriptors are close-on-exec; no call
// raises SIGPIPE.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_SOCKET_H_
#define ES_PLATFORM_SRC_BUS_UNIX_SOCKET_H_

#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>
#include <string>
#include <utility>

#include "bus/deadline.h"

namespace es_platform::bus {

// How much may be under way towards the other end, who has no buffer of its own. The kernel caps it by itself.
inline constexpr int kSendBuffer = 256 << 10;

// An owned descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

 private:
  int fd_ = -1;
};

// Where a class is served.
struct UnixAddress {
  std::string directory, socket, lock;
};
UnixAddress address_of_class(const std::string& class_name);

struct Credentials {
  pid_t pid;
  uid_t uid;
};
// Who is at the other end (of a listener: who listens).
bool credentials_of(int fd, Credentials* out);
// May that user be at the other end? This process's user, root and the owner of the directory may.
bool user_is_allowed(uid_t uid, const std::string& directory);

// A connection to the socket. 0; EAGAIN when the listener's queue was full up to the deadline (at once
// without a deadline); EPERM when a user that is not allowed listens; or an errno value.
int connect_to(const UnixAddress& address, const Deadline* deadline, Fd* out);

// Binds and listens. The caller holds the class's lock, so what lies at the path is stale and is replaced. 0
// or an errno value, and *step tells what failed.
int listen_at(const std::string& path, Fd* out, const char** step);

// The next connection that waits at the listener. 0; EAGAIN when there is none; or an errno value.
int accept_from(int listener, Fd* out);

// Waits for poll() events. 0; ETIME when the deadline has passed; or an errno value.
int wait_for(int fd, short events, const Deadline& deadline);

// Writes everything. *sent counts the bytes, also on failure. 0, ETIME, or an errno value.
int send_all(int fd, iovec* parts, int count, const Deadline& deadline, size_t* sent);
// Waits for bytes and receives what is there, one byte at least. 0, ETIME, or an errno value (ECONNRESET at
// the stream's end).
int receive_some(int fd, iovec* parts, int count, const Deadline& deadline, size_t* received);

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_SOCKET_H_
