#include "config_watch.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "log.h"

namespace es_acl::producer {
namespace {

constexpr std::chrono::milliseconds kSettling{100};
constexpr std::chrono::milliseconds kLongestSettling{1000};

// The file behind the name, symbolic links followed.
struct stat look_at(const std::string& file) {
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0) info = {};
  return info;
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

ConfigWatch::ConfigWatch(const std::string& file)
    : file_(file), base_name_(std::filesystem::path(file).filename()), seen_(look_at(file)) {
  const std::filesystem::path parent = std::filesystem::path(file).parent_path();
  const std::string directory = parent.empty() ? std::string(1, '.') : parent.string();
  fd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fd_ >= 0 && ::inotify_add_watch(fd_, directory.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE) >= 0)
    return;
  log_line(directory + ": cannot be watched for changes, only SIGHUP is heeded: " + std::strerror(errno));
}

ConfigWatch::~ConfigWatch() {
  if (fd_ >= 0) ::close(fd_);
}

int ConfigWatch::timeout_ms() const {
  if (!due_) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due_ - Clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

bool ConfigWatch::take_change() {
  alignas(inotify_event) char events[4096];
  for (ssize_t bytes; fd_ >= 0 && (bytes = ::read(fd_, events, sizeof events)) > 0;) {
    for (const char* at = events; at < events + bytes;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      if (concerns_file(*event)) postpone();
      at += sizeof *event + event->len;
    }
  }
  if (!due_ || Clock::now() < *due_) return false;
  due_.reset();
  seen_ = look_at(file_);
  return true;
}

// A directory in which something is written all the time must not keep a change back for ever.
void ConfigWatch::postpone() {
  const Clock::time_point now = Clock::now();
  if (!due_) latest_ = now + kLongestSettling;
  due_ = std::min(now + kSettling, latest_);
}

// Another name in the directory matters when it is part of the way to the file. An event without a name says that
// events have been lost. A new file is still to be written; a new link is all there.
bool ConfigWatch::concerns_file(const inotify_event& event) const {
  const std::string name = event.len != 0 ? event.name : "";
  if ((event.mask & IN_CREATE) != 0) {
    std::error_code ignored;
    return name == base_name_ && std::filesystem::is_symlink(file_, ignored);
  }
  return name == base_name_ || name.empty() || !same_file(seen_, look_at(file_));
}

}  // namespace es_acl::producer
