// A client that keeps some ACLs and gets, walks, watches and releases all of them at random:
//
//     churn_client NUMBER NAME...
//
// Writes "ready" when it is. SIGUSR1: writes what it holds of every ACL, a line for each entry, then "end". SIGTERM: releases everything and ends.
// Ends with 1 and a line when the library shows it something that cannot be.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_platform/evm.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "churn_client: %s\n", what.c_str());
  std::_Exit(1);
}

// Gets and releases of one ACL are the client's to serialise.
std::mutex holding;
std::atomic<uint64_t> notices;
// Whether the producer goes away now and then.
const bool restarts = std::getenv("CHURN_RESTARTS") != nullptr;

uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch, void*) {
  if (action > ACL_REMOVE_ACE || n == 0) fail("a batch of nothing");
  for (uint32_t i = 0; i < n; ++i)
    if (batch[i].ace == nullptr || batch[i].ace->seq != batch[i].seq)
      fail(std::string("a batch of ") + es_acl_get_acl_name(acl) + " with another ACE than it says");
  return 0;
}

uint32_t on_resequence(es_acl_head*, uint32_t, uint32_t step, uint32_t, const uint32_t*, void*) {
  if (step == 0) fail("renumbered by nothing");
  return 0;
}

void on_notice(es_acl_head*, uint32_t) { ++notices; }

// Handles of these names, while it lives.
class Held {
 public:
  // What is fetched in bulk is shared, and what has no rules got, by the get behind it.
  Held(std::vector<std::string> names, bool in_bulk) : names_(std::move(names)), handles_(names_.size()) {
    std::vector<void*> entries;
    for (std::string& name : names_) entries.push_back(name.data());
    std::vector<uint32_t> results(names_.size());
    const es_acl_handle_list wanted = {static_cast<uint32_t>(entries.size()), entries.data()};
    es_acl_handle_list got = list();
    std::vector<void*> fetched(names_.size());
    es_acl_handle_list bulk = {0, fetched.data()};
    while (const es_acl_status status = in_bulk ? es_acl_get_definition(&wanted, &bulk, results.data()) : 0) {
      if (!may_pass(status)) fail("no bulk: status " + std::to_string(status));
      es_acl_release(&bulk);
    }
    while (es_acl_get_acl(&wanted, &got, results.data()), !has_all()) {
      for (size_t i = 0; i < names_.size(); ++i)
        if (handles_[i] == nullptr && !(restarts && may_pass(results[i])))
          fail("no " + names_[i] + ": status " + std::to_string(results[i]));
      es_acl_release(&got);
    }
    es_acl_release(&bulk);
  }
  ~Held() {
    const es_acl_handle_list given = list();
    es_acl_release(&given);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  size_t size() const { return names_.size(); }
  const std::string& name(size_t i) const { return names_[i]; }
  es_acl_head* operator[](size_t i) const { return static_cast<es_acl_head*>(handles_[i]); }

 private:
  // Changed between count and read; or the producer was on its way out or in.
  static bool may_pass(uint32_t status) {
    return status == EINVAL || status == EMSGSIZE ||
           (restarts && (status == ESRCH || status == EAGAIN || status == ETIME || status == ENOENT));
  }
  bool has_all() const { return std::find(handles_.begin(), handles_.end(), nullptr) == handles_.end(); }
  es_acl_handle_list list() { return {static_cast<uint32_t>(handles_.size()), handles_.data()}; }

  std::vector<std::string> names_;
  std::vector<void*> handles_;
};

// Under the lock the list is in order at every moment.
uint32_t check_order(es_acl_head* acl, const es_acl_ace* ace, va_list* args) {
  uint32_t* const last = va_arg(*args, uint32_t*);
  if (ace->seq <= *last) fail(std::string("disorder in ") + es_acl_get_acl_name(acl));
  *last = ace->seq;
  return 0;
}

uint32_t write_entry(es_acl_head* acl, const es_acl_ace* ace, va_list*) {
  std::printf("%s %u %u %u\n", es_acl_get_acl_name(acl), ace->seq, ace->src_addr[2], ace->grant);
  return 0;
}

void look(const Held& held) {
  for (size_t i = 0; i < held.size(); ++i) {
    uint32_t last = 0;
    if (es_acl_traverse_list(held.name(i).c_str(), 0, check_order, &last) != 0)
      fail("a held ACL is not there");
    const es_acl_ace* ace = nullptr;
    for (es_acl_ace_node* node = es_get_first_ace(held[i]); (ace = es_get_ace_data(held[i], node)) != nullptr;
         node = es_get_next_ace(held[i], node))
      es_acl_search_item(held[i], ace->seq);
  }
}

void churn(const std::vector<std::string>& names, unsigned seed, const std::atomic<bool>& ending) {
  std::mt19937 random(seed);
  while (!ending) {
    std::vector<std::string> some;
    for (int i = 0; i < 3; ++i) some.push_back(names[random() % names.size()]);
    const std::lock_guard lock(holding);
    look(Held(some, random() % 2 == 0));
  }
}

void dump(const std::vector<std::string>& names) {
  const std::lock_guard lock(holding);
  const Held all(names, true);
  for (const std::string& name : names) es_acl_traverse_list(name.c_str(), 0, write_entry);
  std::puts("end");
  std::fflush(stdout);
}

// The client's own loop: signals and the library's events.
void serve(evm* events, int signals, const std::vector<std::string>& names) {
  for (;;) {
    pollfd waits[] = {{signals, POLLIN, 0}, {evm_fd(events), POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) continue;
    if (waits[1].revents != 0) evm_dispatch(events, 0);
    signalfd_siginfo signal;
    if (waits[0].revents == 0 || read(signals, &signal, sizeof signal) != sizeof signal) continue;
    if (signal.ssi_signo == SIGTERM) return;
    dump(names);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) fail("usage: churn_client NUMBER NAME...");
  const auto number = static_cast<unsigned>(std::atoi(argv[1]));
  const std::vector<std::string> names(argv + 2, argv + argc);
  sigset_t told;
  sigemptyset(&told);
  sigaddset(&told, SIGUSR1);
  sigaddset(&told, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &told, nullptr);
  evm* events = nullptr;
  if (evm_create(&events) != 0 || es_acl_clib_init(events) != 0) fail("no library");
  es_acl_register_update_callback(on_update, nullptr);
  es_acl_register_resequence_callback(on_resequence, nullptr);
  es_acl_set_modify_mode(number % 2 == 0 ? ES_ACL_MODIFY_DELETE_AND_ADD : ES_ACL_MODIFY_ADD_ONLY);

  std::vector<std::string> kept;
  for (size_t i = number % 2; i < names.size(); i += 2) kept.push_back(names[i]);
  std::atomic<bool> ending = false;
  {
    const Held held(kept, number >= 2);
    for (size_t i = 0; i < held.size(); ++i) es_acl_register_callback(held[i], on_notice, 0);
    std::puts("ready");
    std::fflush(stdout);
    std::thread churning([&] { churn(names, number, ending); });
    serve(events, signalfd(-1, &told, SFD_CLOEXEC), names);
    // The notice of the last change comes a second after it.
    for (int tries = 0; notices == 0 && tries < 50; ++tries) evm_dispatch(events, 100);
    ending = true;
    churning.join();
  }
  std::printf("notices %s\n", notices != 0 ? "came" : "never came");
  return 0;
}
