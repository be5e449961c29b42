// Regions of memory that other processes can see as files in the diagnostics directory.
//
// Where no file can be made a region is private memory, and works all the same. Regions are files of the
// process that made them only: a forked child gets a private copy at the same addresses. The files are taken
// away when the region is freed and at the normal end of the process. Those of a process that ended otherwise
// stay, for whoever wants to know why, until kDeadProcessesKept more have ended so or somebody removes them.
#ifndef ES_PLATFORM_SRC_DIAG_FILE_H_
#define ES_PLATFORM_SRC_DIAG_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "diag_layout.h"

namespace es_platform {

// A new region's body, zero-filled and aligned to 64 bytes, or null when there is no memory. `process` null:
// the calling process's own name. Throws nothing. Any thread.
void* diag_region_new(diag_kind kind, const char* name, const char* process, size_t body_size) noexcept;
// Frees it and takes its file away. Null is allowed.
void diag_region_free(void* body) noexcept;

// The word for the kind in a file's name.
const char* diag_kind_word(diag_kind kind);
// The diagnostics directory.
std::string diag_directory();
// When the process started, as /proc/PID/stat counts it; 0 when there is no such process.
uint64_t diag_process_start(int32_t pid);
// Whether the process that wrote this header is gone, reaped or not. A later process of the same id is another one.
bool diag_is_dead(const diag_header& header);

// Of how many dead processes a starting process leaves the files alone.
constexpr size_t kDeadProcessesKept = 16;

struct diag_removal {
  size_t processes = 0;
  size_t files = 0;
  std::vector<std::string> failures;  // path and reason
};

// Which files of dead processes are meant: all, or those of one process id or one owner.
struct diag_choice {
  std::optional<int32_t> pid = {};
  std::optional<uid_t> owner = {};
};

// Removes the files of dead processes, of all but the `keep` that started last. What does not begin with a
// diagnostics file's magic is left alone, whatever it is called. A directory that is missing holds nothing.
diag_removal diag_remove_dead(const std::string& directory, const diag_choice& choice, size_t keep);

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_DIAG_FILE_H_
