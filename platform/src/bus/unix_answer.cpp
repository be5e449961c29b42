#include "bus/unix_answer.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

namespace es_platform::bus {

int UnixAnswer::flush(int fd) {
  const size_t size = sizeof header + header.length;
  while (sent < size) {
    const size_t of_header = std::min(sent, sizeof header), of_body = sent - of_header;
    iovec parts[] = {{reinterpret_cast<char*>(&header) + of_header, sizeof header - of_header},
                     {body.get() + of_body, header.length - of_body}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t bytes = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (bytes >= 0) {
      sent += static_cast<size_t>(bytes);
    } else if (errno != EINTR) {
      return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : errno;
    }
  }
  under_way = false;
  return 0;
}

}  // namespace es_platform::bus
