// What the producer needs of the bus when its configuration changes: names, pushes and questions.
#ifndef ES_ACL_PRODUCER_BUS_PORT_H_
#define ES_ACL_PRODUCER_BUS_PORT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "es_platform/pcx_producer.h"
#include "messages.h"

namespace es_acl::producer {

class BusPort {
 public:
  // What became of a question at one consumer.
  struct Answer {
    pcx_peer peer;
    uint32_t status;                            // 0; 3: it went away; 62: silent until the deadline
    std::optional<acl_pcx_cons_resp> response;  // host byte order; none when what came is not an answer
  };

  virtual ~BusPort() = default;

  // A status.
  virtual uint32_t publish(const std::string& name) = 0;
  virtual void unpublish(const std::string& name) noexcept = 0;
  // Queues a write for one consumer and never waits. 0, 2 when it has not registered the name, or another status.
  virtual uint32_t push_to(uint64_t peer, const std::string& name,
                           std::span<const std::byte> message) noexcept = 0;
  // Puts a synchronous question to everyone who registered the name, and waits for the answers. std::bad_alloc.
  virtual std::vector<Answer> ask(const std::string& name, std::span<const std::byte> question,
                                  uint32_t deadline_ms) = 0;
  // Puts a question beside the messages to everyone who registered the name, and waits for nothing: what they answer comes
  // to Service::inquiry_answered() with the number. 0 or another status.
  virtual uint32_t inquire(const std::string& name, std::span<const std::byte> question, uint64_t* number,
                           std::vector<pcx_peer>* asked) = 0;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_BUS_PORT_H_
