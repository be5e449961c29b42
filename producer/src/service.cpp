#include "service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "log.h"

namespace es_acl::producer {
namespace {

constexpr uint32_t kLongestVerificationMs = 60000;

// The name in a 65-byte field; one without a terminating NUL is not as the wire format has it.
bool read_name(const char* field, std::string_view* name) {
  const void* end = std::memchr(field, 0, ES_ACL_NAME_FIELD_SIZE);
  if (!end) return false;
  *name = {field, static_cast<size_t>(static_cast<const char*>(end) - field)};
  return true;
}

// An ACL that nobody configured has no entries.
acl_pcx_query_resp count_record(const AclPtr& acl) {
  acl_pcx_query_resp record{};
  record.ver = ES_ACL_PCX_VERSION;
  record.num_aces = acl ? static_cast<uint32_t>(acl->size()) : 0;
  record.num_remark_aces = acl ? static_cast<uint32_t>(acl->remark_count()) : 0;
  es_acl_wire_query_resp_order(&record);
  return record;
}

}  // namespace

// A request with the answer it will get. The bus aligns requests to 8 bytes.
struct Service::Request {
  const pcx_peer& peer;
  std::span<std::byte> bytes;
  std::span<std::byte> answer;
  size_t answer_length = 0;
  std::string refusal;  // why, when the status is not 0

  template <typename Record>
  Record* as() {
    return reinterpret_cast<Record*>(bytes.data());
  }

  uint32_t refuse(std::string reason, uint32_t status = EINVAL) {
    refusal = std::move(reason);
    return status;
  }

  uint32_t refuse_size(size_t needed) {
    return refuse("the answer of " + std::to_string(needed) + " bytes does not fit into " +
                      std::to_string(answer.size()),
                  EMSGSIZE);
  }

  uint32_t refuse_version(uint32_t version) {
    return refuse("version " + std::to_string(version) + ", not 1");
  }

  uint32_t refuse_length(size_t expected) {
    return refuse("length " + std::to_string(bytes.size()) + ", not " + std::to_string(expected));
  }

  // The name fields of a bulk request, checked as a whole before any of them is used.
  uint32_t bulk_names(std::vector<std::string_view>* names);
};

uint32_t Service::Request::bulk_names(std::vector<std::string_view>* names) {
  if (bytes.size() < sizeof(acl_pcx_bulk_req)) return refuse_length(sizeof(acl_pcx_bulk_req));
  auto* header = as<acl_pcx_bulk_req>();
  es_acl_wire_bulk_req_order(header);
  if (header->ver != ES_ACL_PCX_VERSION) return refuse_version(header->ver);
  if (header->one != 1) return refuse("fourth word " + std::to_string(header->one) + ", not 1");
  const size_t expected = sizeof *header + size_t{ES_ACL_NAME_FIELD_SIZE} * header->num_entries;
  if (bytes.size() != expected) return refuse_length(expected);
  names->resize(header->num_entries);
  const char* field = reinterpret_cast<const char*>(header + 1);
  for (std::string_view& name : *names) {
    if (!read_name(field, &name)) return refuse("a name without its NUL");
    field += ES_ACL_NAME_FIELD_SIZE;
  }
  return 0;
}

Service::Service(DatabasePtr database, Log log) : log_(std::move(log)), database_(std::move(database)) {}

void Service::attach(BusPort* bus) {
  const std::lock_guard lock(mutex_);
  bus_ = bus;
}

DatabasePtr Service::database() const {
  const std::lock_guard lock(mutex_);
  return database_;
}

Delivery Service::commit(DatabasePtr next, std::span<const AclChange> changes, BusPort& bus) {
  Outbox outbox(changes);
  const std::lock_guard lock(mutex_);
  outbox.address_to(audience_);
  verifications_.forget_abandoned();  // which hold the states that they began with
  database_.swap(next);               // the old one goes after the lock, with the argument
  return outbox.send(bus, &audience_);
}

std::vector<Audience::Member> Service::audience(const std::string& acl_name) const {
  const std::lock_guard lock(mutex_);
  const auto members = audience_.of(acl_name);
  return {members.begin(), members.end()};
}

size_t Service::pinned() const {
  const std::lock_guard lock(mutex_);
  size_t count = 0;
  for (const auto& [peer, pins] : pins_) count += pins.size();
  return count;
}

uint32_t Service::answer(const pcx_peer& peer, std::span<std::byte> request, std::span<std::byte> answer,
                         uint32_t* answer_length) {
  Request call{peer, request, answer, 0, {}};
  const uint32_t status = dispatch(call);
  *answer_length = static_cast<uint32_t>(call.answer_length);
  if (status != 0 && status != EAGAIN) {
    log_("process " + std::to_string(peer.pid) + " (uid " + std::to_string(peer.uid) +
         "): request refused with " + std::to_string(status) + ": " + call.refusal);
  }
  return status;
}

uint32_t Service::dispatch(Request& request) {
  if (request.bytes.size() < sizeof(uint32_t)) return request.refuse("too short for a sub-command");
  const uint32_t command = es_acl_wire_32(*request.as<uint32_t>());
  switch (command) {
    case ACL_PCX_QUERY_ACE_COUNT:
      return count(request);
    case ACL_PCX_READ_ACES:
      return read(request);
    case ACL_PCX_QUERY_ACE_COUNT_BULK:
      return bulk_count(request);
    case ACL_PCX_READ_ACES_BULK:
      return bulk_read(request);
    case ES_ACL_PCX_VERIFY:
      return verify(request);
    default:
      return request.refuse("unknown sub-command " + std::to_string(command));
  }
}

uint32_t Service::count(Request& request) {
  if (request.bytes.size() != sizeof(acl_pcx_query_req))
    return request.refuse_length(sizeof(acl_pcx_query_req));
  auto* query = request.as<acl_pcx_query_req>();
  es_acl_wire_query_req_order(query);
  if (query->ver != ES_ACL_PCX_VERSION) return request.refuse_version(query->ver);
  std::string_view name;
  if (!read_name(query->acl_name, &name)) return request.refuse("a name without its NUL");
  const acl_pcx_query_resp record = count_record(database()->find(name));
  if (request.answer.size() < sizeof record) return request.refuse_size(sizeof record);
  std::memcpy(request.answer.data(), &record, sizeof record);
  request.answer_length = sizeof record;
  return 0;
}

// A full batch does not end the read, even when nothing is left behind it: the consumer asks again and gets
// none.
uint32_t Service::read(Request& request) {
  if (request.bytes.size() != sizeof(acl_pcx_read_req))
    return request.refuse_length(sizeof(acl_pcx_read_req));
  auto* query = request.as<acl_pcx_read_req>();
  es_acl_wire_read_req_order(query);
  if (query->ver != ES_ACL_PCX_VERSION) return request.refuse_version(query->ver);
  std::string_view name;
  if (!read_name(query->acl_name, &name)) return request.refuse("a name without its NUL");
  if (query->max_entries == 0) return request.refuse("max_entries 0: such a read would never end");

  const AclPtr acl = snapshot_for_read(request.peer.id, name, query->start_seq);
  if (!acl) return 0;
  const auto left = acl->records_after(query->start_seq);
  const auto batch = left.first(std::min<size_t>(left.size(), query->max_entries));
  if (batch.size_bytes() > request.answer.size()) return request.refuse_size(batch.size_bytes());
  if (!batch.empty()) std::memcpy(request.answer.data(), batch.data(), batch.size_bytes());
  request.answer_length = batch.size_bytes();
  if (batch.size() == query->max_entries) return 0;
  const std::lock_guard lock(mutex_);
  unpin_locked(request.peer.id, name);
  return 0;
}

uint32_t Service::bulk_count(Request& request) {
  std::vector<std::string_view> names;
  if (const uint32_t status = request.bulk_names(&names); status != 0) return status;
  const size_t needed = names.size() * sizeof(acl_pcx_query_resp);
  if (needed > request.answer.size()) return request.refuse_size(needed);
  const DatabasePtr state = database();
  std::byte* out = request.answer.data();
  for (const std::string_view name : names) {
    const acl_pcx_query_resp record = count_record(state->find(name));
    std::memcpy(out, &record, sizeof record);
    out += sizeof record;
  }
  request.answer_length = needed;
  return 0;
}

uint32_t Service::bulk_read(Request& request) {
  std::vector<std::string_view> names;
  if (const uint32_t status = request.bulk_names(&names); status != 0) return status;
  const DatabasePtr state = arm_for_bulk_read(request.peer.id, names);
  std::vector<AclPtr> acls;
  size_t needed = 0;
  for (const std::string_view name : names) {
    AclPtr acl = state->find(name);
    if (!acl) continue;
    needed += acl->rule_count() * sizeof(AceRecord);
    acls.push_back(std::move(acl));
  }
  if (needed > request.answer.size()) return request.refuse_size(needed);
  std::byte* out = request.answer.data();
  for (const AclPtr& acl : acls) out = acl->copy_rules(out);
  request.answer_length = needed;
  return 0;
}

// The question goes out under the lock under which changes are queued, and so behind those that made the present state and
// before any other.
uint32_t Service::verify(Request& request) {
  if (request.bytes.size() != sizeof(es_acl_pcx_verify_req))
    return request.refuse_length(sizeof(es_acl_pcx_verify_req));
  auto* query = request.as<es_acl_pcx_verify_req>();
  es_acl_wire_verify_req_order(query);
  if (query->ver != ES_ACL_PCX_VERSION) return request.refuse_version(query->ver);
  std::string_view name;
  if (!read_name(query->acl_name, &name)) return request.refuse("a name without its NUL");
  if (name.empty()) return request.refuse("no name");
  std::optional<Verification> done;
  {
    const std::lock_guard lock(mutex_);
    if (bus_ == nullptr) return EAGAIN;
    verifications_.forget_abandoned();
    if (!verifications_.has(request.peer.id, name)) {
      const auto deadline = std::chrono::milliseconds(std::min(query->deadline_ms, kLongestVerificationMs));
      const uint32_t status =
          verifications_.begin(request.peer.id, name, database_->find(name), deadline, *bus_);
      if (status != 0) return request.refuse("the consumers cannot be asked", status);
    }
    done = verifications_.take(request.peer.id, name);
  }
  if (!done) return EAGAIN;
  const std::vector<std::byte> result = done->result();
  if (result.size() > request.answer.size()) return request.refuse_size(result.size());
  std::ranges::copy(result, request.answer.begin());
  request.answer_length = result.size();
  return 0;
}

// A read that is begun again, with its registration armed and its state still pinned, goes on with that state: the
// changes behind it have been pushed.
AclPtr Service::snapshot_for_read(uint64_t peer, std::string_view name, uint32_t start_seq) {
  const std::lock_guard lock(mutex_);
  verifications_.has_read(peer, name);
  if (start_seq != 0 || audience_.is_armed(peer, name)) {
    if (const auto pins = pins_.find(peer); pins != pins_.end()) {
      if (const auto pin = pins->second.find(name); pin != pins->second.end()) return pin->second;
    }
  }
  AclPtr acl = database_->find(name);
  if (start_seq != 0) return acl;
  if (acl)
    pins_[peer].insert_or_assign(std::string(name), acl);
  else
    unpin_locked(peer, name);
  audience_.arm(peer, name, Form::kWhole);
  return acl;
}

DatabasePtr Service::arm_for_bulk_read(uint64_t peer, std::span<const std::string_view> names) {
  const std::lock_guard lock(mutex_);
  for (const std::string_view name : names) {
    verifications_.has_read(peer, name);
    audience_.arm(peer, name, Form::kRules);
  }
  return database_;
}

void Service::registered(const pcx_peer& peer, std::string_view acl_name) {
  const std::lock_guard lock(mutex_);
  verifications_.registered(peer.id, acl_name);
  unpin_locked(peer.id, acl_name);
  audience_.add(peer.id, acl_name);
}

void Service::unpin_locked(uint64_t peer, std::string_view name) noexcept {
  const auto pins = pins_.find(peer);
  if (pins == pins_.end()) return;
  if (const auto pin = pins->second.find(name); pin != pins->second.end()) pins->second.erase(pin);
  if (pins->second.empty()) pins_.erase(pins);
}

void Service::inquiry_answered(const pcx_peer& peer, uint64_t number, std::span<const std::byte> answer) {
  const std::lock_guard lock(mutex_);
  verifications_.answered(peer, number, answer);
}

void Service::forget(const pcx_peer& peer) {
  const std::lock_guard lock(mutex_);
  verifications_.forget(peer.id);
  pins_.erase(peer.id);
  audience_.remove_everywhere(peer.id);
}

}  // namespace es_acl::producer
