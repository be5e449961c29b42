#include "peer.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "es_acl/es_acl_wire.h"
#include "es_platform/pcx_producer.h"
#include "pusher.h"

namespace es_acl_bench {

namespace {

constexpr uint32_t kMostAces = 1000000;
constexpr uint32_t kStep = 10;
constexpr int64_t kSizes[] = {1000, 100000, 1000000};

// The records of the largest ACL as they travel; a smaller one is the beginning of it.
std::vector<es_acl_pcx_acl_ace> make_records() {
  std::vector<es_acl_pcx_acl_ace> records(kMostAces);
  for (uint32_t i = 0; i < kMostAces; ++i) {
    es_acl_pcx_acl_ace& record = records[i];
    record.ver = ES_ACL_PCX_VERSION;
    es_acl_wire_set_name(record.acl_name, "acl");
    record.ace.seq = (i + 1) * kStep;
    record.ace.src_addr[2] = static_cast<uint16_t>(i);
    record.ace.vlan_first = record.ace.vlan_last = static_cast<uint16_t>(1 + i % 4094);
    record.ace.grant = ES_ACL_PERMIT;
    es_acl_wire_acl_ace_order(&record);
  }
  return records;
}

uint32_t answer_count(const acl_pcx_query_req* request, void* answer, uint32_t* answer_length) {
  acl_pcx_query_resp response = {ES_ACL_PCX_VERSION, 0,
                                 static_cast<uint32_t>(std::atoi(request->acl_name + 4)), 0};
  es_acl_wire_query_resp_order(&response);
  std::memcpy(answer, &response, sizeof response);
  *answer_length = sizeof response;
  return 0;
}

uint32_t answer_read(const std::vector<es_acl_pcx_acl_ace>& records, acl_pcx_read_req* request, void* answer,
                     uint32_t capacity, uint32_t* answer_length) {
  es_acl_wire_read_req_order(request);
  const uint32_t size = static_cast<uint32_t>(std::atoi(request->acl_name + 4));
  const uint32_t first = std::min(request->start_seq / kStep, size);
  const uint32_t room = std::min<uint32_t>(request->max_entries, capacity / sizeof records[0]);
  const uint32_t count = std::min(room, size - first);
  *answer_length = count * static_cast<uint32_t>(sizeof records[0]);
  std::memcpy(answer, &records[first], *answer_length);
  return 0;
}

// Calls `work` with the size of each ACL that a bulk request names.
template <typename Work>
void for_each_size(const acl_pcx_bulk_req* request, Work work) {
  const char* name = reinterpret_cast<const char*>(request + 1);
  const uint32_t count = es_acl_wire_32(request->num_entries);
  for (uint32_t i = 0; i < count; ++i, name += ES_ACL_NAME_FIELD_SIZE)
    work(static_cast<uint32_t>(std::atoi(name + 4)));
}

uint32_t answer_bulk_count(const acl_pcx_bulk_req* request, void* answer, uint32_t* answer_length) {
  auto* const begin = static_cast<acl_pcx_query_resp*>(answer);
  auto* out = begin;
  for_each_size(request, [&](uint32_t size) {
    *out = {ES_ACL_PCX_VERSION, 0, size, 0};
    es_acl_wire_query_resp_order(out++);
  });
  *answer_length = static_cast<uint32_t>((out - begin) * sizeof *out);
  return 0;
}

uint32_t answer_bulk_read(const std::vector<es_acl_pcx_acl_ace>& records, const acl_pcx_bulk_req* request,
                          void* answer, uint32_t* answer_length) {
  auto* const begin = static_cast<es_acl_pcx_acl_ace*>(answer);
  auto* out = begin;
  for_each_size(request, [&](uint32_t size) { out = std::copy_n(records.data(), size, out); });
  *answer_length = static_cast<uint32_t>((out - begin) * sizeof *out);
  return 0;
}

uint32_t serve(void* user, const pcx_peer*, void* request, uint32_t, void* answer, uint32_t capacity,
               uint32_t* answer_length) {
  const auto& records = *static_cast<const std::vector<es_acl_pcx_acl_ace>*>(user);
  const uint32_t command = es_acl_wire_32(*static_cast<uint32_t*>(request));
  if (command == ACL_PCX_QUERY_ACE_COUNT_BULK)
    return answer_bulk_count(static_cast<acl_pcx_bulk_req*>(request), answer, answer_length);
  if (command == ACL_PCX_READ_ACES_BULK)
    return answer_bulk_read(records, static_cast<acl_pcx_bulk_req*>(request), answer, answer_length);
  if (command == ACL_PCX_QUERY_ACE_COUNT)
    return answer_count(static_cast<acl_pcx_query_req*>(request), answer, answer_length);
  return answer_read(records, static_cast<acl_pcx_read_req*>(request), answer, capacity, answer_length);
}

sockaddr_un bare_address(const std::string& directory) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/bare", directory.c_str());
  return address;
}

// What the peer serves on the bus. It comes and goes; the records stay.
class Bus {
 public:
  Bus() { open(); }
  const std::vector<es_acl_pcx_acl_ace>& records() const { return records_; }
  pcx_producer* producer() const { return producer_; }

  // A producer that remembers no client, with every `every`-th ACE another one; 0: none.
  void restart(uint32_t every) {
    pcx_producer_close(producer_);
    for (uint32_t i = every / 2; every != 0 && i < kMostAces; i += every) ++records_[i].ace.src_addr[1];
    open();
  }

 private:
  void open() {
    const pcx_producer_ops ops = {serve, nullptr, nullptr, nullptr};
    if (pcx_producer_open(ES_ACL_DSV_CLASS_NAME, &ops, &records_, nullptr, &producer_) != 0) {
      std::fprintf(stderr, "es_acl_bench: %s\n", pcx_producer_error());
      _exit(1);
    }
    for (const int64_t size : kSizes) pcx_producer_publish(producer_, acl_name(size).c_str());
    for (const BulkSize& size : kBulkSizes)
      for (int64_t i = 0; i < size.acls; ++i) pcx_producer_publish(producer_, acl_name(size.aces, i).c_str());
  }

  std::vector<es_acl_pcx_acl_ace> records_ = make_records();
  pcx_producer* producer_ = nullptr;
};

void serve_bare(int listener, Bus& bus) {
  Pusher pusher;
  const auto serve_one = [&](int fd, const BareRequest& request) {
    if (request.kind == BareRequest::kRestart) return bus.restart(request.count), true;
    if (request.kind != BareRequest::kRead) return pusher.serve(bus.producer(), fd, request);
    return write_all(fd, &bus.records()[request.first], size_t{request.count} * sizeof(es_acl_pcx_acl_ace));
  };
  for (;;) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    BareRequest request;
    while (recv(fd, &request, sizeof request, MSG_WAITALL) == sizeof request && serve_one(fd, request)) {
    }
    close(fd);
  }
}

[[noreturn]] void run_peer(const std::string& directory, int ready) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const sockaddr_un address = bare_address(directory);
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 8) != 0)
    _exit(1);
  Bus bus;
  if (write(ready, "r", 1) != 1) _exit(1);
  serve_bare(listener, bus);
  _exit(0);
}

}  // namespace

std::string acl_name(int64_t size) { return "acl-" + std::to_string(size); }
std::string acl_name(int64_t size, int64_t index) { return acl_name(size) + '-' + std::to_string(index); }

bool Peer::start() {
  char directory[] = "/tmp/es-acl-bench-XXXXXX";
  int ready[2];
  if (mkdtemp(directory) == nullptr || pipe(ready) != 0) return false;
  directory_ = directory;
  setenv("ES_PCX_DIR", directory, 1);
  setenv("ES_DIAG_DIR", (directory_ + "/diag").c_str(), 1);
  pid_ = fork();
  if (pid_ == 0) run_peer(directory_, ready[1]);
  close(ready[1]);
  char byte;
  const bool serves = pid_ > 0 && read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  return serves;
}

Peer::~Peer() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

int Peer::connect_bare() const {
  const sockaddr_un address = bare_address(directory_);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace es_acl_bench
