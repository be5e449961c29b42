// The regions of this process, and what becomes of them at fork and at exit.
#include "diag_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include "es_platform/clock.h"
#include "es_platform/process.h"
#include "guard.h"
#include "runtime_dir.h"

namespace es_platform {

namespace {

struct region {
  void* base;
  size_t size;
  std::string path;  // empty: private memory
};

void* map_private(size_t size) {
  void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return base != MAP_FAILED ? base : nullptr;
}

// All regions of the process. Never destroyed: other threads may still write to theirs while the process
// ends.
class region_table {
 public:
  static region_table& instance() {
    static region_table& table = *new region_table;
    return table;
  }

  void* make(diag_kind kind, const char* name, const char* process, size_t size);
  void remove(void* base);
  void unlink_all();

 private:
  region_table() {
    pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                   [] { instance().after_fork_in_child(); });
    std::atexit([] { instance().unlink_all(); });
  }

  bool prepare_directory();
  std::string next_path(const diag_header& header);
  region map_file(const diag_header& header);
  void after_fork_in_child();

  std::mutex mutex_;
  std::vector<region> regions_;
  std::string directory_;
  bool looked_for_directory_ = false;
  uint32_t last_number_ = 0;
};

bool region_table::prepare_directory() {
  if (looked_for_directory_) return !directory_.empty();
  looked_for_directory_ = true;
  const std::string wanted = diag_directory();
  if (make_runtime_dir(wanted) != 0) return false;
  diag_remove_dead(wanted, {.owner = geteuid()}, kDeadProcessesKept);
  directory_ = wanted;
  return true;
}

// Gives the file its space now: a store to a page for which there is none would end the process. The header
// comes first, so that an unfinished file of a dead process is known for what it is.
void* fill_and_map(int fd, const diag_header& header) {
  if (pwrite(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) return nullptr;
  if (posix_fallocate(fd, 0, static_cast<off_t>(header.size)) != 0) return nullptr;
  void* base = mmap(nullptr, header.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return base != MAP_FAILED ? base : nullptr;
}

// A name that no file has: a dead process of the same id may have left some.
std::string region_table::next_path(const diag_header& header) {
  const std::string stem = directory_ + '/' + std::to_string(header.pid) + '.' +
                           diag_kind_word(static_cast<diag_kind>(header.kind)) + '.';
  std::string path;
  do {
    path = stem + std::to_string(++last_number_);
  } while (access(path.c_str(), F_OK) == 0);
  return path;
}

// The file gets its final name when it is complete. A region without base when there can be no file.
region region_table::map_file(const diag_header& header) {
  if (!prepare_directory()) return {};
  const std::string path = next_path(header);
  const std::string unfinished = path + ".new";
  unlink(unfinished.c_str());
  const int fd = open(unfinished.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
  if (fd < 0) return {};
  void* base = fill_and_map(fd, header);
  close(fd);
  if (base != nullptr && rename(unfinished.c_str(), path.c_str()) == 0) return {base, header.size, path};
  if (base != nullptr) munmap(base, header.size);
  unlink(unfinished.c_str());
  return {};
}

int64_t wall_offset() {
  timespec wall;
  clock_gettime(CLOCK_REALTIME, &wall);
  return int64_t{wall.tv_sec} * 1'000'000'000 + wall.tv_nsec - static_cast<int64_t>(clock_now_ns());
}

diag_header make_header(diag_kind kind, const char* name, const char* process, size_t size) {
  diag_header header{};
  std::memcpy(header.magic, kDiagMagic, sizeof header.magic);
  header.version = kDiagVersion;
  header.kind = static_cast<uint32_t>(kind);
  header.size = size;
  header.pid = getpid();
  header.process_start = diag_process_start(header.pid);
  header.wall_offset_ns = wall_offset();
  std::snprintf(header.name, sizeof header.name, "%s", name);
  uint32_t length = sizeof header.process;
  if (process != nullptr) {
    std::snprintf(header.process, sizeof header.process, "%s", process);
  } else {
    procmgr_get_procname(header.process, &length);
  }
  return header;
}

void* region_table::make(diag_kind kind, const char* name, const char* process, size_t size) {
  const std::lock_guard lock(mutex_);
  const diag_header header = make_header(kind, name, process, size);
  regions_.reserve(regions_.size() + 1);
  region made = map_file(header);
  if (made.base == nullptr) {
    made.base = map_private(size);
    if (made.base == nullptr) return nullptr;
    made.size = size;
    std::memcpy(made.base, &header, sizeof header);
  }
  regions_.push_back(std::move(made));
  return regions_.back().base;
}

void region_table::remove(void* base) {
  const std::lock_guard lock(mutex_);
  const auto found =
      std::find_if(regions_.begin(), regions_.end(), [base](const region& one) { return one.base == base; });
  if (found == regions_.end()) return;
  if (!found->path.empty()) unlink(found->path.c_str());
  munmap(found->base, found->size);
  regions_.erase(found);
}

// The memory stays: threads that are still running may be writing to it.
void region_table::unlink_all() {
  const std::lock_guard lock(mutex_);
  for (region& one : regions_) {
    if (!one.path.empty()) unlink(one.path.c_str());
    one.path.clear();
  }
}

// Puts private memory with the same content in the place of a shared mapping. Only system calls: other
// threads that the parent had may have left any lock taken.
void make_private(const region& one) {
  void* copy = map_private(one.size);
  if (copy != nullptr) {
    std::memcpy(copy, one.base, one.size);
    if (mremap(copy, one.size, one.size, MREMAP_MAYMOVE | MREMAP_FIXED, one.base) != MAP_FAILED) return;
  }
  // Without memory even for that, the two processes' records mix.
  [[maybe_unused]] void* const empty =
      mmap(one.base, one.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
}

void region_table::after_fork_in_child() {
  for (region& one : regions_) {
    if (one.path.empty()) continue;
    make_private(one);
    one.path.clear();
  }
  // What the child makes itself is its own: new files under its own id.
  mutex_.unlock();
}

constexpr size_t kHeaderSize = sizeof(diag_header);

}  // namespace

void* diag_region_new(diag_kind kind, const char* name, const char* process, size_t body_size) noexcept {
  const errno_keeper keeper;
  void* base = nullptr;
  guarded([&]() -> uint32_t {
    base = region_table::instance().make(kind, name, process, kHeaderSize + body_size);
    return 0;
  });
  return base != nullptr ? static_cast<char*>(base) + kHeaderSize : nullptr;
}

void diag_region_free(void* body) noexcept {
  if (body != nullptr) region_table::instance().remove(static_cast<char*>(body) - kHeaderSize);
}

}  // namespace es_platform
