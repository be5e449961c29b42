// First fetch of one ACL, end to end between two processes: by the library; by a bare socket that carries and
// converts the same bytes in batches of the same size and keeps nothing; and over the same bus into a
// std::map under a mutex.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_wire.h"
#include "es_platform/dsv.h"
#include "es_platform/evm.h"
#include "es_platform/pcx.h"
#include "fetch.h"
#include "map_store.h"
#include "peer.h"

namespace es_acl_bench {

namespace {

constexpr uint32_t kRecord = sizeof(es_acl_pcx_acl_ace);

}  // namespace

void init_library() {
  static evm* events = [] {
    evm* made = nullptr;
    evm_create(&made);
    return made;
  }();
  if (es_acl_clib_init(events) != 0) std::abort();
}

uint32_t batch_size() { return pcx_get_optimum_msg_size(es_acl_classhandle) / kRecord; }

bool read_into_map(void* address, const std::string& name, MapStore& store) {
  std::vector<es_acl_pcx_acl_ace> buffer(batch_size());
  uint32_t start_seq = 0;
  for (;;) {
    acl_pcx_read_req request = {};
    request.cmd = ACL_PCX_READ_ACES;
    request.ver = ES_ACL_PCX_VERSION;
    es_acl_wire_set_name(request.acl_name, name.c_str());
    request.start_seq = start_seq;
    request.max_entries = batch_size();
    es_acl_wire_read_req_order(&request);
    uint32_t length = batch_size() * kRecord;
    if (pcx_read(address, &request, sizeof request, buffer.data(), &length) != 0) return false;
    const uint32_t count = length / kRecord;
    for (uint32_t i = 0; i < count; ++i) {
      es_acl_wire_acl_ace_order(&buffer[i]);
      start_seq = buffer[i].ace.seq;
      const std::lock_guard<std::mutex> guard(store.lock);
      store.aces.emplace(start_seq, buffer[i].ace);
    }
    if (count < batch_size()) return true;
  }
}

namespace {

// Runs `fetch` as one timed iteration and `forget` untimed.
template <typename Fetch, typename Forget>
void time_fetches(benchmark::State& state, Fetch fetch, Forget forget) {
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    const bool good = fetch();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    forget();
    if (!good) {
      state.SkipWithError("the fetch failed");
      return;
    }
  }
  state.counters["ACEs/s"] = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                                                benchmark::Counter::kIsRate);
}

}  // namespace

void fetch_es_acl(benchmark::State& state) {
  init_library();
  const std::string name = acl_name(state.range(0));
  void* name_entry = const_cast<char*>(name.c_str());
  void* acl = nullptr;
  const es_acl_handle_list names = {1, &name_entry};
  es_acl_handle_list acls = {1, &acl};
  uint32_t result = 0;
  time_fetches(
      state, [&] { return es_acl_get_acl(&names, &acls, &result) == 0; }, [&] { es_acl_release(&acls); });
}

bool read_bare(int fd, es_acl_pcx_acl_ace* records, uint32_t first, uint32_t count) {
  const BareRequest request = {BareRequest::kRead, first, count, 0, 0};
  if (send(fd, &request, sizeof request, MSG_NOSIGNAL) != sizeof request) return false;
  const size_t length = size_t{count} * kRecord;
  if (recv(fd, records, length, MSG_WAITALL) != static_cast<ssize_t>(length)) return false;
  for (uint32_t i = 0; i < count; ++i) es_acl_wire_acl_ace_order(&records[i]);
  benchmark::DoNotOptimize(records);
  return true;
}

namespace {

void fetch_bare_socket(benchmark::State& state, const Peer* peer) {
  init_library();
  const int fd = peer->connect_bare();
  const uint32_t size = static_cast<uint32_t>(state.range(0));
  time_fetches(
      state,
      [&] {
        std::vector<es_acl_pcx_acl_ace> buffer(batch_size());
        for (uint32_t first = 0; first < size; first += batch_size())
          if (!read_bare(fd, buffer.data(), first, std::min(batch_size(), size - first))) return false;
        return true;
      },
      [] {});
  close(fd);
}

void fetch_std_map(benchmark::State& state) {
  init_library();
  const std::string name = acl_name(state.range(0));
  void* address = nullptr;
  if (dsv_lookup_data(es_acl_classhandle, name.c_str(), &address) != 0) std::abort();
  MapStore store;
  // A first fetch finds no memory that an earlier one left behind: the store gives its slabs back, the map's
  // go here.
  time_fetches(
      state, [&] { return read_into_map(address, name, store); },
      [&] {
        store.aces.clear();
        malloc_trim(0);
      });
}

}  // namespace

void register_fetch_benchmarks(const Peer& peer) {
  const auto configure = [](benchmark::internal::Benchmark* made) {
    made->Arg(1000)->Arg(100000)->Arg(1000000)->UseManualTime()->Unit(benchmark::kMicrosecond);
  };
  configure(benchmark::RegisterBenchmark("fetch/es_acl", fetch_es_acl));
  configure(benchmark::RegisterBenchmark("fetch/bare_socket", fetch_bare_socket, &peer));
  configure(benchmark::RegisterBenchmark("fetch/std_map", fetch_std_map));
}

}  // namespace es_acl_bench
