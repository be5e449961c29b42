// The consumer protocol's operations as the retrieval API needs them: with what the exported ones cannot
// tell.
#ifndef ES_ACL_SRC_CPCX_PRIVATE_H_
#define ES_ACL_SRC_CPCX_PRIVATE_H_

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"
#include "es_acl/es_acl_wire.h"
#include "es_platform/queue.h"

namespace es_acl {
class AclUse;

// es_acl_cpcx_read_acl(). *head_released says whether the head is gone: a status of 12 alone does not, for
// the bus may have returned it. *has_read says whether the producer has been asked: a status of 0 alone does not, for
// there may be none.
es_acl_status read_acl(es_acl_head* head, bool* head_released, bool* has_read);

// Names as the bulk operations take them: fields that lie back to back.
struct NameField {
  char text[ES_ACL_NAME_FIELD_SIZE];
};
static_assert(sizeof(NameField) == ES_ACL_NAME_FIELD_SIZE);

// es_acl_cpcx_query_acl_count_bulk(). *address receives where the names were found, for the read that follows.
es_acl_status query_acl_count_bulk(const NameField* acl_names, uint32_t* num_aces, uint32_t* num_rem_aces,
                                   uint32_t count, void** address);

// The arguments of es_acl_cpcx_read_acl_bulk(): arrays of `count` elements.
struct BulkAcls {
  es_acl_head* const* heads;
  const NameField* names;
  const uint32_t* num_aces;
  const uint32_t* num_rem_aces;
  uint32_t count;
};

// The read, from that address. What is pushed meanwhile is the caller's to keep (AclFill).
es_acl_status read_acl_bulk(const BulkAcls& acls, void* address);

// es_acl_global_handle shows the bus address that was found last; no operation relies on what others put there.
inline void publish_address(void* address) {
  __atomic_store_n(&es_acl_global_handle, address, __ATOMIC_RELAXED);
}
inline void* published_address() { return __atomic_load_n(&es_acl_global_handle, __ATOMIC_RELAXED); }

// es_acl_cpcx_handle_pcx_update_ace(), inside a use of the ACL. *complete becomes false when the store has not taken
// everything, which a status of 0 does not tell.
es_acl_status update_aces(const AclUse& use, uint32_t command, es_acl_pcx_acl_ace* records, uint32_t n,
                          es_acl_head** head, uint32_t* changed, bool* complete);

// One pushed batch of n records in host byte order, and the ACL that is to be changed by it.
struct PushedBatch {
  es_acl_head* acl;
  uint32_t command;
  es_acl_pcx_acl_ace* records;
  uint32_t n;
};

// Applies a pushed change that was kept aside while this thread filled its ACL.
void apply_kept_message(void* payload, uint32_t length);

// Names in debug lines and trace records: the dispatcher's, and that of what applies batches.
inline constexpr char kHandler[] = "es_acl_cpcx_handler";
inline constexpr char kUpdate[] = "es_acl_cpcx_handle_pcx_update_ace";

// A message as the bus delivers it, of which nothing may be read behind its end.
struct Message {
  void* bytes;
  uint32_t length;

  bool holds(uint64_t size) const { return bytes != nullptr && length >= size; }
  // The 32-bit word at the offset, in wire order; 0 where the message has ended.
  uint32_t word(uint32_t offset) const;
  template <typename Record>
  Record* as() const {
    return static_cast<Record*>(bytes);
  }
};

// Says that the message is shorter than what it names. False, for the caller to return.
bool refuse_short(const Message& message);
// Whether the message has a sub-command, its first word; says so when it has none.
bool has_command(const Message& message);
// What the dispatcher says of a record whose version it does not know: `format` takes its name, 1 and the version.
void refuse_version(const char* format, uint32_t version);

// Answers one of the producer's questions, or says why not.
void answer_sync_request(const Message& message, void** response, uint32_t* response_length);

// Resource questions that are held until the producer asks for the answer or withdraws them: elements of
// HeldQuery. Used on the delivery thread only.
struct HeldQuery {
  void* link;  // the queue's
  es_acl_pcx_res_query_req request;
  es_acl_pcx_acl_ace* candidates() { return reinterpret_cast<es_acl_pcx_acl_ace*>(this + 1); }
};
extern linked_queue es_acl_held_res_queries;

// Checks or withdraws the held question that the request names. The request is in host byte order; `cancel` non-zero
// withdraws. What the callbacks say, or 0 when there is nothing to check; 22 no such question; 12.
es_acl_status es_acl_cpcx_verify_resource_availability(const es_acl_pcx_res_query_req* request,
                                                       uint32_t cancel);

}  // namespace es_acl

#endif  // ES_ACL_SRC_CPCX_PRIVATE_H_
