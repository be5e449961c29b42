// Getting many ACLs by one call of the library.
#ifndef ES_ACL_TOOLS_BULK_H_
#define ES_ACL_TOOLS_BULK_H_

#include <span>
#include <string>
#include <vector>

#include "client.h"

namespace es_acl::tool {

struct BulkAnswer {
  AclHandle acl;  // null when the status is not 0
  uint32_t status;
};

// One for each name, in their order. Valid names only. May sleep a tenth of a second or two while ACLs are being changed.
std::vector<BulkAnswer> get_in_bulk(std::span<std::string> names);

// Whether a get of this ACL alone can tell more: it has no rules, but perhaps remarks; or has been changing all the time.
bool asks_for_own_get(uint32_t status);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_BULK_H_
