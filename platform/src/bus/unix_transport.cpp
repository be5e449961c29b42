// Unix-domain stream sockets as the bus's transport: what the two sides of it are put together from.
#include <cerrno>

#include "bus/transport.h"
#include "bus/unix_events.h"
#include "bus/unix_requests.h"
#include "bus/unix_server.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

namespace {

class UnixLink final : public Link {
 public:
  UnixLink(const std::string& class_name, Receiver& receiver)
      : address_(address_of_class(class_name)), requests_(address_), events_(address_, receiver) {}

  uint32_t connect(Deadline deadline) override {
    uint32_t none = 0;
    return requests_.exchange(make_frame(FrameKind::ping, 0), nullptr, nullptr, &none, deadline);
  }

  uint32_t lookup(std::string_view name, std::vector<char>* all_names, Deadline deadline) override {
    auto length = static_cast<uint32_t>(all_names->size());
    const FrameHeader header = make_frame(FrameKind::lookup, name.size(), 0, length);
    const uint32_t status = requests_.exchange(header, name.data(), all_names->data(), &length, deadline);
    all_names->resize(status == 0 ? length : 0);
    return status;
  }

  uint32_t request(const void* request, uint32_t length, void* answer, uint32_t* answer_length,
                   Deadline deadline) override {
    const uint32_t capacity = *answer_length;
    for (;;) {
      const UnixEvents::Standing standing = events_.settle(deadline);
      const FrameHeader header = make_frame(FrameKind::read, length, 0, capacity, standing.order);
      const uint32_t status = requests_.exchange(header, request, answer, answer_length, deadline);
      if (status != 0 || events_.answered(standing)) return status;
      *answer_length = capacity;
    }
  }

  void subscribe(uint64_t topic, std::string_view name) override { events_.subscribe(topic, name); }
  void unsubscribe(uint64_t topic) noexcept override { events_.unsubscribe(topic); }
  void resubscribe(uint64_t topic, uint64_t fresh) noexcept override { events_.resubscribe(topic, fresh); }
  void hold_changes() noexcept override { events_.hold_changes(); }
  void send_changes() noexcept override { events_.send_changes(); }
  uint64_t generation(Deadline deadline) override { return events_.generation(deadline); }
  uint32_t silence_ms() const noexcept override { return events_.silence_ms(); }
  void call_at(uint64_t at_ns) noexcept override { events_.call_at(at_ns); }

 private:
  const UnixAddress address_;
  UnixRequests requests_;
  UnixEvents events_;
};

class UnixTransport final : public Transport {
 public:
  std::unique_ptr<Link> open_link(const std::string& class_name, Receiver& receiver) override {
    return std::make_unique<UnixLink>(class_name, receiver);
  }
  uint32_t serve(const std::string& class_name, const ServerOptions& options, Service& service,
                 std::unique_ptr<Server>* out, std::string* why) override {
    return serve_unix(class_name, options, service, out, why);
  }
};

}  // namespace

Transport& transport() {
  static UnixTransport& unix_transport = *new UnixTransport;
  return unix_transport;
}

}  // namespace es_platform::bus
