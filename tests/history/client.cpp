// A client that keeps some ACLs, looks at them all the time, gets one anew now and then, and writes down what it sees and is
// told (checker.h has the lines):
//
//     history_client FILE NUMBER NAME...
//
// By its number it reports replaced rules one way or the other (the lowest bit) and refuses some changes (the next one).
// SIGTERM: releases everything and ends. Ends with 1 and a line when the library shows it something that cannot be.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"
#include "es_platform/evm.h"

namespace {

using std::to_string;

constexpr uint32_t kOneInSoMany = 40;  // changes that are refused
constexpr unsigned kAgainAfter = 100;  // walks that show nothing new

std::mutex log_mutex;
int log_file;
std::map<std::string, uint64_t> records;  // of each ACL, under the mutex
unsigned number;
std::atomic<bool> ending;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "history_client: %s\n", what.c_str());
  std::_Exit(1);
}

std::string now_ms() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// A record is whole or not there, even when the process is killed.
void record_locked(char kind, const std::string& acl, const std::string& time, const std::string& rest) {
  const std::string line = kind + (" " + time) + " " + acl + rest + "\n";
  if (write(log_file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) fail("cannot write");
  ++records[acl];
}

void record(char kind, const std::string& acl, const std::string& rest = "") {
  const std::lock_guard lock(log_mutex);
  record_locked(kind, acl, now_ms(), rest);
}

uint32_t mark_of(const es_acl_ace& ace) {
  if (ace.kind == ES_ACL_KIND_REMARK) return 0;
  const uint32_t mark = uint32_t{ace.src_addr[1]} << 16 | ace.src_addr[2];
  if (ace.src_addr[0] != 0x0200 || ace.grant != mark % 2) fail("a rule that nobody configured");
  return mark;
}

uint32_t add_to_list(es_acl_head*, const es_acl_ace* ace, va_list* args) {
  *va_arg(*args, std::string*) += " " + to_string(ace->seq) + " " + to_string(mark_of(*ace));
  return 0;
}

std::string list_of(const std::string& acl) {
  std::string list;
  if (es_acl_traverse_list(acl.c_str(), 0, add_to_list, &list) != 0) fail("no " + acl + ", which is held");
  return list;
}

uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch, void*) {
  static std::atomic<uint32_t> told;
  const uint32_t refused = (number & 2) != 0 && ++told % kOneInSoMany == 0;
  std::string text = " " + to_string(action) + " " + to_string(refused) + " " + to_string(n);
  for (uint32_t i = 0; i < n; ++i) {
    const ace_edit_info& edit = batch[i];
    if (edit.ace == nullptr || edit.ace->seq != edit.seq) fail("told of another rule than it says");
    if (action == ACL_ADD_ACE && (edit.is_new != 0) != (edit.old_ace == nullptr)) fail("new with an old one");
    const uint32_t old = edit.old_ace != nullptr ? mark_of(*edit.old_ace) : 0;
    text += " " + to_string(edit.seq) + " " + to_string(mark_of(*edit.ace)) + " " + to_string(old);
  }
  const std::string name = es_acl_get_acl_name(acl);
  record('U', name, text + list_of(name));
  return refused;
}

uint32_t on_resequence(es_acl_head* acl, uint32_t, uint32_t, uint32_t, const uint32_t*, void*) {
  const std::string name = es_acl_get_acl_name(acl);
  record('Q', name, list_of(name));
  return 0;
}

void on_state(es_acl_head* acl, uint32_t state, void*) {
  record('N', es_acl_get_acl_name(acl), " " + to_string(state));
}
void on_notice(es_acl_head* acl, uint32_t) { record('D', es_acl_get_acl_name(acl)); }

// ACLs as one thread holds them.
class Holder {
 public:
  explicit Holder(std::vector<std::string> names)
      : names_(std::move(names)),
        handles_(names_.size()),
        last_seen_(names_.size()),
        unchanged_(names_.size()) {}

  // Those that are not held, in one call.
  void get(bool in_bulk) {
    std::vector<size_t> places;
    std::vector<void*> entries, got;
    for (size_t i = 0; i < names_.size(); ++i) {
      if (handles_[i] != nullptr) continue;
      record('B', names_[i]);
      places.push_back(i);
      entries.push_back(names_[i].data());
    }
    if (places.empty()) return;
    got.resize(places.size());
    std::vector<uint32_t> results(places.size());
    const es_acl_handle_list wanted = {static_cast<uint32_t>(entries.size()), entries.data()};
    es_acl_handle_list handles = {wanted.count, got.data()};
    in_bulk ? es_acl_get_definition(&wanted, &handles, results.data())
            : es_acl_get_acl(&wanted, &handles, results.data());
    for (size_t k = 0; k < places.size(); ++k)
      if (got[k] != nullptr) has_got(places[k], got[k], in_bulk);
  }

  void release(size_t i) {
    if (handles_[i] == nullptr) return;
    record('R', names_[i]);
    const es_acl_handle_list given = {1, &handles_[i]};
    es_acl_release(&given);
    handles_[i] = nullptr;
  }

  void look(size_t i) {
    if (handles_[i] == nullptr) return;
    std::unique_lock lock(log_mutex);
    const uint64_t so_far = records[names_[i]];
    lock.unlock();
    const std::string time = now_ms(), state_then = state(i), seen = state_then + list_of(names_[i]);
    lock.lock();
    if (records[names_[i]] != so_far || (seen == last_seen_[i] && ++unchanged_[i] % kAgainAfter != 0)) return;
    record_locked('S', names_[i], time, seen);
    last_seen_[i] = seen;
  }

  // Takes another reference for a walk without a lock.
  void walk(size_t i) {
    void *entry = names_[i].data(), *handle = nullptr;
    const es_acl_handle_list wanted = {1, &entry};
    es_acl_handle_list shared = {1, &handle};
    if (handles_[i] == nullptr) return;
    if (es_acl_get_acl(&wanted, &shared, nullptr) != 0 || handle != handles_[i]) fail("not shared");
    auto* const acl = static_cast<es_acl_head*>(handle);
    for (auto* node = es_get_first_ace(acl); const es_acl_ace* ace = es_get_ace_data(acl, node);
         node = es_get_next_ace(acl, node)) {
      mark_of(*ace);
      es_acl_search_item(acl, ace->seq);
    }
    es_acl_release(&shared);
  }

 private:
  std::string state(size_t i) const {
    es_acl_sync_info info;
    if (es_acl_get_sync_info(static_cast<es_acl_head*>(handles_[i]), &info) != 0)
      fail("no state of " + names_[i]);
    return " " + to_string(info.state);
  }
  void has_got(size_t i, void* handle, bool in_bulk) {
    handles_[i] = handle;
    last_seen_[i].clear();
    es_acl_register_callback(static_cast<es_acl_head*>(handle), on_notice, 0);
    const std::lock_guard lock(log_mutex);
    record_locked('G', names_[i], now_ms(), state(i) + (in_bulk ? " 0" : " 1"));
  }

  std::vector<std::string> names_;
  std::vector<void*> handles_;
  std::vector<std::string> last_seen_;
  std::vector<unsigned> unchanged_;
};

void keep(const std::vector<std::string>& names, unsigned seed, unsigned looks_between_releases) {
  std::mt19937 random(seed);
  Holder holder(names);
  while (!ending) {
    holder.get(random() % 2 == 0);
    const size_t i = random() % names.size();
    holder.look(i);
    if (random() % 10 == 0) holder.walk(i);
    if (random() % looks_between_releases == 0) holder.release(i);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  for (size_t i = 0; i < names.size(); ++i) holder.release(i);
}

// The client's own loop: until a signal, the library's events.
void serve(evm* events, int signals) {
  pollfd waits[] = {{signals, POLLIN, 0}, {evm_fd(events), POLLIN, 0}};
  while (waits[0].revents == 0)
    if (poll(waits, 2, -1) > 0 && waits[1].revents != 0) evm_dispatch(events, 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) fail("usage: history_client FILE NUMBER NAME NAME...");
  log_file = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  number = static_cast<unsigned>(std::atoi(argv[2]));
  sigset_t told;
  sigemptyset(&told);
  sigaddset(&told, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &told, nullptr);
  evm* events = nullptr;
  if (evm_create(&events) != 0 || es_acl_clib_init(events) != 0) fail("no library");
  es_acl_register_update_callback(on_update, nullptr);
  es_acl_register_resequence_callback(on_resequence, nullptr);
  es_acl_register_sync_callback(on_state, nullptr);
  es_acl_set_modify_mode((number & 1) != 0 ? ES_ACL_MODIFY_ADD_ONLY : ES_ACL_MODIFY_DELETE_AND_ADD);

  std::vector<std::string> names[2];
  for (int i = 3; i < argc; ++i) names[i % 2].push_back(argv[i]);
  // To get an ACL may take long, and nothing is looked at meanwhile.
  std::thread one(keep, names[0], 2 * number, 30), other(keep, names[1], 2 * number + 1, 10000);
  serve(events, signalfd(-1, &told, SFD_CLOEXEC));
  ending = true;
  one.join();
  other.join();
}
