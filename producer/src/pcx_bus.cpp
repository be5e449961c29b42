#include "pcx_bus.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "es_platform/dsv.h"
#include "es_platform/pcx.h"
#include "log.h"

namespace es_acl::producer {
namespace {

// A line that there is no memory for is lost, and nothing else.
template <typename Line>
void try_to_log(Line&& line) {
  try {
    log_line(line());
  } catch (const std::bad_alloc&) {
  }
}

void log_bus_line(const char* line) {
  try_to_log([&] { return std::string(line); });
}

struct Gathering {
  std::vector<BusPort::Answer> answers;
  bool out_of_memory = false;
};

void gather(void* user, const pcx_sync_answer* answer) {
  auto* gathering = static_cast<Gathering*>(user);
  try {
    const auto* bytes = static_cast<const std::byte*>(answer->response);
    gathering->answers.push_back(
        {answer->peer, answer->status, parse_answer({bytes, answer->response_length})});
  } catch (const std::bad_alloc&) {
    gathering->out_of_memory = true;
  }
}

}  // namespace

std::unique_ptr<PcxBus> PcxBus::open(Service& service, uint64_t queue_limit, bool verbose) {
  std::unique_ptr<PcxBus> bus(new PcxBus(service, verbose));
  const pcx_producer_ops operations = {on_read, on_peer_gone, on_registered, on_inquiry_answered};
  const pcx_producer_options bus_options = {queue_limit, log_bus_line};
  pcx_producer* producer = nullptr;
  if (pcx_producer_open(ES_ACL_DSV_CLASS_NAME, &operations, bus.get(), &bus_options, &producer) != 0) {
    log_line(std::string("bus: ") + pcx_producer_error());
    return nullptr;
  }
  bus->producer_.reset(producer);
  service.attach(bus.get());
  return bus;
}

// --- What the bus calls: no exception leaves these ---

uint32_t PcxBus::on_read(void* user, const pcx_peer* peer, void* request, uint32_t request_length,
                         void* answer, uint32_t capacity, uint32_t* answer_length) {
  try {
    return static_cast<PcxBus*>(user)->service_.answer(
        *peer, {static_cast<std::byte*>(request), request_length},
        {static_cast<std::byte*>(answer), capacity}, answer_length);
  } catch (const std::bad_alloc&) {
    *answer_length = 0;
    return ENOMEM;
  }
}

void PcxBus::on_peer_gone(void* user, const pcx_peer* peer) {
  auto* bus = static_cast<PcxBus*>(user);
  bus->service_.forget(*peer);
  if (bus->verbose_) try_to_log([&] { return "process " + std::to_string(peer->pid) + " is gone"; });
}

uint32_t PcxBus::on_registered(void* user, const pcx_peer* peer, const char* name, uint32_t) {
  try {
    static_cast<PcxBus*>(user)->service_.registered(*peer, name);
    return 0;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

void PcxBus::on_inquiry_answered(void* user, const pcx_peer* peer, uint64_t number, const void* response,
                                 uint32_t response_length) {
  static_cast<PcxBus*>(user)->service_.inquiry_answered(
      *peer, number, {static_cast<const std::byte*>(response), response_length});
}

// --- What a change needs ---

uint32_t PcxBus::publish(const std::string& name) {
  return pcx_producer_publish(producer_.get(), name.c_str());
}

void PcxBus::unpublish(const std::string& name) noexcept {
  pcx_producer_unpublish(producer_.get(), name.c_str());
}

uint32_t PcxBus::push_to(uint64_t peer, const std::string& name,
                         std::span<const std::byte> message) noexcept {
  if (message.size() > UINT32_MAX) return EINVAL;
  return pcx_producer_push_to(producer_.get(), peer, PCX_CMD_WRITE, name.c_str(), message.data(),
                              static_cast<uint32_t>(message.size()));
}

std::vector<BusPort::Answer> PcxBus::ask(const std::string& name, std::span<const std::byte> question,
                                         uint32_t deadline_ms) {
  Gathering gathering;
  const uint32_t status =
      pcx_producer_sync(producer_.get(), name.c_str(), question.data(),
                        static_cast<uint32_t>(question.size()), deadline_ms, gather, &gathering);
  if (status != 0 || gathering.out_of_memory) throw std::bad_alloc();
  return std::move(gathering.answers);
}

uint32_t PcxBus::inquire(const std::string& name, std::span<const std::byte> question, uint64_t* number,
                         std::vector<pcx_peer>* asked) {
  struct Asked {
    std::vector<pcx_peer>& peers;
    bool out_of_memory;
  } all = {*asked, false};
  const auto note = [](void* user, const pcx_peer* peer) {
    auto& all_asked = *static_cast<Asked*>(user);
    try {
      all_asked.peers.push_back(*peer);
    } catch (const std::bad_alloc&) {
      all_asked.out_of_memory = true;
    }
  };
  const uint32_t status = pcx_producer_inquire(producer_.get(), name.c_str(), question.data(),
                                               static_cast<uint32_t>(question.size()), number, note, &all);
  return all.out_of_memory ? ENOMEM : status;
}

uint32_t PcxBus::message_size(uint64_t queue_limit) {
  uint32_t class_handle = 0;
  dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &class_handle);
  const uint64_t optimum = pcx_get_optimum_msg_size(class_handle);
  return static_cast<uint32_t>(std::min(optimum, queue_limit - PCX_FRAME_ROOM));
}

}  // namespace es_acl::producer
