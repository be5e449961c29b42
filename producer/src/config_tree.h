// From a parsed and validated configuration tree to the database.
#ifndef ES_ACL_PRODUCER_CONFIG_TREE_H_
#define ES_ACL_PRODUCER_CONFIG_TREE_H_

#include <string>

#include "database.h"

struct lyd_node;

namespace es_acl::producer {

// `acls` is the container acls. ConfigError (without the file's name) for what the module's rules let pass
// but the record cannot hold.
DatabasePtr database_from_tree(const lyd_node* acls);

// Says which entry of which ACL (or which ACL) stands twice in a tree that was parsed without validation;
// empty when none does.
std::string describe_duplicate(const lyd_node* acls);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_CONFIG_TREE_H_
