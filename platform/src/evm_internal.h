// What the platform's own services need of the event manager beyond its contract.
#ifndef ES_PLATFORM_SRC_EVM_INTERNAL_H_
#define ES_PLATFORM_SRC_EVM_INTERNAL_H_

#include <cstdint>

#include "es_platform/evm.h"

namespace es_platform {

// Lets `handler` run, on the dispatching thread, whenever `fd` is readable. The result is the watch's event
// code, or -1 with errno. Such handlers are not counted in the result of evm_dispatch(). The descriptor stays
// the caller's.
int evm_watch(evm* manager, int fd, evm_async_handler handler, void* context);
// Ends the watch; afterwards its handler is not running on another thread and does not run again. Before fd
// is closed.
void evm_unwatch(evm* manager, int code);

// Steps: what the dispatching thread does is divided into numbered steps. A step begins when a handler is
// entered, and when evm_next_step() is called; it ends when the next one begins or the handler returns.
// Numbers are never used twice.
//
// A handler that takes up one piece of work after another notes the step in each piece; whoever is to free a
// piece waits until that step has passed.

// Begins a new step and returns its number; 0 when the calling thread is not inside the handler of that code.
uint64_t evm_next_step(evm* manager, int code);
// Waits while the step is going on, on another thread. Step 0 has always passed.
void evm_wait_step_passed(evm* manager, uint64_t step);

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_EVM_INTERNAL_H_
