// A directory of this test process's own, where its diagnostics files and debug lines go.
#ifndef ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
#define ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "diag_reader.h"

// Made before main(), so that it stands before the first service looks at the environment.
struct owned_directory {
  owned_directory() {
    if (mkdtemp(path.data()) == nullptr) std::abort();
    setenv("ES_DIAG_DIR", (path + "/diag").c_str(), 1);
    setenv("ES_DEBUG_FILE", (path + "/debug.log").c_str(), 1);
    unsetenv("ES_DEBUG");
  }
  ~owned_directory() {
    if (getpid() == owner) std::filesystem::remove_all(path);
  }
  const pid_t owner = getpid();
  std::string path = std::filesystem::temp_directory_path() / "es_platform_test_XXXXXX";
};
inline const owned_directory the_directory;

inline std::string private_directory() { return the_directory.path; }
inline std::string diagnostics_directory() { return the_directory.path + "/diag"; }

// The region that this process has under that name; a failure of the test when there is none.
inline es_diag::region region_called(es_diag::diag_kind kind, const std::string& name) {
  for (es_diag::region& one : es_diag::read_directory(diagnostics_directory(), kind, getpid()).regions) {
    if (one.name == name) return std::move(one);
  }
  ADD_FAILURE() << "no region " << name;
  return {};
}

#endif  // ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
