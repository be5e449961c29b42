#include "es_acl_gate.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"

namespace es_acl {
namespace {

using Kind = Stay::Kind;

// Never destroyed: the delivery thread may be at work while the process ends.
constinit std::mutex gate_mutex;
constinit Stay* stays[4096] = {};
pthread_cond_t stay_ended = PTHREAD_COND_INITIALIZER;
constinit uint32_t waiting = 0;
thread_local uint32_t uses_of_this_thread = 0;

// By the name, which is filled up with zeros.
Stay** place_of(const char (&name)[ES_ACL_NAME_FIELD_SIZE]) {
  uint64_t hash = 0;
  for (size_t at = 0; at < ES_ACL_NAME_MAX; at += sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, name + at, sizeof word);
    hash = (std::rotl(hash, 5) ^ word) * 0x9e3779b97f4a7c15u;
  }
  return &stays[hash >> 52];
}

void link_locked(Stay* stay) {
  stay->next = *stay->place;
  *stay->place = stay;
  stay->linked = true;
  if (stay->kind == Kind::use) ++uses_of_this_thread;
}

void unlink_locked(Stay* stay) {
  if (!stay->linked) return;
  Stay** at = stay->place;
  while (*at != stay) at = &(*at)->next;
  *at = stay->next;
  stay->linked = false;
  if (stay->kind == Kind::use) --uses_of_this_thread;
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

// Calls `visit` for the stays of that kind at the ACL of `here`, the newest first, until it says true; the stay it said
// that of, or null.
template <typename Visit>
Stay* visit_locked(const Stay& here, Kind kind, Visit visit) {
  for (Stay* stay = *here.place; stay != nullptr; stay = stay->next)
    if (stay->kind == kind && std::strcmp(stay->name, here.name) == 0 && visit(*stay)) return stay;
  return nullptr;
}

Stay* own_locked(const Stay& here, Kind kind) { return visit_locked(here, kind, on_this_thread); }
Stay* others_locked(const Stay& here, Kind kind) {
  return visit_locked(here, kind, [](const Stay& stay) { return !on_this_thread(stay); });
}
// A use that a teardown has to respect.
Stay* use_locked(const Stay& here) {
  return visit_locked(here, Kind::use, [](const Stay& stay) { return !stay.late; });
}
bool others_use_locked(const Stay& here) {
  return visit_locked(here, Kind::use,
                      [](const Stay& stay) { return !stay.late && !on_this_thread(stay); }) != nullptr;
}

}  // namespace

Stay::Stay(Kind its_kind, const char* its_name)
    : kind(its_kind),
      thread(pthread_self()),
      place((es_acl_wire_set_name(name, its_name != nullptr ? its_name : ""), place_of(name))) {}

// --- Uses ---

AclUse::AclUse(const char* its_name) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  enter_locked();
}

AclUse::AclUse(const char* its_name, const void* message, uint32_t length) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  AclFill* fill = nullptr;
  wait_locked([&] {
    fill = static_cast<AclFill*>(others_locked(*this, Kind::fill));
    return fill == nullptr || fill->has_room_locked();
  });
  kept_ = fill != nullptr;
  if (kept_)
    fill->keep_locked(message, length);
  else
    enter_locked();
}

AclUse::AclUse(const char* its_name, LinkEvent event) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  auto* const fill = static_cast<AclFill*>(others_locked(*this, Kind::fill));
  kept_ = fill != nullptr;
  if (kept_) {
    fill->link_changed_ = true;
    fill->link_lost_ = fill->link_lost_ || event.lost;
  } else {
    enter_locked();
  }
}

AclUse::AclUse(const char* its_name, Look) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  kept_ = others_locked(*this, Kind::fill) != nullptr;
  if (!kept_) enter_locked();
}

AclUse::AclUse(const char* its_name, WhenGone) : Stay(Kind::use, its_name) {
  const std::lock_guard lock(gate_mutex);
  if (uses_of_this_thread == 0)
    wait_locked([this] { return others_locked(*this, Kind::teardown) == nullptr; });
  enter_locked();
}

// What is inside a use that leaves the head alone does so too, unless the ACL has been got again in there.
void AclUse::enter_locked() {
  const Stay* const around = own_locked(*this, Kind::use);
  const bool outdated = around != nullptr && around->leaving.load(std::memory_order_relaxed) &&
                        own_locked(*this, Kind::fill) == nullptr;
  late = others_locked(*this, Kind::teardown) != nullptr;
  Stay::leaving.store(late || outdated, std::memory_order_relaxed);
  link_locked(this);
}

AclUse::~AclUse() {
  std::optional<Stay> teardown;
  {
    const std::lock_guard lock(gate_mutex);
    end_locked(this);
    if (left_head_ == nullptr) return;
    if (auto* other = static_cast<AclUse*>(use_locked(*this))) {
      other->left_head_ = left_head_;
      other->left_work_ = left_work_;
      return;
    }
    link_locked(&teardown.emplace(Kind::teardown, name));
  }
  left_work_(left_head_);
  const std::lock_guard lock(gate_mutex);
  end_locked(&*teardown);
}

void AclArrival::keep() {
  const std::lock_guard lock(gate_mutex);
  visit_locked(*this, Kind::use, [](Stay& stay) {
    static_cast<AclUse&>(stay).left_head_ = nullptr;
    return false;
  });
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
  if (own_locked(*this, kind) != nullptr) return;
  visit_locked(*this, Kind::use, [](Stay& stay) {
    if (!on_this_thread(stay)) stay.leaving.store(true, std::memory_order_relaxed);
    return false;
  });
  link_locked(this);
}

AclFill::~AclFill() {
  {
    const std::lock_guard lock(gate_mutex);
    end_locked(this);
  }
  forget();
}

void AclFill::forget() {
  Message* message;
  {
    const std::lock_guard lock(gate_mutex);
    message = first_;
    first_ = nullptr;
    end_ = &first_;
    lost_ = false;
    link_lost_ = false;
  }
  while (message != nullptr) {
    Message* const done = message;
    message = message->next;
    std::free(done);
  }
}

bool AclFill::has_room_locked() const {
  constexpr uint32_t kMostAtEnd = 64;
  return !ending_ || kept_at_end_ < kMostAtEnd;
}

// Without memory to keep it the fill fails, and with it goes the list that would have missed the change.
void AclFill::keep_locked(const void* message, uint32_t length) {
  if (link_lost_) return;
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

AclFills::~AclFills() { std::destroy_n(fills_.get(), count_); }

bool AclFills::reserve(uint32_t count) {
  fills_ = uninitialised<AclFill>(count);
  return fills_ != nullptr;
}

void AclFills::begin(const char* name) { ::new (&fills_[count_++]) AclFill(name); }

void AclFills::give_up_last(void (*apply)(void* message, uint32_t length)) {
  fills_[count_ - 1].finish(apply);
}

uint32_t AclFills::finish(void (*apply)(void* message, uint32_t length)) {
  uint32_t rc = 0;
  for (uint32_t i = 0; i < count_ && rc == 0; ++i) rc = fills_[i].finish(apply);
  return rc;
}

bool AclFills::link_changed() const {
  return std::any_of(fills_.get(), fills_.get() + count_,
                     [](const AclFill& fill) { return fill.link_changed(); });
}

bool AclFills::link_lost() const {
  return std::any_of(fills_.get(), fills_.get() + count_,
                     [](const AclFill& fill) { return fill.link_lost(); });
}

// --- Teardowns ---

// The list of a fill that has failed is nothing that anybody may get again: that teardown is never left to others.
AclTeardown::AclTeardown(es_acl_head* head, TeardownWork work) : Stay(Kind::teardown, head->name) {
  const std::lock_guard lock(gate_mutex);
  if (own_locked(*this, kind) != nullptr) return;
  auto* const use = static_cast<AclUse*>(use_locked(*this));
  if (use != nullptr && uses_of_this_thread != 0 && own_locked(*this, Kind::fill) == nullptr) {
    use->left_head_ = head;
    use->left_work_ = work;
    granted_ = false;
    return;
  }
  link_locked(this);
  wait_locked([this] { return !others_use_locked(*this); });
}

bool teardown_waits(const char* name) {
  const Stay here(Kind::use, name);
  const std::lock_guard lock(gate_mutex);
  return others_locked(here, Kind::teardown) != nullptr;
}

AclTeardown::~AclTeardown() {
  const std::lock_guard lock(gate_mutex);
  end_locked(this);
}

}  // namespace es_acl
