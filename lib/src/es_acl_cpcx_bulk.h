// What the bulk count query and the bulk read have in common: requests of as many names as travel well in one message.
#ifndef ES_ACL_SRC_CPCX_BULK_H_
#define ES_ACL_SRC_CPCX_BULK_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "es_acl/es_acl_wire.h"
#include "es_acl_buffer.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_retry.h"
#include "es_platform/pcx.h"

namespace es_acl {

// One request buffer, for all batches of a call.
class BulkRequest {
 public:
  // For batches of up to `count` names. ready() is false when there was no memory.
  BulkRequest(uint32_t command, uint64_t count)
      : command_(command), bytes_(zeroed<char>(sizeof(acl_pcx_bulk_req) + count * sizeof(NameField))) {}
  bool ready() const { return bytes_ != nullptr; }

  // How many names the first batch takes: the header and the names are to fit a message of `optimum_size` bytes, some of
  // which are held back. The difference wraps: with a size too small to say anything, all names go at once.
  static uint32_t first_batch(uint32_t count, uint32_t optimum_size) {
    constexpr uint32_t kHeldBack = 268;
    return std::min<uint32_t>(count, (optimum_size - kHeldBack) / uint32_t{sizeof(NameField)});
  }

  void clear() { names_ = 0; }
  // Appends the name, cut to 64 characters; returns it as it stands in the request.
  const char* add(const NameField& name) {
    char* const slot = bytes_.get() + length();
    es_acl_wire_set_name(slot, name.text);
    ++names_;
    return slot;
  }
  void drop_last() { --names_; }
  uint32_t names() const { return names_; }
  uint32_t length() const { return sizeof(acl_pcx_bulk_req) + names_ * uint32_t{sizeof(NameField)}; }

  // Sends what has been appended. Every attempt offers `room` bytes for the answer.
  uint32_t exchange(void* address, void* answer, uint32_t room, uint32_t* answer_length) {
    return with_retries(is_bus_passing, [&] {
      *answer_length = room;
      return send(address, answer, answer_length);
    });
  }
  // One attempt. *answer_length: the room in, the length out.
  uint32_t send(void* address, void* answer, uint32_t* answer_length) {
    acl_pcx_bulk_req header = {command_, ES_ACL_PCX_VERSION, names_, 1};
    es_acl_wire_bulk_req_order(&header);
    std::memcpy(bytes_.get(), &header, sizeof header);
    return status_of(pcx_read(address, bytes_.get(), length(), answer, answer_length));
  }

 private:
  const uint32_t command_;
  uint32_t names_ = 0;
  Buffer<char> bytes_;
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_CPCX_BULK_H_
