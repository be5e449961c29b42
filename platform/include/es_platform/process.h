/* Process facts, and the client reporting channel. */
#ifndef ES_PLATFORM_PROCESS_H_
#define ES_PLATFORM_PROCESS_H_

#include "es_platform/platform.h"

/* A counter block is an array of these, 20 bytes each; the first word counts, and is incremented atomically.
 */
typedef struct acl_client_relay_entry {
  uint32_t count;
  uint32_t reserved[4];
} acl_client_relay_entry;

/* Entries of a counter block. */
#define ACL_CLIENT_RELAY_ENTRIES 128

PLATFORM_BEGIN_DECLS

/* The calling process's name. *length: the buffer's size in, the name's length without its NUL out. 0, or an
 * errno value and the buffer is untouched (ERANGE: it does not fit). */
PLATFORM_API uint32_t procmgr_get_procname(char* buffer, uint32_t* length);
/* A process's name by id, cut to size - 1 characters, NUL-terminated. 0, or an errno value (ESRCH). */
PLATFORM_API uint32_t proc_name_get(int32_t pid, char* buffer, uint32_t size);
/* The node's name, likewise. 0, or an errno value. */
PLATFORM_API uint32_t node_name_get(char* buffer, uint32_t size);

/* Opens the reporting channel of a component of this process: two zeroed blocks of ACL_CLIENT_RELAY_ENTRIES
 * counters and a history handle (a trace buffer, rlog_ctx*, called component + "_history"), which other
 * processes can read with es-diag. The same component again gives the same blocks. 0, 12 or 22; on failure
 * nothing is written. */
PLATFORM_API uint32_t acl_client_relay_init(const char* component, const char* process_name,
                                            acl_client_relay_entry** main_block,
                                            acl_client_relay_entry** error_block, void** history);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_PROCESS_H_ */
