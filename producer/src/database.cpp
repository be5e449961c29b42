#include "database.h"

#include <utility>

namespace es_acl::producer {

void Database::add(AclPtr acl) {
  ace_count_ += acl->size();
  remark_count_ += acl->remark_count();
  std::string name = acl->name();
  acls_.emplace(std::move(name), std::move(acl));
}

AclPtr Database::find(std::string_view name) const {
  const auto found = acls_.find(name);
  return found == acls_.end() ? nullptr : found->second;
}

}  // namespace es_acl::producer
