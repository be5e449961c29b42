// Catching up with a producer that has been started again and remembers nothing, beside a first fetch of the same ACL: with
// nothing changed, with one changed ACE in 100,000, and with all changed. Timed by the state's changes, from "catching up" to
// "in step": registering anew, reading and comparing the whole list, applying the difference, with an update callback told.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"
#include "fetch.h"
#include "map_store.h"
#include "peer.h"

namespace es_acl_bench {

namespace {

constexpr int kRestarts = 6;  // each takes half a second, mostly until the producer is found again

// A copy that is watched. What the callbacks write is read when in_step has been posted.
struct Watched {
  uint64_t began_ns = 0, ended_ns = 0;
  uint32_t told = 0;  // changes
  sem_t in_step;
};

void on_state(es_acl_head*, uint32_t state, void* context) {
  auto& watched = *static_cast<Watched*>(context);
  if (state == ES_ACL_CATCHING_UP) watched.began_ns = shared_clock_ns();
  if (state != ES_ACL_IN_STEP) return;
  watched.ended_ns = shared_clock_ns();
  sem_post(&watched.in_step);
}

uint32_t on_update(es_acl_head*, uint32_t action, uint32_t count, const ace_edit_info*, void* context) {
  if (action != ACL_REMOVE_ACE) static_cast<Watched*>(context)->told += count;
  return 0;
}

bool wait_in_step(Watched& watched) {
  timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 20;
  return sem_timedwait(&watched.in_step, &deadline) == 0;
}

// One iteration is one restart; what it takes until the producer is found again is not counted.
void time_restarts(benchmark::State& state, int orders, Watched& watched, uint32_t every) {
  const BareRequest order = {BareRequest::kRestart, 0, every, 0, 0};
  const uint32_t expected = every != 0 ? static_cast<uint32_t>(state.range(0)) / every : 0;
  for (auto _ : state) {
    watched.told = 0;
    const bool good = send(orders, &order, sizeof order, MSG_NOSIGNAL) == sizeof order &&
                      wait_in_step(watched) && watched.told == expected;
    if (!good) return state.SkipWithError("it has not caught up");
    state.SetIterationTime(static_cast<double>(watched.ended_ns - watched.began_ns) * 1e-9);
  }
}

void catch_up(benchmark::State& state, const Peer* peer, uint32_t every) {
  init_library();
  std::string name = acl_name(state.range(0));
  void* name_entry = name.data();
  void* acl = nullptr;
  const es_acl_handle_list names = {1, &name_entry};
  es_acl_handle_list acls = {1, &acl};
  uint32_t result;
  if (es_acl_get_acl(&names, &acls, &result) != 0) std::abort();
  Watched watched;
  sem_init(&watched.in_step, 0, 0);
  es_acl_register_sync_callback(on_state, &watched);
  es_acl_register_update_callback(on_update, &watched);
  const int orders = peer->connect_bare();
  time_restarts(state, orders, watched, every);
  close(orders);
  es_acl_release(&acls);
  es_acl_unregister_update_callback(on_update, &watched);
  es_acl_unregister_sync_callback(on_state, &watched);
  sem_destroy(&watched.in_step);
}

}  // namespace

void register_catch_up_benchmarks(const Peer& peer) {
  const auto configure = [](benchmark::internal::Benchmark* made) {
    made->Arg(100000)->Arg(1000000)->Iterations(kRestarts)->UseManualTime()->Unit(benchmark::kMicrosecond);
  };
  struct Case {
    const char* group;
    uint32_t every;
  };
  for (const Case& one : {Case{"catch_up_none", 0}, Case{"catch_up_few", 100000}, Case{"catch_up_all", 1}}) {
    const std::string group = one.group;
    configure(benchmark::RegisterBenchmark((group + "/es_acl").c_str(), catch_up, &peer, one.every));
    configure(benchmark::RegisterBenchmark((group + "/first_fetch").c_str(), fetch_es_acl));
  }
}

}  // namespace es_acl_bench
