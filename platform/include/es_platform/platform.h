/* The seam between the library and its host: conventions shared by the service headers of this directory.
 *
 * Each header is the contract of one service. What stands behind it may be replaced as a whole (the tests do); nothing
 * above this directory may know what stands behind it.
 *
 *   - Results of type uint32_t are statuses: 0, a POSIX errno value, or a code of the service's own. A result of
 *     PLATFORM_FAILED (all bits set, -1) says that the status stands in the thread's errno.
 *   - Any thread may call any operation unless the header says otherwise.
 *   - "Blocks" is said where an operation may wait for another process, a deadline or a callback. */
#ifndef ES_PLATFORM_PLATFORM_H_
#define ES_PLATFORM_PLATFORM_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define PLATFORM_BEGIN_DECLS extern "C" {
#define PLATFORM_END_DECLS }
#else
#define PLATFORM_BEGIN_DECLS
#define PLATFORM_END_DECLS
#endif
#define PLATFORM_API __attribute__((visibility("default")))

#define PLATFORM_FAILED UINT32_C(0xffffffff)

#endif /* ES_PLATFORM_PLATFORM_H_ */
