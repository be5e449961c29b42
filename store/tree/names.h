// The ACLs of this process by name.
//
// Thread-safe: lookups share a lock and do not wait for one another. It is the store's own lock and not
// es_acl_hmutex, which each initialisation of the library sets up anew while lookups may be under way, and
// which would serialise them.
#ifndef ES_ACL_STORE_TREE_NAMES_H_
#define ES_ACL_STORE_TREE_NAMES_H_

#include <memory>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>

#include "acl.h"

namespace es_tree {

class Names {
 public:
  // A name from outside: empty when null or longer than ES_ACL_NAME_MAX, and read no further than that.
  static std::string_view view(const char* name) noexcept;

  Acl* find(std::string_view name) const;
  // Null when the name is present. Throws std::bad_alloc.
  Acl* create(std::string_view name);
  // The ACL, no longer to be found; null when the name is not present.
  std::unique_ptr<Acl> take(std::string_view name);
  // The same for this very ACL.
  std::unique_ptr<Acl> take(Acl* acl);
  uint32_t size() const;

 private:
  mutable std::shared_mutex mutex_;
  std::unordered_map<std::string_view, std::unique_ptr<Acl>> acls_;  // the keys are the ACLs' own names
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_NAMES_H_
