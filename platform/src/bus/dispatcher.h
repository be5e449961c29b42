// The delivery thread of a consumer process: one, started at the first subscription, serving the event
// connections of all classes. It is never stopped.
#ifndef ES_PLATFORM_SRC_BUS_DISPATCHER_H_
#define ES_PLATFORM_SRC_BUS_DISPATCHER_H_

#include <mutex>
#include <vector>

#include "bus/unix_socket.h"

namespace es_platform::bus {

class UnixEvents;

class Dispatcher {
 public:
  static Dispatcher& instance();

  // Takes the connection into service, once, and starts the thread. May throw std::bad_alloc.
  void add(UnixEvents* events);
  // Makes the thread look again at what there is to wait for.
  void wake() noexcept;

 private:
  Dispatcher();
  void run();
  void serve_once(std::vector<UnixEvents*>* served);

  Fd wake_;
  std::mutex mutex_;
  std::vector<UnixEvents*> events_;
  bool running_ = false;
};

// Starts a thread that takes no signals: they are the program's. May throw std::bad_alloc.
void start_quiet_thread(void* (*run)(void*), void* argument, pthread_t* thread);

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_DISPATCHER_H_
