#include "log.h"

#include <unistd.h>

#include <cstdio>

namespace es_acl::producer {

void log_line(std::string_view text) {
  std::string line = "es-acl-producer: ";
  line.append(text).push_back('\n');
  // A log that cannot be written has nowhere to report that to.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

std::string printable(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    if (c >= ' ' && c <= '~') {
      shown.push_back(c);
      continue;
    }
    char escape[5];
    std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    shown += escape;
  }
  return shown;
}

}  // namespace es_acl::producer
