// Schema registry: a map of published descriptors, and what the one open transaction has gathered.
#include "es_platform/schema.h"

#include <cerrno>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>

#include "guard.h"

namespace {

using descriptor_map = std::map<std::string_view, const void*>;

struct registry {
  std::mutex mutex;
  descriptor_map published;
  descriptor_map pending;
  std::thread::id owner;  // of the transaction; the default value: none is open

  bool mine() const { return owner == std::this_thread::get_id(); }
  void close() {
    pending.clear();
    owner = {};
  }
};

// Never destroyed: other threads may outlive the end of main().
registry& the_registry() {
  static registry& instance = *new registry;
  return instance;
}

// A descriptor's second word points to its record's name.
const char* name_of(const void* descriptor) {
  return descriptor != nullptr ? static_cast<const char* const*>(descriptor)[1] : nullptr;
}

// Whether another descriptor than this one has the name.
bool is_taken(const descriptor_map& map, std::string_view name, const void* descriptor) {
  const auto found = map.find(name);
  return found != map.end() && found->second != descriptor;
}

}  // namespace

uint32_t schema_register_start(void*, void*, void*, void*, void*, void*) {
  return es_platform::guarded([]() -> uint32_t {
    registry& all = the_registry();
    const std::lock_guard lock(all.mutex);
    if (all.owner != std::thread::id()) return all.mine() ? EEXIST : EAGAIN;
    all.owner = std::this_thread::get_id();
    return 0;
  });
}

uint32_t schema_register(const void* descriptor) {
  const char* const name = name_of(descriptor);
  if (name == nullptr) return EINVAL;
  return es_platform::guarded([&]() -> uint32_t {
    registry& all = the_registry();
    const std::lock_guard lock(all.mutex);
    if (!all.mine()) return EINVAL;
    if (is_taken(all.published, name, descriptor) || is_taken(all.pending, name, descriptor)) return EEXIST;
    all.pending.emplace(name, descriptor);
    return 0;
  });
}

void schema_register_abort() {
  es_platform::guarded([]() -> uint32_t {
    registry& all = the_registry();
    const std::lock_guard lock(all.mutex);
    if (all.mine()) all.close();
    return 0;
  });
}

uint32_t schema_register_end() {
  return es_platform::guarded([]() -> uint32_t {
    registry& all = the_registry();
    const std::lock_guard lock(all.mutex);
    if (!all.mine()) return EINVAL;
    all.published.merge(all.pending);
    all.close();
    return 0;
  });
}

const void* schema_find(const char* name) {
  if (name == nullptr) return nullptr;
  const void* found = nullptr;
  es_platform::guarded([&]() -> uint32_t {
    registry& all = the_registry();
    const std::lock_guard lock(all.mutex);
    const auto at = all.published.find(name);
    if (at != all.published.end()) found = at->second;
    return 0;
  });
  return found;
}
