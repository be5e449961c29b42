/* Event manager: the loop on which a process receives asynchronous events.
 *
 * A client either blocks in evm_run(), or puts evm_fd() into its own poll loop and calls evm_dispatch()
 * whenever the descriptor is readable. Handlers run on the thread that dispatches; one thread at a time
 * dispatches. Attaching, detaching and signalling may be done from any thread, also from inside a handler. */
#ifndef ES_PLATFORM_EVM_H_
#define ES_PLATFORM_EVM_H_

#include "es_platform/platform.h"

typedef struct evm evm;

/* Handler of an asynchronous event; `code` is the event's, `context` what it was attached with. */
typedef void (*evm_async_handler)(int code, void* context);

/* Ask evm_async_attach() for a free event code. */
#define EVM_CODE_ANY 128

/* A signal event: where a service (such as a timer tree) reports to. Filled by evm_init_sigevent(), copied
 * freely. */
typedef struct evm_sigevent {
  evm* manager;
  int32_t code;
  int32_t value;
  uint64_t flags;
} evm_sigevent;

PLATFORM_BEGIN_DECLS

/* Makes an event manager. 0, or an errno value (*out is then null). */
PLATFORM_API uint32_t evm_create(evm** out);
/* Frees it. Nothing may use it any more, and no dispatch may be going on. Null is allowed. */
PLATFORM_API void evm_destroy(evm* manager);

/* A descriptor that polls readable while evm_dispatch() has something to do. It belongs to the manager. */
PLATFORM_API int evm_fd(evm* manager);
/* Runs the handlers of what has happened; waits up to timeout_ms for something to happen (0: does not wait,
 * -1: without limit); may return 0 earlier, for an interrupting signal or work of the platform's own. The
 * number of handlers run, or -1 with errno (EBUSY: a dispatch is going on already, on another thread or
 * around this call). */
PLATFORM_API int evm_dispatch(evm* manager, int timeout_ms);
/* Dispatches until evm_stop() is called. Blocks. 0, or an errno value. */
PLATFORM_API uint32_t evm_run(evm* manager);
/* Ends evm_run(). From any thread or a signal handler. A stop before the run ends it at once. */
PLATFORM_API void evm_stop(evm* manager);

/* With code EVM_CODE_ANY attaches the handler and returns the event's code (never EVM_CODE_ANY itself); -1
 * with errno when it cannot. With another code and a null handler detaches that code: when it returns, the
 * handler is not running on another thread and does not run again. 0, or -1 with errno. EINVAL: other
 * arguments, or no such code; ENOMEM; ENOSPC. A code is never given out twice. */
PLATFORM_API int evm_async_attach(evm* manager, int code, evm_async_handler handler, void* context);

/* Fills `record` so that signalling it runs the code's handler. `value` and `flags` are carried, 0 for now.
 * 0, or -1 with errno (EINVAL: no such code). */
PLATFORM_API int evm_init_sigevent(evm* manager, int code, int value, uint64_t flags, evm_sigevent* record);
/* Runs the event's handler at the next dispatch; several signals before it count as one. 0, or 22: there is
 * no such code any more. */
PLATFORM_API uint32_t evm_signal(const evm_sigevent* record);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_EVM_H_ */
