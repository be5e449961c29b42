#include "pusher.h"

#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace es_acl_bench {

namespace {

constexpr uint32_t kStep = 10;  // between the numbers of the ACLs
constexpr size_t kRecord = sizeof(es_acl_pcx_acl_ace);

es_acl_pcx_acl_ace change(const std::string& name, uint32_t command, uint32_t seq, uint16_t version) {
  es_acl_pcx_acl_ace record = {};
  record.cmd = command;
  record.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(record.acl_name, name.c_str());
  record.ace.seq = seq;
  record.ace.src_addr[1] = version;
  record.ace.grant = ES_ACL_PERMIT;
  es_acl_wire_acl_ace_order(&record);
  return record;
}

// `batch` different numbers in ascending order: of ACEs that are there (offset 0), or between them.
std::vector<uint32_t> random_numbers(std::mt19937& random, uint32_t size, uint32_t batch, uint32_t offset) {
  std::uniform_int_distribution<uint32_t> place(1, size);
  std::vector<uint32_t> numbers;
  while (numbers.size() < batch) {
    numbers.push_back(place(random) * kStep + offset);
    if (numbers.size() < batch) continue;
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  }
  return numbers;
}

std::vector<es_acl_pcx_acl_ace> make_stream(const BareRequest& order, uint16_t version) {
  std::mt19937 random(order.size + order.batch);
  const std::string name = acl_name(order.size);
  std::vector<es_acl_pcx_acl_ace> stream;
  std::vector<uint32_t> added;
  for (uint32_t message = 0; message < push_messages(order); ++message) {
    const uint32_t command = message % 3 == 2 ? ACL_PCX_REMOVE_ACE : ACL_PCX_ADD_ACE;
    const uint32_t offset = message % 3 == 0 ? 1 + message / 3 % (kStep - 1) : 0;
    if (message % 3 == 0) added = random_numbers(random, order.size, order.batch, offset);
    const std::vector<uint32_t> numbers =
        message % 3 == 1 ? random_numbers(random, order.size, order.batch, 0) : added;
    for (const uint32_t seq : numbers)
      stream.push_back(change(name, command, seq, static_cast<uint16_t>(version + message)));
  }
  return stream;
}

}  // namespace

uint32_t push_messages(const BareRequest& order) { return std::max(order.count / order.batch / 3 * 3, 3U); }

uint64_t shared_clock_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

bool write_all(int fd, const void* data, size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = send(fd, at, size, MSG_NOSIGNAL);
    if (written <= 0) return false;
    at += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

const Pusher::Stream& Pusher::next_stream(const BareRequest& order) {
  Streams& streams = streams_[{order.size, order.batch, order.count}];
  if (streams.versions[0].empty()) {
    streams.versions[0] = make_stream(order, 1);
    streams.versions[1] = make_stream(order, 0x8001);
  }
  return streams.next();
}

void Pusher::push_stream(const BareRequest& order) {
  const Stream& stream = next_stream(order);
  const std::string name = acl_name(order.size);
  for (size_t at = 0; at < stream.size(); at += order.batch)
    pcx_producer_push(producer_, PCX_CMD_WRITE, name.c_str(), &stream[at],
                      static_cast<uint32_t>(order.batch * kRecord), nullptr);
  pcx_producer_push(producer_, PCX_CMD_PROD_REQ, kDoneName, nullptr, 0, nullptr);
}

void Pusher::fan_out(const BareRequest& order) {
  const Stream message(order.batch, change(kFanName, ACL_PCX_ADD_ACE, 1, 1));
  for (uint32_t i = 0; i < order.count; ++i)
    pcx_producer_push(producer_, PCX_CMD_WRITE, kFanName, message.data(),
                      static_cast<uint32_t>(order.batch * kRecord), nullptr);
}

// The time travels in carried bytes.
es_acl_pcx_acl_ace Pusher::timed_change(const BareRequest& order) {
  es_acl_pcx_acl_ace record = change(acl_name(order.size), ACL_PCX_ADD_ACE, kStep, 1);
  const uint64_t now = shared_clock_ns();
  std::memcpy(record.ace.match_mask, &now, sizeof now);
  return record;
}

bool Pusher::serve(pcx_producer* producer, int fd, const BareRequest& order) {
  producer_ = producer;
  switch (order.kind) {
    case BareRequest::kPush:
      push_stream(order);
      return true;
    case BareRequest::kPushBare: {
      const Stream& stream = next_stream(order);
      return write_all(fd, stream.data(), stream.size() * kRecord);
    }
    case BareRequest::kPing: {
      const es_acl_pcx_acl_ace record = timed_change(order);
      return pcx_producer_push(producer_, PCX_CMD_WRITE, acl_name(order.size).c_str(), &record, kRecord,
                               nullptr) == 0;
    }
    case BareRequest::kPingBare: {
      const es_acl_pcx_acl_ace record = timed_change(order);
      return write_all(fd, &record, kRecord);
    }
    case BareRequest::kFan:
      fan_out(order);
      return true;
    case BareRequest::kRead:
    case BareRequest::kRestart:
      break;
  }
  return false;
}

}  // namespace es_acl_bench
