#include "event_log.h"

#include <algorithm>
#include <array>
#include <map>
#include <mutex>

namespace es_test {

acl_client_relay_entry main_counters[ACL_CLIENT_RELAY_ENTRIES];
acl_client_relay_entry error_counters[ACL_CLIENT_RELAY_ENTRIES];

namespace {

struct Event {
  Kind kind;
  std::string text;
  Bytes request;
};

struct WatchedBlock {
  const char* name;
  const acl_client_relay_entry* entries;
  std::array<uint32_t, ACL_CLIENT_RELAY_ENTRIES> seen{};
};

struct State {
  std::mutex mutex;
  std::vector<Event> events;
  std::map<const void*, std::string> names;
  std::array<WatchedBlock, 2> blocks{WatchedBlock{"main", main_counters},
                                     WatchedBlock{"error", error_counters}};
};

// The state for as long as its user exists. Never destroyed: threads of the library may outlive the statics
// of the test.
class Locked {
 public:
  State* operator->() const { return &state(); }

 private:
  static State& state() {
    static State* const instance = new State;
    return *instance;
  }
  Backstage backstage_;
  std::lock_guard<std::mutex> guard_{state().mutex};
};

void note_counters(const Locked& state) {
  for (WatchedBlock& block : state->blocks) {
    for (size_t i = 0; i < block.seen.size(); ++i) {
      const uint32_t now = __atomic_load_n(&block.entries[i].count, __ATOMIC_RELAXED);
      for (; block.seen[i] != now; ++block.seen[i])
        state->events.push_back({kCount, std::string(block.name) + "[" + std::to_string(i) + "]", {}});
    }
  }
}

}  // namespace

int& Backstage::depth() {
  static thread_local int value = 0;
  return value;
}

void record(Kind kind, std::string text, Bytes request) {
  const Locked state;
  note_counters(state);
  state->events.push_back({kind, std::move(text), std::move(request)});
}

Lines log(unsigned kinds) {
  const Locked state;
  note_counters(state);
  Lines texts;
  for (const Event& event : state->events)
    if ((event.kind & kinds) != 0) texts.push_back(event.text);
  return texts;
}

Lines log_of(std::string_view prefix) {
  Lines texts = log();
  std::erase_if(texts, [prefix](const std::string& text) { return !text.starts_with(prefix); });
  return texts;
}

std::vector<Bytes> requests() {
  const Locked state;
  std::vector<Bytes> sent;
  for (const Event& event : state->events)
    if (!event.request.empty()) sent.push_back(event.request);
  return sent;
}

Lines take_log(unsigned kinds) {
  Lines texts = log(kinds);
  clear_log();
  return texts;
}

void clear_log() {
  const Locked state;
  note_counters(state);
  state->events.clear();
}

void name_pointer(const void* pointer, const std::string& name) { Locked()->names[pointer] = name; }

std::string pointer_name(const void* pointer) {
  if (pointer == nullptr) return "null";
  const Locked state;
  const auto found = state->names.find(pointer);
  return found == state->names.end() ? "ptr" : found->second;
}

}  // namespace es_test
