// A bus without a bus: consumers that keep what they are told in the plainest way, and answer as they are set.
#ifndef ES_ACL_TESTS_PRODUCER_MODEL_CONSUMER_H_
#define ES_ACL_TESTS_PRODUCER_MODEL_CONSUMER_H_

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bus_port.h"
#include "service.h"

namespace es_acl::producer::test {

// One consumer process. Its copy of an ACL: records by number, in wire byte order, as read. What is pushed for an ACL
// that it has registered and not yet read to the end is kept, and applied then. Pushes may come on another thread.
struct ModelConsumer {
  explicit ModelConsumer(uint64_t id) : peer{id, static_cast<int32_t>(1000 + id), 0} {}

  void register_at(Service& service, const std::string& acl_name);
  // Reads the ACL from its beginning, in batches; between two of them `between` is called.
  void read(
      Service& service, const std::string& acl_name, uint32_t batch,
      const std::function<void()>& between = [] {});
  void read_in_bulk(Service& service, const std::string& acl_name);

  // What the bus does.
  void apply(const std::string& acl_name, std::span<const std::byte> message);
  std::optional<acl_pcx_cons_resp> answer(std::span<const std::byte> question);

  struct Behaviour {
    uint32_t ask_status = 0;  // what the bus says of its answers
    bool answers = true;      // else what comes from it is not an answer
    uint32_t usage_rc = 0;    // 2: does not hold the ACL
    int32_t in_use = 0;
    std::string without_room = "";  // for additions to this ACL
    std::optional<uint32_t> lost_with =
        std::nullopt;  // what is pushed is lost, and this is what the bus says
  };
  Behaviour behaviour;

  pcx_peer peer;
  std::set<std::string> registered;
  std::map<std::string, std::map<uint32_t, AceRecord>> copies;
  size_t messages = 0;  // pushed batches and resequencings
  struct Held {
    std::string acl_name;
    std::vector<uint32_t> candidates;
  };
  std::map<std::pair<uint16_t, uint16_t>, Held> held;  // by origin and number
  std::vector<std::string> released;                   // "a 10 20": set aside for these, and then not needed

 private:
  std::vector<AceRecord> ask(Service& service, std::span<std::byte> request, size_t most);
  void apply_now(const std::string& acl_name, std::span<const std::byte> message);
  void read_to_the_end(const std::string& acl_name, const std::vector<AceRecord>& records);

  std::shared_ptr<std::mutex> mutex_ = std::make_shared<std::mutex>();  // copies of a consumer share it
  std::set<std::string> unread_;
  std::map<std::string, std::vector<std::vector<std::byte>>> parked_;
};

class ModelBus final : public BusPort {
 public:
  uint32_t publish(const std::string& name) override {
    return name == unpublishable ? ENOMEM : (published.insert(name), 0);
  }
  void unpublish(const std::string& name) noexcept override { published.erase(name); }
  uint32_t push_to(uint64_t peer, const std::string& name,
                   std::span<const std::byte> message) noexcept override;
  std::vector<Answer> ask(const std::string& name, std::span<const std::byte> question,
                          uint32_t deadline_ms) override;

  uint32_t inquire(const std::string& name, std::span<const std::byte>, uint64_t* number,
                   std::vector<pcx_peer>* asked) override {
    for (const auto& [id, consumer] : consumers)
      if (consumer.registered.contains(name)) asked->push_back(consumer.peer);
    return *number = ++inquiries, 0;
  }

  std::map<uint64_t, ModelConsumer> consumers;  // by peer id
  std::set<std::string> published;
  std::string unpublishable;
  uint64_t inquiries = 0;
  std::function<void()> before_push = [] {};
};

}  // namespace es_acl::producer::test

#endif  // ES_ACL_TESTS_PRODUCER_MODEL_CONSUMER_H_
