#include "log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace es_platform {

void log_line(const char* format, ...) {
  char line[512];
  int length = std::snprintf(line, sizeof line, "es-platform[%d]: ", static_cast<int>(getpid()));
  va_list args;
  va_start(args, format);
  length += std::vsnprintf(line + length, sizeof line - static_cast<size_t>(length) - 1, format, args);
  va_end(args);
  if (length > static_cast<int>(sizeof line) - 2) length = static_cast<int>(sizeof line) - 2;
  line[length++] = '\n';
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
}

}  // namespace es_platform
