// Which diagnostics files belong to processes that are gone, and their removal.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <tuple>

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

struct process_state {
  uint64_t start;
  bool ended;  // it only waits for its parent to take note
};

// From fields 3 (state), 20 (threads) and 22 (start) of /proc/PID/stat; nothing when there is no such process.
// The second field, the name in brackets, may itself hold blanks and brackets: count from its last bracket.
// A first thread that has ended before the others looks like an ended process, but for their number.
std::optional<process_state> state_of(int32_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char text[1024];
  const ssize_t got = read(fd, text, sizeof text - 1);
  close(fd);
  if (got <= 0) return std::nullopt;
  text[got] = '\0';
  const char* at = std::strrchr(text, ')');
  char state = 0;
  unsigned long threads = 0, start = 0;
  if (at == nullptr ||
      std::sscanf(at + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %lu %*d %lu",
                  &state, &threads, &start) != 3)
    return std::nullopt;
  return process_state{start, (state == 'Z' || state == 'X') && threads <= 1};
}

struct close_listing {
  void operator()(DIR* listing) const { closedir(listing); }
};
using listing = std::unique_ptr<DIR, close_listing>;

struct dead_process {
  int32_t pid;
  uint64_t start;
  timespec made;
  std::vector<std::string> files;
};

// False when the file is none of ours.
bool read_header(int directory, const char* file_name, diag_header* header, struct stat* info) {
  const int fd = openat(directory, file_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ours = fstat(fd, info) == 0 && S_ISREG(info->st_mode) &&
                    pread(fd, header, sizeof *header, 0) == static_cast<ssize_t>(sizeof *header) &&
                    std::memcmp(header->magic, kDiagMagic, sizeof kDiagMagic) == 0;
  close(fd);
  return ours;
}

void add_file(std::vector<dead_process>& all, const diag_header& header, const timespec& made,
              const char* file_name) {
  auto at = std::find_if(all.begin(), all.end(), [&](const dead_process& one) {
    return one.pid == header.pid && one.start == header.process_start;
  });
  if (at == all.end()) at = all.insert(at, {header.pid, header.process_start, made, {}});
  at->files.push_back(file_name);
}

// Those that have left files, the one that started last first.
std::vector<dead_process> dead_processes(DIR* from, const diag_choice& choice) {
  std::vector<dead_process> all;
  while (const dirent* file = readdir(from)) {
    const int32_t pid = pid_of(file->d_name);
    if (pid == 0 || (choice.pid && pid != *choice.pid)) continue;
    diag_header header;
    struct stat info;
    if (!read_header(dirfd(from), file->d_name, &header, &info) || !diag_is_dead(header)) continue;
    if (!choice.owner || info.st_uid == *choice.owner) add_file(all, header, info.st_mtim, file->d_name);
  }
  std::sort(all.begin(), all.end(), [](const dead_process& a, const dead_process& b) {
    return std::tie(a.made.tv_sec, a.made.tv_nsec) > std::tie(b.made.tv_sec, b.made.tv_nsec);
  });
  return all;
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

uint64_t diag_process_start(int32_t pid) {
  const std::optional<process_state> found = state_of(pid);
  return found ? found->start : 0;
}

bool diag_is_dead(const diag_header& header) {
  const std::optional<process_state> found = state_of(header.pid);
  if (!found) return kill(header.pid, 0) != 0 && errno == ESRCH;
  return found->ended || (header.process_start != 0 && header.process_start != found->start);
}

diag_removal diag_remove_dead(const std::string& directory, const diag_choice& choice, size_t keep) {
  diag_removal done;
  const listing from(opendir(directory.c_str()));
  if (!from) {
    if (errno != ENOENT) done.failures.push_back(directory + ": " + std::strerror(errno));
    return done;
  }
  const std::vector<dead_process> dead = dead_processes(from.get(), choice);
  for (size_t i = keep; i < dead.size(); ++i) {
    ++done.processes;
    for (const std::string& file : dead[i].files) {
      if (unlinkat(dirfd(from.get()), file.c_str(), 0) == 0)
        ++done.files;
      else if (errno != ENOENT)
        done.failures.push_back(directory + '/' + file + ": " + std::strerror(errno));
    }
  }
  return done;
}

}  // namespace es_platform
