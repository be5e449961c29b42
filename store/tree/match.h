// First match of a frame's fields against one ACE. Pure; any thread.
#ifndef ES_ACL_STORE_TREE_MATCH_H_
#define ES_ACL_STORE_TREE_MATCH_H_

#include <cstdint>

#include "es_acl/es_acl_types.h"

namespace es_tree {

// A key in the form in which the comparisons are cheap.
class Matcher {
 public:
  explicit Matcher(const es_acl_match_key& key) noexcept;

  bool matches(const es_acl_ace& ace) const noexcept;

 private:
  const es_acl_match_key& key_;
  uint64_t src_;
  uint64_t dst_;
  uint64_t impossible_;  // ES_ACL_MATCH_* of the tags that the frame does not carry
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_MATCH_H_
