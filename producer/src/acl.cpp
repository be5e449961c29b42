#include "acl.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace es_acl::producer {
namespace {

std::byte* copy_records(std::byte* out, std::span<const AceRecord> records) {
  if (!records.empty()) std::memcpy(out, records.data(), records.size_bytes());
  return out + records.size_bytes();
}

}  // namespace

AceRecord wire_record(const std::string& acl_name, const es_acl_ace& ace) {
  AceRecord record{};
  record.cmd = ACL_PCX_ADD_ACE;
  record.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(record.acl_name, acl_name.c_str());
  record.ace = ace;
  es_acl_wire_acl_ace_order(&record);
  return record;
}

Acl::Acl(std::string name, std::vector<es_acl_ace> aces) : name_(std::move(name)) {
  std::ranges::sort(aces, {}, &es_acl_ace::seq);
  records_.reserve(aces.size());
  for (const es_acl_ace& ace : aces) {
    if (ace.kind == ES_ACL_KIND_REMARK) remarks_.push_back(records_.size());
    records_.push_back(wire_record(name_, ace));
  }
}

std::span<const AceRecord> Acl::records_after(uint32_t sequence) const {
  const auto host_sequence = [](const AceRecord& record) { return es_acl_wire_32(record.ace.seq); };
  const auto first = std::ranges::upper_bound(records_, sequence, {}, host_sequence);
  return {first, records_.end()};
}

std::byte* Acl::copy_rules(std::byte* out) const {
  size_t from = 0;  // the records between two remarks go in one piece
  for (const size_t remark : remarks_) {
    out = copy_records(out, records().subspan(from, remark - from));
    from = remark + 1;
  }
  return copy_records(out, records().subspan(from));
}

}  // namespace es_acl::producer
