// The remaining services of the scripted platform, and what all of them do without a script.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "es_platform/clock.h"
#include "es_platform/schema.h"
#include "memory_store.h"
#include "scripted_call.h"
#include "scripted_platform.h"

struct pool {
  uint32_t element_size;
  uint64_t in_use;
};

using es_test::platform;
using es_test::ScriptedCall;

extern "C" {

pool* pool_create(const char* name, uint32_t element_size, uint32_t elements_per_chunk, uint32_t flags,
                  uint32_t reserved_a, uint32_t reserved_b) {
  const ScriptedCall call("pool_create", name, element_size, elements_per_chunk, flags, reserved_a,
                          reserved_b);
  return platform().pool_create(name, element_size, elements_per_chunk, flags, reserved_a, reserved_b);
}

void* pool_take(pool* from) {
  const ScriptedCall call("pool_take", static_cast<void*>(from));
  void* element = from == nullptr ? nullptr : platform().pool_take(from);
  if (element != nullptr) __atomic_add_fetch(&from->in_use, 1, __ATOMIC_RELAXED);
  return element;
}

void pool_give(pool* to, void* element) {
  const ScriptedCall call("pool_give", static_cast<void*>(to));
  if (element != nullptr) __atomic_sub_fetch(&to->in_use, 1, __ATOMIC_RELAXED);
  free(element);
}

uint64_t pool_in_use(pool* of) { return __atomic_load_n(&of->in_use, __ATOMIC_RELAXED); }

void* dll_open(const char* name, int mode) {
  const ScriptedCall call("dll_open", name, static_cast<uint64_t>(mode));
  return platform().dll_open(name, mode);
}

void* dll_symbol(void* module, const char* symbol) {
  const ScriptedCall call("dll_symbol", module, symbol);
  return platform().dll_symbol(module, symbol);
}

void dll_close(void* module) { const ScriptedCall call("dll_close", module); }

const char* dll_error() { return "scripted failure"; }

uint32_t procmgr_get_procname(char* buffer, uint32_t* length) {
  const ScriptedCall call("procmgr_get_procname", es_test::Capacity{*length});
  return platform().procmgr_get_procname(buffer, length);
}

uint32_t acl_client_relay_init(const char* component, const char* process_name,
                               acl_client_relay_entry** main_block, acl_client_relay_entry** error_block,
                               void** history) {
  const ScriptedCall call("acl_client_relay_init", component, process_name);
  return platform().acl_client_relay_init(component, process_name, main_block, error_block, history);
}

uint32_t schema_register_start(void* a, void* b, void* c, void* d, void* e, void* f) {
  const ScriptedCall call("schema_register_start", a, b, c, d, e, f);
  return platform().schema_register_start(a, b, c, d, e, f);
}

uint32_t schema_register(const void* descriptor) {
  const ScriptedCall call("schema_register", descriptor);
  return platform().schema_register(descriptor);
}

void schema_register_abort() { const ScriptedCall call("schema_register_abort"); }

uint32_t schema_register_end() {
  const ScriptedCall call("schema_register_end");
  return platform().schema_register_end();
}

void mtimer_leaf_free(mtimer_leaf* leaf) {
  const ScriptedCall call("mtimer_leaf_free", static_cast<void*>(leaf));
}

void list_registry_destroy(list_registry* registry) {
  const ScriptedCall call("list_registry_destroy", static_cast<void*>(registry));
}

}  // extern "C"

// Behind the interposed POSIX calls.
extern "C" int __real_pthread_mutexattr_init(pthread_mutexattr_t*);
extern "C" int __real_pthread_mutexattr_settype(pthread_mutexattr_t*, int);
extern "C" int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
extern "C" int __real_regcomp(regex_t*, const char*, int);

namespace es_test {

namespace {

uint32_t create_class(const char*, uint32_t, uint32_t, uint32_t* class_handle) {
  *class_handle = kClass;
  return 0;
}

// A pointer that stands for something and points to nothing else.
void* token(const std::string& name) {
  void* const unique = calloc(1, 8);
  name_pointer(unique, name);
  static std::mutex mutex;
  static auto* const kept = new std::vector<void*>;  // so that no tool takes it for lost
  const std::lock_guard guard(mutex);
  kept->push_back(unique);
  return unique;
}

uint32_t register_name(uint32_t, const char* name, void** reg_handle) {
  *reg_handle = token(std::string("reg:") + name);
  return 0;
}

uint32_t look_up_address(uint32_t, const char* name, void** data) {
  *data = token(std::string("address:") + name);
  return 0;
}

uint32_t hand_out_categories(debug_category** handle, void*, const char*, uint32_t) {
  *handle = platform().categories.data();
  return 0;
}

uint32_t process_name(char* buffer, uint32_t* length) {
  *length = static_cast<uint32_t>(strlen(strcpy(buffer, "test-process")));
  return 0;
}

uint32_t hand_out_counters(const char*, const char*, acl_client_relay_entry** main_block,
                           acl_client_relay_entry** error_block, void** history) {
  *main_block = main_counters();
  *error_block = error_counters();
  *history = token("history");
  watch_counters(*main_block, *error_block);
  return 0;
}

pool* make_pool(const char*, uint32_t element_size, uint32_t, uint32_t, uint32_t, uint32_t) {
  auto* const made = new pool{element_size, 0};
  name_pointer(made, "pool");
  static auto* const kept = new std::vector<pool*>;
  kept->push_back(made);
  return made;
}

}  // namespace

// Elements come from the heap one by one, filled with rubbish, so that misuse shows under AddressSanitizer.
Platform::Platform()
    : dsv_init(0),
      dsv_create_class(create_class),
      dsv_register(register_name),
      dsv_lookup_data(look_up_address),
      pcx_lr_init(0),
      pcx_set_context(0),
      pcx_register(0),
      pcx_unregister(0),
      pcx_query_producer(0),
      pcx_read(answer({})),
      pcx_get_optimum_msg_size(65536),
      acl_debug_init(hand_out_categories),
      acl_rlog_init(open_trace_buffer),
      line_printed([](uint32_t, const std::string&) {}),
      thread_mark_mutex_block([](const void*, const char*, uint32_t) {}),
      thread_unmark_mutex_block([] {}),
      categories(kCategories),
      pool_create(make_pool),
      pool_take([](pool* from) { return memset(malloc(from->element_size), 0xa5, from->element_size); }),
      dll_open([](const char*, int) { return token("module"); }),
      dll_symbol([](void*, const char*) { return reinterpret_cast<void*>(&install_store); }),
      procmgr_get_procname(process_name),
      acl_client_relay_init(hand_out_counters),
      schema_register_start(0),
      schema_register(0),
      schema_register_end(0),
      pthread_mutexattr_init(__real_pthread_mutexattr_init),
      pthread_mutexattr_settype(__real_pthread_mutexattr_settype),
      pthread_mutex_init(__real_pthread_mutex_init),
      regcomp(__real_regcomp) {
  for (uint32_t i = 0; i < kCategories; ++i) {
    categories[i].enabled = 1;
    categories[i].index = i;
  }
}

Platform& platform() {
  const Backstage backstage;
  static Platform* const instance = new Platform;
  return *instance;
}

acl_client_relay_entry* main_counters() {
  static auto* const block = new acl_client_relay_entry[ACL_CLIENT_RELAY_ENTRIES]();
  return block;
}

acl_client_relay_entry* error_counters() {
  static auto* const block = new acl_client_relay_entry[ACL_CLIENT_RELAY_ENTRIES]();
  return block;
}

}  // namespace es_test
