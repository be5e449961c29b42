// The log lines of one producer: to where its options say, else to standard error. Service thread only.
#ifndef ES_PLATFORM_SRC_BUS_SERVER_LOG_H_
#define ES_PLATFORM_SRC_BUS_SERVER_LOG_H_

#include <string>

namespace es_platform::bus {

class ServerLog {
 public:
  // Without `write` the lines go to standard error.
  ServerLog(const std::string& class_name, void (*write)(const char* line))
      : class_name_(class_name), write_(write) {}
  // One line, behind "CLASS: ".
  void line(const char* format, ...) const __attribute__((format(printf, 2, 3)));

 private:
  const std::string class_name_;
  void (*const write_)(const char* line);
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_SERVER_LOG_H_
