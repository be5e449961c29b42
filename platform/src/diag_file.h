// Regions of memory that other processes can see as files in the diagnostics directory.
//
// Where no file can be made a region is private memory, and works all the same. Regions are files of the
// process that made them only: a forked child gets a private copy at the same addresses. The files are taken
// away when the region is freed and at the normal end of the process; those of processes that ended
// otherwise, by the next one that starts.
#ifndef ES_PLATFORM_SRC_DIAG_FILE_H_
#define ES_PLATFORM_SRC_DIAG_FILE_H_

#include <string>

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
// Removes the files of processes that are gone.
void diag_remove_stale(const std::string& directory);

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_DIAG_FILE_H_
