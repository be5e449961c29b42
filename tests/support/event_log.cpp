#include "event_log.h"

#include <algorithm>
#include <array>
#include <map>
#include <mutex>

#include "es_platform/process.h"

namespace es_test {
namespace {

struct WatchedBlock {
  const char* name;
  const acl_client_relay_entry* entries = nullptr;
  std::array<uint32_t, ACL_CLIENT_RELAY_ENTRIES> seen{};
};

struct State {
  std::mutex mutex;
  std::vector<Event> events;
  std::map<const void*, std::string> names;
  std::array<WatchedBlock, 2> blocks{WatchedBlock{"main"}, WatchedBlock{"error"}};
};

// Never destroyed: threads of the library may outlive the statics of the test.
State& state() {
  static State* const instance = new State;
  return *instance;
}

void note_counters(State& s) {
  for (WatchedBlock& block : s.blocks) {
    if (block.entries == nullptr) continue;
    for (size_t i = 0; i < block.seen.size(); ++i) {
      const uint32_t now = __atomic_load_n(&block.entries[i].count, __ATOMIC_RELAXED);
      for (; block.seen[i] != now; ++block.seen[i])
        s.events.push_back({kCount, std::string(block.name) + "[" + std::to_string(i) + "]", {}, {}});
    }
  }
}

}  // namespace

int& Backstage::depth() {
  static thread_local int value = 0;
  return value;
}

void record(Event event) {
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  note_counters(state());
  state().events.push_back(std::move(event));
}

std::vector<Event> events(unsigned kinds) {
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  note_counters(state());
  std::vector<Event> selected;
  std::copy_if(state().events.begin(), state().events.end(), std::back_inserter(selected),
               [kinds](const Event& event) { return (event.kind & kinds) != 0; });
  return selected;
}

Lines log(unsigned kinds) {
  Lines texts;
  for (Event& event : events(kinds)) texts.push_back(std::move(event.text));
  return texts;
}

void clear_log() {
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  note_counters(state());
  state().events.clear();
}

void name_pointer(const void* pointer, std::string name) {
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  state().names[pointer] = std::move(name);
}

std::string pointer_name(const void* pointer) {
  if (pointer == nullptr) return "null";
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  const auto found = state().names.find(pointer);
  return found == state().names.end() ? "ptr" : found->second;
}

void watch_counters(const void* main_block, const void* error_block) {
  const Backstage backstage;
  const std::lock_guard guard(state().mutex);
  const void* const given[] = {main_block, error_block};
  for (size_t i = 0; i < 2; ++i) {
    WatchedBlock& block = state().blocks[i];
    if (block.entries == given[i]) continue;
    block.entries = static_cast<const acl_client_relay_entry*>(given[i]);
    for (size_t j = 0; j < block.seen.size(); ++j) block.seen[j] = block.entries[j].count;
  }
}

std::string show(uint64_t value) { return std::to_string(value); }
std::string show(const char* text) { return text == nullptr ? "null" : '"' + std::string(text) + '"'; }
std::string show(const void* pointer) { return pointer_name(pointer); }
std::string show(Sized size) { return std::to_string(size.bytes) + " bytes"; }
std::string show(Capacity size) { return "cap " + std::to_string(size.bytes); }

}  // namespace es_test
