// What es_acl_get_db_pointer() returns with this store: a record for tools that look into a process, and for
// the owner process to tell which store it has.
#ifndef ES_ACL_STORE_TREE_ROOT_H_
#define ES_ACL_STORE_TREE_ROOT_H_

#include <stdint.h>

// One per process, at the same address for its life. Any thread may read it; `acl_count` changes meanwhile.
typedef struct es_acl_tree_root {
  uint32_t size;      /* of this record, in bytes: a later version only appends */
  uint32_t version;   /* 1 */
  uint32_t acl_count; /* ACLs in the store */
  uint32_t grace_ms;  /* how long a removed node that somebody may know, and its ACE, stay as they are */
} es_acl_tree_root;

#endif  // ES_ACL_STORE_TREE_ROOT_H_
