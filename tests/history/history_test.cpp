// Clients and a producer with a relay between them, all of them mistreated at random. At quiet points every client must be in
// step and have the producer's lists; and all that clients saw and were told on the way must be explained (checker.h).
//
// From the environment: HISTORY_SEED, HISTORY_FAULTS (how many) or HISTORY_MINUTES. What has failed stays in its directory.
#include <gtest/gtest.h>
#include <signal.h>

#include <deque>
#include <filesystem>
#include <memory>
#include <thread>

#include "../e2e/world.h"
#include "checker.h"
#include "es_acl/es_acl_wire.h"
#include "relay.h"

namespace es_acl::history {
namespace {

constexpr unsigned kClients = 4, kQuietChanges = 40, kFaultsBetweenQuietPoints = 25;
constexpr uint64_t kPatienceMs = 20000 * HISTORY_SLACK;

unsigned option(const char* name, unsigned otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr ? static_cast<unsigned>(std::stoul(value)) : otherwise;
}

const unsigned seed = option("HISTORY_SEED", 1), most_faults = option("HISTORY_FAULTS", 100),
               minutes = option("HISTORY_MINUTES", 0);

Lists empty_lists(unsigned acls) {
  Lists lists;
  for (unsigned i = 0; i < acls; ++i) lists["h" + std::to_string(i)];
  return lists;
}

struct Client {
  e2e::Running process;
  ClientLog log;
};

class Ordeal {
 public:
  explicit Ordeal(unsigned acls);
  ~Ordeal();
  void mistreat();
  // Without a fault. In each round so many times some of the lists are changed.
  void keep_busy(unsigned rounds, unsigned changes);

 private:
  std::string bus(const std::string& side) const {
    std::filesystem::create_directory(world_.path(side));
    return world_.path(side) + "/" ES_ACL_DSV_CLASS_NAME ".sock";
  }
  bool is_over() const {
    return minutes != 0 ? now_ms() - begin_ > minutes * 60000 : faults_.size() >= most_faults;
  }
  void pause(unsigned most_ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random_() % most_ms));
  }
  void start_client(unsigned place);
  void add(Lists lists, bool begins);
  void await_taken();
  void reconfigure(unsigned changes = 1);
  std::string restart_producer();
  std::string restart_client(unsigned place);
  std::string stop(const std::function<void(int)>& signal, const char* what);
  std::string fall_silent();
  std::string inflict();
  void note(const std::string& fault);
  std::string difference();
  void quiet_point();
  void end_clients();
  void report(const std::runtime_error& error);

  e2e::World world_;
  const uint64_t begin_ = now_ms();
  std::mt19937 random_{seed};
  const unsigned acls_;
  Lists lists_ = empty_lists(acls_), given_;
  History history_;
  bool pending_ = false;  // what was given last has not been taken yet
  Relay relay_;
  std::unique_ptr<Client> clients_[kClients];
  unsigned started_ = 0;
  std::deque<std::string> faults_;
  std::map<std::string, unsigned> kinds_;
  size_t records_ = 0;
  uint64_t longest_ms_ = 0;  // until all were in step again
};

Ordeal::Ordeal(unsigned acls) : acls_(acls), relay_(bus("front"), bus("back"), seed) {
  world_.most_seconds = minutes * 60 + 300;
  world_.environment["ES_PCX_BEAT_MS"] = "100";
  world_.environment["ES_PCX_DEADLINE_MS"] = "500";
  world_.environment["ES_PCX_OPTIMUM_SIZE"] =
      "800";  // five entries: lists are read, and changes told, in many messages
  world_.environment["ES_PCX_DIR"] = world_.path("back");
  change(&lists_, random_);
  add(lists_, true);
  world_.produce(configuration(given_, 0));
  history_.taken();
  world_.environment["ES_PCX_DIR"] = world_.path("front");
  for (unsigned place = 0; place < kClients; ++place) start_client(place);
}

Ordeal::~Ordeal() {
  std::cout << "seed " << seed << ": " << faults_.size() << " faults in " << (now_ms() - begin_) / 1000
            << " s, " << history_.last() + 1 << " configurations, " << records_
            << " records, all in step again after " << longest_ms_ << " ms at most\n";
  for (const auto& [kind, count] : kinds_) std::cout << "  " << count << " " << kind << '\n';
}

void Ordeal::start_client(unsigned place) {
  const std::string number = std::to_string(++started_), file = world_.write("client" + number, "");
  std::string command = E2E_HISTORY_CLIENT " " + file + " " + number;
  for (const auto& [acl, list] : lists_) command += " " + acl;
  clients_[place].reset(new Client{{world_, command}, {history_, file, started_ % 2 != 0}});
}

void Ordeal::add(Lists lists, bool begins) {
  given_ = std::move(lists);
  history_.add(given_, begins);
}

// One configuration at a time is under way: so what the producer had is known even when it is killed.
void Ordeal::await_taken() {
  if (pending_) world_.producer_says("'a-" + std::to_string(history_.last() - 1) + "' (dropped");
  if (pending_) history_.taken();
  pending_ = false;
}

void Ordeal::reconfigure(unsigned changes) {
  await_taken();
  for (unsigned i = 0; i < changes; ++i) change(&lists_, random_);
  add(lists_, false);
  world_.reconfigure(configuration(given_, history_.last()));
  pending_ = true;
}

std::string Ordeal::restart_producer() {
  const auto memory = random_() % 4;
  if (memory == 0) add(empty_lists(acls_), true);
  if (memory == 1) change(&lists_, random_), add(lists_, true);
  const int signal = random_() % 2 == 0 ? SIGKILL : SIGTERM;
  world_.environment["ES_PCX_DIR"] = world_.path("back");
  world_.restart(signal, configuration(given_, history_.last()));
  world_.environment["ES_PCX_DIR"] = world_.path("front");
  history_.taken();
  pending_ = false;
  return std::string("producer ") + (signal == SIGKILL ? "killed" : "ended") +
         (memory == 0   ? ", comes back empty"
          : memory == 1 ? ", comes back with changes"
                        : ", comes back");
}

std::string Ordeal::restart_client(unsigned place) {
  const int signal = random_() % 2 == 0 ? SIGKILL : SIGTERM;
  const e2e::Ended ended = clients_[place]->process.end_by(signal);
  if (ended.code != 0 && ended.code != 128 + signal)  // SIGTERM may come before it is waited for
    throw std::runtime_error("a client has failed: " + ended.err);
  records_ += clients_[place]->log.read();
  start_client(place);
  return signal == SIGKILL ? "client killed" : "client ended";
}

// Other things go wrong meanwhile.
std::string Ordeal::stop(const std::function<void(int)>& signal, const char* what) {
  signal(SIGSTOP);
  for (int i = 0; i < 3; ++i) pause(300), note(relay_.inflict());
  signal(SIGCONT);
  return what;
}

// For longer than anybody may take it for "nothing has changed".
std::string Ordeal::fall_silent() {
  await_taken();
  relay_.silence(std::chrono::milliseconds(kOldestMs + 3000));
  for (int i = 0; i < 5; ++i) reconfigure();
  await_taken();
  std::this_thread::sleep_for(std::chrono::milliseconds(kOldestMs + 1500));
  return "long silence";
}

std::string Ordeal::inflict() {
  const unsigned place = random_() % kClients;
  switch (random_() % 12) {
    case 0:
      return restart_producer();
    case 1:
      return stop([this](int number) { world_.signal_producer(number); }, "producer stopped");
    case 2:
      return restart_client(place);
    case 3:
      return stop([&](int number) { clients_[place]->process.signal(number); }, "client stopped");
    default:
      return relay_.inflict();
  }
}

void Ordeal::note(const std::string& fault) {
  if (fault.empty()) return;
  ++kinds_[fault];
  faults_.push_back(std::to_string(now_ms()) + " " + fault + ", configuration " +
                    std::to_string(history_.last()));
}

std::string Ordeal::difference() {
  std::string found;
  for (const auto& client : clients_) {
    records_ += client->log.read();
    if (found.empty()) found = client->log.difference(acls_);
  }
  return found;
}

void Ordeal::quiet_point() {
  relay_.heal();
  reconfigure();
  await_taken();
  const uint64_t begin = now_ms();
  for (std::string found; !(found = difference()).empty(); pause(20))
    if (now_ms() - begin > kPatienceMs) throw std::runtime_error("not in step again: " + found);
  longest_ms_ = std::max(longest_ms_, now_ms() - begin);
}

void Ordeal::end_clients() {
  for (const auto& client : clients_) {
    const e2e::Ended ended = client->process.end_by(SIGTERM);
    EXPECT_EQ(ended.code, 0) << ended.err;
  }
}

void Ordeal::report(const std::runtime_error& error) {
  world_.keep = true;
  while (faults_.size() > 30) faults_.pop_front();
  ADD_FAILURE() << error.what() << "\nHISTORY_SEED=" << seed << ", directory " << world_.path("")
                << ", last faults: " << ::testing::PrintToString(faults_);
}

void Ordeal::mistreat() try {
  for (unsigned i = 0; i < kQuietChanges; ++i) reconfigure();
  quiet_point();
  note(fall_silent());
  for (size_t quiet_at = 0; !is_over();) {
    pause(60);
    random_() % 3 == 0 ? reconfigure() : note(inflict());
    if (faults_.size() < quiet_at) continue;
    quiet_point();
    if (random_() % 20 == 0) note(fall_silent());
    quiet_at = faults_.size() + kFaultsBetweenQuietPoints;
  }
  quiet_point();
  end_clients();
} catch (const std::runtime_error& error) {
  report(error);
}

void Ordeal::keep_busy(unsigned rounds, unsigned changes) try {
  for (unsigned i = 0; i < rounds; ++i) reconfigure(changes);
  quiet_point();
  for (const auto& client : clients_) EXPECT_NE(client->log.notices(), 0U);
  end_clients();
} catch (const std::runtime_error& error) {
  report(error);
}

TEST(History, EveryCopyIsTheProducersListAgainAfterAnyFault) { Ordeal(6).mistreat(); }

// More than ten thousand changes.
TEST(History, EveryCopyFollowsABusyProducer) { Ordeal(20).keep_busy(50, 8); }

}  // namespace
}  // namespace es_acl::history
