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

#include <map>

#include "es_acl/es_acl_store.h"
#include "es_platform/diag.h"
#include "es_platform/dsv.h"
#include "es_platform/evm.h"
#include "es_platform/list_registry.h"
#include "es_platform/loader.h"
#include "es_platform/mtimer.h"
#include "es_platform/pcx.h"
#include "es_platform/pool.h"
#include "es_platform/process.h"
#include "es_platform/schema.h"
#include "script.h"

// Every function that is recorded and scripted: X(what it does without a script, result, name, parameters,
// its arguments as they are handed on and shown).
#define SCRIPTED_FUNCTIONS(X)                                                                                \
  X(0, uint32_t, dsv_init, (void* ctx, uint32_t flags), ctx, flags)                                          \
  X(create_class, uint32_t, dsv_create_class,                                                                \
    (const char* name, uint32_t flags, uint32_t mode, uint32_t* made), name, flags, mode, made)              \
  X(make_registration, uint32_t, dsv_register, (uint32_t of, const char* name, void** made), of, name, made) \
  X(make_registrations, uint32_t, dsv_register_bulk,                                                         \
    (uint32_t of, const char* const* names, uint32_t count, void*** made, uint32_t** codes), of,             \
    (Elements{names, count}), count, made, codes)                                                            \
  X(find_address, uint32_t, dsv_lookup_data, (uint32_t of, const char* name, void** found), of, name, found) \
  X(0, uint32_t, pcx_lr_init, (void* ctx), ctx)                                                              \
  X(0, uint32_t, pcx_set_context, (const pcx_context_record* context), Context{context})                     \
  X(0, uint32_t, pcx_register, (void* handle, uint32_t flags, uint64_t context, pcx_handler handler),        \
    handle, flags, context, handler)                                                                         \
  X(1000, uint32_t, pcx_get_num_bulk_handles, (uint32_t of), of)                                             \
  X(0, uint32_t, pcx_bulk_register,                                                                          \
    (void* const* handles, uint32_t* codes, uint32_t count, uint32_t zero1, uint32_t zero2, uint64_t zero3,  \
     pcx_handler handler),                                                                                   \
    (Elements{handles, count}), codes, count, zero1, zero2, zero3, handler)                                  \
  X(0, uint32_t, pcx_unregister, (void* handle), handle)                                                     \
  X(0, uint32_t, pcx_query_producer, (void* handle), handle)                                                 \
  X(65536, uint32_t, pcx_get_optimum_msg_size, (uint32_t of), of)                                            \
  X(find_categories, uint32_t, acl_debug_init,                                                               \
    (debug_category * *found, void* ctx, const char* path, uint32_t count), found, ctx, path, count)         \
  X(open_trace_buffer, uint32_t, acl_rlog_init,                                                              \
    (const char* path, const char* suffix, uint32_t unique, uint32_t wrapping, rlog_ctx** opened), path,     \
    suffix, unique, wrapping, opened)                                                                        \
  X(close_trace_buffer, void, acl_rlog_close, (rlog_ctx * buffer), buffer)                                   \
  X(nothing, void, thread_mark_mutex_block, (const void* mutex, const char* name, uint32_t n), mutex, name,  \
    n)                                                                                                       \
  X(nothing, void, thread_unmark_mutex_block, ())                                                            \
  X(make_pool, pool*, pool_create,                                                                           \
    (const char* name, uint32_t size, uint32_t per_chunk, uint32_t flags, uint32_t a, uint32_t b), name,     \
    size, per_chunk, flags, a, b)                                                                            \
  X(take_element, void*, pool_take, (pool * from), from)                                                     \
  X(give_element, void, pool_give, (pool * to, void* element), to, element)                                  \
  X(open_module, void*, dll_open, (const char* name, int mode), name, mode)                                  \
  X(find_symbol, void*, dll_symbol, (void* module, const char* symbol), module, symbol)                      \
  X(nothing, void, dll_close, (void* module), module)                                                        \
  X(process_name, uint32_t, procmgr_get_procname, (char* name, uint32_t* length), name, Capacity{length})    \
  X(find_counters, uint32_t, acl_client_relay_init,                                                          \
    (const char* component, const char* process, acl_client_relay_entry** main,                              \
     acl_client_relay_entry** error, void** history),                                                        \
    component, process, main, error, history)                                                                \
  X(0, uint32_t, schema_register_start, (void* a, void* b, void* c, void* d, void* e, void* f), a, b, c, d,  \
    e, f)                                                                                                    \
  X(0, uint32_t, schema_register, (const void* descriptor), descriptor)                                      \
  X(nothing, void, schema_register_abort, ())                                                                \
  X(0, uint32_t, schema_register_end, ())                                                                    \
  X(free_leaf, void, mtimer_leaf_free, (mtimer_leaf * leaf), leaf)                                           \
  X(one_second, uint64_t, timer_one_second, ())                                                              \
  X(make_tree, mtimer_tree*, mtimer_tree_new, (const evm_sigevent* event, uint32_t flags), event, flags)     \
  X(make_leaf, mtimer_leaf*, mtimer_leaf_new,                                                                \
    (mtimer_tree * tree, uint16_t type, uint32_t flags, void* context), tree, type, flags, context)          \
  X(start_leaf, void, mtimer_leaf_start, (mtimer_leaf * leaf, uint64_t delay), leaf, delay)                  \
  X(stop_leaf, void, mtimer_leaf_stop, (mtimer_leaf * leaf), leaf)                                           \
  X(leaf_type, uint16_t, mtimer_leaf_get_type, (const mtimer_leaf* leaf), leaf)                              \
  X(leaf_context, void*, mtimer_leaf_get_context, (const mtimer_leaf* leaf), leaf)                           \
  X(tree_expired, int, mtimer_tree_expired, (mtimer_tree * tree), tree)                                      \
  X(first_expired, mtimer_leaf*, mtimer_tree_first_expired, (mtimer_tree * tree), tree)                      \
  X(7, int, evm_async_attach, (evm * manager, int code, evm_async_handler handler, void* context), manager,  \
    code, handler, context)                                                                                  \
  X(0, int, evm_init_sigevent, (evm * manager, int code, int value, uint64_t flags, evm_sigevent* event),    \
    manager, code, value, flags, event)                                                                      \
  X(make_registry, list_registry*, list_registry_create, (uint32_t flags, uint32_t kind), flags, kind)       \
  X(destroy_registry, void, list_registry_destroy, (list_registry * registry), registry)                     \
  X(add_entry, uint32_t, list_registry_add,                                                                  \
    (list_registry * registry, list_registry_function function, void* context), registry, function, context) \
  X(delete_entry, uint32_t, list_registry_delete,                                                            \
    (list_registry * registry, list_registry_function function, void* context), registry, function, context) \
  X(first_entry, list_registry_cursor*, list_registry_first,                                                 \
    (list_registry * registry, list_registry_function * function, void** context), registry, function,       \
    context)                                                                                                 \
  X(next_entry, list_registry_cursor*, list_registry_next,                                                   \
    (list_registry_cursor * cursor, list_registry_function * function, void** context), cursor, function,    \
    context)                                                                                                 \
  X(end_walk, void, list_registry_end, (list_registry_cursor * cursor), cursor)                              \
  X(name_of_process, uint32_t, proc_name_get, (int32_t pid, char* name, uint32_t size), pid, name, size)     \
  X(name_of_node, uint32_t, node_name_get, (char* name, uint32_t size), name, size)

// The same for what the library asks about its link to the producer, recorded as kLink.
#define SCRIPTED_LINK_FUNCTIONS(X)                                                                 \
  X(0, uint32_t, pcx_set_link_handler, (uint32_t of, pcx_link_handler handler), of, handler)       \
  X(0, uint32_t, pcx_set_inquiry_handler, (uint32_t of, pcx_inquiry_handler handler), of, handler) \
  X(1, uint64_t, pcx_generation, (uint32_t of), of)                                                \
  X(0, uint32_t, pcx_silence_ms, (uint32_t of), of)                                                \
  X(0, uint32_t, pcx_register_anew, (void* handle), handle)                                        \
  X(3000, uint32_t, pcx_silence_limit_ms, (uint32_t of), of)                                       \
  X(0, uint32_t, pcx_renew_later, (void* handle, uint32_t delay_ms), handle, delay_ms)

namespace es_test {

enum : uint32_t { kClass = 0xc1a55, kCategories = 6 };

// Shown word for word.
struct Context {
  operator const pcx_context_record*() const { return record; }
  const pcx_context_record* record;
};
inline std::string show(Context context) {
  const pcx_context_record& record = *context.record;
  return show(record.reserved0) + ", " + show(record.evm_ctx) + ", " + show(record.class_handle) + ", " +
         show(record.reserved20) + ", " + show(record.one) + ", " + show(record.reserved28);
}

// An array whose elements are shown.
template <class Element>
struct Elements {
  operator const Element*() const { return elements; }
  const Element* elements;
  uint32_t count;
};
template <class Element>
Elements(const Element*, uint32_t) -> Elements<Element>;
template <class Element>
std::string show(Elements<Element> list) {
  std::string shown;
  for (uint32_t i = 0; i < list.count; ++i) shown += (i == 0 ? "" : ", ") + show(list.elements[i]);
  return "[" + shown + "]";
}

struct Platform {
  Platform();

#define MEMBER(otherwise, result, name, ...) Script<decltype(::name)> name;
  SCRIPTED_FUNCTIONS(MEMBER)
  SCRIPTED_LINK_FUNCTIONS(MEMBER)
#undef MEMBER
  Script<decltype(::pcx_read)> pcx_read;
  Script<void(uint32_t category, const std::string& text)> line_printed;

  // POSIX calls of the library.
  Script<int(pthread_mutexattr_t*)> pthread_mutexattr_init;
  Script<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype;
  Script<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
  Script<int(regex_t*, const char*, int)> regcomp;

  std::vector<debug_category> categories;
  std::map<uint32_t, std::string> error_texts;  // what errcode_add_table() has added
};

Platform& platform();

// What acl_rlog_init() and acl_rlog_close() do without a script: the buffer of that suffix, open again if it
// was closed.
uint32_t open_trace_buffer(const char* path, const char* suffix, uint32_t unique, uint32_t wrapping,
                           rlog_ctx** ctx);
void close_trace_buffer(rlog_ctx* ctx);

// What dsv_register_bulk() does without a script.
uint32_t make_registrations(uint32_t of, const char* const* names, uint32_t count, void*** made,
                            uint32_t** codes);

// A step of pcx_read(): answers with these bytes.
Script<decltype(::pcx_read)>::Step answer(Bytes bytes);

// Lets the leaf's time come: it is expired until it is stopped or started again. What mtimer_leaf_start() was last
// given, 0 when the leaf is not running.
void expire(void* leaf);
uint64_t running_for(void* leaf);

// Lock steps of this mutex are recorded under this name.
void watch_mutex(const pthread_mutex_t* mutex, const std::string& name);
void unwatch_mutex(const pthread_mutex_t* mutex);

// From now on the n-th allocation of this thread fails (1 is the next); those of the test's own machinery do
// not count. Then: that is over; whether it has come to the failure.
void fail_allocation(int nth);
bool end_allocation_failure();

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPTED_PLATFORM_H_
