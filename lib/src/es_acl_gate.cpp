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
pthread_cond_t stay_ended = PTHREAD_COND_INITIALIZER;
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

void end_locked(Stay* stay) {
  unlink_locked(stay);
  if (waiting != 0) pthread_cond_broadcast(&stay_ended);
}

// The condition is one about the stays.
template <typename Condition>
void wait_locked(Condition met) {
  ++waiting;
  while (!met()) pthread_cond_wait(&stay_ended, gate_mutex.native_handle());
  --waiting;
}

bool on_this_thread(const Stay& stay) { return pthread_equal(stay.thread, pthread_self()) != 0; }
bool at_acl(const Stay& stay, Kind kind, const char* name) {
  return stay.kind == kind && std::strcmp(stay.name, name) == 0;
}

// The newest stay that fits, or null.
template <typename Fits>
Stay* find_locked(Fits fits) {
  Stay* stay = stays;
  while (stay != nullptr && !fits(*stay)) stay = stay->next;
  return stay;
}

Stay* own_locked(Kind kind, const char* name) {
  return find_locked([&](const Stay& stay) { return at_acl(stay, kind, name) && on_this_thread(stay); });
}
Stay* others_locked(Kind kind, const char* name) {
  return find_locked([&](const Stay& stay) { return at_acl(stay, kind, name) && !on_this_thread(stay); });
}
bool in_a_use_locked() {
  return find_locked([](const Stay& stay) { return stay.kind == Kind::use && on_this_thread(stay); }) !=
         nullptr;
}
// A use that a teardown has to respect.
bool is_in_use(const Stay& stay, const char* name) { return at_acl(stay, Kind::use, name) && !stay.late; }
Stay* use_locked(const char* name) {
  return find_locked([&](const Stay& stay) { return is_in_use(stay, name); });
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
  AclFill* fill = nullptr;
  wait_locked([&] {
    fill = static_cast<AclFill*>(others_locked(Kind::fill, name));
    return fill == nullptr || fill->has_room_locked();
  });
  kept_ = fill != nullptr;
  if (kept_)
    fill->keep_locked(message, length);
  else
    enter_locked();
}

AclUse::AclUse(const char* its_name, WhenGone) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  if (!in_a_use_locked()) wait_locked([this] { return others_locked(Kind::teardown, name) == nullptr; });
  enter_locked();
}

// What is inside a use that leaves the head alone does so too, unless the ACL has been got again in there.
void AclUse::enter_locked() {
  const Stay* const around = own_locked(Kind::use, name);
  const bool outdated = around != nullptr && around->leaving.load(std::memory_order_relaxed) &&
                        own_locked(Kind::fill, name) == nullptr;
  late = others_locked(Kind::teardown, name) != nullptr;
  Stay::leaving.store(late || outdated, std::memory_order_relaxed);
  link_locked(this);
}

AclUse::~AclUse() {
  Stay teardown(Kind::teardown, name);
  {
    const std::lock_guard lock(gate_mutex);
    end_locked(this);
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
  end_locked(&teardown);
}

void AclArrival::keep() {
  const std::lock_guard lock(gate_mutex);
  for (Stay* stay = stays; stay != nullptr; stay = stay->next)
    if (at_acl(*stay, Kind::use, name)) static_cast<AclUse*>(stay)->left_head_ = nullptr;
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
  if (own_locked(kind, name) != nullptr) return;
  for (Stay* stay = stays; stay != nullptr; stay = stay->next)
    if (at_acl(*stay, Kind::use, name) && !on_this_thread(*stay))
      stay->leaving.store(true, std::memory_order_relaxed);
  link_locked(this);
}

AclFill::~AclFill() {
  {
    const std::lock_guard lock(gate_mutex);
    end_locked(this);
  }
  while (Message* message = first_) {
    first_ = message->next;
    std::free(message);
  }
}

bool AclFill::has_room_locked() const {
  constexpr uint32_t kMostAtEnd = 64;
  return !ending_ || kept_at_end_ < kMostAtEnd;
}

// Without memory to keep it the fill fails, and with it goes the list that would have missed the change.
void AclFill::keep_locked(const void* message, uint32_t length) {
  if (ending_) ++kept_at_end_;
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
  ending_ = true;
  Message* message = lost_ ? nullptr : first_;
  if (message == nullptr) {
    end_locked(this);
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

// The list of a fill that has failed is nothing that anybody may get again: that teardown is never left to others.
AclTeardown::AclTeardown(es_acl_head* head, TeardownWork work) : Stay(Kind::teardown, head->name) {
  const std::lock_guard lock(gate_mutex);
  if (own_locked(kind, name) != nullptr) return;
  auto* const use = static_cast<AclUse*>(use_locked(name));
  if (use != nullptr && in_a_use_locked() && own_locked(Kind::fill, name) == nullptr) {
    use->left_head_ = head;
    use->left_work_ = work;
    granted_ = false;
    return;
  }
  link_locked(this);
  wait_locked([this] {
    return find_locked([this](const Stay& stay) { return is_in_use(stay, name) && !on_this_thread(stay); }) ==
           nullptr;
  });
}

AclTeardown::~AclTeardown() {
  const std::lock_guard lock(gate_mutex);
  end_locked(this);
}

}  // namespace es_acl
