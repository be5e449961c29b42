#include "bus/consumer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bus/frame.h"
#include "bus/settings.h"
#include "es_platform/dsv.h"

namespace es_platform::bus {

namespace {

// Handles carry a mark that no address of a process has, so that a stray pointer is not taken for one.
constexpr uint64_t kMarkMask = UINT64_C(0xffff) << 48;
constexpr uint64_t kRegistrationMark = UINT64_C(0xe5ac) << 48;
constexpr uint64_t kAddressMark = UINT64_C(0xe5ad) << 48;

void* handle_of(uint64_t mark, uint64_t number) { return reinterpret_cast<void*>(mark | number); }

// The number in a handle of that kind, 0 for any other.
uint64_t number_of(void* handle, uint64_t mark) {
  const auto bits = reinterpret_cast<uint64_t>(handle);
  return (bits & kMarkMask) == mark ? bits & ~kMarkMask : 0;
}

}  // namespace

// Lives as long as the process: the delivery thread may be calling handlers while exit handlers run.
Consumer& Consumer::instance() {
  static Consumer& consumer = *new Consumer;
  return consumer;
}

uint32_t Consumer::create_class(std::string_view name, uint32_t* class_handle) {
  std::lock_guard lock(mutex_);
  for (const auto& known : classes_) {
    if (known->name == name) return *class_handle = known->handle, 0;
  }
  const auto handle = static_cast<uint32_t>(classes_.size() + 1);
  classes_.push_back(std::make_unique<Class>(*this, handle, name));
  *class_handle = handle;
  return 0;
}

Consumer::Class* Consumer::class_locked(uint32_t class_handle) {
  return class_handle != 0 && class_handle <= classes_.size() ? classes_[class_handle - 1].get() : nullptr;
}

bool Consumer::has_class(uint32_t class_handle) {
  std::lock_guard lock(mutex_);
  return class_locked(class_handle) != nullptr;
}

uint32_t Consumer::add(uint32_t class_handle, std::string_view name, void** handle) {
  if (name.empty() || name.size() > kMaxName) return EINVAL;
  std::lock_guard lock(mutex_);
  Class* owner = class_locked(class_handle);
  if (owner == nullptr) return EINVAL;
  registrations_.emplace(next_registration_, Registration{owner, std::string(name)});
  *handle = handle_of(kRegistrationMark, next_registration_++);
  return 0;
}

uint32_t Consumer::start(void* handle, uint64_t context, pcx_handler handler) {
  std::lock_guard lock(mutex_);
  const uint64_t id = number_of(handle, kRegistrationMark);
  const auto found = registrations_.find(id);
  if (found == registrations_.end()) return EINVAL;
  Registration& registration = found->second;
  if (registration.handler != nullptr) return EEXIST;
  Renewals reserved = {{0, id}};
  const auto started = registration.owner->started.insert(id).first;
  try {
    join_topic_locked(registration, id);
  } catch (...) {
    registration.owner->started.erase(started);
    throw;
  }
  registration.renewal = reserved.extract(reserved.begin());
  registration.context = context;
  registration.handler = handler;
  return 0;
}

void Consumer::join_topic_locked(Registration& registration, uint64_t id) {
  Class& owner = *registration.owner;
  if (const auto found = owner.topic_of_name.find(registration.name); found != owner.topic_of_name.end()) {
    std::vector<uint64_t>& registrations = owner.topics.find(found->second)->second.registrations;
    registrations.insert(std::upper_bound(registrations.begin(), registrations.end(), id), id);
    return;
  }
  const uint64_t topic = next_topic_++;
  try {
    owner.topics.emplace(topic, Topic{registration.name, {id}});
    owner.topic_of_name.emplace(registration.name, topic);
    owner.link->subscribe(topic, registration.name);
  } catch (...) {
    owner.topic_of_name.erase(registration.name);
    owner.topics.erase(topic);
    throw;
  }
}

// The topic goes with its last registration: what is still under way for it finds nobody, also when the same
// name is registered again, since that makes a new topic.
void Consumer::leave_topic_locked(const Registration& registration, uint64_t id) {
  Class& owner = *registration.owner;
  const auto number = owner.topic_of_name.find(registration.name);
  const auto topic = owner.topics.find(number->second);
  std::erase(topic->second.registrations, id);
  if (!topic->second.registrations.empty()) return;
  owner.link->unsubscribe(topic->first);
  owner.topics.erase(topic);
  owner.topic_of_name.erase(number);
}

// The topic gets another number, under which nobody looks for what is still under way for the old one.
uint32_t Consumer::start_anew(void* handle) {
  std::unique_lock lock(mutex_);
  const uint64_t id = number_of(handle, kRegistrationMark);
  const auto found = registrations_.find(id);
  if (found == registrations_.end() || found->second.handler == nullptr) return EINVAL;
  Class& owner = *found->second.owner;
  uint64_t& number = owner.topic_of_name.find(found->second.name)->second;
  const uint64_t fresh = next_topic_++;
  owner.link->resubscribe(number, fresh);
  auto topic = owner.topics.extract(number);
  topic.key() = number = fresh;
  owner.topics.insert(std::move(topic));
  wait_for_handler_locked(lock, id);
  return 0;
}

uint32_t Consumer::remove(void* handle) {
  std::unique_lock lock(mutex_);
  const uint64_t id = number_of(handle, kRegistrationMark);
  const auto found = registrations_.find(id);
  if (found == registrations_.end()) return EINVAL;
  if (found->second.handler != nullptr) {
    leave_topic_locked(found->second, id);
    forget_renewal_locked(found->second, id);
    found->second.owner->started.erase(id);
  }
  registrations_.erase(found);
  wait_for_handler_locked(lock, id);
  return 0;
}

void Consumer::wait_for_handler_locked(std::unique_lock<std::mutex>& lock, uint64_t id) {
  if (running_ != id || running_on_ == std::this_thread::get_id()) return;
  ++waiting_for_handler_;
  handler_done_.wait(lock, [&] { return running_ != id; });
  --waiting_for_handler_;
}

// The topic's registration that follows `id`, 0 when there is none.
uint64_t Consumer::registration_after_locked(const Class& owner, uint64_t topic, uint64_t id) {
  const auto found = owner.topics.find(topic);
  if (found == owner.topics.end()) return 0;
  const std::vector<uint64_t>& registrations = found->second.registrations;
  const auto next = std::upper_bound(registrations.begin(), registrations.end(), id);
  return next != registrations.end() ? *next : 0;
}

// No lock is held while a handler runs, and everything may be different afterwards: walks go on from the number of the
// registration just served. False when the handler, which may be C++ code of the client's, has thrown an exception: that
// ends here, whatever it was.
template <typename Call>
bool Consumer::run_handler(std::unique_lock<std::mutex>& lock, uint64_t id, Call call) {
  running_ = id;
  running_on_ = std::this_thread::get_id();
  lock.unlock();
  bool good = true;
  try {
    call();
  } catch (...) {
    good = false;
  }
  lock.lock();
  running_ = 0;
  if (waiting_for_handler_ != 0) handler_done_.notify_all();
  return good;
}

// Handlers may write to the payload; where several registrations share a topic, each gets it as it came.
Response Consumer::deliver(Class& owner, uint64_t topic, uint32_t mtype, void* payload, uint32_t length) {
  Response response;
  bool good = true;
  std::vector<char> original;
  std::unique_lock lock(mutex_);
  uint64_t id = registration_after_locked(owner, topic, 0);
  const auto* bytes = static_cast<const char*>(payload);
  if (registration_after_locked(owner, topic, id) != 0) original.assign(bytes, bytes + length);
  while (id != 0) {
    const Registration& registration = registrations_.find(id)->second;
    const pcx_handler handler = registration.handler;
    const uint64_t context = registration.context;
    Response one;
    good &= run_handler(lock, id, [&] { handler(context, mtype, payload, length, &one.data, &one.length); });
    // One answer is all that a synchronous request takes.
    if (response.data == nullptr) std::swap(response, one);
    std::free(one.data);
    if (!original.empty()) std::memcpy(payload, original.data(), original.size());
    id = registration_after_locked(owner, topic, id);
  }
  if (good) return response;
  std::free(response.data);
  throw HandlerFailure();
}

// Asked once for the name, however many registrations share it; whoever withdraws the first of them waits for the answer.
Response Consumer::inquire(Class& owner, uint64_t topic, void* payload, uint32_t length) {
  Response response;
  std::unique_lock lock(mutex_);
  const uint64_t id = registration_after_locked(owner, topic, 0);
  const pcx_inquiry_handler handler = owner.inquiry_handler;
  if (id == 0 || handler == nullptr) return response;
  const std::string name = registrations_.find(id)->second.name;
  run_handler(lock, id, [&] { handler(name.c_str(), payload, length, &response.data, &response.length); });
  return response;
}

uint32_t Consumer::set_inquiry_handler(uint32_t class_handle, pcx_inquiry_handler handler) {
  std::lock_guard lock(mutex_);
  Class* owner = class_locked(class_handle);
  if (owner == nullptr) return EINVAL;
  owner->inquiry_handler = handler;
  return 0;
}

// --- The link ---

// Nobody is told who registers from now on: a handler that registers its name anew each time would never see the end.
void Consumer::tell_all(Class& owner, uint32_t event, uint64_t generation) {
  std::unique_lock lock(mutex_);
  const uint64_t end = next_registration_;
  auto next = owner.started.begin();
  while (owner.link_handler != nullptr && next != owner.started.end() && *next < end) {
    const uint64_t id = *next;
    tell_one(lock, id, event, generation);
    next = owner.started.upper_bound(id);
  }
}

// What is asked for meanwhile waits for the next turn: messages come in between.
void Consumer::tell_due(Class& owner, uint64_t generation) {
  std::unique_lock lock(mutex_);
  const uint64_t now = clock_now_ns();
  while (!owner.renewals.empty() && owner.renewals.begin()->first <= now) {
    tell_one(lock, owner.renewals.begin()->second, PCX_LINK_RENEWED, generation);
  }
  owner.link->call_at(owner.renewals.empty() ? 0 : owner.renewals.begin()->first);
}

void Consumer::tell_one(std::unique_lock<std::mutex>& lock, uint64_t id, uint32_t event,
                        uint64_t generation) {
  Registration& registration = registrations_.find(id)->second;
  if (event == PCX_LINK_RENEWED) forget_renewal_locked(registration, id);
  const pcx_link_handler handler = registration.owner->link_handler;
  if (handler == nullptr) return;
  char name[kMaxName + 1];  // stays when the handler withdraws the registration
  name[registration.name.copy(name, kMaxName)] = '\0';
  if (run_handler(lock, id, [&] { handler(handle_of(kRegistrationMark, id), name, event, generation); }))
    return;
  // A loss is followed by a renewal in any case; a renewal is told again.
  constexpr uint32_t kAgainMs = 1000;
  const auto found = registrations_.find(id);
  if (event == PCX_LINK_RENEWED && found != registrations_.end()) renew_locked(found->second, id, kAgainMs);
}

void Consumer::forget_renewal_locked(Registration& registration, uint64_t id) noexcept {
  if (registration.renew_at_ns == 0) return;
  registration.renewal = registration.owner->renewals.extract({registration.renew_at_ns, id});
  registration.renew_at_ns = 0;
}

uint32_t Consumer::renew_later(void* handle, uint32_t delay_ms) {
  std::lock_guard lock(mutex_);
  const uint64_t id = number_of(handle, kRegistrationMark);
  const auto found = registrations_.find(id);
  if (found == registrations_.end() || found->second.handler == nullptr) return EINVAL;
  renew_locked(found->second, id, delay_ms);
  return 0;
}

void Consumer::renew_locked(Registration& registration, uint64_t id, uint32_t delay_ms) noexcept {
  auto& renewals = registration.owner->renewals;
  const uint64_t at_ns = clock_now_ns() + delay_ms * UINT64_C(1000000);
  forget_renewal_locked(registration, id);
  registration.renewal.value() = {at_ns, id};
  registration.renew_at_ns = at_ns;
  const auto entry = renewals.insert(std::move(registration.renewal)).position;
  if (entry == renewals.begin()) registration.owner->link->call_at(at_ns);
}

uint32_t Consumer::set_link_handler(uint32_t class_handle, pcx_link_handler handler) {
  std::lock_guard lock(mutex_);
  Class* owner = class_locked(class_handle);
  if (owner == nullptr) return EINVAL;
  owner->link_handler = handler;
  return 0;
}

// --- Producers ---

uint32_t Consumer::ask_for_name(Class& owner, std::string_view name) {
  constexpr size_t kRoomForAll = 1 << 20;
  std::vector<char> all_names(owner.known_names.wants_all() ? kRoomForAll : 0);
  const uint32_t status = owner.link->lookup(name, &all_names, Deadline::in_ms(settings().deadline_ms));
  if (!all_names.empty()) owner.known_names.learn(std::move(all_names));
  return status;
}

uint32_t Consumer::lookup(uint32_t class_handle, std::string_view name, void** address) {
  Class* owner;
  {
    std::lock_guard lock(mutex_);
    owner = class_locked(class_handle);
  }
  if (owner == nullptr) return EINVAL;
  // A name that cannot be published has no data; nobody need be asked.
  if (name.empty() || name.size() > kMaxName) return DSV_NO_DATA;
  const uint32_t status = owner->known_names.has(name) ? 0 : ask_for_name(*owner, name);
  if (status == ESRCH) return DSV_NO_DATA;
  // The producer of a class answers for all its names, so an address need say no more than the class.
  if (status == 0) *address = handle_of(kAddressMark, class_handle);
  return status;
}

Link* Consumer::link_of_class(uint32_t class_handle) {
  std::lock_guard lock(mutex_);
  Class* owner = class_locked(class_handle);
  return owner != nullptr ? owner->link.get() : nullptr;
}

Link* Consumer::link_of(void* handle, bool registrations_only) {
  std::lock_guard lock(mutex_);
  const auto found = registrations_.find(number_of(handle, kRegistrationMark));
  if (found != registrations_.end()) return found->second.owner->link.get();
  const uint64_t class_handle = registrations_only ? 0 : number_of(handle, kAddressMark);
  Class* owner = class_handle <= UINT32_MAX ? class_locked(static_cast<uint32_t>(class_handle)) : nullptr;
  return owner != nullptr ? owner->link.get() : nullptr;
}

}  // namespace es_platform::bus
