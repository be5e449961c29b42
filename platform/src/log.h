// One log line of the platform layer itself, for what no caller can be told by a status.
#ifndef ES_PLATFORM_SRC_LOG_H_
#define ES_PLATFORM_SRC_LOG_H_

namespace es_platform {

// Writes "es-platform[PID]: TEXT\n" to standard error in one write.
void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_LOG_H_
