// The scripted functions, and what each of them does without a script.
#include "scripted_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "memory_store.h"
#include "scripted_callbacks.h"

struct pool {
  uint32_t element_size;
};

// Behind the interposed POSIX calls.
extern "C" int __real_pthread_mutexattr_init(pthread_mutexattr_t*);
extern "C" int __real_pthread_mutexattr_settype(pthread_mutexattr_t*, int);
extern "C" int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
extern "C" int __real_regcomp(regex_t*, const char*, int);

namespace es_test {
namespace {

constexpr auto nothing = [](auto...) {};

// A pointer that stands for something and points to nothing else.
void* token(const std::string& name) {
  static std::mutex mutex;
  static auto* const kept = new std::vector<void*>;  // so that no tool takes it for lost
  const std::lock_guard guard(mutex);
  kept->push_back(calloc(1, 8));
  name_pointer(kept->back(), name);
  return kept->back();
}

uint32_t create_class(const char*, uint32_t, uint32_t, uint32_t* class_handle) {
  *class_handle = kClass;
  return 0;
}

uint32_t make_registration(uint32_t, const char* name, void** made) {
  *made = token(std::string("reg:") + name);
  return 0;
}

uint32_t find_address(uint32_t, const char* name, void** found) {
  *found = token(std::string("address:") + name);
  return 0;
}

uint32_t find_categories(debug_category** found, void*, const char*, uint32_t) {
  *found = platform().categories.data();
  return 0;
}

uint32_t find_counters(const char*, const char*, acl_client_relay_entry** main_block,
                       acl_client_relay_entry** error_block, void** history) {
  *main_block = main_counters;
  *error_block = error_counters;
  *history = token("history");
  return 0;
}

uint32_t process_name(char* buffer, uint32_t* length) {
  *length = static_cast<uint32_t>(strlen(strcpy(buffer, "test-process")));
  return 0;
}

void* open_module(const char*, int) { return token("module"); }
void* find_symbol(void*, const char*) { return reinterpret_cast<void*>(&install_store); }

uint32_t name_of_process(int32_t, char* name, uint32_t) {
  strcpy(name, "test-process");
  return 0;
}
uint32_t name_of_node(char* name, uint32_t) {
  strcpy(name, "test-node");
  return 0;
}

pool* make_pool(const char*, uint32_t size, uint32_t, uint32_t, uint32_t, uint32_t) {
  static auto* const kept = new std::vector<pool*>;
  kept->push_back(new pool{size});
  name_pointer(kept->back(), "pool");
  return kept->back();
}

// Elements come from the heap one by one, filled with rubbish, so that misuse shows under AddressSanitizer.
void* take_element(pool* from) {
  if (from == nullptr) return nullptr;
  return memset(malloc(from->element_size), 0xa5, from->element_size);
}
void give_element(pool*, void* element) { free(element); }

}  // namespace

Platform::Platform() : categories(kCategories) {
#define PLAIN(otherwise, result, name, ...) name.always(otherwise);
  SCRIPTED_FUNCTIONS(PLAIN)
  SCRIPTED_LINK_FUNCTIONS(PLAIN)
#undef PLAIN
  pcx_read.always(answer({}));
  line_printed.always(nothing);
  pthread_mutexattr_init.always(__real_pthread_mutexattr_init);
  pthread_mutexattr_settype.always(__real_pthread_mutexattr_settype);
  pthread_mutex_init.always(__real_pthread_mutex_init);
  regcomp.always(__real_regcomp);
  for (uint32_t i = 0; i < kCategories; ++i) {
    categories[i].enabled = 1;
    categories[i].index = i;
  }
}

uint32_t make_registrations(uint32_t of, const char* const* names, uint32_t count, void*** made,
                            uint32_t** codes) {
  *made = static_cast<void**>(calloc(count, sizeof **made));
  *codes = static_cast<uint32_t*>(calloc(count, sizeof **codes));
  for (uint32_t i = 0; i < count; ++i) make_registration(of, names[i], &(*made)[i]);
  return 0;
}

Platform& platform() {
  const Backstage backstage;
  static Platform* const instance = new Platform;
  return *instance;
}

Script<decltype(::pcx_read)>::Step answer(Bytes bytes) {
  return [bytes = std::move(bytes)](void*, const void*, uint32_t, void* buffer, uint32_t* length) {
    std::copy_n(bytes.begin(), std::min<size_t>(*length, bytes.size()), static_cast<uint8_t*>(buffer));
    *length = static_cast<uint32_t>(bytes.size());
    return 0U;
  };
}

}  // namespace es_test

using namespace es_test;

extern "C" {

#define DEFINE(otherwise, result, name, parameters, ...) \
  result name parameters { return play(kCall, #name, platform().name __VA_OPT__(, ) __VA_ARGS__); }
SCRIPTED_FUNCTIONS(DEFINE)
#undef DEFINE

#define DEFINE(otherwise, result, name, parameters, ...) \
  result name parameters { return play(kLink, #name, platform().name __VA_OPT__(, ) __VA_ARGS__); }
SCRIPTED_LINK_FUNCTIONS(DEFINE)
#undef DEFINE

uint32_t pcx_read(void* handle, const void* request, uint32_t length, void* buffer, uint32_t* answer_length) {
  const Backstage backstage;
  const auto* bytes = static_cast<const uint8_t*>(request);
  record(kCall, describe("pcx_read", handle, length, Capacity{answer_length}), Bytes(bytes, bytes + length));
  return platform().pcx_read(handle, request, length, buffer, answer_length);
}

const char* dll_error() { return "scripted failure"; }

}  // extern "C"
