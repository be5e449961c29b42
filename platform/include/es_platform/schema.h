/* Schema (data-description) registry: the descriptors of the records that a process can describe to others.
 *
 * A registration is a transaction of one thread: start, any number of registrations, then end or abort. */
#ifndef ES_PLATFORM_SCHEMA_H_
#define ES_PLATFORM_SCHEMA_H_

#include "es_platform/platform.h"

PLATFORM_BEGIN_DECLS

/* Begins a transaction. The arguments are the caller's to pass on and are not looked at here. 0, or 11 while
 * another thread is in one, 17 when this thread is. */
PLATFORM_API uint32_t schema_register_start(void* a, void* b, void* c, void* d, void* e, void* f);
/* Adds a descriptor, whose second word points to the record's name; it stays the caller's and must outlive
 * the process. 0, 12, 22 (null, or no transaction of this thread), 17 (another descriptor has this name; the
 * same one again is fine). */
PLATFORM_API uint32_t schema_register(const void* descriptor);
/* Ends the transaction without effect. */
PLATFORM_API void schema_register_abort(void);
/* Ends the transaction and publishes what it registered. 0, or 22 without one. */
PLATFORM_API uint32_t schema_register_end(void);
/* The published descriptor of that record name, or null. */
PLATFORM_API const void* schema_find(const char* name);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_SCHEMA_H_ */
