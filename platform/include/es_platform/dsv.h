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
PLATFORM_API uint32_t dsv_create_class(const char* name, uint32_t flags, uint32_t mode, uint32_t* class_handle);

/* Registers a name and writes the registration's handle (8 bytes, never null, unique in the process's life). Needs no
 * producer and does not block. 0, 12, 22. The handle is the bus's to register (pcx.h) and to withdraw with
 * pcx_unregister(). */
PLATFORM_API uint32_t dsv_register(uint32_t class_handle, const char* name, void** reg_handle);

/* The bus address registered under a name, for pcx_read(). Asks the producer: blocks, at most for the bus's deadline.
 * 0; DSV_NO_DATA when there is no producer or it does not publish the name; 11, 12, 22, 62 as pcx_read(). The address
 * stays valid for the life of the process, also across a restart of the producer. */
PLATFORM_API uint32_t dsv_lookup_data(uint32_t class_handle, const char* name, void** data);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_DSV_H_ */
