// Many ACLs, end to end between two processes: in one call; one by one; and over a bare socket that carries and converts
// the same bytes in answers of the same size and keeps nothing.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_wire.h"
#include "map_store.h"
#include "peer.h"

namespace es_acl_bench {

namespace {

using Clock = std::chrono::steady_clock;

// The names of a set of ACLs, and what a get fills.
class Wanted {
 public:
  explicit Wanted(BulkSize size) : results_(size.acls), handles_(size.acls) {
    for (int64_t i = 0; i < size.acls; ++i) names_.push_back(acl_name(size.aces, i));
    for (const std::string& name : names_) entries_.push_back(const_cast<char*>(name.c_str()));
  }

  bool get_in_bulk() {
    const es_acl_handle_list names = list(entries_);
    es_acl_handle_list handles = list(handles_);
    return es_acl_get_definition(&names, &handles, results_.data()) == 0 && has_all();
  }
  bool get_one_by_one() {
    for (size_t i = 0; i < names_.size(); ++i) {
      const es_acl_handle_list name = {1, &entries_[i]};
      es_acl_handle_list handle = {1, &handles_[i]};
      if (es_acl_get_acl(&name, &handle, &results_[i]) != 0) return false;
    }
    return has_all();
  }
  void release() {
    const es_acl_handle_list handles = list(handles_);
    es_acl_release(&handles);
  }

 private:
  static es_acl_handle_list list(std::vector<void*>& entries) {
    return {static_cast<uint32_t>(entries.size()), entries.data()};
  }
  bool has_all() const {
    for (void* const handle : handles_)
      if (handle == nullptr) return false;
    return true;
  }

  std::vector<std::string> names_;
  std::vector<void*> entries_;
  std::vector<uint32_t> results_;
  std::vector<void*> handles_;
};

template <typename Work, typename Undo>
void time_rounds(benchmark::State& state, Work work, Undo undo) {
  for (auto _ : state) {
    const auto begin = Clock::now();
    const bool good = work();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    undo();
    if (!good) return state.SkipWithError("the get failed");
  }
}

void bulk_es_acl(benchmark::State& state, BulkSize size) {
  init_library();
  Wanted wanted(size);
  time_rounds(
      state, [&] { return wanted.get_in_bulk(); }, [&] { wanted.release(); });
}

void bulk_one_by_one(benchmark::State& state, BulkSize size) {
  init_library();
  Wanted wanted(size);
  time_rounds(
      state, [&] { return wanted.get_one_by_one(); }, [&] { wanted.release(); });
}

void bulk_bare_socket(benchmark::State& state, BulkSize size, const Peer* peer) {
  init_library();
  const int fd = peer->connect_bare();
  const auto count = static_cast<uint32_t>(size.acls * size.aces);
  time_rounds(
      state,
      [&] {
        const auto records = std::make_unique_for_overwrite<es_acl_pcx_acl_ace[]>(count);
        return read_bare(fd, records.get(), 0, count);
      },
      [] {});
  close(fd);
}

}  // namespace

void register_bulk_benchmarks(const Peer& peer) {
  for (const BulkSize& size : kBulkSizes) {
    const std::string what = std::to_string(size.acls) + 'x' + std::to_string(size.aces);
    const auto add = [&](const std::string& who, auto function, auto... further) {
      benchmark::RegisterBenchmark(("bulk/" + who + '/' + what).c_str(), function, size, further...)
          ->UseManualTime()
          ->Unit(benchmark::kMicrosecond);
    };
    add("es_acl", bulk_es_acl);
    add("one_by_one", bulk_one_by_one);
    add("bare_socket", bulk_bare_socket, &peer);
  }
}

}  // namespace es_acl_bench
