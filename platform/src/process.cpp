// Process facts, from /proc and the host.
#include "es_platform/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// As the kernel cuts it, and its NUL.
constexpr size_t kNameSize = 16;

// The name in a file of the form of /proc/PID/comm. 0, or an errno value.
uint32_t read_name(const char* path, char (&name)[kNameSize + 1]) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? ESRCH : static_cast<uint32_t>(errno);
  const ssize_t length = read(fd, name, kNameSize);
  const int error = errno;
  close(fd);
  if (length <= 0) return length < 0 ? static_cast<uint32_t>(error) : ESRCH;
  name[length] = '\0';
  name[std::strcspn(name, "\n")] = '\0';
  return 0;
}

// Copies a name, cut to size - 1 characters.
uint32_t copy_cut(const char* name, char* buffer, uint32_t size) {
  std::snprintf(buffer, size, "%s", name);
  return 0;
}

}  // namespace

uint32_t procmgr_get_procname(char* buffer, uint32_t* length) {
  if (buffer == nullptr || length == nullptr) return EINVAL;
  char read[kNameSize + 1];
  const char* name = read_name("/proc/self/comm", read) == 0 ? read : program_invocation_short_name;
  const size_t name_length = std::strlen(name);
  if (name_length >= *length) return ERANGE;
  std::memcpy(buffer, name, name_length + 1);
  *length = static_cast<uint32_t>(name_length);
  return 0;
}

uint32_t proc_name_get(int32_t pid, char* buffer, uint32_t size) {
  if (buffer == nullptr || size == 0) return EINVAL;
  if (pid <= 0) return ESRCH;
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
  char name[kNameSize + 1];
  const uint32_t error = read_name(path, name);
  return error != 0 ? error : copy_cut(name, buffer, size);
}

uint32_t node_name_get(char* buffer, uint32_t size) {
  if (buffer == nullptr || size == 0) return EINVAL;
  char name[256];
  if (gethostname(name, sizeof name) != 0) return static_cast<uint32_t>(errno);
  name[sizeof name - 1] = '\0';
  return copy_cut(name, buffer, size);
}
