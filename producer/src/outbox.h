// The messages of a change and their addressees: made ready in steps that may fail, so that sending cannot fail
// half-way.
//
// Not thread-safe.
#ifndef ES_ACL_PRODUCER_OUTBOX_H_
#define ES_ACL_PRODUCER_OUTBOX_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "audience.h"
#include "bus_port.h"

namespace es_acl::producer {

// What was sent: messages, counted for each consumer, and consumers.
struct Delivery {
  size_t messages = 0;
  size_t consumers = 0;
};

class Outbox {
 public:
  // The changes must outlive the outbox.
  explicit Outbox(std::span<const AclChange> changes);

  // To everyone who is armed.
  void address_to(const Audience& audience);
  // Once. Who cannot be reached is taken out of the audience, and is not sent what is left.
  Delivery send(BusPort& bus, Audience* audience) noexcept;

 private:
  struct Parcel {
    const AclChange* change;
    std::array<std::vector<Message>, kFormCount> messages;  // by form
  };
  struct Addressee {
    uint64_t peer;
    const AclChange* change;
    std::span<const Message> messages;
  };

  std::vector<Parcel> parcels_;
  std::vector<Addressee> addressees_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_OUTBOX_H_
