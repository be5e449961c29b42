#include "output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace es_acl::tool {

namespace {

void wait_writable(int fd) {
  pollfd entry = {fd, POLLOUT, 0};
  poll(&entry, 1, -1);
}

// All of the text; 0 or an errno value.
int write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written >= 0)
      text.remove_prefix(static_cast<size_t>(written));
    else if (errno == EAGAIN)
      wait_writable(fd);  // a terminal that somebody else has switched to non-blocking
    else if (errno != EINTR)
      return errno;
  }
  return 0;
}

}  // namespace

void Output::flush() {
  if (error_ == 0) error_ = write_all(fd_, buffer_);
  buffer_.clear();
}

int Output::error() const { return error_ == EPIPE ? 0 : error_; }

}  // namespace es_acl::tool
