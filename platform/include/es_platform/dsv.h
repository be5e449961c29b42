/* Name registration service (DSV): which names a process uses, and where on the bus each can be asked for.
 *
 * A class is a family of names that one producer serves. Consumers register names of a class; a producer publishes them
 * (pcx_producer.h). Every operation below refuses null arguments with 22. */
#ifndef ES_PLATFORM_DSV_H_
#define ES_PLATFORM_DSV_H_

#include "es_platform/platform.h"

/* No data is registered under the name. */
#define DSV_NO_DATA UINT32_C(0xa2ce3000)

PLATFORM_BEGIN_DECLS

/* Starts the service for the process. `ctx` is its event manager, kept only. Any number of times. 0 or an errno value. */
PLATFORM_API uint32_t dsv_init(void* ctx, uint32_t flags);

/* Finds or makes the class of that name and writes its handle (never 0). The numbers are 0 and 1. 0, 12, or 22 (a class
 * name must be usable as a file name: [A-Za-z0-9_.-], at most 64 characters). */
PLATFORM_API uint32_t dsv_create_class(const char* name, uint32_t flags, uint32_t mode,
                                       uint32_t* class_handle);

/* Registers a name and writes the registration's handle (8 bytes, never null, unique in the process's life). Needs no
 * producer and does not block. 0, 12, 22. The handle is the bus's to register (pcx.h) and to withdraw with
 * pcx_unregister(). Names have 1 to 255 bytes. */
PLATFORM_API uint32_t dsv_register(uint32_t class_handle, const char* name, void** reg_handle);

/* The same for `count` names in one call. Writes two arrays of `count` elements from malloc(), the caller's to free:
 * the handles, and a status for each name (0, or why it was not registered; its handle is then null). 0; or 12 or 22,
 * and then nothing is registered and both outputs are null. A count of 0 is fine. */
PLATFORM_API uint32_t dsv_register_bulk(uint32_t class_handle, const char* const* names, uint32_t count,
                                        void*** reg_handles, uint32_t** codes);

/* The bus address registered under a name, for pcx_read(). Asks the producer: blocks, at most for the bus's deadline.
 * 0; DSV_NO_DATA when there is no producer or it does not publish the name; 11, 12, 22, 62 as pcx_read(). The address
 * stays valid for the life of the process, also across a restart of the producer. When many names are looked up in short
 * order, one that the producer has just withdrawn may be found for up to a tenth of a second more. */
PLATFORM_API uint32_t dsv_lookup_data(uint32_t class_handle, const char* name, void** data);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_DSV_H_ */
