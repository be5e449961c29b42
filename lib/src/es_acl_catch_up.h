// Making a copy the producer's list again: read anew, compare, apply the difference.
#ifndef ES_ACL_SRC_CATCH_UP_H_
#define ES_ACL_SRC_CATCH_UP_H_

#include <cstdint>

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

namespace es_acl {

class AclFill;

// What a copy has of its ACL: all ACEs, or those that are no remarks (a bulk get's).
enum class Form : uint8_t { whole, rules };

struct CatchUp {
  es_acl_status status = 0;
  bool refused = false;  // it was an update callback, or memory, that did not let a step be made
  uint64_t generation =
      0;                  // connection behind which the list was read, when status is 0 or a step was refused
  uint64_t as_of_ns = 0;  // the list is not older: nanoseconds of CLOCK_REALTIME
};

// Registers the ACL anew, so that nothing pushed before the read can come behind it, reads its list and applies the
// difference. Each request is made once. To be called at the ACL: in a use of the delivery thread, or in its fill, which
// then forgets what it has kept, and tells no callbacks of the difference.
CatchUp catch_up(es_acl_head* head, Form form, AclFill* fill);

}  // namespace es_acl

#endif  // ES_ACL_SRC_CATCH_UP_H_
