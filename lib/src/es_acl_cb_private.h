// The callback registries as their users inside the library see them.
#ifndef ES_ACL_SRC_CB_PRIVATE_H_
#define ES_ACL_SRC_CB_PRIVATE_H_

#include <atomic>
#include <memory>
#include <mutex>

#include "es_acl/es_acl_callback.h"
#include "es_platform/list_registry.h"

namespace es_acl {

// The registry of one kind of callbacks: none until the first registration, then there for the rest of the process.
// Created once, whoever comes first; any thread.
class CallbackRegistry {
 public:
  // Null while there is none.
  list_registry* get() const { return handle_.load(std::memory_order_acquire); }
  // Null when it cannot be created; the next call tries again.
  list_registry* get_or_create();

 private:
  std::atomic<list_registry*> handle_ = nullptr;
  std::mutex creation_;
};

struct EndOfCursor {
  void operator()(list_registry_cursor* cursor) const { list_registry_end(cursor); }
};

// Calls `call` for each entry until a result is decisive, or it throws. Returns the last result, 0 when nothing was called.
// No lock is held.
template <typename Function, typename Call>
uint32_t walk(list_registry* registry, bool (*decisive)(uint32_t), Call call) {
  uint32_t result = 0;
  list_registry_function function = nullptr;
  void* context = nullptr;
  std::unique_ptr<list_registry_cursor, EndOfCursor> cursor(
      list_registry_first(registry, &function, &context));
  while (cursor != nullptr) {
    if (function != nullptr) {
      result = call(reinterpret_cast<Function>(function), context);
      if (decisive(result)) break;
    }
    cursor.reset(list_registry_next(cursor.release(), &function, &context));
  }
  return result;
}

extern constinit CallbackRegistry es_acl_update_notify;
extern constinit CallbackRegistry es_acl_reseq_notify;
extern constinit CallbackRegistry es_acl_res_check_notify;
extern constinit CallbackRegistry es_acl_check_usage_notify;

// The trace record of es_acl_invoke_update_callback() when there is no registry.
void trace_untold();

// Prepares the ACL's timer leaf, and the process's timer tree when it is the first. Under the ACL's lock. 0, or why it
// could not be done.
es_acl_status es_acl_setup_callback_timer(es_acl_head* acl);

// Frees the ACL's timer leaf, if it has one, at its teardown; the event manager's thread is done with it then.
void free_callback_timer(const char* operation, es_acl_head* acl);

// Frees the ACL's notification entries, at its teardown.
void drop_notify_entries(es_acl_head* acl);

}  // namespace es_acl

#endif  // ES_ACL_SRC_CB_PRIVATE_H_
