// The consumer's entry points of the bus.
#include "es_platform/pcx.h"

#include <atomic>

#include "bus/consumer.h"
#include "bus/frame.h"
#include "bus/settings.h"
#include "guard.h"

using es_platform::guarded;
using es_platform::bus::Consumer;
using es_platform::bus::Deadline;
using es_platform::bus::kMaxMessage;
using es_platform::bus::Link;
using es_platform::bus::settings;
using es_platform::bus::silence_limit_ms;

namespace {

constexpr uint32_t kBulkHandles = 1024;

// 0 when there is such a class, 22 when there is none.
uint32_t check_class(uint32_t class_handle) {
  return guarded([&]() -> uint32_t { return Consumer::instance().has_class(class_handle) ? 0 : EINVAL; });
}

// Registrations made while it stands go out together.
class HeldChanges {
 public:
  explicit HeldChanges(Link* link) : link_(link) {
    if (link_ != nullptr) link_->hold_changes();
  }
  ~HeldChanges() {
    if (link_ != nullptr) link_->send_changes();
  }
  HeldChanges(const HeldChanges&) = delete;
  HeldChanges& operator=(const HeldChanges&) = delete;

 private:
  Link* const link_;
};

}  // namespace

uint32_t pcx_lr_init(void* ctx) {
  static std::atomic<bool> started{false};
  if (ctx == nullptr) return EINVAL;
  return started.exchange(true) ? EEXIST : 0;
}

uint32_t pcx_set_context(const pcx_context_record* record) {
  if (record == nullptr || record->evm_ctx == nullptr || record->one != 1) return EINVAL;
  if (record->reserved0 != 0 || record->reserved20 != 0 || record->reserved28 != 0) return EINVAL;
  return check_class(record->class_handle);
}

uint32_t pcx_register(void* reg_handle, uint32_t flags, uint64_t context, pcx_handler handler) {
  if (handler == nullptr || flags != 0) return EINVAL;
  return guarded([&] { return Consumer::instance().start(reg_handle, context, handler); });
}

uint32_t pcx_get_num_bulk_handles(uint32_t class_handle) {
  return check_class(class_handle) == 0 ? kBulkHandles : 0;
}

uint32_t pcx_bulk_register(void* const* reg_handles, uint32_t* codes, uint32_t count, uint32_t zero1,
                           uint32_t zero2, uint64_t zero3, pcx_handler handler) {
  if (reg_handles == nullptr || codes == nullptr || handler == nullptr || count > kBulkHandles) return EINVAL;
  if (zero1 != 0 || zero2 != 0 || zero3 != 0) return EINVAL;
  const HeldChanges together(count != 0 ? Consumer::instance().link_of(reg_handles[0], true) : nullptr);
  for (uint32_t i = 0; i < count; ++i) {
    if (codes[i] == 0) codes[i] = pcx_register(reg_handles[i], 0, 0, handler);
  }
  return 0;
}

uint32_t pcx_unregister(void* reg_handle) {
  return guarded([&] { return Consumer::instance().remove(reg_handle); });
}

uint32_t pcx_register_anew(void* reg_handle) {
  return guarded([&] { return Consumer::instance().start_anew(reg_handle); });
}

uint32_t pcx_set_link_handler(uint32_t class_handle, pcx_link_handler handler) {
  return guarded([&] { return Consumer::instance().set_link_handler(class_handle, handler); });
}

uint32_t pcx_set_inquiry_handler(uint32_t class_handle, pcx_inquiry_handler handler) {
  return guarded([&] { return Consumer::instance().set_inquiry_handler(class_handle, handler); });
}

uint64_t pcx_generation(uint32_t class_handle) {
  uint64_t generation = 0;
  guarded([&]() -> uint32_t {
    Link* link = Consumer::instance().link_of_class(class_handle);
    if (link != nullptr) generation = link->generation(Deadline::in_ms(settings().deadline_ms));
    return 0;
  });
  return generation;
}

uint32_t pcx_silence_ms(uint32_t class_handle) {
  uint32_t silence_ms = UINT32_MAX;
  guarded([&]() -> uint32_t {
    const Link* link = Consumer::instance().link_of_class(class_handle);
    if (link != nullptr) silence_ms = link->silence_ms();
    return 0;
  });
  return silence_ms;
}

uint32_t pcx_silence_limit_ms(uint32_t class_handle) {
  return check_class(class_handle) == 0 ? silence_limit_ms() : 0;
}

uint32_t pcx_renew_later(void* reg_handle, uint32_t delay_ms) {
  return guarded([&] { return Consumer::instance().renew_later(reg_handle, delay_ms); });
}

uint32_t pcx_query_producer(void* reg_handle) {
  return guarded([&]() -> uint32_t {
    Link* link = Consumer::instance().link_of(reg_handle, true);
    if (link == nullptr) return EINVAL;
    const uint32_t status = link->connect(Deadline::in_ms(settings().deadline_ms));
    return status == ESRCH ? ENOENT : status;
  });
}

uint32_t pcx_read(void* handle, const void* request, uint32_t request_length, void* answer,
                  uint32_t* answer_length) {
  if (answer_length == nullptr || (request == nullptr && request_length != 0) || request_length > kMaxMessage)
    return EINVAL;
  if (answer == nullptr && *answer_length != 0) return EINVAL;
  return guarded([&]() -> uint32_t {
    Link* link = Consumer::instance().link_of(handle, false);
    if (link == nullptr) return EINVAL;
    return link->request(request, request_length, answer, answer_length,
                         Deadline::in_ms(settings().deadline_ms));
  });
}

uint32_t pcx_get_optimum_msg_size(uint32_t class_handle) {
  return check_class(class_handle) == 0 ? settings().optimum_size : 0;
}
