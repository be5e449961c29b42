// A platform that does as the test says: every function records its call and plays back its script.
//
// Without a script every service works in the plainest way: registrations succeed with handles named
// "reg:NAME", the bus address of every name is "address:NAME", the producer is there and answers every
// request with zero bytes, all debug categories are on. Time is virtual: nanosleep() returns at once.
//
// Not recorded, because they are pure or hand out what the library is free to ask for at any time: error
// texts, the loader's error string.
#ifndef TESTS_SUPPORT_SCRIPTED_PLATFORM_H_
#define TESTS_SUPPORT_SCRIPTED_PLATFORM_H_

#include <pthread.h>
#include <regex.h>
#include <time.h>

#include <map>
#include <string>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "es_platform/diag.h"
#include "es_platform/list_registry.h"
#include "es_platform/loader.h"
#include "es_platform/mtimer.h"
#include "es_platform/pcx.h"
#include "es_platform/platform.h"
#include "es_platform/pool.h"
#include "es_platform/process.h"
#include "script.h"

namespace es_test {

using Bytes = std::vector<uint8_t>;

enum : uint32_t { kClass = 0xc1a55, kCategories = 6 };

struct Platform {
  Platform();

  // Name service and bus.
  Script<uint32_t(void*, uint32_t)> dsv_init;
  Script<uint32_t(const char*, uint32_t, uint32_t, uint32_t*)> dsv_create_class;
  Script<uint32_t(uint32_t, const char*, void**)> dsv_register;
  Script<uint32_t(uint32_t, const char*, void**)> dsv_lookup_data;
  Script<uint32_t(void*)> pcx_lr_init;
  Script<uint32_t(const pcx_context_record*)> pcx_set_context;
  Script<uint32_t(void*, uint32_t, uint64_t, pcx_handler)> pcx_register;
  Script<uint32_t(void*)> pcx_unregister;
  Script<uint32_t(void*)> pcx_query_producer;
  Script<uint32_t(void*, const void*, uint32_t, void*, uint32_t*)> pcx_read;
  Script<uint32_t(uint32_t)> pcx_get_optimum_msg_size;

  // Diagnostics.
  Script<uint32_t(debug_category**, void*, const char*, uint32_t)> acl_debug_init;
  Script<uint32_t(const char*, const char*, uint32_t, uint32_t, rlog_ctx**)> acl_rlog_init;
  Script<void(uint32_t category, const std::string& text)> line_printed;
  Script<void(const void*, const char*, uint32_t)> thread_mark_mutex_block;
  Script<void()> thread_unmark_mutex_block;
  std::vector<debug_category> categories;
  std::map<uint32_t, std::string> error_texts;  // what errcode_add_table() has added

  // The rest.
  Script<pool*(const char*, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t)> pool_create;
  Script<void*(pool*)> pool_take;
  Script<void*(const char*, int)> dll_open;
  Script<void*(void*, const char*)> dll_symbol;
  Script<uint32_t(char*, uint32_t*)> procmgr_get_procname;
  Script<uint32_t(const char*, const char*, acl_client_relay_entry**, acl_client_relay_entry**, void**)>
      acl_client_relay_init;
  Script<uint32_t(void*, void*, void*, void*, void*, void*)> schema_register_start;
  Script<uint32_t(const void*)> schema_register;
  Script<uint32_t()> schema_register_end;

  // POSIX calls of the library.
  Script<int(pthread_mutexattr_t*)> pthread_mutexattr_init;
  Script<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype;
  Script<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
  Script<int(regex_t*, const char*, int)> regcomp;
};

Platform& platform();

// The main and error counter blocks that acl_client_relay_init() hands out.
acl_client_relay_entry* main_counters();
acl_client_relay_entry* error_counters();

// What acl_rlog_init() does without a script: the buffer of that suffix, open again if it was closed.
uint32_t open_trace_buffer(const char* path, const char* suffix, uint32_t unique, uint32_t wrapping,
                           rlog_ctx** ctx);

// A step of pcx_read(): answers with these bytes.
Script<uint32_t(void*, const void*, uint32_t, void*, uint32_t*)>::Step answer(Bytes bytes);

// Lock steps of this mutex are recorded under this name.
void watch_mutex(const pthread_mutex_t* mutex, const std::string& name);
void unwatch_mutex(const pthread_mutex_t* mutex);

// Lets the n-th allocation of this thread fail (1 is the next) for as long as it lives; those of the test's
// own machinery do not count.
class FailAllocation {
 public:
  explicit FailAllocation(int nth);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;
  bool fired() const;
};

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPTED_PLATFORM_H_
