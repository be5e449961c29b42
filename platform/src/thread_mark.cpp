// Marks of threads that are about to block on a mutex. Each occupies one slot of a region that `es-diag
// threads` reads.
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "diag_file.h"
#include "es_platform/clock.h"
#include "guard.h"

namespace {

using es_platform::thread_slot;
using es_platform::threads_body;

thread_local thread_slot* my_slot = nullptr;

// Made at the first mark. Null without memory: then there are no marks.
threads_body* the_slots() {
  static auto* const body = static_cast<threads_body*>(es_platform::diag_region_new(
      es_platform::diag_kind::threads, "threads", nullptr, sizeof(threads_body)));
  return body;
}

thread_slot* claim_slot(threads_body& body) {
  const int32_t thread = gettid();
  for (thread_slot& slot : body.slots) {
    int32_t free = 0;
    if (std::atomic_ref(slot.thread).compare_exchange_strong(free, thread, std::memory_order_acquire))
      return &slot;
  }
  return nullptr;
}

template <typename Value>
void publish(Value& word, Value value) {
  std::atomic_ref(word).store(value, std::memory_order_release);
}

// Only the slot's owner changes its ticket.
void bump_ticket(thread_slot& slot) { publish(slot.ticket, slot.ticket + 1); }

// Word by word, as another process may be reading an earlier mark's name.
void publish_name(thread_slot& slot, const char* name) {
  uint64_t words[sizeof slot.name / sizeof(uint64_t)] = {};
  std::memcpy(words, name, strnlen(name, sizeof slot.name - 1));
  auto* to = reinterpret_cast<uint64_t*>(slot.name);
  for (size_t i = 0; i < std::size(words); ++i) publish(to[i], words[i]);
}

}  // namespace

void thread_mark_mutex_block(const void* mutex, const char* name, uint32_t number) {
  const es_platform::errno_keeper keeper;
  threads_body* const body = the_slots();
  if (body == nullptr || my_slot != nullptr) return;
  thread_slot* const slot = claim_slot(*body);
  if (slot == nullptr) return;
  publish(slot->since_ns, clock_now_ns());
  publish(slot->mutex, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(mutex)));
  publish(slot->number, number);
  publish_name(*slot, name != nullptr ? name : "(null)");
  bump_ticket(*slot);
  my_slot = slot;
}

void thread_unmark_mutex_block() {
  if (my_slot == nullptr) return;
  bump_ticket(*my_slot);
  publish(my_slot->thread, int32_t{0});
  my_slot = nullptr;
}
