// Notices that the configuration file has changed, however that is done: written in place, replaced by another file,
// or reached by a symbolic link that now leads elsewhere. Watches the directory, and reports a change when the file has
// been left alone for a moment, or when that moment does not come.
//
// Not thread-safe.
#ifndef ES_ACL_PRODUCER_CONFIG_WATCH_H_
#define ES_ACL_PRODUCER_CONFIG_WATCH_H_

#include <sys/inotify.h>
#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <string>

namespace es_acl::producer {

class ConfigWatch {
 public:
  // Where the directory cannot be watched the reason is logged, and nothing is ever reported.
  explicit ConfigWatch(const std::string& file);
  ~ConfigWatch();
  ConfigWatch(const ConfigWatch&) = delete;
  ConfigWatch& operator=(const ConfigWatch&) = delete;

  // To be polled for input, and how long for at most: milliseconds, -1 for ever.
  int fd() const { return fd_; }
  int timeout_ms() const;

  // To be called when the poll has returned. True, once, when there is a change to look at.
  bool take_change();

 private:
  using Clock = std::chrono::steady_clock;

  bool concerns_file(const inotify_event& event) const;
  void postpone();

  const std::string file_;
  std::string base_name_;
  int fd_ = -1;
  struct stat seen_ {};  // the file as it was when it was last looked at
  std::optional<Clock::time_point> due_;
  Clock::time_point latest_;  // of due_
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_CONFIG_WATCH_H_
