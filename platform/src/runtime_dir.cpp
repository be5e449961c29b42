#include "runtime_dir.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

namespace es_platform {

namespace {

// Value of an environment variable, null when it is unset or empty.
const char* environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

int make_one(const std::string& path) {
  if (mkdir(path.c_str(), 0750) == 0) return 0;
  if (errno != EEXIST) return errno;
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return errno;
  return S_ISDIR(info.st_mode) ? 0 : ENOTDIR;
}

}  // namespace

std::string runtime_dir(const char* variable, const char* leaf) {
  if (const char* named = environment(variable)) return named;
  const char* base = environment("XDG_RUNTIME_DIR");
  return std::string(base != nullptr ? base : "/run") + "/es-acl" + leaf;
}

int make_runtime_dir(const std::string& path) {
  for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    const int error = make_one(path.substr(0, end));
    if (error != 0 && error != EROFS && error != EACCES) return error;
  }
  return make_one(path);
}

}  // namespace es_platform
