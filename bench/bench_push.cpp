// Pushed changes, end to end between two processes: how many are applied in a second, how soon one is told, what a push
// to many processes costs.
//
// Rates: a stream of changes at random places of a list (new ACEs, changed ACEs, the removal of the new ones), in
// messages of 1, 50 and 400, is applied by the library, with and without an update callback; into a std::map under a
// mutex, over the same bus; and received and converted from a bare socket that carries the same bytes and keeps nothing.
// The bus and the bare socket send what is there with as few writes as they can. Nobody walks the list meanwhile.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_wire.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"
#include "map_store.h"
#include "peer.h"

namespace es_acl_bench {

namespace {

constexpr uint32_t kRecord = sizeof(es_acl_pcx_acl_ace);
constexpr uint32_t kChanges = 96000;  // of one order: it fits a consumer's queue
constexpr int kOrdersBefore = 20;
constexpr uint32_t kPings = 4000;

sem_t arrived;

void wait_for(sem_t* semaphore) {
  while (sem_wait(semaphore) != 0) {
  }
}

void on_done(uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) { sem_post(&arrived); }

// A name registered on the bus, while it lives.
class Registration {
 public:
  Registration(const std::string& name, pcx_handler handler, void* context) {
    if (dsv_register(es_acl_classhandle, name.c_str(), &handle_) != 0 ||
        pcx_register(handle_, 0, reinterpret_cast<uint64_t>(context), handler) != 0)
      std::abort();
  }
  ~Registration() { pcx_unregister(handle_); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

 private:
  void* handle_ = nullptr;
};

// Waits until the registrations made so far have reached the producer: the answer to a read says so.
bool settle() {
  acl_pcx_query_req request = {};
  uint32_t length = sizeof request;
  void* address = nullptr;
  return dsv_lookup_data(es_acl_classhandle, acl_name(1000).c_str(), &address) == 0 &&
         pcx_read(address, &request, sizeof request, &request, &length) == 0;
}

// The library's copy of one of the peer's ACLs.
class Acl {
 public:
  explicit Acl(int64_t size) : name_(acl_name(size)), name_entry_(name_.data()) {
    uint32_t result;
    if (es_acl_get_acl(&names_, &acls_, &result) != 0) std::abort();
  }
  ~Acl() { es_acl_release(&acls_); }
  Acl(const Acl&) = delete;
  Acl& operator=(const Acl&) = delete;

 private:
  std::string name_;
  void* name_entry_;
  void* acl_ = nullptr;
  es_acl_handle_list names_ = {1, &name_entry_};
  es_acl_handle_list acls_ = {1, &acl_};
};

class Orders {
 public:
  explicit Orders(const Peer* peer) : fd_(peer->connect_bare()) {}
  ~Orders() { close(fd_); }
  Orders(const Orders&) = delete;
  Orders& operator=(const Orders&) = delete;

  int fd() const { return fd_; }
  void give(const BareRequest& order) const {
    if (send(fd_, &order, sizeof order, MSG_NOSIGNAL) != sizeof order) std::abort();
  }

 private:
  int fd_;
};

BareRequest push_order(const benchmark::State& state, BareRequest::Kind kind) {
  return {kind, 0, kChanges, static_cast<uint32_t>(state.range(0)), static_cast<uint32_t>(state.range(1))};
}

// One iteration is one order. The first of all makes the stream, and those behind it touch the memory that changes go
// round in: fresh memory costs up to a hundred times what is done with it, and is not what is measured.
template <typename Run>
void time_orders(benchmark::State& state, const BareRequest& order, Run run) {
  for (int i = 0; i < kOrdersBefore; ++i) run();
  for (auto _ : state) {
    const uint64_t begin = shared_clock_ns();
    run();
    state.SetIterationTime(static_cast<double>(shared_clock_ns() - begin) * 1e-9);
  }
  const double changes = static_cast<double>(push_messages(order)) * order.batch;
  state.counters["changes/s"] = benchmark::Counter(changes, benchmark::Counter::kIsIterationInvariantRate);
}

void push_and_wait(benchmark::State& state, const Peer* peer) {
  const BareRequest order = push_order(state, BareRequest::kPush);
  const Orders orders(peer);
  const Registration done(kDoneName, on_done, nullptr);
  if (!settle()) std::abort();
  time_orders(state, order, [&] {
    orders.give(order);
    wait_for(&arrived);
  });
}

void push_es_acl(benchmark::State& state, const Peer* peer) {
  init_library();
  const Acl acl(state.range(0));
  push_and_wait(state, peer);
}

uint32_t look_at_batch(es_acl_head*, uint32_t, uint32_t n, const ace_edit_info* batch, void* context) {
  uint64_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += batch[i].ace->seq;
  *static_cast<uint64_t*>(context) += sum;
  return 0;
}

void push_es_acl_callback(benchmark::State& state, const Peer* peer) {
  init_library();
  uint64_t sum = 0;
  es_acl_register_update_callback(look_at_batch, &sum);
  {
    const Acl acl(state.range(0));
    push_and_wait(state, peer);
  }
  es_acl_unregister_update_callback(look_at_batch, &sum);
  benchmark::DoNotOptimize(sum);
}

void apply_to_map(uint64_t context, uint32_t, void* payload, uint32_t length, void**, uint32_t*) {
  auto& store = *reinterpret_cast<MapStore*>(context);
  auto* const records = static_cast<es_acl_pcx_acl_ace*>(payload);
  for (uint32_t i = 0; i < length / kRecord; ++i) {
    es_acl_wire_acl_ace_order(&records[i]);
    const std::lock_guard<std::mutex> guard(store.lock);
    if (records[i].cmd == ACL_PCX_REMOVE_ACE)
      store.aces.erase(records[i].ace.seq);
    else
      store.aces.insert_or_assign(records[i].ace.seq, records[i].ace);
  }
}

void push_std_map(benchmark::State& state, const Peer* peer) {
  init_library();
  const std::string name = acl_name(state.range(0));
  void* address = nullptr;
  MapStore store;
  if (dsv_lookup_data(es_acl_classhandle, name.c_str(), &address) != 0 ||
      !read_into_map(address, name, store))
    std::abort();
  const Registration registration(name, apply_to_map, &store);
  push_and_wait(state, peer);
}

bool receive_bare(int fd, size_t size, std::vector<es_acl_pcx_acl_ace>& buffer) {
  while (size > 0) {
    const size_t part = std::min(size, buffer.size() * kRecord);
    if (recv(fd, buffer.data(), part, MSG_WAITALL) != static_cast<ssize_t>(part)) return false;
    for (size_t i = 0; i < part / kRecord; ++i) es_acl_wire_acl_ace_order(&buffer[i]);
    benchmark::DoNotOptimize(buffer.data());
    size -= part;
  }
  return true;
}

void push_bare_socket(benchmark::State& state, const Peer* peer) {
  const BareRequest order = push_order(state, BareRequest::kPushBare);
  const Orders orders(peer);
  std::vector<es_acl_pcx_acl_ace> buffer(65536 / kRecord);
  time_orders(state, order, [&] {
    orders.give(order);
    if (!receive_bare(orders.fd(), size_t{push_messages(order)} * order.batch * kRecord, buffer))
      std::abort();
  });
}

// --- Latency ---

std::vector<uint64_t> latencies;

void note_latency(const es_acl_ace& ace) {
  uint64_t sent;
  std::memcpy(&sent, ace.match_mask, sizeof sent);
  latencies.push_back(shared_clock_ns() - sent);
}

uint32_t on_ping(es_acl_head*, uint32_t action, uint32_t, const ace_edit_info* batch, void*) {
  if (action == ACL_REMOVE_ACE) return 0;
  note_latency(*batch->ace);
  sem_post(&arrived);
  return 0;
}

// The iteration's time is the median latency.
template <typename Ping>
void time_pings(benchmark::State& state, Ping ping) {
  for (auto _ : state) {
    latencies.clear();
    for (uint32_t i = 0; i < kPings; ++i) ping();
    std::sort(latencies.begin(), latencies.end());
    state.SetIterationTime(static_cast<double>(latencies[kPings / 2]) * 1e-9);
    state.counters["p99_us"] = static_cast<double>(latencies[kPings * 99 / 100]) * 1e-3;
  }
}

void latency_es_acl(benchmark::State& state, const Peer* peer) {
  init_library();
  const Orders orders(peer);
  es_acl_register_update_callback(on_ping, nullptr);
  {
    const Acl acl(1000);
    time_pings(state, [&] {
      orders.give({BareRequest::kPing, 0, 1, 1000, 1});
      wait_for(&arrived);
    });
  }
  es_acl_unregister_update_callback(on_ping, nullptr);
}

void latency_bare_socket(benchmark::State& state, const Peer* peer) {
  const Orders orders(peer);
  time_pings(state, [&] {
    es_acl_pcx_acl_ace record;
    orders.give({BareRequest::kPingBare, 0, 1, 1000, 1});
    if (recv(orders.fd(), &record, sizeof record, MSG_WAITALL) != sizeof record) std::abort();
    es_acl_wire_acl_ace_order(&record);
    note_latency(record.ace);
  });
}

// --- Many processes ---

// Consumer processes of their own; each says on its pipe when it is ready and when it has got everything.
class FanConsumers {
 public:
  FanConsumers(int64_t processes, uint32_t messages) {
    for (int64_t i = 0; i < processes; ++i) {
      pipes_.push_back(
          popen(("exec /proc/" + std::to_string(getpid()) + "/exe --fan-consumer " + std::to_string(messages))
                    .c_str(),
                "r"));
      if (pipes_.back() == nullptr) std::abort();
    }
    wait();
  }
  ~FanConsumers() {
    for (FILE* pipe : pipes_) pclose(pipe);
  }
  FanConsumers(const FanConsumers&) = delete;
  FanConsumers& operator=(const FanConsumers&) = delete;

  // For a line of each.
  void wait() {
    for (FILE* pipe : pipes_)
      while (const int c = std::fgetc(pipe)) {
        if (c == EOF) std::abort();
        if (c == '\n') break;
      }
  }

 private:
  std::vector<FILE*> pipes_;
};

void push_fan_out(benchmark::State& state, const Peer* peer) {
  constexpr uint32_t kMessages = 1000;
  constexpr uint32_t kBatch = 50;
  const Orders orders(peer);
  for (auto _ : state) {
    FanConsumers consumers(state.range(0), kMessages);
    const uint64_t begin = shared_clock_ns();
    orders.give({BareRequest::kFan, 0, kMessages, 0, kBatch});
    consumers.wait();
    state.SetIterationTime(static_cast<double>(shared_clock_ns() - begin) * 1e-9 / kMessages);
  }
}

uint32_t fan_messages;

void on_fan_message(uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) {
  if (--fan_messages == 0) sem_post(&arrived);
}

}  // namespace

int run_fan_consumer(uint32_t messages) {
  sem_init(&arrived, 0, 0);
  fan_messages = messages;
  pcx_lr_init(nullptr);
  if (dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &es_acl_classhandle) != 0) return 1;
  const Registration registration(kFanName, on_fan_message, nullptr);
  if (!settle()) return 1;
  std::puts("ready");
  std::fflush(stdout);
  wait_for(&arrived);
  std::puts("done");
  return 0;
}

void register_push_benchmarks(const Peer& peer) {
  sem_init(&arrived, 0, 0);
  const auto add = [&](const char* name, auto run) {
    return benchmark::RegisterBenchmark(name, run, &peer)->UseManualTime();
  };
  // A group for each message size; its rows are the list sizes.
  for (const int64_t batch : {1, 50, 400}) {
    const std::string group = "push_" + std::to_string(batch);
    const auto add_rates = [&](const char* variant, auto run) {
      add((group + variant).c_str(), run)
          ->ArgsProduct({{1000, 100000, 1000000}, {batch}})
          ->Iterations(50)
          ->Unit(benchmark::kMillisecond);
    };
    add_rates("/es_acl", push_es_acl);
    add_rates("/es_acl_callback", push_es_acl_callback);
    add_rates("/std_map", push_std_map);
    add_rates("/bare_socket", push_bare_socket);
  }
  add("push_latency/es_acl", latency_es_acl)->Iterations(1)->Unit(benchmark::kMicrosecond);
  add("push_latency/bare_socket", latency_bare_socket)->Iterations(1)->Unit(benchmark::kMicrosecond);
  add("push_fan_out", push_fan_out)->Arg(1)->Arg(8)->Arg(64)->Iterations(1)->Unit(benchmark::kMicrosecond);
}

}  // namespace es_acl_bench
