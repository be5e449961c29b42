#include "verification.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "es_platform/process.h"
#include "messages.h"

namespace es_acl::producer {
namespace {

constexpr size_t kMostUnderWay = 16;
constexpr std::chrono::seconds kKept{2};  // behind its end; an asker comes far more often

uint64_t digest_of(std::span<const AceRecord> records, bool rules_only) {
  es_acl_digest digest;
  es_acl_digest_begin(&digest);
  for (const AceRecord& record : records) {
    if (rules_only && es_acl_wire_32(record.ace.kind) == ES_ACL_KIND_REMARK) continue;
    es_acl_digest_add(&digest, &record.ace);
  }
  return es_acl_digest_end(&digest);
}

es_acl_pcx_verify_resp own_list(const AclPtr& acl, size_t clients) {
  const auto records = acl ? acl->records() : std::span<const AceRecord>();
  const size_t remarks = acl ? acl->remark_count() : 0;
  es_acl_pcx_verify_resp list{};
  list.ver = ES_ACL_PCX_VERSION;
  list.num_clients = static_cast<uint32_t>(clients);
  list.num_aces = static_cast<uint32_t>(records.size());
  list.num_remark_aces = static_cast<uint32_t>(remarks);
  const uint64_t whole = digest_of(records, false);
  es_acl_wire_set_digest(list.digest, whole);
  es_acl_wire_set_digest(list.rules_digest, remarks != 0 ? digest_of(records, true) : whole);
  es_acl_wire_verify_resp_order(&list);
  return list;
}

es_acl_pcx_verify_client client_record(const Verification::Client& client) {
  es_acl_pcx_verify_client record{};
  record.pid = client.peer.pid;
  record.copy = client.copy;
  if (!client.settled) record.copy.state = ES_ACL_NO_ANSWER;
  if (proc_name_get(client.peer.pid, record.proc_name, sizeof record.proc_name) != 0)
    record.proc_name[0] = '\0';
  es_acl_wire_verify_client_order(&record);
  return record;
}

template <typename Record>
void append(std::vector<std::byte>* out, const Record& record) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  out->insert(out->end(), bytes.begin(), bytes.end());
}

constexpr es_acl_pcx_digest_resp kNothingToCompare = {
    .ver = ES_ACL_PCX_VERSION, .state = ES_ACL_READING, .rules_only = 0, .num_aces = 0, .digest = {}};

// Without bytes, or with ones that are no answer, there is nothing to compare.
es_acl_pcx_digest_resp parse(std::span<const std::byte> bytes, bool has_read) {
  es_acl_pcx_digest_resp copy{};
  if (bytes.size() == sizeof copy) std::memcpy(&copy, bytes.data(), sizeof copy);
  es_acl_wire_digest_resp_order(&copy);
  if (copy.ver == ES_ACL_PCX_VERSION && copy.state < ES_ACL_READING && !has_read) return copy;
  return kNothingToCompare;
}

}  // namespace

std::vector<std::byte> Verification::result() const {
  std::vector<std::byte> out;
  append(&out, own_list(acl, clients.size()));
  for (const Client& client : clients) append(&out, client_record(client));
  return out;
}

bool Verifications::has(uint64_t asker, std::string_view name) const {
  return std::ranges::any_of(under_way_,
                             [&](const auto& one) { return one.asker == asker && one.name == name; });
}

uint32_t Verifications::begin(uint64_t asker, std::string_view name, AclPtr acl, Clock::duration deadline,
                              BusPort& bus) {
  if (under_way_.size() == kMostUnderWay) return EAGAIN;
  std::list<Verification> fresh;
  fresh.push_back({asker, std::string(name), std::move(acl), now_() + deadline});
  Verification& one = fresh.back();
  std::vector<pcx_peer> asked;
  const uint32_t status = bus.inquire(one.name, digest_question(), &one.number, &asked);
  if (status != 0) return status;
  for (const pcx_peer& peer : asked) one.clients.push_back({.peer = peer});
  end_if_settled(&one);
  under_way_.splice(under_way_.end(), fresh);
  return 0;
}

std::optional<Verification> Verifications::take(uint64_t asker, std::string_view name) {
  const auto now = now_();
  const auto found = std::ranges::find_if(
      under_way_, [&](const auto& one) { return one.asker == asker && one.name == name && now >= one.end; });
  if (found == under_way_.end()) return std::nullopt;
  Verification one = std::move(*found);
  under_way_.erase(found);
  return one;
}

void Verifications::answered(const pcx_peer& peer, uint64_t number, std::span<const std::byte> answer) {
  const auto found = std::ranges::find(under_way_, number, &Verification::number);
  if (found == under_way_.end()) return;
  for (Verification::Client& client : found->clients) {
    if (client.peer.id != peer.id || client.settled) continue;
    client.copy = parse(answer, client.has_read);
    client.settled = true;
  }
  end_if_settled(&*found);
}

void Verifications::has_read(uint64_t peer, std::string_view name) noexcept {
  for (Verification& one : under_way_) {
    if (one.name != name) continue;
    for (Verification::Client& client : one.clients) client.has_read |= client.peer.id == peer;
  }
}

void Verifications::registered(uint64_t peer, std::string_view name) noexcept {
  for (Verification& one : under_way_) {
    if (one.name != name) continue;
    for (Verification::Client& client : one.clients) {
      if (client.peer.id != peer || client.settled) continue;
      client.copy = kNothingToCompare;
      client.settled = true;
    }
    end_if_settled(&one);
  }
}

// A consumer that has gone has nothing, and waits for nothing.
void Verifications::forget(uint64_t peer) noexcept {
  std::erase_if(under_way_, [&](const Verification& one) { return one.asker == peer; });
  for (Verification& one : under_way_) {
    std::erase_if(one.clients, [&](const auto& client) { return client.peer.id == peer && !client.settled; });
    end_if_settled(&one);
  }
}

void Verifications::forget_abandoned() noexcept {
  std::erase_if(under_way_, [now = now_()](const auto& one) { return now >= one.end + kKept; });
}

void Verifications::end_if_settled(Verification* one) const noexcept {
  if (std::ranges::all_of(one->clients, &Verification::Client::settled))
    one->end = std::min(one->end, now_());
}

}  // namespace es_acl::producer
