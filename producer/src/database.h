// All ACLs of the producer as one immutable value. A new configuration makes a new database beside the old
// one; ACLs that did not change can be shared between the two, and both can be walked in name order to find
// what differs.
#ifndef ES_ACL_PRODUCER_DATABASE_H_
#define ES_ACL_PRODUCER_DATABASE_H_

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "acl.h"

namespace es_acl::producer {

class Database {
 public:
  using Acls = std::map<std::string, AclPtr, std::less<>>;

  // Precondition: no ACL of that name is held.
  void add(AclPtr acl);

  // Null when there is none of that name.
  AclPtr find(std::string_view name) const;
  // By name.
  const Acls& acls() const { return acls_; }

  size_t ace_count() const { return ace_count_; }        // of all ACLs, remarks included
  size_t remark_count() const { return remark_count_; }  // of all ACLs

 private:
  Acls acls_;
  size_t ace_count_ = 0;
  size_t remark_count_ = 0;
};

using DatabasePtr = std::shared_ptr<const Database>;

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_DATABASE_H_
