#include "model_consumer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "support.h"

namespace es_acl::producer::test {
namespace {

template <typename Record>
Record take(std::span<const std::byte>* bytes) {
  Record record{};
  EXPECT_GE(bytes->size(), sizeof record);
  std::memcpy(&record, bytes->data(), std::min(bytes->size(), sizeof record));
  *bytes = bytes->subspan(std::min(bytes->size(), sizeof record));
  return record;
}

uint32_t word(std::span<const std::byte> bytes, size_t offset) {
  return take<uint32_t>(&(bytes = bytes.subspan(offset)));
}

// Numbers anew by the letter of the wire format: start, start + step, ..., without those of the list.
void resequence(std::map<uint32_t, AceRecord>* copy, std::span<const std::byte> message) {
  auto header = take<acl_pcx_reseq>(&message);
  es_acl_wire_reseq_order(&header);
  EXPECT_EQ(header.ver, 1u);
  EXPECT_EQ(message.size(), size_t{4} * header.num_skip_seqs);
  std::set<uint64_t> skip;
  while (!message.empty()) skip.insert(es_acl_wire_32(take<uint32_t>(&message)));
  uint64_t number = header.start_seq;
  std::map<uint32_t, AceRecord> renumbered;
  for (auto& [old_number, record] : *copy) {
    while (skip.contains(number)) number += header.step;
    EXPECT_LE(number, UINT32_MAX);
    record.ace.seq = es_acl_wire_32(static_cast<uint32_t>(number));
    renumbered.emplace(static_cast<uint32_t>(number), record);
    number += header.step;
  }
  copy->swap(renumbered);
}

void edit(std::map<uint32_t, AceRecord>* copy, const std::string& acl_name,
          std::span<const std::byte> batch) {
  EXPECT_EQ(batch.size() % sizeof(AceRecord), 0u);
  const uint32_t command = word(batch, 0);
  while (!batch.empty()) {
    auto record = take<AceRecord>(&batch);
    EXPECT_EQ(record.cmd, command);
    EXPECT_EQ(es_acl_wire_32(record.ver), 1u);
    EXPECT_EQ(acl_name, record.acl_name);
    const uint32_t number = es_acl_wire_32(record.ace.seq);
    record.cmd = es_acl_wire_32(ACL_PCX_ADD_ACE);
    if (es_acl_wire_32(command) == ACL_PCX_ADD_ACE)
      copy->insert_or_assign(number, record);
    else
      EXPECT_EQ(copy->erase(number), 1u) << "removal of " << number << ", which is not there";
  }
}

}  // namespace

// A question does not wait for the reading.
void ModelConsumer::apply(const std::string& acl_name, std::span<const std::byte> message) {
  const std::lock_guard lock(*mutex_);
  const bool is_question = es_acl_wire_32(word(message, 0)) == ACL_PCX_QUERY_RES_AVAIL;
  if (unread_.contains(acl_name) && !is_question)
    parked_[acl_name].emplace_back(message.begin(), message.end());
  else
    apply_now(acl_name, message);
}

void ModelConsumer::apply_now(const std::string& acl_name, std::span<const std::byte> message) {
  const uint32_t command = es_acl_wire_32(word(message, 0));
  if (command != ACL_PCX_QUERY_RES_AVAIL) {
    ++messages;
    auto& copy = copies[acl_name];
    return command == ACL_PCX_RESEQ ? resequence(&copy, message) : edit(&copy, acl_name, message);
  }
  auto header = take<es_acl_pcx_res_query_req>(&message);
  es_acl_wire_res_query_req_order(&header);
  EXPECT_EQ(acl_name, header.acl_name);
  EXPECT_EQ(message.size(), header.num_aces * sizeof(AceRecord));
  Held question{acl_name, {}};
  while (!message.empty()) question.candidates.push_back(es_acl_wire_32(take<AceRecord>(&message).ace.seq));
  EXPECT_TRUE(held.emplace(std::pair(header.req_origin, header.req_num), question).second);
}

std::optional<acl_pcx_cons_resp> ModelConsumer::answer(std::span<const std::byte> question) {
  acl_pcx_cons_resp response{ACL_PCX_CONS_RESP_VERSION, 0, peer.pid, 0, "model", "node"};
  const uint32_t command = es_acl_wire_32(word(question, 0));
  EXPECT_EQ(es_acl_wire_32(word(question, 4)), 1u);
  if (command == ACL_PCX_QUERY_CONS) {
    response.rc = behaviour.usage_rc;
    response.in_use = behaviour.in_use;
    return behaviour.answers ? std::optional(response) : std::nullopt;
  }
  auto header = take<es_acl_pcx_res_query_req>(&question);
  es_acl_wire_res_query_req_order(&header);
  std::erase_if(held, [&](const auto& entry) {  // superseded
    return entry.first.first == header.req_origin && entry.first.second != header.req_num;
  });
  const auto found = held.find({header.req_origin, header.req_num});
  const bool check = command == ACL_PCX_QUERY_RES_AVAIL;
  if (found == held.end()) {
    response.rc = check ? EINVAL : 0;
  } else if (check && behaviour.without_room == header.acl_name) {
    response.rc = ENOSPC;
    held.erase(found);
  } else if (!check) {
    std::string text = found->second.acl_name;
    for (const uint32_t number : found->second.candidates) text += " " + std::to_string(number);
    if (header.res_state != 0) released.push_back(text);
    held.erase(found);
  }
  return behaviour.answers ? std::optional(response) : std::nullopt;
}

// What is on its way to an earlier registration of the name does not reach the new one.
void ModelConsumer::register_at(Service& service, const std::string& acl_name) {
  {
    const std::lock_guard lock(*mutex_);
    registered.insert(acl_name);
    unread_.insert(acl_name);
  }
  service.registered(peer, acl_name);
  const std::lock_guard lock(*mutex_);
  parked_[acl_name].clear();
  copies[acl_name].clear();
}

std::vector<AceRecord> ModelConsumer::ask(Service& service, std::span<std::byte> request, size_t most) {
  std::vector<AceRecord> records(most);
  uint32_t length = 0;
  EXPECT_EQ(service.answer(peer, request, std::as_writable_bytes(std::span(records)), &length), 0u);
  records.resize(length / sizeof(AceRecord));
  return records;
}

void ModelConsumer::read(Service& service, const std::string& acl_name, uint32_t batch,
                         const std::function<void()>& between) {
  std::vector<AceRecord> all;
  for (uint32_t start = 0;; between()) {
    acl_pcx_read_req request = read_request(acl_name, start, batch);
    const auto records = ask(service, std::as_writable_bytes(std::span(&request, 1)), batch);
    all.insert(all.end(), records.begin(), records.end());
    if (records.size() < batch) return read_to_the_end(acl_name, all);
    start = es_acl_wire_32(records.back().ace.seq);
  }
}

void ModelConsumer::read_in_bulk(Service& service, const std::string& acl_name) {
  auto request = bulk_request(ACL_PCX_READ_ACES_BULK, {acl_name});
  read_to_the_end(acl_name, ask(service, request, 4096));
}

void ModelConsumer::read_to_the_end(const std::string& acl_name, const std::vector<AceRecord>& records) {
  const std::lock_guard lock(*mutex_);
  for (const AceRecord& record : records)
    copies[acl_name].insert_or_assign(es_acl_wire_32(record.ace.seq), record);
  for (const auto& message : std::exchange(parked_[acl_name], {})) apply_now(acl_name, message);
  unread_.erase(acl_name);
}

uint32_t ModelBus::push_to(uint64_t peer, const std::string& name,
                           std::span<const std::byte> message) noexcept {
  before_push();
  const auto found = consumers.find(peer);
  if (found == consumers.end() || !found->second.registered.contains(name)) return ENOENT;
  if (const auto lost = found->second.behaviour.lost_with) return *lost;
  found->second.apply(name, message);
  return 0;
}

std::vector<BusPort::Answer> ModelBus::ask(const std::string& name, std::span<const std::byte> question,
                                           uint32_t) {
  std::vector<Answer> answers;
  for (auto& [id, consumer] : consumers) {
    if (consumer.behaviour.lost_with || !consumer.registered.contains(name)) continue;
    auto response = consumer.answer(question);
    if (consumer.behaviour.ask_status != 0) response.reset();
    answers.push_back({consumer.peer, consumer.behaviour.ask_status, response});
  }
  return answers;
}

}  // namespace es_acl::producer::test
