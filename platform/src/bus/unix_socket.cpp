#include "bus/unix_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "runtime_dir.h"

namespace es_platform::bus {

namespace {

constexpr int kBacklog = 512;
constexpr mode_t kSocketMode = 0660;

int fill_address(const std::string& path, sockaddr_un* out) {
  *out = {};
  out->sun_family = AF_UNIX;
  if (path.size() >= sizeof out->sun_path) return ENAMETOOLONG;
  std::memcpy(out->sun_path, path.c_str(), path.size() + 1);
  return 0;
}

// How long connect() may wait for room in the listener's queue. A zero would mean "for ever".
void limit_connect(int fd, const Deadline& deadline) {
  const int ms = std::max(deadline.left_ms(), 1);
  const timeval limit = {ms / 1000, (ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

void advance(iovec*& parts, int& count, size_t bytes) {
  while (count > 0 && bytes >= parts->iov_len) {
    bytes -= parts->iov_len;
    ++parts;
    --count;
  }
  if (count > 0) {
    parts->iov_base = static_cast<char*>(parts->iov_base) + bytes;
    parts->iov_len -= bytes;
  }
}

void size_send_buffer(int fd) { setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer); }

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

void Fd::reset() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

UnixAddress address_of_class(const std::string& class_name) {
  const std::string directory = runtime_dir("ES_PCX_DIR", "");
  return {directory, directory + "/" + class_name + ".sock", directory + "/" + class_name + ".lock"};
}

bool credentials_of(int fd, Credentials* out) {
  ucred credentials;
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  *out = {credentials.pid, credentials.uid};
  return true;
}

bool user_is_allowed(uid_t uid, const std::string& directory) {
  if (uid == geteuid() || uid == 0) return true;
  struct stat info;
  return stat(directory.c_str(), &info) == 0 && info.st_uid == uid;
}

int connect_to(const UnixAddress& address, const Deadline* deadline, Fd* out) {
  sockaddr_un name;
  if (const int error = fill_address(address.socket, &name)) return error;
  const int type = SOCK_STREAM | SOCK_CLOEXEC | (deadline == nullptr ? SOCK_NONBLOCK : 0);
  Fd fd(socket(AF_UNIX, type, 0));
  if (!fd) return errno;
  if (deadline != nullptr) limit_connect(fd.get(), *deadline);
  while (connect(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    if (errno != EINTR) return errno;
  }
  Credentials peer;
  if (!credentials_of(fd.get(), &peer)) return errno;
  if (!user_is_allowed(peer.uid, address.directory)) return EPERM;
  size_send_buffer(fd.get());
  *out = std::move(fd);
  return 0;
}

int listen_at(const std::string& path, Fd* out, const char** step) {
  sockaddr_un name;
  *step = "name the socket";
  if (const int error = fill_address(path, &name)) return error;
  *step = "make a socket";
  Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return errno;
  *step = "remove the stale socket";
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return errno;
  *step = "bind the socket";
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) return errno;
  *step = "set the socket's mode";
  if (chmod(path.c_str(), kSocketMode) != 0) return errno;
  *step = "listen on the socket";
  if (listen(fd.get(), kBacklog) != 0) return errno;
  *out = std::move(fd);
  return 0;
}

int accept_from(int listener, Fd* out) {
  for (;;) {
    Fd fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd) {
      size_send_buffer(fd.get());
      *out = std::move(fd);
      return 0;
    }
    if (errno != EINTR && errno != ECONNABORTED) return errno;
  }
}

int wait_for(int fd, short events, const Deadline& deadline) {
  for (;;) {
    const int ms = deadline.left_ms();
    if (ms == 0) return ETIME;
    pollfd poll_fd = {fd, events, 0};
    const int ready = poll(&poll_fd, 1, ms);
    if (ready > 0) return 0;
    if (ready < 0 && errno != EINTR) return errno;
  }
}

int send_all(int fd, iovec* parts, int count, const Deadline& deadline, size_t* sent) {
  *sent = 0;
  advance(parts, count, 0);
  while (count > 0) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<size_t>(count);
    const ssize_t bytes = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (bytes >= 0) {
      *sent += static_cast<size_t>(bytes);
      advance(parts, count, static_cast<size_t>(bytes));
    } else if (would_block(errno)) {
      if (const int error = wait_for(fd, POLLOUT, deadline)) return error;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int receive_some(int fd, iovec* parts, int count, const Deadline& deadline, size_t* received) {
  for (;;) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<size_t>(count);
    const ssize_t bytes = recvmsg(fd, &message, MSG_DONTWAIT);
    if (bytes == 0) return ECONNRESET;
    if (bytes > 0) {
      *received = static_cast<size_t>(bytes);
      return 0;
    }
    if (would_block(errno)) {
      if (const int error = wait_for(fd, POLLIN, deadline)) return error;
    } else if (errno != EINTR) {
      return errno;
    }
  }
}

}  // namespace es_platform::bus
