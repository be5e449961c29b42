#include "private_directory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace {

// Made before main(), so that it stands before the first service looks at the environment.
struct owned_directory {
  owned_directory() : owner(getpid()) {
    std::string name = std::filesystem::temp_directory_path() / "es_platform_test_XXXXXX";
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path = name;
    setenv("ES_DIAG_DIR", (path + "/diag").c_str(), 1);
    setenv("ES_DEBUG_FILE", (path + "/debug.log").c_str(), 1);
    unsetenv("ES_DEBUG");
  }
  ~owned_directory() {
    if (getpid() == owner) std::filesystem::remove_all(path);
  }
  const pid_t owner;
  std::string path;
};

const owned_directory directory;

}  // namespace

std::string private_directory() { return directory.path; }
std::string diagnostics_directory() { return directory.path + "/diag"; }
std::string debug_file() { return directory.path + "/debug.log"; }

es_diag::region region_called(es_diag::diag_kind kind, const std::string& name) {
  for (es_diag::region& one : es_diag::read_directory(diagnostics_directory(), kind, getpid()).regions) {
    if (one.name == name) return std::move(one);
  }
  ADD_FAILURE() << "no region " << name;
  return {};
}
