// The name service's entry points.
#include "es_platform/dsv.h"

#include <cstdlib>
#include <cstring>

#include "bus/class_name.h"
#include "bus/consumer.h"
#include "guard.h"

using es_platform::guarded;
using es_platform::bus::Consumer;
using es_platform::bus::is_class_name;

namespace {

uint32_t register_one(uint32_t class_handle, const char* name, void** reg_handle) {
  if (name == nullptr) return EINVAL;
  return guarded([&] { return Consumer::instance().add(class_handle, name, reg_handle); });
}

}  // namespace

uint32_t dsv_init(void* ctx, uint32_t) { return ctx != nullptr ? 0 : EINVAL; }

uint32_t dsv_create_class(const char* name, uint32_t flags, uint32_t mode, uint32_t* class_handle) {
  if (name == nullptr || class_handle == nullptr || flags != 0 || mode != 1 || !is_class_name(name))
    return EINVAL;
  return guarded([&] { return Consumer::instance().create_class(name, class_handle); });
}

uint32_t dsv_register(uint32_t class_handle, const char* name, void** reg_handle) {
  if (reg_handle == nullptr) return EINVAL;
  return register_one(class_handle, name, reg_handle);
}

uint32_t dsv_register_bulk(uint32_t class_handle, const char* const* names, uint32_t count,
                           void*** reg_handles, uint32_t** codes) {
  if (reg_handles == nullptr || codes == nullptr) return EINVAL;
  *reg_handles = nullptr;
  *codes = nullptr;
  const auto known = [&]() -> uint32_t { return Consumer::instance().has_class(class_handle) ? 0 : EINVAL; };
  if (names == nullptr) return EINVAL;
  if (const uint32_t status = guarded(known)) return status;
  const size_t room = count != 0 ? count : 1;
  auto** handles = static_cast<void**>(std::calloc(room, sizeof(void*)));
  auto* statuses = static_cast<uint32_t*>(std::calloc(room, sizeof(uint32_t)));
  if (handles == nullptr || statuses == nullptr) {
    std::free(handles);
    std::free(statuses);
    return ENOMEM;
  }
  for (uint32_t i = 0; i < count; ++i) statuses[i] = register_one(class_handle, names[i], &handles[i]);
  *reg_handles = handles;
  *codes = statuses;
  return 0;
}

uint32_t dsv_lookup_data(uint32_t class_handle, const char* name, void** data) {
  if (name == nullptr || data == nullptr) return EINVAL;
  return guarded([&] { return Consumer::instance().lookup(class_handle, name, data); });
}
