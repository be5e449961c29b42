// What getting one ACL and getting many have in common.
#ifndef ES_ACL_SRC_GET_PRIVATE_H_
#define ES_ACL_SRC_GET_PRIVATE_H_

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

namespace es_acl {

// What became of one name. `result` is what the caller's result entry receives, unless there is nothing to
// tell.
struct Outcome {
  es_acl_head* head = nullptr;
  es_acl_status status = 0;
  bool has_result = true;
};

// One more holder of an ACL that is there. False when it is not.
bool share(const char* operation, const char* name, Outcome* outcome);

// An empty head of that name, which nobody else knows yet; or null.
es_acl_head* create_head(const char* operation, const char* name);

// Takes a head down that was not handed out, with its registration.
void discard_new_head(es_acl_head* head);

}  // namespace es_acl

#endif  // ES_ACL_SRC_GET_PRIVATE_H_
