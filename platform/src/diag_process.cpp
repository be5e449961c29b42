// Which diagnostics files belong to processes that are gone.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diag_file.h"
#include "runtime_dir.h"

namespace es_platform {

namespace {

// The process id at the front of a file name of ours, else 0.
int32_t pid_of(const char* file_name) {
  char* end = nullptr;
  const long pid = std::strtol(file_name, &end, 10);
  return end != file_name && *end == '.' && pid > 0 && pid <= INT32_MAX ? static_cast<int32_t>(pid) : 0;
}

// The start noted in the file's header; 0 when there is none to read.
uint64_t noted_start(int directory, const char* file_name) {
  const int fd = openat(directory, file_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return 0;
  diag_header header;
  const ssize_t got = pread(fd, &header, sizeof header, 0);
  close(fd);
  if (got != sizeof header || std::memcmp(header.magic, kDiagMagic, sizeof kDiagMagic) != 0) return 0;
  return header.process_start;
}

bool is_stale(int directory, const char* file_name) {
  const int32_t pid = pid_of(file_name);
  if (pid == 0) return false;
  const uint64_t running = diag_process_start(pid);
  if (running == 0) return kill(pid, 0) != 0 && errno == ESRCH;
  const uint64_t noted = noted_start(directory, file_name);
  return noted != 0 && noted != running;
}

}  // namespace

const char* diag_kind_word(diag_kind kind) {
  switch (kind) {
    case diag_kind::debug:
      return "debug";
    case diag_kind::trace:
      return "trace";
    case diag_kind::counters:
      return "counters";
    case diag_kind::threads:
      return "threads";
  }
  return "unknown";
}

std::string diag_directory() { return runtime_dir("ES_DIAG_DIR", "/diag"); }

// The 22nd field. The second, the name in brackets, may itself hold blanks and brackets: count from its last
// bracket.
uint64_t diag_process_start(int32_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[1024];
  const ssize_t got = read(fd, text, sizeof text - 1);
  close(fd);
  if (got <= 0) return 0;
  text[got] = '\0';
  const char* at = std::strrchr(text, ')');
  for (int field = 2; at != nullptr && field < 22; ++field) at = std::strchr(at + 1, ' ');
  return at != nullptr ? std::strtoull(at, nullptr, 10) : 0;
}

void diag_remove_stale(const std::string& directory) {
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) return;
  while (const dirent* file = readdir(listing)) {
    if (is_stale(dirfd(listing), file->d_name)) unlinkat(dirfd(listing), file->d_name, 0);
  }
  closedir(listing);
}

}  // namespace es_platform
