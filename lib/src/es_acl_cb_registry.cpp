// Registering and unregistering the four process-wide kinds of callbacks.
//
// Any thread; a registry may be walked meanwhile, and guards itself. What the operations print differs by kind.
#include <cerrno>

#include "es_acl/es_acl_callback.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"

namespace es_acl {

constinit CallbackRegistry es_acl_update_notify;
constinit CallbackRegistry es_acl_reseq_notify;
constinit CallbackRegistry es_acl_res_check_notify;
constinit CallbackRegistry es_acl_check_usage_notify;

list_registry* CallbackRegistry::get_or_create() {
  if (list_registry* made = get()) return made;
  const std::lock_guard lock(creation_);
  if (list_registry* made = get()) return made;
  list_registry* created = list_registry_create(0, 3);
  handle_.store(created, std::memory_order_release);
  return created;
}

namespace {

// Formats of one registration's failures, with the operation's name; null: prints nothing.
struct Texts {
  const char* null_function;
  const char* no_registry;
};

constexpr Texts kUsualTexts = {"%s: Invalid callback function", "%s:Memory allocation falied for registry"};
constexpr Texts kResequenceTexts = {"%s: Invalid acl or callback func", "%s: registry_create failed "};
constexpr Texts kUsageTexts = {nullptr, nullptr};

template <typename Function>
list_registry_function as_entry(Function function) {
  return reinterpret_cast<list_registry_function>(function);
}

void print_failure(const char* format, const char* operation) {
  if (format != nullptr) DBG_ERR(format, operation);
}

es_acl_status add(const char* operation, const Texts& texts, CallbackRegistry& registry,
                  list_registry_function function, void* context) {
  if (function == nullptr) {
    print_failure(texts.null_function, operation);
    return EINVAL;
  }
  list_registry* handle = registry.get_or_create();
  if (handle == nullptr) {
    print_failure(texts.no_registry, operation);
    trace(operation, "no memory for the registry", ENOMEM);
    return ENOMEM;
  }
  return list_registry_add(handle, function, context);
}

void remove(CallbackRegistry& registry, list_registry_function function, void* context) {
  if (list_registry* handle = registry.get()) list_registry_delete(handle, function, context);
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_register_update_callback(es_acl_update_cb function, void* context) {
  DBG_INFO("Entering : %s", __func__);
  return add(__func__, kUsualTexts, es_acl_update_notify, as_entry(function), context);
}

void es_acl_unregister_update_callback(es_acl_update_cb function, void* context) {
  DBG_INFO("Entering : %s", __func__);
  remove(es_acl_update_notify, as_entry(function), context);
}

es_acl_status es_acl_register_resequence_callback(es_acl_reseq_cb function, void* context) {
  DBG_INFO("Entering %s", __func__);
  return add(__func__, kResequenceTexts, es_acl_reseq_notify, as_entry(function), context);
}

void es_acl_unregister_resequence_callback(es_acl_reseq_cb function, void* context) {
  DBG_INFO("Entering : %s ", __func__);
  remove(es_acl_reseq_notify, as_entry(function), context);
}

es_acl_status es_acl_register_res_check_callback(es_acl_res_check_cb function, void* context) {
  DBG_INFO("Entering : %s", __func__);
  return add(__func__, kUsualTexts, es_acl_res_check_notify, as_entry(function), context);
}

void es_acl_unregister_res_check_callback(es_acl_res_check_cb function, void* context) {
  DBG_INFO("Entering : %s", __func__);
  remove(es_acl_res_check_notify, as_entry(function), context);
}

es_acl_status es_acl_register_check_usage_callback(es_acl_check_usage_cb function) {
  DBG_INFO("Entering : %s", __func__);
  return add(__func__, kUsageTexts, es_acl_check_usage_notify, as_entry(function), nullptr);
}

void es_acl_unregister_check_usage_callback(es_acl_check_usage_cb function) {
  DBG_INFO("Entering : %s", __func__);
  remove(es_acl_check_usage_notify, as_entry(function), nullptr);
}

uint32_t es_acl_res_check_required() { return es_acl_res_check_notify.get() != nullptr ? 1 : 0; }
