/* The one place from which the platform's services take their time. */
#ifndef ES_PLATFORM_CLOCK_H_
#define ES_PLATFORM_CLOCK_H_

#include "es_platform/platform.h"

PLATFORM_BEGIN_DECLS

/* Monotonic time in nanoseconds. */
PLATFORM_API uint64_t clock_now_ns(void);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_CLOCK_H_ */
