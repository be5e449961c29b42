#include "bus/unix_endpoint.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "runtime_dir.h"

namespace es_platform::bus {

namespace {

std::string sentence(const std::string& what, const std::string& where, int error) {
  return "cannot " + what + " " + where + ": " + std::strerror(error);
}

}  // namespace

UnixEndpoint::UnixEndpoint(const std::string& class_name)
    : class_name_(class_name), address_(address_of_class(class_name)) {}

UnixEndpoint::~UnixEndpoint() {
  if (listener_) unlink(address_.socket.c_str());
}

int UnixEndpoint::open(std::string* why) {
  if (const int error = make_runtime_dir(address_.directory)) {
    *why = sentence("make the directory", address_.directory, error);
    return error;
  }
  if (const int error = lock(why)) return error;
  const char* step = "";
  const int error = listen_at(address_.socket, &listener_, &step);
  if (error != 0) *why = sentence(step, address_.socket, error);
  return error;
}

int UnixEndpoint::lock(std::string* why) {
  lock_ = Fd(::open(address_.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  if (!lock_) {
    const int error = errno;
    *why = sentence("open the lock file", address_.lock, error);
    return error;
  }
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return 0;
  const int error = errno == EWOULDBLOCK ? EADDRINUSE : errno;
  *why = error == EADDRINUSE
             ? "cannot serve " + class_name_ + ": another producer does, it holds " + address_.lock
             : sentence("lock", address_.lock, error);
  return error;
}

}  // namespace es_platform::bus
