/* Dynamic loading of modules. */
#ifndef ES_PLATFORM_LOADER_H_
#define ES_PLATFORM_LOADER_H_

#include "es_platform/platform.h"

PLATFORM_BEGIN_DECLS

/* Opens a module; null on failure. A name without a slash is looked for beside this library's own file first,
 * then as dlopen() does. `mode` is 0: all symbols are bound now and kept from other modules. */
PLATFORM_API void* dll_open(const char* name, int mode);
/* The address of a symbol, or null. */
PLATFORM_API void* dll_symbol(void* module, const char* symbol);
PLATFORM_API void dll_close(void* module);
/* Why this thread's last dll_open() or dll_symbol() failed; never null. Valid until the thread's next call.
 */
PLATFORM_API const char* dll_error(void);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_LOADER_H_ */
