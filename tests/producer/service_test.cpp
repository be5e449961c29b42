// Requests as bytes in, answers as bytes out.
#include "service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "model_consumer.h"
#include "support.h"

namespace es_acl::producer {

using test::bulk_request;
using test::Bytes;
using test::bytes_of;
using test::count_request;
using test::make_database;
using test::read_request;
using test::verify_request;

using Sequences = std::vector<uint32_t>;

constexpr pcx_peer kPeer = {1, 100, 0};
constexpr pcx_peer kOther = {2, 200, 0};

Bytes with_word(Bytes request, size_t offset, uint32_t value) {
  value = es_acl_wire_32(value);
  std::memcpy(request.data() + offset, &value, sizeof value);
  return request;
}

class ServiceTest : public ::testing::Test {
 protected:
  // The answer, in a buffer of exactly `capacity` bytes so that a sanitizer sees a write behind it.
  Bytes ask(Bytes request, uint32_t expected_status = 0, size_t capacity = 4096,
            const pcx_peer& peer = kPeer) {
    Bytes answer(capacity);
    uint32_t length = ~0u;
    const size_t logged = log_.size();
    EXPECT_EQ(service_.answer(peer, request, answer, &length), expected_status);
    EXPECT_EQ(log_.size() - logged, expected_status == 0 || expected_status == EAGAIN ? 0u : 1u);
    EXPECT_LE(length, expected_status == 0 ? capacity : 0);
    answer.resize(std::min<size_t>(length, capacity));
    return answer;
  }

  Sequences sequences(Bytes answer) {
    Sequences found;
    for (size_t at = 0; at < answer.size(); at += sizeof(AceRecord)) {
      const auto* record = reinterpret_cast<const AceRecord*>(answer.data() + at);
      EXPECT_EQ(es_acl_wire_32(record->ver), 1u);
      found.push_back(es_acl_wire_32(record->ace.seq));
    }
    return found;
  }
  Sequences read(const std::string& name, uint32_t start, uint32_t max, const pcx_peer& peer = kPeer) {
    return sequences(ask(bytes_of(read_request(name, start, max)), 0, 4096, peer));
  }

  const std::string longest_ = std::string(64, 'z');
  const Bytes bulk_count_ = bulk_request(ACL_PCX_QUERY_ACE_COUNT_BULK, {"remarks", "", "a", "a", longest_});
  const Bytes bulk_read_ = bulk_request(ACL_PCX_READ_ACES_BULK, {"remarks", "a", "nobody", "a", longest_});
  std::vector<std::string> log_;
  test::ModelBus bus_;
  Service service_{make_database({{"a", {{5, 'R'}, {10, 'x'}, {25, 'R'}, {30, 'x'}, {UINT32_MAX, 'x'}}},
                                  {"empty", {}},
                                  {"remarks", {{5, 'R'}, {15, 'R'}}},
                                  {longest_, {{1, 'x'}}}}),
                   [this](std::string_view line) { log_.emplace_back(line); }};
};

// Every request, cut or prolonged to every length around its own, and with each header word wrong.
TEST_F(ServiceTest, RefusesWhatIsNotAsTheWireFormatHasIt) {
  service_.attach(&bus_);
  constexpr size_t kNameEnd = offsetof(acl_pcx_query_req, acl_name) + ES_ACL_NAME_MAX;
  const std::pair<Bytes, size_t> requests[] = {{bytes_of(count_request(longest_)), kNameEnd},
                                               {bytes_of(read_request(longest_, 0, 1)), kNameEnd},
                                               {bytes_of(verify_request(longest_)), kNameEnd},
                                               {bulk_count_, bulk_count_.size() - 1},
                                               {bulk_read_, bulk_read_.size() - 1}};
  for (const auto& [good, name_end] : requests) {
    ask(good);
    for (size_t length = 0; length <= good.size() + 66; ++length) {
      Bytes bad = good;
      bad.resize(length);
      bad.shrink_to_fit();
      if (length != good.size()) ask(bad, EINVAL);
    }
    for (const uint32_t version : {0u, 2u, 0x01000000u, UINT32_MAX}) ask(with_word(good, 4, version), EINVAL);
    for (const uint32_t command : {0u, 1u, 6u, 13u, 15u, 18u, UINT32_MAX})
      ask(with_word(good, 0, command), EINVAL);
    Bytes endless_name = good;
    endless_name[name_end] = std::byte{'z'};
    ask(endless_name, EINVAL);
  }
  for (const Bytes& good : {bulk_count_, bulk_read_}) {
    for (const uint32_t names : {0u, 4u, 6u, 66076420u, UINT32_MAX}) ask(with_word(good, 8, names), EINVAL);
    ask(with_word(good, 12, 0), EINVAL);
  }
  ask(bytes_of(read_request("a", 0, 0)), EINVAL);
}

TEST_F(ServiceTest, NeverCutsAnAnswer) {
  service_.attach(&bus_);
  const struct {
    Bytes request;
    size_t needed;
  } table[] = {{bytes_of(count_request("a")), sizeof(acl_pcx_query_resp)},
               {bytes_of(read_request("a", 0, 100)), 5 * sizeof(AceRecord)},
               {bytes_of(read_request("a", 0, 2)), 2 * sizeof(AceRecord)},
               {bytes_of(verify_request("a")), sizeof(es_acl_pcx_verify_resp)},
               {bulk_count_, 5 * sizeof(acl_pcx_query_resp)},
               {bulk_read_, 7 * sizeof(AceRecord)}};
  for (const auto& [request, needed] : table) {
    EXPECT_EQ(ask(request, 0, needed).size(), needed);
    ask(request, EMSGSIZE, needed - 1);
  }
}

TEST_F(ServiceTest, AReadSeesOneStateWhateverReplacesTheDatabase) {
  EXPECT_EQ(read("a", 0, 2), (Sequences{5, 10}));
  EXPECT_EQ(read("a", 0, 2, kOther), (Sequences{5, 10}));
  EXPECT_EQ(read("remarks", 0, 1, kOther), (Sequences{5}));
  const std::weak_ptr<const Acl> held = service_.database()->find("remarks");
  service_.commit(make_database({{"a", {{11, 'x'}, {12, 'x'}}}}), {}, bus_);
  EXPECT_EQ(service_.pinned(), 3u);

  EXPECT_EQ(read("a", 10, 2), (Sequences{25, 30}));      // as it began
  EXPECT_EQ(read("a", 30, 1), (Sequences{UINT32_MAX}));  // full: not yet its end
  EXPECT_EQ(read("a", UINT32_MAX, 1), (Sequences{}));
  EXPECT_EQ(service_.pinned(), 2u);
  EXPECT_EQ(read("a", 0, 5), (Sequences{11, 12}));  // a new read
  EXPECT_EQ(read("a", 10, 2, kOther), (Sequences{25, 30}));
  service_.forget(kOther);
  EXPECT_EQ(service_.pinned(), 0u);
  EXPECT_TRUE(held.expired());
  EXPECT_EQ(read("a", 5, 2, kOther), (Sequences{11, 12}));
}

TEST_F(ServiceTest, AReadThatIsGivenUpIsNotKept) {
  for (const pcx_peer& peer : {kPeer, kOther}) EXPECT_EQ(read("a", 0, 1, peer), (Sequences{5}));
  EXPECT_EQ(service_.pinned(), 2u);
  service_.registered(kPeer, "a");
  EXPECT_EQ(service_.pinned(), 1u);
  service_.commit(make_database({}), {}, bus_);
  EXPECT_EQ(read("a", 0, 1, kOther), (Sequences{}));
  EXPECT_EQ(service_.pinned(), 0u);
}

// The states that are told, consumer by consumer.
std::vector<uint32_t> states(const Bytes& answer) {
  std::vector<uint32_t> found;
  es_acl_pcx_verify_client client;
  for (size_t at = sizeof(es_acl_pcx_verify_resp); at < answer.size(); at += sizeof client) {
    std::memcpy(&client, &answer[at], sizeof client);
    found.push_back(es_acl_wire_32(client.copy.state));
  }
  return found;
}

// Of the consumers 11 reads the ACL before it answers, 12 has no answer, and 13 goes.
TEST_F(ServiceTest, AVerificationWaitsForWhoeverCanStillAnswer) {
  service_.attach(&bus_);
  for (uint64_t id = 10; id <= 13; ++id)
    bus_.consumers.emplace(id, id).first->second.register_at(service_, "a");
  ask(bytes_of(verify_request("a")), EAGAIN);
  bus_.consumers.at(11).read(service_, "a", 100);
  const uint32_t in_step[6] = {es_acl_wire_32(1)};
  for (const uint64_t id : {10, 11, 12})
    service_.inquiry_answered(bus_.consumers.at(id).peer, 1,
                              std::as_bytes(std::span(in_step)).first(id == 12 ? 0 : sizeof in_step));
  ask(bytes_of(verify_request("a")), EAGAIN);
  service_.forget(bus_.consumers.at(13).peer);
  EXPECT_EQ(states(ask(bytes_of(verify_request("a")))), (std::vector<uint32_t>{0, 3, 3}));
  EXPECT_EQ(states(ask(bytes_of(verify_request("a", 0)))), std::vector<uint32_t>(4, ES_ACL_NO_ANSWER));
  for (uint64_t asker = 100; asker < 117; ++asker)
    ask(bytes_of(verify_request("a")), EAGAIN, 4096, {asker, 1, 0});
  EXPECT_EQ(bus_.inquiries, 2u + 16);
}

// The question went with the connection, or is answered with the state before a reading.
TEST_F(ServiceTest, WhoRegistersAnewIsReadingForAVerificationUnderWay) {
  service_.attach(&bus_);
  auto& consumer = bus_.consumers.emplace(10, 10).first->second;
  consumer.register_at(service_, "a");
  ask(bytes_of(verify_request("a")), EAGAIN);
  consumer.register_at(service_, "remarks");
  ask(bytes_of(verify_request("a")), EAGAIN);
  consumer.register_at(service_, "a");
  EXPECT_EQ(states(ask(bytes_of(verify_request("a")))), std::vector<uint32_t>{ES_ACL_READING});
}

TEST(VerificationsTest, ResultsAreKeptForTwoSecondsBehindTheLastAnswer) {
  static Verifications::Clock::time_point now;
  Verifications verifications([] { return now; });
  test::ModelBus bus;
  const pcx_peer peer = bus.consumers.emplace(10, 10).first->second.peer;
  bus.consumers.at(10).registered = {"a"};
  const struct {
    uint32_t answered_after, kept_until;  // seconds
  } table[] = {{1, 3}, {7, 7}};           // the second one answers when nobody waits any more
  for (const auto& [answered_after, kept_until] : table) {
    now = {};
    ASSERT_EQ(verifications.begin(1, "a", nullptr, std::chrono::seconds(5), bus), 0u);
    now += std::chrono::seconds(answered_after);
    verifications.answered(peer, bus.inquiries, {});
    now = Verifications::Clock::time_point(std::chrono::seconds(kept_until) - std::chrono::nanoseconds(1));
    verifications.forget_abandoned();
    EXPECT_TRUE(verifications.has(1, "a"));
    now += std::chrono::nanoseconds(1);
    verifications.forget_abandoned();
    EXPECT_FALSE(verifications.has(1, "a"));
  }
}

}  // namespace es_acl::producer
