// Process-wide state that is not part of the exported interface. Written by the initialisation, on one
// thread, before any other operation runs; read by any thread afterwards.
#ifndef ES_ACL_SRC_STATE_H_
#define ES_ACL_SRC_STATE_H_

#include <regex.h>

#include <atomic>
#include <cstdint>

#include "es_platform/pool.h"

namespace es_acl {

constexpr size_t kStoreNameSize = 256;

extern void* es_acl_lib_ctx;                     // event manager of the successful owner initialisation
extern regex_t es_acl_name_regex;                // compiled name pattern
extern char es_acl_db_dll_name[kStoreNameSize];  // file name of the store plug-in
extern void* es_acl_db_dll_handle;               // the loaded plug-in, null while there is none
extern pool* es_acl_rules_pool;                  // 80-byte ACE records
extern uint32_t es_acl_dsv_class;                // name-service class, the library's own copy
extern std::atomic<uint32_t> es_acl_modify_mode;

}  // namespace es_acl

#endif  // ES_ACL_SRC_STATE_H_
