// A file with names of ACLs, one a line: blanks around a name, empty lines, and what stands behind a '#' are passed over.
#ifndef ES_ACL_TOOLS_NAME_LIST_H_
#define ES_ACL_TOOLS_NAME_LIST_H_

#include <string>
#include <vector>

namespace es_acl::tool {

// Appends the names of the file ("-": standard input) to `names`. Throws std::runtime_error, with what is wrong where and
// why, when the file cannot be read, has no name, or has one that cannot be an ACL's. After Client::start().
void read_name_list(const std::string& file, std::vector<std::string>* names);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_NAME_LIST_H_
