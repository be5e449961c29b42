// The producer on the bus: opens the class, hands what consumers ask to the service, and carries out what a change
// needs.
#ifndef ES_ACL_PRODUCER_PCX_BUS_H_
#define ES_ACL_PRODUCER_PCX_BUS_H_

#include <memory>

#include "bus_port.h"
#include "service.h"

namespace es_acl::producer {

class PcxBus final : public BusPort {
 public:
  // Opens the class; from then on the service is called on the bus's thread. Null when it cannot be opened, and the
  // reason has been logged. `queue_limit`: bytes that may wait for one consumer. `verbose`: log who leaves. The service
  // must outlive the bus.
  static std::unique_ptr<PcxBus> open(Service& service, uint64_t queue_limit, bool verbose);

  uint32_t publish(const std::string& name) override;
  void unpublish(const std::string& name) noexcept override;
  uint32_t push_to(uint64_t peer, const std::string& name,
                   std::span<const std::byte> message) noexcept override;
  std::vector<Answer> ask(const std::string& name, std::span<const std::byte> question,
                          uint32_t deadline_ms) override;
  uint32_t inquire(const std::string& name, std::span<const std::byte> question, uint64_t* number,
                   std::vector<pcx_peer>* asked) override;

  // The size at which messages travel best, and no more than a queue of that limit can hold.
  static uint32_t message_size(uint64_t queue_limit);

 private:
  struct Closer {
    void operator()(pcx_producer* producer) const { pcx_producer_close(producer); }
  };

  PcxBus(Service& service, bool verbose) : service_(service), verbose_(verbose) {}

  static uint32_t on_read(void* user, const pcx_peer* peer, void* request, uint32_t request_length,
                          void* answer, uint32_t capacity, uint32_t* answer_length);
  static void on_peer_gone(void* user, const pcx_peer* peer);
  static uint32_t on_registered(void* user, const pcx_peer* peer, const char* name, uint32_t);
  static void on_inquiry_answered(void* user, const pcx_peer* peer, uint64_t number, const void* response,
                                  uint32_t response_length);

  Service& service_;
  const bool verbose_;
  std::unique_ptr<pcx_producer, Closer> producer_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_PCX_BUS_H_
