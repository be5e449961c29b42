#include "bus/server_log.h"

#include <cstdarg>
#include <cstdio>

#include "log.h"

namespace es_platform::bus {

void ServerLog::line(const char* format, ...) const {
  char text[448], whole[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::snprintf(whole, sizeof whole, "%s: %s", class_name_.c_str(), text);  // a class name has at most 64
  if (write_ != nullptr) return write_(whole);
  log_line("%s", whole);
}

}  // namespace es_platform::bus
