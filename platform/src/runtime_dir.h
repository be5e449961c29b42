// Where the platform keeps what other processes are to find: sockets and diagnostics.
#ifndef ES_PLATFORM_SRC_RUNTIME_DIR_H_
#define ES_PLATFORM_SRC_RUNTIME_DIR_H_

#include <string>

namespace es_platform {

// The directory that environment variable `variable` names, else $XDG_RUNTIME_DIR/es-acl + `leaf`, else
// /run/es-acl + `leaf`. Nothing is made.
std::string runtime_dir(const char* variable, const char* leaf);

// Makes the directory and its missing parents, mode 0750. 0, or an errno value (ENOTDIR when something else
// is there).
int make_runtime_dir(const std::string& path);

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_RUNTIME_DIR_H_
