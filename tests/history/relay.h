// Stands between clients and producer and carries the bytes of their connections, until it is told to do worse.
//
// Any thread; its own one carries.
#ifndef ES_ACL_TESTS_HISTORY_RELAY_H_
#define ES_ACL_TESTS_HISTORY_RELAY_H_

#include <poll.h>

#include <chrono>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace es_acl::history {

class Relay {
 public:
  // The paths of two sockets: one that it makes, and the producer's.
  Relay(std::string front, std::string back, unsigned seed);
  ~Relay();

  // Does something to one connection, or to all of them: the kind of fault; empty when there was none to do it to.
  std::string inflict();
  // Lets nothing more through on the connections that there are.
  void silence(std::chrono::milliseconds duration);
  // Ends what is still under way. What has been cut stays cut.
  void heal();

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kNoLimit = std::string::npos;

  // One direction of a connection.
  struct Way {
    int from, to;
    std::chrono::milliseconds latency;
    std::string held = {};
    Clock::time_point not_before = {};
    size_t piece = kNoLimit, until_cut = kNoLimit;  // bytes at a time, and all that still get through
    bool ended = false, closed = false;             // no more comes; the other end has been told
    bool is_over() const { return ended && held.empty() && not_before <= Clock::now(); }
  };
  struct Link {
    Way up, down;
    Clock::time_point busy = {};
  };

  void run(const std::stop_token& stop);
  Clock::time_point prepare(std::vector<pollfd>* waits);
  void listen();
  void accept_one();
  Link* busy_link();
  void stall_all_locked(Clock::time_point until);

  const std::string front_, back_;
  std::mutex mutex_;  // not held while waiting, when only the thread opens and closes
  std::mt19937 random_;
  int listener_ = -1;
  Clock::time_point absent_until_ = {};
  std::list<Link> links_;
  std::jthread thread_;
};

}  // namespace es_acl::history

#endif  // ES_ACL_TESTS_HISTORY_RELAY_H_
