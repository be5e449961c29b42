// What is said when something that concerns one ACL cannot be used.
#ifndef ES_ACL_SRC_REFUSAL_H_
#define ES_ACL_SRC_REFUSAL_H_

#include "es_acl_diag.h"

namespace es_acl {

// `status`, for the caller to return.
inline es_acl_status refuse_acl(const char* operation, const char* name, const char* why, uint64_t value,
                                es_acl_status status) {
  DBG_ERR("%s: acl %s: %s: %llu", operation, name, why, static_cast<unsigned long long>(value));
  trace_name(operation, why, name, value);
  return status;
}

}  // namespace es_acl

#endif  // ES_ACL_SRC_REFUSAL_H_
