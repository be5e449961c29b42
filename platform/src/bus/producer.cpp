// The producer's side of the bus: published names, who registered what, pushes, synchronous requests. Knows
// peers and topics, no connections. Thread-safe by one mutex, which is never held while an operation of the
// user's runs.
#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bus/class_name.h"
#include "bus/frame.h"
#include "bus/transport.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx_producer.h"
#include "guard.h"

using es_platform::guarded;
using es_platform::bus::EventSink;
using es_platform::bus::kMaxMessage;
using es_platform::bus::kMaxName;
using es_platform::bus::kProducerRequestType;
using es_platform::bus::kWriteType;
using es_platform::bus::Server;
using es_platform::bus::ServerOptions;
using es_platform::bus::Service;

namespace {

constexpr uint64_t kQueueLimit = 64 << 20;

bool is_name(const char* name) {
  const size_t length = name != nullptr ? strnlen(name, kMaxName + 1) : 0;
  return length >= 1 && length <= kMaxName;
}

bool is_message(const void* payload, uint32_t length) {
  return (payload != nullptr || length == 0) && length <= kMaxMessage;
}

// Names are looked up without a copy, and so without memory.
struct NameHash : std::hash<std::string_view> {
  using is_transparent = void;
};

struct Consumer {
  pcx_peer peer;
  EventSink* sink = nullptr;  // null while it has no event connection, and then it has no topics
  std::unordered_map<uint64_t, std::string> topics{};
};

struct Subscription {
  Consumer* consumer;
  uint64_t topic;
};

// A synchronous request under way. `waiting` goes down once for each answer, whatever it is.
struct Question {
  struct Answer {
    pcx_peer peer;
    uint32_t status = ETIME;
    bool settled = false;
    std::vector<char> response{};
  };
  std::vector<Answer> answers;
  size_t waiting = 0;
  std::condition_variable all_in;

  void settle(uint64_t peer_id, uint32_t status, const void* data, uint32_t length) {
    for (Answer& answer : answers) {
      if (answer.peer.id != peer_id || answer.settled) continue;
      const auto* bytes = static_cast<const char*>(data);
      answer.response.assign(bytes, bytes + length);
      answer.status = status;
      answer.settled = true;
      if (--waiting == 0) all_in.notify_all();
    }
  }
};

}  // namespace

struct pcx_producer final : Service {
  pcx_producer(const pcx_producer_ops& operations, void* argument, uint64_t limit)
      : ops(operations), user(argument), queue_limit(limit) {}

  uint32_t read(const pcx_peer& peer, void* request, uint32_t length, void* answer, uint32_t capacity,
                uint32_t* answer_length) override;
  uint32_t lookup(std::string_view name, char* names, uint32_t capacity, uint32_t* length) override;
  void peer_came(const pcx_peer& peer) override;
  void events_opened(const pcx_peer& peer, EventSink* sink) override;
  void subscribe(const pcx_peer& peer, uint64_t topic, std::string_view name, bool renewed) override;
  void unsubscribe(const pcx_peer& peer, uint64_t topic) override;
  void response(const pcx_peer& peer, uint64_t number, const void* data, uint32_t length) override;
  void events_closed(const pcx_peer& peer) override;
  void peer_gone(const pcx_peer& peer) override;

  bool can_carry(const void* payload, uint32_t length) const {
    return is_message(payload, length) && uint64_t{length} + PCX_FRAME_ROOM <= queue_limit;
  }
  void tell_registered(const pcx_peer& peer, const std::string& name, uint32_t renewed);
  void add_subscription(const pcx_peer& peer, uint64_t topic, const std::string& name);
  const std::vector<Subscription>& subscriptions_locked(std::string_view name) const noexcept;
  void forget_topic_locked(Consumer& consumer, uint64_t topic, const std::string& name);
  uint64_t ask_locked(const std::string& name, const void* payload, uint32_t length, Question* question);

  const pcx_producer_ops ops;
  void* const user;
  const uint64_t queue_limit;

  std::mutex mutex;
  std::unordered_set<std::string> published;
  size_t published_size = 0;                         // their characters, and a NUL each
  std::unordered_map<uint64_t, Consumer> consumers;  // by peer id; elements stay where they are
  std::unordered_map<std::string, std::vector<Subscription>, NameHash, std::equal_to<>> subscriptions;
  std::unordered_map<uint64_t, Question*> questions;
  uint64_t next_question = 1;

  std::unique_ptr<Server> server;  // last: its thread calls into all of the above
};

// --- What happens, on the service thread ---

uint32_t pcx_producer::read(const pcx_peer& peer, void* request, uint32_t length, void* answer,
                            uint32_t capacity, uint32_t* answer_length) {
  *answer_length = 0;
  return ops.read(user, &peer, request, length, answer, capacity, answer_length);
}

uint32_t pcx_producer::lookup(std::string_view name, char* names, uint32_t capacity, uint32_t* length) {
  std::lock_guard lock(mutex);
  if (published.count(std::string(name)) == 0) return DSV_NO_DATA;
  if (published_size > capacity) return 0;
  for (const std::string& one : published) names = std::copy_n(one.c_str(), one.size() + 1, names);
  *length = static_cast<uint32_t>(published_size);
  return 0;
}

void pcx_producer::peer_came(const pcx_peer& peer) {
  std::lock_guard lock(mutex);
  consumers.emplace(peer.id, Consumer{peer});
}

void pcx_producer::events_opened(const pcx_peer& peer, EventSink* sink) {
  std::lock_guard lock(mutex);
  const auto found = consumers.find(peer.id);
  if (found != consumers.end()) found->second.sink = sink;
}

// The user hears of a new registration before a push can reach it: what it keeps of an earlier one no longer
// holds. Of a renewed one afterwards: from then on nothing more is missed.
void pcx_producer::subscribe(const pcx_peer& peer, uint64_t topic, std::string_view name, bool renewed) {
  const std::string key(name);
  if (!renewed) tell_registered(peer, key, 0);
  add_subscription(peer, topic, key);
  if (renewed) tell_registered(peer, key, 1);
}

void pcx_producer::tell_registered(const pcx_peer& peer, const std::string& name, uint32_t renewed) {
  if (ops.registered != nullptr && ops.registered(user, &peer, name.c_str(), renewed) != 0)
    throw std::bad_alloc();
}

void pcx_producer::add_subscription(const pcx_peer& peer, uint64_t topic, const std::string& name) {
  std::lock_guard lock(mutex);
  const auto found = consumers.find(peer.id);
  if (found == consumers.end()) return;
  Consumer& consumer = found->second;
  const auto [place, fresh] = consumer.topics.emplace(topic, name);
  if (fresh) subscriptions[place->second].push_back({&consumer, topic});
}

void pcx_producer::unsubscribe(const pcx_peer& peer, uint64_t topic) {
  std::lock_guard lock(mutex);
  const auto found = consumers.find(peer.id);
  if (found == consumers.end()) return;
  const auto place = found->second.topics.find(topic);
  if (place == found->second.topics.end()) return;
  forget_topic_locked(found->second, topic, place->second);
  found->second.topics.erase(place);
}

void pcx_producer::forget_topic_locked(Consumer& consumer, uint64_t topic, const std::string& name) {
  const auto found = subscriptions.find(name);
  if (found == subscriptions.end()) return;
  std::erase_if(found->second,
                [&](const Subscription& one) { return one.consumer == &consumer && one.topic == topic; });
  if (found->second.empty()) subscriptions.erase(found);
}

void pcx_producer::response(const pcx_peer& peer, uint64_t number, const void* data, uint32_t length) {
  {
    std::lock_guard lock(mutex);
    const auto found = questions.find(number);
    if (found != questions.end()) return found->second->settle(peer.id, 0, data, length);
  }
  if (ops.inquiry_answered != nullptr) ops.inquiry_answered(user, &peer, number, data, length);
}

void pcx_producer::events_closed(const pcx_peer& peer) {
  std::lock_guard lock(mutex);
  const auto found = consumers.find(peer.id);
  if (found == consumers.end()) return;
  Consumer& consumer = found->second;
  for (const auto& [topic, name] : consumer.topics) forget_topic_locked(consumer, topic, name);
  consumer.topics.clear();
  consumer.sink = nullptr;
  for (const auto& [number, question] : questions) question->settle(peer.id, ESRCH, nullptr, 0);
}

void pcx_producer::peer_gone(const pcx_peer& peer) {
  {
    std::lock_guard lock(mutex);
    consumers.erase(peer.id);
  }
  if (ops.peer_gone != nullptr) ops.peer_gone(user, &peer);
}

// --- Pushing and asking, on any thread ---

const std::vector<Subscription>& pcx_producer::subscriptions_locked(std::string_view name) const noexcept {
  static const std::vector<Subscription> none;
  const auto found = subscriptions.find(name);
  return found != subscriptions.end() ? found->second : none;
}

// Puts the question to everyone who registered the name and writes down who that is.
uint64_t pcx_producer::ask_locked(const std::string& name, const void* payload, uint32_t length,
                                  Question* question) {
  const std::vector<Subscription>& asked = subscriptions_locked(name);
  question->answers.reserve(asked.size());
  const uint64_t number = next_question++;
  questions.emplace(number, question);
  for (const Subscription& one :
       asked) {  // nothing below throws: nobody must be left with a question half put
    question->answers.push_back({one.consumer->peer});
    ++question->waiting;
    const uint32_t status = one.consumer->sink->ask(one.topic, number, payload, length);
    if (status != 0) question->settle(one.consumer->peer.id, status, nullptr, 0);
  }
  return number;
}

// --- Entry points ---

namespace {

std::string& last_error() {
  thread_local std::string text;
  return text;
}

uint32_t open_producer(const char* class_name, const pcx_producer_ops* ops, void* user,
                       const pcx_producer_options* options, pcx_producer** out) {
  std::string& why = last_error();
  why.clear();
  if (class_name == nullptr || ops == nullptr || ops->read == nullptr) {
    why = "cannot open a producer: class name, operations or read operation missing";
    return EINVAL;
  }
  if (!es_platform::bus::is_class_name(class_name)) {
    why =
        "cannot open a producer: a class name has 1 to 64 of the characters [A-Za-z0-9_.-], not a dot first";
    return EINVAL;
  }
  const uint64_t limit = options != nullptr && options->queue_limit != 0 ? options->queue_limit : kQueueLimit;
  const ServerOptions server_options = {limit, options != nullptr ? options->log : nullptr};
  auto producer = std::make_unique<pcx_producer>(*ops, user, limit);
  const uint32_t status =
      es_platform::bus::transport().serve(class_name, server_options, *producer, &producer->server, &why);
  if (status == 0) *out = producer.release();
  return status;
}

uint32_t sync_all(pcx_producer* producer, const char* name, const void* payload, uint32_t length,
                  uint32_t deadline_ms, void (*gather)(void* user, const pcx_sync_answer* answer),
                  void* user) {
  Question question;
  {
    std::unique_lock lock(producer->mutex);
    const uint64_t number = producer->ask_locked(name, payload, length, &question);
    question.all_in.wait_for(lock, std::chrono::milliseconds(deadline_ms),
                             [&] { return question.waiting == 0; });
    producer->questions.erase(number);
  }
  for (const Question::Answer& one : question.answers) {
    const auto size = static_cast<uint32_t>(one.response.size());
    const pcx_sync_answer answer = {one.peer, one.status, size != 0 ? one.response.data() : nullptr, size};
    gather(user, &answer);
  }
  return 0;
}

}  // namespace

uint32_t pcx_producer_open(const char* class_name, const pcx_producer_ops* ops, void* user,
                           const pcx_producer_options* options, pcx_producer** out) {
  if (out == nullptr) return EINVAL;
  *out = nullptr;
  return guarded([&] { return open_producer(class_name, ops, user, options, out); });
}

const char* pcx_producer_error() { return last_error().c_str(); }

void pcx_producer_close(pcx_producer* producer) { delete producer; }

uint32_t pcx_producer_publish(pcx_producer* producer, const char* name) {
  if (producer == nullptr || !is_name(name)) return EINVAL;
  return guarded([&]() -> uint32_t {
    std::lock_guard lock(producer->mutex);
    const auto [place, fresh] = producer->published.emplace(name);
    if (fresh) producer->published_size += place->size() + 1;
    return 0;
  });
}

uint32_t pcx_producer_unpublish(pcx_producer* producer, const char* name) {
  if (producer == nullptr || !is_name(name)) return EINVAL;
  return guarded([&]() -> uint32_t {
    std::lock_guard lock(producer->mutex);
    if (producer->published.erase(name) == 0) return ENOENT;
    producer->published_size -= std::strlen(name) + 1;
    return 0;
  });
}

uint32_t pcx_producer_push(pcx_producer* producer, uint32_t mtype, const char* name, const void* payload,
                           uint32_t length, uint32_t* reached) {
  if (producer == nullptr || !is_name(name) || !producer->can_carry(payload, length)) return EINVAL;
  if (mtype != kWriteType && mtype != kProducerRequestType) return EINVAL;
  return guarded([&]() -> uint32_t {
    std::lock_guard lock(producer->mutex);
    uint32_t count = 0;
    for (const Subscription& one : producer->subscriptions_locked(name)) {
      if (one.consumer->sink->push(one.topic, mtype, payload, length) == 0) ++count;
    }
    if (reached != nullptr) *reached = count;
    return 0;
  });
}

uint32_t pcx_producer_push_to(pcx_producer* producer, uint64_t peer_id, uint32_t mtype, const char* name,
                              const void* payload, uint32_t length) {
  if (producer == nullptr || !is_name(name) || !is_message(payload, length)) return EINVAL;
  if (mtype != kWriteType && mtype != kProducerRequestType) return EINVAL;
  std::lock_guard lock(producer->mutex);
  for (const Subscription& one : producer->subscriptions_locked(name)) {
    if (one.consumer->peer.id != peer_id) continue;
    return one.consumer->sink->push(one.topic, mtype, payload, length) == 0 ? 0 : ENOENT;
  }
  return ENOENT;
}

uint32_t pcx_producer_sync(pcx_producer* producer, const char* name, const void* payload, uint32_t length,
                           uint32_t deadline_ms, void (*gather)(void* user, const pcx_sync_answer* answer),
                           void* user) {
  if (producer == nullptr || !is_name(name) || !producer->can_carry(payload, length) || gather == nullptr)
    return EINVAL;
  return guarded([&] { return sync_all(producer, name, payload, length, deadline_ms, gather, user); });
}

uint32_t pcx_producer_inquire(pcx_producer* producer, const char* name, const void* payload, uint32_t length,
                              uint64_t* number, void (*asked)(void* user, const pcx_peer* peer), void* user) {
  if (producer == nullptr || !is_name(name) || !producer->can_carry(payload, length)) return EINVAL;
  if (number == nullptr || asked == nullptr) return EINVAL;
  return guarded([&]() -> uint32_t {
    std::lock_guard lock(producer->mutex);
    *number = producer->next_question++;
    for (const Subscription& one : producer->subscriptions_locked(name)) {
      if (one.consumer->sink->inquire(one.topic, *number, payload, length) == 0)
        asked(user, &one.consumer->peer);
    }
    return 0;
  });
}

uint32_t pcx_producer_consumers(pcx_producer* producer, const char* name) {
  if (producer == nullptr) return 0;
  std::lock_guard lock(producer->mutex);
  if (name == nullptr) return static_cast<uint32_t>(producer->consumers.size());
  const auto found = producer->subscriptions.find(name);
  return found != producer->subscriptions.end() ? static_cast<uint32_t>(found->second.size()) : 0;
}
