// Dynamic loading. A plain name is turned into the full path of the file beside this library when there is
// one, so that a tree that was moved as a whole finds its own modules, whatever the search path is.
#include "es_platform/loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

thread_local char last_error[512] = "no error";

// The system's own words mostly name the file and the symbol already, but not when it is a library that the
// file needs that cannot be had.
void set_error(const char* what, const char* why) {
  if (why == nullptr) why = "unknown error";
  const bool named = std::strstr(why, what) != nullptr;
  std::snprintf(last_error, sizeof last_error, "%s%s%s", named ? "" : what, named ? "" : ": ", why);
}

// The directory of the file that holds this library, empty when it cannot be told. Asked while the library is loaded:
// the loader may know a relative path, which holds only until the process changes its directory.
struct Directory {
  char path[PATH_MAX] = "";

  Directory() {
    Dl_info here;
    if (dladdr(this, &here) == 0 || here.dli_fname == nullptr || realpath(here.dli_fname, path) == nullptr)
      return;
    if (char* slash = std::strrchr(path, '/')) *slash = '\0';
  }
};
const Directory own_directory;

// Writes the path of `name` beside this library's file; false when that cannot be told or is no file.
bool path_beside(const char* name, char (&path)[PATH_MAX]) {
  if (*own_directory.path == '\0') return false;
  const int length = std::snprintf(path, sizeof path, "%s/%s", own_directory.path, name);
  return length < static_cast<int>(sizeof path) && access(path, F_OK) == 0;
}

}  // namespace

void* dll_open(const char* name, int mode) {
  if (name == nullptr || *name == '\0' || mode != 0) {
    set_error("dll_open", name == nullptr || *name == '\0' ? "no name" : "unknown mode");
    return nullptr;
  }
  char path[PATH_MAX];
  const bool beside = std::strchr(name, '/') == nullptr && path_beside(name, path);
  void* module = dlopen(beside ? path : name, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) set_error(name, dlerror());
  return module;
}

void* dll_symbol(void* module, const char* symbol) {
  if (module == nullptr || symbol == nullptr) {
    set_error("dll_symbol", module == nullptr ? "no module" : "no symbol name");
    return nullptr;
  }
  void* address = dlsym(module, symbol);
  if (address == nullptr) set_error(symbol, dlerror());
  return address;
}

void dll_close(void* module) {
  if (module != nullptr) dlclose(module);
}

const char* dll_error() { return last_error; }
