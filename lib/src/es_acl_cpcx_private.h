// The consumer protocol's operations as the retrieval API needs them: with what the exported ones cannot
// tell.
#ifndef ES_ACL_SRC_CPCX_PRIVATE_H_
#define ES_ACL_SRC_CPCX_PRIVATE_H_

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

namespace es_acl {

// es_acl_cpcx_read_acl(). *head_released says whether the head is gone: a status of 12 alone does not, for
// the bus may have returned it.
es_acl_status read_acl(es_acl_head* head, bool* head_released);

}  // namespace es_acl

#endif  // ES_ACL_SRC_CPCX_PRIVATE_H_
