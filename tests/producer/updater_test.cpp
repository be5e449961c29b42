// Changes of the configuration, brought to consumers that are at every possible stage, and refused by them in every
// possible way. At the end each consumer holds what the producer serves.
#include "updater.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "model_consumer.h"
#include "support.h"

namespace es_acl::producer {

using test::Entries;
using test::make_database;
using test::ModelConsumer;
using test::State;

Entries shown(const std::map<uint32_t, AceRecord>& copy) {
  Entries entries;
  for (const auto& [number, record] : copy) {
    EXPECT_EQ(es_acl_wire_32(record.ace.seq), number);
    entries[number] = static_cast<char>(es_acl_wire_16(record.ace.dst_addr[0]));
  }
  return entries;
}

Entries rules_of(Entries entries) {
  std::erase_if(entries, [](const auto& entry) { return entry.second <= 'Z'; });
  return entries;
}

class Updating : public ::testing::Test {
 protected:
  Updating() {
    for (uint64_t id = 1; id <= 3; ++id) bus_.consumers.emplace(id, id);
    for (const auto& [name, entries] : before_) bus_.published.insert(name);
  }

  ModelConsumer& consumer(uint64_t id) { return bus_.consumers.at(id); }
  void register_and_read(ModelConsumer& who, const std::string& name) {
    who.register_at(service_, name);
    who.read(service_, name, 2);
  }
  Updater::Outcome apply(const State& next) { return updater_->apply(make_database(next)); }
  void check_resources() { updater_.emplace(service_, bus_, asking_, UpdaterOptions{512 << 10, true}); }

  const State before_ = {{"a", {{10, 'a'}, {15, 'R'}, {20, 'b'}, {30, 'c'}}}, {"b", {{10, 'x'}}}};
  std::vector<std::string> log_;
  bool interrupted_ = false;
  test::ModelBus bus_;
  const std::function<void(std::string_view)> logger_ = [this](std::string_view line) {
    log_.emplace_back(line);
  };
  Service service_{make_database(before_), logger_};
  const Asking asking_ = {service_, bus_, 1000, logger_, [this] { return interrupted_; }};
  std::optional<Updater> updater_{std::in_place, service_, bus_, asking_, UpdaterOptions{512 << 10, false}};
};

// A connection lost and made again, and with it a change that was queued for it, or that did not reach it any more: the
// consumer is told nothing until it has read.
TEST_F(Updating, WhoComesBackIsToldNothingBeforeItReads) {
  ModelConsumer& one = consumer(1);
  for (const uint32_t status : {0, ENOENT}) {
    EXPECT_NE(apply(before_).result, Updater::Result::kRefused);
    register_and_read(one, "a");
    one.behaviour.lost_with = status;
    apply({{"a", {{30, 'c'}}}, {"b", {}}});
    one.behaviour.lost_with.reset();
    one.register_at(service_, "a");
    const size_t told = one.messages;
    apply({{"a", {{40, 'c'}}}, {"b", {{10, 'x'}}}});
    EXPECT_EQ(one.messages, told) << status;
    one.read(service_, "a", 2);
    apply({{"a", {{40, 'd'}}}, {"b", {{10, 'x'}}}});
    EXPECT_EQ(shown(one.copies["a"]), (Entries{{40, 'd'}})) << status;
  }

  service_.forget(one.peer);
  const size_t told = one.messages;
  apply({{"a", {}}, {"b", {}}});
  EXPECT_EQ(one.messages, told);
}

TEST_F(Updating, NamesAppearBeforeTheirEntriesAndGoBehindThem) {
  register_and_read(consumer(1), "a");
  register_and_read(consumer(1), "new");
  bus_.before_push = [&] { EXPECT_EQ(bus_.published, (std::set<std::string>{"a", "b", "new"})); };
  const auto outcome = apply({{"b", {{10, 'x'}}}, {"new", {{1, 'n'}, {2, 'n'}}}});
  EXPECT_EQ(outcome.result, Updater::Result::kApplied);
  EXPECT_EQ(outcome.text, "acl 'a' (dropped, 4 removed), acl 'new' (new, 2 added); 2 messages to 1 consumer");
  EXPECT_EQ(bus_.published, (std::set<std::string>{"b", "new"}));
  EXPECT_TRUE(consumer(1).copies["a"].empty());
  EXPECT_EQ(consumer(1).copies["new"].size(), 2u);
  bus_.before_push = [] {};
  const DatabasePtr same = service_.database();
  EXPECT_EQ(apply({{"b", {{10, 'x'}}}, {"new", {{1, 'n'}, {2, 'n'}}}}).result, Updater::Result::kUnchanged);
  EXPECT_EQ(service_.database(), same);
  EXPECT_EQ(apply({{"b", {{10, 'x'}}}, {"new", {{7, 'n'}, {9, 'n'}}}, {"none", {}}}).text,
            "acl 'new' (renumbered), acl 'none' (new); 1 message to 1 consumer");
}

// Two consumers hold both ACLs, and have what it takes to refuse a change. Whoever does: nothing is different
// afterwards, anywhere, and what was set aside has been released where it had been.
TEST_F(Updating, IsRefusedAsAWhole) {
  const State drops = {{"a", before_.at("a")}};
  const State grows = {{"a", {{10, 'a'}, {15, 'R'}, {20, 'B'}, {30, 'c'}, {40, 'd'}}},
                       {"b", {{10, 'x'}, {20, 'y'}}},
                       {"new", {{1, 'n'}}}};
  using Releases = std::vector<std::string>;
  const Releases a_only = {"a 20 40"}, both = {"a 20 40", "b 20"};
  const struct {
    ModelConsumer::Behaviour first, second;
    const State& next;
    const char* reason = nullptr;  // null: it is made
    Releases released_one = {}, released_two = {};
    const char* unpublishable = "";
    bool interrupted = false;
  } table[] = {
      {{.in_use = -1},
       {.in_use = 1},
       drops,
       "acl 'b' cannot be dropped: it is in use by model (process 1001 on node), model ("},
      {{}, {.usage_rc = 2, .in_use = 1}, drops},
      {{}, {.ask_status = ETIME}, drops},
      {{}, {.ask_status = ESRCH}, drops},
      {{}, {.answers = false}, drops},
      {{}, {}, drops, "the producer is ending", {}, {}, "", true},
      {{}, {}, grows},
      {{},
       {.without_room = "a"},
       grows,
       "acl 'a' is refused for want of resources by model (process 1002 on node): No space",
       a_only},
      {{.without_room = "b"}, {}, grows, "acl 'b'", a_only, both},
      {{}, {.ask_status = ETIME}, grows, "process 1002: no answer", a_only, a_only},
      {{}, {.answers = false}, grows, "no answer", a_only, a_only},
      {{}, {.ask_status = ESRCH}, grows},
      {{}, {}, grows, "acl 'new' cannot be published: Cannot allocate memory", both, both, "new"},
      {{}, {}, grows, "the producer is ending", {}, {}, "", true},
  };
  check_resources();
  for (uint64_t id = 1; id <= 2; ++id) {
    for (const char* name : {"a", "b"}) register_and_read(consumer(id), name);
  }
  consumer(3).register_at(service_, "b");  // comes to read later: is asked, and has nothing to release yet
  const auto fresh = bus_.consumers;
  for (const auto& one : table) {
    SCOPED_TRACE(&one - table);
    bus_.consumers = fresh;
    bus_.unpublishable = one.unpublishable;
    interrupted_ = one.interrupted;
    consumer(1).behaviour = one.first;
    consumer(2).behaviour = one.second;
    const DatabasePtr database = service_.database();
    const auto published = bus_.published;
    const auto outcome = apply(one.next);
    EXPECT_EQ(outcome.result, one.reason ? Updater::Result::kRefused : Updater::Result::kApplied)
        << outcome.text;
    EXPECT_EQ(consumer(1).released, one.released_one);
    EXPECT_EQ(consumer(2).released, one.released_two);
    for (const auto& [id, each] : bus_.consumers) EXPECT_TRUE(each.held.empty()) << id;
    State expected = one.reason ? before_ : one.next;
    for (const uint64_t id : {1, 2}) {
      for (const char* name : {"a", "b"}) EXPECT_EQ(shown(consumer(id).copies[name]), expected[name]);
    }
    if (one.reason) {
      EXPECT_NE(outcome.text.find(one.reason), std::string::npos) << outcome.text;
      EXPECT_EQ(service_.database(), database);
      EXPECT_EQ(bus_.published, published);
      EXPECT_EQ(consumer(1).messages + consumer(2).messages, fresh.at(1).messages + fresh.at(2).messages);
    } else {
      for (auto& [id, each] : bus_.consumers) each.behaviour = {};
      EXPECT_EQ(apply(before_).result, Updater::Result::kApplied);
    }
  }
}

// While a change of three ACLs is being checked each consumer holds all that it has granted, one question for each
// ACL, and none when it is made; a renumbering is no question.
TEST_F(Updating, QuestionsOfOneChangeDoNotSupersedeEachOther) {
  check_resources();
  for (const char* name : {"a", "b", "new"}) register_and_read(consumer(1), name);
  size_t most_held = 0;
  std::set<std::pair<uint16_t, uint16_t>> keys;
  bus_.before_push = [&] {
    most_held = std::max(most_held, consumer(1).held.size());
    for (const auto& [key, question] : consumer(1).held) keys.insert(key);
  };
  for (char content = 'p'; content != 's'; ++content) {
    State next;
    for (const char* name : {"a", "b", "new"}) next[name] = {{10, content}};
    EXPECT_EQ(apply(next).result, Updater::Result::kApplied);
    EXPECT_EQ(most_held, 3u);
    EXPECT_TRUE(consumer(1).held.empty());
    for (const char* name : {"a", "b", "new"}) EXPECT_EQ(shown(consumer(1).copies[name]), next[name]);
  }
  EXPECT_EQ(keys.size(), 9u);  // none is used again
  consumer(1).behaviour.without_room = "b";
  EXPECT_EQ(apply({{"a", {{10, 'r'}}}, {"b", {{11, 'r'}}}, {"new", {{10, 'r'}}}}).result,
            Updater::Result::kApplied);
  EXPECT_TRUE(consumer(1).released.empty());
  // Who holds the rules only is not asked about a remark, and its "nothing held" is no refusal.
  consumer(2).register_at(service_, "a");
  consumer(2).read_in_bulk(service_, "a");
  const auto with_remark = apply({{"a", {{10, 'r'}, {20, 'R'}}}, {"b", {{11, 'r'}}}, {"new", {{10, 'r'}}}});
  EXPECT_EQ(with_remark.result, Updater::Result::kApplied) << with_remark.text;
}

// Consumers that register and read on threads of their own, again and again, in batches, in bulk, and in batches
// that are given up and begun again, while one thread changes everything all the time. Each ends with every change
// behind the state that it read and none before it.
TEST(UpdatingUnderWay, ReadersEndWithTheProducersList) {
  constexpr uint64_t kReaders = 3;
  std::mt19937 random(7);
  const auto some_state = [&] {
    State state = {{"a", {}}};
    const uint32_t step = 1 + random() % 3;
    for (uint32_t number = 1 + random() % 5, left = 20 + random() % 3; left != 0; --left, number += step)
      state["a"][number] = "aBcdefghIjklmnopqrstUvw"[left];
    if (random() % 2 != 0) state["a"].erase(std::next(state["a"].begin(), random() % 20));
    return state;
  };
  State last = some_state();
  const auto log = [](std::string_view line) { ADD_FAILURE() << line; };
  Service service(make_database(last), log);
  test::ModelBus bus;
  for (uint64_t id = 1; id <= kReaders; ++id)
    bus.consumers.emplace(id, id).first->second.registered.insert("a");
  std::atomic<uint64_t> done{0}, changes{0};
  struct GivenUp {};
  const auto give_up_behind_a_change = [&] {
    for (const uint64_t enough = changes + 2; changes < enough;) std::this_thread::yield();
    throw GivenUp();
  };
  const auto register_and_read = [&](ModelConsumer& self, uint64_t round) {
    self.register_at(service, "a");
    if (round % 3 == 0) return self.read_in_bulk(service, "a");
    if (round % 3 == 1) {
      EXPECT_THROW(self.read(service, "a", 1, give_up_behind_a_change), GivenUp);
    }
    self.read(service, "a", 1 + round % 7);
  };
  constexpr uint64_t kRounds = 90;
  std::vector<std::thread> readers;
  for (auto& entry : bus.consumers) {
    readers.emplace_back([&, &self = entry.second] {
      for (uint64_t round = 1; round <= kRounds; ++round) register_and_read(self, round + self.peer.id);
      ++done;
    });
  }
  const Asking asking = {service, bus, 1000, log, [] { return false; }};
  Updater updater(service, bus, asking, {1000, false});
  for (int left = 10; left != 0; left -= done == kReaders, ++changes) {
    last = some_state();
    EXPECT_NE(updater.apply(make_database(last)).result, Updater::Result::kRefused);
  }
  for (std::thread& reader : readers) reader.join();
  for (auto& [id, consumer] : bus.consumers) {
    const bool in_bulk = (kRounds + id) % 3 == 0;
    EXPECT_EQ(shown(consumer.copies["a"]), in_bulk ? rules_of(last["a"]) : last["a"]) << id;
    EXPECT_GT(consumer.messages, 0u);
  }
  EXPECT_EQ(service.pinned(), 0u);
}

}  // namespace es_acl::producer
