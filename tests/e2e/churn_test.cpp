// A producer whose configuration changes at random again and again, and clients that never rest: in the end all of them
// have the producer's lists.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "world.h"

namespace es_acl::e2e {
namespace {

using nlohmann::json;

constexpr unsigned kClients = 4;
constexpr unsigned kAcls = 20;
constexpr unsigned kRounds = 50;
constexpr unsigned kChangesPerRound = 200;

struct Entry {
  uint16_t mark;
  bool permits;
};
using Acl = std::map<uint32_t, Entry>;

class Lists {
 public:
  Lists() {
    for (unsigned i = 0; i < kAcls; ++i) names_.push_back("churn-" + std::to_string(100 + i));
    for (unsigned i = 0; i < 20 * kAcls; ++i) change();
  }

  const std::vector<std::string>& names() const { return names_; }

  void change() {
    Acl& acl = acls_[names_[random_() % kAcls]];
    const uint32_t seq = 1 + random_() % 400;
    const Entry entry = {static_cast<uint16_t>(random_()), random_() % 2 == 0};
    switch (random_() % 8) {
      case 0:
      case 1:
      case 2:
        acl.erase(acl.lower_bound(seq), acl.upper_bound(seq + 3));
        break;
      case 3:
        if (random_() % 50 == 0) renumber(acl);
        break;
      default:
        acl[seq] = entry;
    }
  }

  // As the producer's configuration; `round` shows in its log when it is taken.
  std::vector<json> configuration(unsigned round) const {
    std::vector<json> all = {{{"name", round_name(round)}}};
    for (const std::string& name : names_) {
      json aces = json::array();
      const auto acl = acls_.find(name);
      if (acl != acls_.end())
        for (const auto& [seq, entry] : acl->second) aces.push_back(configured(seq, entry));
      all.push_back({{"name", name}, {"aces", {{"ace", aces}}}});
    }
    return all;
  }

  // As a client writes them.
  std::string text() const {
    std::ostringstream lines;
    for (const auto& [name, acl] : acls_)
      for (const auto& [seq, entry] : acl)
        lines << name << ' ' << seq << ' ' << entry.mark << ' ' << entry.permits << '\n';
    return lines.str() + "end\n";
  }

  static std::string round_name(unsigned round) { return "a-round-" + std::to_string(round); }

 private:
  static json configured(uint32_t seq, const Entry& entry) {
    char mac[24];
    std::snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", entry.mark / 256, entry.mark % 256);
    return {{"sequence", seq},
            {"matches", {{"eth", {{"source-mac-address", mac}}}}},
            {"actions", {{"forwarding", entry.permits ? "accept" : "drop"}}}};
  }

  void renumber(Acl& acl) {
    Acl renumbered;
    for (uint32_t seq = 1 + random_() % 5; const auto& [old, entry] : acl) {
      renumbered.emplace(seq, entry);
      seq += 2;
    }
    acl.swap(renumbered);
  }

  std::mt19937 random_{20261122};
  std::vector<std::string> names_;
  std::map<std::string, Acl> acls_;
};

std::string dump_of(Running& client) {
  client.signal(SIGUSR1);
  return client.until("end");
}

// What has been pushed last may still be under way.
void expect_in_step(Running& client, const std::string& expected) {
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::string held = dump_of(client);
  while (held != expected && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    held = dump_of(client);
  }
  EXPECT_EQ(held, expected);
}

using Clients = std::vector<std::unique_ptr<Running>>;

Clients start_clients(const World& world, const std::vector<std::string>& names) {
  std::string arguments;
  for (const std::string& name : names) arguments += " " + name;
  Clients clients;
  for (unsigned i = 0; i < kClients; ++i)
    clients.push_back(std::make_unique<Running>(world, E2E_CHURN_CLIENT " " + std::to_string(i) + arguments));
  for (const auto& client : clients) client->until("ready");
  return clients;
}

void expect_in_step(const Clients& clients, const std::string& expected) {
  for (const auto& client : clients) {
    expect_in_step(*client, expected);
    const Ended ended = client->end_by(SIGTERM);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "notices came\n");
  }
}

TEST(Churn, EveryClientHasTheProducersListsInTheEnd) {
  World world;
  Lists lists;
  world.produce(lists.configuration(0));
  const auto clients = start_clients(world, lists.names());

  for (unsigned round = 1; round <= kRounds; ++round) {
    for (unsigned i = 0; i < kChangesPerRound; ++i) lists.change();
    world.reconfigure(lists.configuration(round));
    world.producer_says("'" + Lists::round_name(round - 1) + "' (dropped)");
  }
  expect_in_step(clients, lists.text());
}

// The same with a producer that is killed, or falls silent, again and again; what has changed meanwhile no push tells.
TEST(Churn, ClientsCatchUpWithAProducerThatComesAndGoes) {
  World world;
  world.environment["ES_PCX_BEAT_MS"] = "50";
  world.environment["CHURN_RESTARTS"] = "1";
  Lists lists;
  world.produce(lists.configuration(0));
  const auto clients = start_clients(world, lists.names());
  std::mt19937 random{7};
  for (unsigned round = 1; round <= 24; ++round) {
    for (unsigned i = 0; i < kChangesPerRound; ++i) lists.change();
    const auto pause = std::chrono::milliseconds(random() % 400);
    if (round % 3 == 0) {
      world.signal_producer(SIGSTOP);
      std::this_thread::sleep_for(pause);
      world.signal_producer(SIGCONT);
      world.reconfigure(lists.configuration(round));
      std::this_thread::sleep_for(pause / 4);
    } else {
      world.restart(round % 3 == 1 ? SIGKILL : SIGTERM, lists.configuration(round));
      std::this_thread::sleep_for(pause);
    }
  }
  expect_in_step(clients, lists.text());
}

}  // namespace
}  // namespace es_acl::e2e
