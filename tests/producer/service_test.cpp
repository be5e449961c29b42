// Requests as bytes in, answers as bytes out.
#include "service.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support.h"

namespace es_acl::producer {
namespace {

using test::count_request;
using test::make_acl;
using test::make_database;
using test::read_request;

using Bytes = std::vector<std::byte>;
constexpr pcx_peer kPeer = {1, 100, 0};
constexpr pcx_peer kOther = {2, 200, 0};

template <typename Record>
Bytes bytes_of(const Record& record) {
  const auto* first = reinterpret_cast<const std::byte*>(&record);
  return {first, first + sizeof record};
}

Bytes bulk_request(uint32_t command, const std::vector<std::string>& names) {
  acl_pcx_bulk_req header{command, ES_ACL_PCX_VERSION, static_cast<uint32_t>(names.size()), 1};
  es_acl_wire_bulk_req_order(&header);
  Bytes request = bytes_of(header);
  for (const std::string& name : names) {
    char field[ES_ACL_NAME_FIELD_SIZE];
    es_acl_wire_set_name(field, name.c_str());
    const auto* first = reinterpret_cast<const std::byte*>(field);
    request.insert(request.end(), first, first + sizeof field);
  }
  return request;
}

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
    EXPECT_EQ(log_.size() - logged, expected_status == 0 ? 0u : 1u);
    EXPECT_LE(length, expected_status == 0 ? capacity : 0);
    answer.resize(std::min<size_t>(length, capacity));
    return answer;
  }

  // Sequence numbers of the records in an answer, and the check that each is of the ACL and version 1.
  std::vector<uint32_t> sequences(const Bytes& answer, uint8_t grant = 0) {
    EXPECT_EQ(answer.size() % sizeof(AceRecord), 0u);
    std::vector<uint32_t> found;
    for (size_t at = 0; at + sizeof(AceRecord) <= answer.size(); at += sizeof(AceRecord)) {
      AceRecord record;
      std::memcpy(&record, answer.data() + at, sizeof record);
      es_acl_wire_acl_ace_order(&record);
      EXPECT_EQ(record.ver, 1u);
      EXPECT_EQ(record.ace.grant, grant);
      found.push_back(record.ace.seq);
    }
    return found;
  }

  std::vector<uint32_t> read(const std::string& name, uint32_t start, uint32_t max,
                             const pcx_peer& peer = kPeer) {
    return sequences(ask(bytes_of(read_request(name, start, max)), 0, 4096, peer));
  }

  using Counts = std::vector<std::pair<uint32_t, uint32_t>>;
  Counts counts(const Bytes& answer) {
    Counts found;
    for (size_t at = 0; at < answer.size(); at += sizeof(acl_pcx_query_resp)) {
      acl_pcx_query_resp record;
      std::memcpy(&record, answer.data() + at, sizeof record);
      es_acl_wire_query_resp_order(&record);
      EXPECT_EQ(record.ver, 1u);
      found.emplace_back(record.num_aces, record.num_remark_aces);
    }
    return found;
  }

  const std::string longest_ = std::string(64, 'z');
  std::vector<std::string> log_;
  Service service_{make_database({make_acl("a", {30, 5, 10, UINT32_MAX, 25}), make_acl("empty", {}),
                                  make_acl("remarks", {5, 15}), make_acl(longest_, {1})}),
                   [this](std::string_view line) { log_.emplace_back(line); }};
};

using Sequences = std::vector<uint32_t>;

TEST_F(ServiceTest, CountsSinglyAndInBulk) {
  EXPECT_EQ(counts(ask(bytes_of(count_request("a")))), (Counts{{5, 2}}));
  EXPECT_EQ(counts(ask(bytes_of(count_request("nobody")))), (Counts{{0, 0}}));
  EXPECT_EQ(counts(ask(bytes_of(count_request(longest_)))), (Counts{{1, 0}}));
  EXPECT_EQ(
      counts(ask(bulk_request(ACL_PCX_QUERY_ACE_COUNT_BULK, {"remarks", "nobody", "", "a", "a", longest_}))),
      (Counts{{2, 2}, {0, 0}, {0, 0}, {5, 2}, {5, 2}, {1, 0}}));
  EXPECT_TRUE(ask(bulk_request(ACL_PCX_QUERY_ACE_COUNT_BULK, {})).empty());
}

TEST_F(ServiceTest, ReadsInAscendingBatches) {
  EXPECT_EQ(read("a", 0, 2), (Sequences{5, 10}));
  EXPECT_EQ(read("a", 10, 2), (Sequences{25, 30}));
  EXPECT_EQ(read("a", 30, 2), (Sequences{UINT32_MAX}));
  EXPECT_EQ(read("a", UINT32_MAX, 2), (Sequences{}));
  EXPECT_EQ(read("a", 11, UINT32_MAX), (Sequences{25, 30, UINT32_MAX}));
  EXPECT_EQ(read("empty", 0, 2), (Sequences{}));
  EXPECT_EQ(read("nobody", 0, 2), (Sequences{}));
  EXPECT_EQ(read(longest_, 0, 2), (Sequences{1}));
  EXPECT_EQ(service_.pinned(), 0u);
}

TEST_F(ServiceTest, BulkReadLeavesRemarksOut) {
  EXPECT_EQ(sequences(ask(bulk_request(ACL_PCX_READ_ACES_BULK, {"remarks", "a", "nobody", longest_, "a"}))),
            (Sequences{10, 30, UINT32_MAX, 1, 10, 30, UINT32_MAX}));
  EXPECT_TRUE(ask(bulk_request(ACL_PCX_READ_ACES_BULK, {})).empty());
}

// Every request, cut or prolonged to every length around its own, and with each header word wrong.
TEST_F(ServiceTest, RefusesWhatIsNotAsTheWireFormatHasIt) {
  const Bytes bulk_count = bulk_request(ACL_PCX_QUERY_ACE_COUNT_BULK, {"a", longest_});
  const Bytes bulk_read = bulk_request(ACL_PCX_READ_ACES_BULK, {"a", longest_});
  for (const Bytes& good :
       {bytes_of(count_request("a")), bytes_of(read_request("a", 0, 1)), bulk_count, bulk_read}) {
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
  }
  for (const Bytes& good : {bulk_count, bulk_read}) {
    for (const uint32_t names : {0u, 1u, 3u, 66076420u, UINT32_MAX}) ask(with_word(good, 8, names), EINVAL);
    ask(with_word(good, 12, 0), EINVAL);
  }
  ask(bytes_of(read_request("a", 0, 0)), EINVAL);
}

TEST_F(ServiceTest, RefusesNamesWithoutTheirEnd) {
  for (Bytes request : {bytes_of(count_request(longest_)), bytes_of(read_request(longest_, 0, 1))}) {
    request[8 + ES_ACL_NAME_MAX] = std::byte{'z'};
    ask(request, EINVAL);
  }
  Bytes bulk = bulk_request(ACL_PCX_READ_ACES_BULK, {"a", longest_});
  bulk.back() = std::byte{'z'};
  ask(bulk, EINVAL);
}

TEST_F(ServiceTest, NeverCutsAnAnswer) {
  ask(bytes_of(count_request("a")), EMSGSIZE, sizeof(acl_pcx_query_resp) - 1);
  ask(bytes_of(read_request("a", 0, 100)), EMSGSIZE, 5 * sizeof(AceRecord) - 1);
  ask(bytes_of(read_request("a", 0, 100)), 0, 5 * sizeof(AceRecord));
  ask(bytes_of(read_request("a", 0, 2)), 0, 2 * sizeof(AceRecord));
  ask(bulk_request(ACL_PCX_QUERY_ACE_COUNT_BULK, {"a", "a"}), EMSGSIZE, 2 * sizeof(acl_pcx_query_resp) - 1);
  ask(bulk_request(ACL_PCX_READ_ACES_BULK, {"a", "a"}), EMSGSIZE, 6 * sizeof(AceRecord) - 1);
}

TEST_F(ServiceTest, AReadSeesOneStateWhateverReplacesTheDatabase) {
  EXPECT_EQ(read("a", 0, 2), (Sequences{5, 10}));
  EXPECT_EQ(read("a", 0, 2, kOther), (Sequences{5, 10}));
  EXPECT_EQ(service_.pinned(), 2u);
  service_.replace(make_database({make_acl("a", {11, 12}, ES_ACL_PERMIT)}));

  EXPECT_EQ(read("a", 10, 2), (Sequences{25, 30}));                        // as it began
  EXPECT_EQ(counts(ask(bytes_of(count_request("a")))), (Counts{{2, 0}}));  // a new question: the new state
  EXPECT_EQ(read("a", 30, 2), (Sequences{UINT32_MAX}));
  EXPECT_EQ(service_.pinned(), 1u);

  const Bytes again = ask(bytes_of(read_request("a", 0, 5)));  // a new read
  EXPECT_EQ(sequences(again, ES_ACL_PERMIT), (Sequences{11, 12}));
  EXPECT_EQ(read("a", 10, 3, kOther), (Sequences{25, 30, UINT32_MAX}));  // full: not yet its end
  EXPECT_EQ(service_.pinned(), 1u);
  service_.replace(make_database({}));
  EXPECT_EQ(read("a", UINT32_MAX, 3, kOther), (Sequences{}));
  EXPECT_EQ(service_.pinned(), 0u);
}

TEST_F(ServiceTest, AConsumerThatGoesFreesWhatItHeld) {
  read("a", 0, 1);
  read("remarks", 0, 1);
  read("a", 0, 1, kOther);
  const std::weak_ptr<const Acl> held = service_.database()->find("remarks");
  service_.replace(make_database({}));
  EXPECT_EQ(service_.pinned(), 3u);
  service_.forget(kPeer);
  EXPECT_EQ(service_.pinned(), 1u);
  EXPECT_TRUE(held.expired());
  EXPECT_EQ(read("a", 5, 2, kOther), (Sequences{10, 25}));
  EXPECT_EQ(read("a", 5, 2), (Sequences{}));
}

}  // namespace
}  // namespace es_acl::producer
