// Name service and bus of the scripted platform.
#include <cstring>

#include "es_platform/dsv.h"
#include "scripted_call.h"
#include "scripted_platform.h"

using es_test::platform;
using es_test::ScriptedCall;

extern "C" {

uint32_t dsv_init(void* ctx, uint32_t flags) {
  const ScriptedCall call("dsv_init", ctx, flags);
  return platform().dsv_init(ctx, flags);
}

uint32_t dsv_create_class(const char* name, uint32_t flags, uint32_t mode, uint32_t* class_handle) {
  const ScriptedCall call("dsv_create_class", name, flags, mode);
  return platform().dsv_create_class(name, flags, mode, class_handle);
}

uint32_t dsv_register(uint32_t class_handle, const char* name, void** reg_handle) {
  const ScriptedCall call("dsv_register", class_handle, name);
  return platform().dsv_register(class_handle, name, reg_handle);
}

uint32_t dsv_lookup_data(uint32_t class_handle, const char* name, void** data) {
  const ScriptedCall call("dsv_lookup_data", class_handle, name);
  return platform().dsv_lookup_data(class_handle, name, data);
}

uint32_t pcx_lr_init(void* ctx) {
  const ScriptedCall call("pcx_lr_init", ctx);
  return platform().pcx_lr_init(ctx);
}

uint32_t pcx_set_context(const pcx_context_record* record) {
  const ScriptedCall call("pcx_set_context", record->evm_ctx, record->class_handle);
  return platform().pcx_set_context(record);
}

uint32_t pcx_register(void* reg_handle, uint32_t flags, uint64_t context, pcx_handler handler) {
  const ScriptedCall call("pcx_register", reg_handle, flags, context, reinterpret_cast<void*>(handler));
  return platform().pcx_register(reg_handle, flags, context, handler);
}

uint32_t pcx_unregister(void* reg_handle) {
  const ScriptedCall call("pcx_unregister", reg_handle);
  return platform().pcx_unregister(reg_handle);
}

uint32_t pcx_query_producer(void* reg_handle) {
  const ScriptedCall call("pcx_query_producer", reg_handle);
  return platform().pcx_query_producer(reg_handle);
}

uint32_t pcx_read(void* handle, const void* request, uint32_t request_length, void* answer_buffer,
                  uint32_t* answer_length) {
  const es_test::Backstage backstage;
  const auto* bytes = static_cast<const uint8_t*>(request);
  es_test::record({es_test::kCall,
                   es_test::describe("pcx_read", static_cast<const void*>(handle),
                                     es_test::Sized{request_length}, es_test::Capacity{*answer_length}),
                   es_test::Bytes(bytes, bytes + request_length),
                   {}});
  return platform().pcx_read(handle, request, request_length, answer_buffer, answer_length);
}

uint32_t pcx_get_optimum_msg_size(uint32_t class_handle) {
  const ScriptedCall call("pcx_get_optimum_msg_size", class_handle);
  return platform().pcx_get_optimum_msg_size(class_handle);
}

}  // extern "C"

namespace es_test {

Script<uint32_t(void*, const void*, uint32_t, void*, uint32_t*)>::Step answer(Bytes bytes) {
  return [bytes = std::move(bytes)](void*, const void*, uint32_t, void* buffer, uint32_t* length) {
    const size_t fits = std::min<size_t>(*length, bytes.size());
    if (fits > 0) memcpy(buffer, bytes.data(), fits);
    *length = static_cast<uint32_t>(bytes.size());
    return 0U;
  };
}

}  // namespace es_test
