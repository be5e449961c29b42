#include "readiness.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log.h"

namespace es_acl::producer {
namespace {

// A standard descriptor stays open: whatever is opened next would take its number.
bool write_and_close(int fd, const std::string& text) {
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  if (fd > STDERR_FILENO) ::close(fd);
  errno = error;
  return written;
}

// The file appears under its name when it is complete.
bool make_ready_file(const std::string& file) {
  const std::string draft = file + ".new";
  const int fd = ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return fd >= 0 && write_and_close(fd, std::to_string(::getpid()) + "\n") &&
         ::rename(draft.c_str(), file.c_str()) == 0;
}

}  // namespace

// Who reads "ready" finds the file there.
bool report_ready(const Options& options) {
  if (!options.ready_file.empty() && !make_ready_file(options.ready_file)) {
    log_line("--ready-file " + options.ready_file + ": cannot be made: " + std::strerror(errno));
    return false;
  }
  if (options.ready_fd >= 0 && !write_and_close(options.ready_fd, "ready\n")) {
    log_line("--ready-fd " + std::to_string(options.ready_fd) +
             ": cannot be written: " + std::strerror(errno));
    return false;
  }
  return true;
}

void retract_ready(const Options& options) {
  if (!options.ready_file.empty()) ::unlink(options.ready_file.c_str());
}

}  // namespace es_acl::producer
