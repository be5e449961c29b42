// The consumer's side of the bus for the process: its classes, its registrations, and the handles by which
// callers name them. Knows names and topics, no connections. Thread-safe.
//
// A name that several registrations share is subscribed once, as one topic; what arrives for it is shown to
// each of them in the order of their dsv_register(). Handles are numbers that are never used again, looked up
// in tables: a stale or invented one is told from a live one.
#ifndef ES_PLATFORM_SRC_BUS_CONSUMER_H_
#define ES_PLATFORM_SRC_BUS_CONSUMER_H_

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bus/known_names.h"
#include "bus/transport.h"
#include "es_platform/pcx.h"

namespace es_platform::bus {

class Consumer {
 public:
  static Consumer& instance();

  // Operations of dsv.h and pcx.h, after their checks for null. May throw std::bad_alloc, and then nothing
  // has changed.
  uint32_t create_class(std::string_view name, uint32_t* class_handle);
  bool has_class(uint32_t class_handle);
  uint32_t add(uint32_t class_handle, std::string_view name, void** handle);
  uint32_t start(void* handle, uint64_t context, pcx_handler handler);
  uint32_t start_anew(void* handle);
  uint32_t remove(void* handle);
  uint32_t lookup(uint32_t class_handle, std::string_view name, void** address);
  // The link behind a registration or an address, null when the handle is neither.
  Link* link_of(void* handle, bool registrations_only);
  // The link of a class, null for an unknown one.
  Link* link_of_class(uint32_t class_handle);
  uint32_t set_link_handler(uint32_t class_handle, pcx_link_handler handler);
  uint32_t renew_later(void* handle, uint32_t delay_ms);
  uint32_t set_inquiry_handler(uint32_t class_handle, pcx_inquiry_handler handler);

 private:
  struct Class;
  struct Topic {
    std::string name;
    std::vector<uint64_t> registrations;  // ascending, never empty
  };
  using Renewals = std::set<std::pair<uint64_t, uint64_t>>;  // when, and for which registration
  struct Registration {
    Class* owner;
    std::string name;
    uint64_t context = 0;
    pcx_handler handler = nullptr;  // null until it is started
    uint64_t renew_at_ns = 0;       // 0: not asked for
    Renewals::node_type renewal =
        {};  // of a started one: its place among the renewals, while it is not in there
  };
  // A class hears what arrives for it; classes live as long as the process.
  struct Class final : Receiver {
    Class(Consumer& consumer, uint32_t number, std::string_view class_name)
        : home(consumer), handle(number), name(class_name), link(transport().open_link(name, *this)) {}
    Response deliver(uint64_t topic, uint32_t mtype, void* payload, uint32_t length) override {
      return home.deliver(*this, topic, mtype, payload, length);
    }
    Response inquire(uint64_t topic, void* payload, uint32_t length) override {
      return home.inquire(*this, topic, payload, length);
    }
    void link_up(uint64_t generation) override { home.tell_all(*this, PCX_LINK_RENEWED, generation); }
    void link_down(uint64_t generation) override { home.tell_all(*this, PCX_LINK_LOST, generation); }
    void time_come(uint64_t generation) override { home.tell_due(*this, generation); }
    Consumer& home;
    const uint32_t handle;
    const std::string name;
    std::unordered_map<uint64_t, Topic> topics;
    std::unordered_map<std::string, uint64_t> topic_of_name;
    std::set<uint64_t> started;  // registrations
    Renewals renewals;
    pcx_link_handler link_handler = nullptr;
    pcx_inquiry_handler inquiry_handler = nullptr;
    KnownNames known_names;
    const std::unique_ptr<Link> link;
  };

  Class* class_locked(uint32_t class_handle);
  static uint32_t ask_for_name(Class& owner, std::string_view name);
  void join_topic_locked(Registration& registration, uint64_t id);
  void leave_topic_locked(const Registration& registration, uint64_t id);
  static uint64_t registration_after_locked(const Class& owner, uint64_t topic, uint64_t id);
  static void forget_renewal_locked(Registration& registration, uint64_t id) noexcept;
  void wait_for_handler_locked(std::unique_lock<std::mutex>& lock, uint64_t id);

  // Delivery thread.
  Response deliver(Class& owner, uint64_t topic, uint32_t mtype, void* payload, uint32_t length);
  Response inquire(Class& owner, uint64_t topic, void* payload, uint32_t length);
  void tell_all(Class& owner, uint32_t event, uint64_t generation);
  void tell_due(Class& owner, uint64_t generation);
  void tell_one(std::unique_lock<std::mutex>& lock, uint64_t id, uint32_t event, uint64_t generation);
  static void renew_locked(Registration& registration, uint64_t id, uint32_t delay_ms) noexcept;
  template <typename Call>
  bool run_handler(std::unique_lock<std::mutex>& lock, uint64_t id, Call call);

  std::mutex mutex_;
  std::condition_variable handler_done_;
  std::vector<std::unique_ptr<Class>> classes_;
  std::unordered_map<uint64_t, Registration> registrations_;
  uint64_t next_registration_ = 1, next_topic_ = 1;
  // The handler that the delivery thread is running now, for pcx_unregister() to wait for.
  uint64_t running_ = 0;
  std::thread::id running_on_;
  uint32_t waiting_for_handler_ = 0;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_CONSUMER_H_
