#include "es_acl_gate.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"

namespace es_acl {
namespace {

using Kind = Stay::Kind;

// Never destroyed: the delivery thread may be at work while the process ends.
constinit std::mutex gate_mutex;
constinit Stay* stays = nullptr;
pthread_cond_t use_ended = PTHREAD_COND_INITIALIZER;
constinit uint32_t waiting = 0;

void link_locked(Stay* stay) {
  stay->next = stays;
  stays = stay;
  stay->linked = true;
}

void unlink_locked(Stay* stay) {
  if (!stay->linked) return;
  Stay** at = &stays;
  while (*at != stay) at = &(*at)->next;
  *at = stay->next;
  stay->linked = false;
}

bool on_this_thread(const Stay& stay) { return pthread_equal(stay.thread, pthread_self()) != 0; }
bool at_acl(const Stay& stay, Kind kind, const char* name) {
  return stay.kind == kind && std::strcmp(stay.name, name) == 0;
}

// The first stay from `from` on that fits, or null.
template <typename Fits>
Stay* find_locked(Fits fits, Stay* from) {
  while (from != nullptr && !fits(*from)) from = from->next;
  return from;
}

Stay* use_locked(const char* name) {
  return find_locked([&](const Stay& stay) { return at_acl(stay, Kind::use, name); }, stays);
}
bool in_a_use_locked() {
  return find_locked([](const Stay& stay) { return stay.kind == Kind::use && on_this_thread(stay); },
                     stays) != nullptr;
}

// Calls `visit` for what other threads do at the ACL.
template <typename Visit>
void for_others_locked(Kind kind, const char* name, Visit visit) {
  for (Stay* stay = stays; stay != nullptr; stay = stay->next)
    if (at_acl(*stay, kind, name) && !on_this_thread(*stay)) visit(stay);
}
bool nested_locked(const Stay& stay) {
  return find_locked(
             [&](const Stay& other) { return at_acl(other, stay.kind, stay.name) && on_this_thread(other); },
             stays) != nullptr;
}

}  // namespace

Stay::Stay(Kind its_kind, const char* its_name) : kind(its_kind), thread(pthread_self()) {
  es_acl_wire_set_name(name, its_name != nullptr ? its_name : "");
}

// --- Uses ---

AclUse::AclUse(const char* its_name) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  enter_locked();
}

AclUse::AclUse(const char* its_name, const void* message, uint32_t length) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  for_others_locked(Kind::fill, name, [&](Stay* stay) {
    static_cast<AclFill*>(stay)->keep_locked(message, length);
    kept_ = true;
  });
  if (!kept_) enter_locked();
}

// A use that comes too late is not waited for: it does not touch the head.
void AclUse::enter_locked() {
  for_others_locked(Kind::teardown, name, [&](Stay*) { leaving_.store(true, std::memory_order_relaxed); });
  if (!leaving()) link_locked(this);
}

AclUse::~AclUse() {
  Stay teardown(Kind::teardown, name);
  {
    const std::lock_guard lock(gate_mutex);
    unlink_locked(this);
    if (waiting != 0) pthread_cond_broadcast(&use_ended);
    if (left_head_ == nullptr) return;
    if (auto* other = static_cast<AclUse*>(use_locked(name))) {
      other->left_head_ = left_head_;
      other->left_work_ = left_work_;
      return;
    }
    link_locked(&teardown);
  }
  left_work_(left_head_);
  const std::lock_guard lock(gate_mutex);
  unlink_locked(&teardown);
}

// --- Fills ---

struct AclFill::Message {
  Message* next;
  uint32_t length;
  alignas(8) unsigned char bytes[1];  // `length` of them
};

// What an earlier copy of this ACL was still to be told is older than what will be read.
AclFill::AclFill(const char* its_name) : Stay(Kind::fill, its_name) {
  const std::lock_guard lock(gate_mutex);
  if (nested_locked(*this)) return;
  for_others_locked(Kind::use, name, [](Stay* stay) {
    static_cast<AclUse*>(stay)->leaving_.store(true, std::memory_order_relaxed);
  });
  link_locked(this);
}

AclFill::~AclFill() {
  {
    const std::lock_guard lock(gate_mutex);
    unlink_locked(this);
  }
  while (Message* message = first_) {
    first_ = message->next;
    std::free(message);
  }
}

// Without memory to keep it the fill fails, and with it goes the list that would have missed the change.
void AclFill::keep_locked(const void* message, uint32_t length) {
  auto* kept = static_cast<Message*>(std::malloc(offsetof(Message, bytes) + length));
  if (kept == nullptr) {
    lost_ = true;
    return;
  }
  kept->next = nullptr;
  kept->length = length;
  std::memcpy(kept->bytes, message, length);
  *end_ = kept;
  end_ = &kept->next;
}

// The next message; null ends the fill.
AclFill::Message* AclFill::take() {
  const std::lock_guard lock(gate_mutex);
  Message* message = lost_ ? nullptr : first_;
  if (message == nullptr) {
    unlink_locked(this);
    return nullptr;
  }
  first_ = message->next;
  if (first_ == nullptr) end_ = &first_;
  return message;
}

uint32_t AclFill::finish(void (*apply)(void* message, uint32_t length)) {
  if (!linked) return 0;
  while (Message* message = take()) {
    apply(message->bytes, message->length);
    std::free(message);
  }
  return lost_ ? ENOMEM : 0;
}

// --- Teardowns ---

AclTeardown::AclTeardown(es_acl_head* head, TeardownWork work) : Stay(Kind::teardown, head->name) {
  std::unique_lock lock(gate_mutex);
  if (nested_locked(*this)) return;
  if (in_a_use_locked()) {
    if (auto* use = static_cast<AclUse*>(use_locked(name))) {
      use->left_head_ = head;
      use->left_work_ = work;
      granted_ = false;
      return;
    }
  }
  link_locked(this);
  ++waiting;
  while (use_locked(name) != nullptr) pthread_cond_wait(&use_ended, gate_mutex.native_handle());
  --waiting;
}

AclTeardown::~AclTeardown() {
  const std::lock_guard lock(gate_mutex);
  unlink_locked(this);
}

}  // namespace es_acl
