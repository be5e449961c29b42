// One ACL as the producer serves it: an immutable snapshot whose entries are wire records already, in
// sequence order, so that answering a read is one copy.
//
// An Acl never changes after its construction; any number of threads may read it. A changed ACL is a new Acl.
#ifndef ES_ACL_PRODUCER_ACL_H_
#define ES_ACL_PRODUCER_ACL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "es_acl/es_acl_wire.h"

namespace es_acl::producer {

using AceRecord = es_acl_pcx_acl_ace;

// An ACE in host byte order as the record that carries it on the bus.
AceRecord wire_record(const std::string& acl_name, const es_acl_ace& ace);

class Acl {
 public:
  // `aces` in host byte order and any order. Precondition: their sequence numbers are unique and not 0.
  Acl(std::string name, std::vector<es_acl_ace> aces);

  const std::string& name() const { return name_; }
  size_t size() const { return records_.size(); }  // remarks included
  size_t remark_count() const { return remarks_.size(); }
  size_t rule_count() const { return size() - remark_count(); }

  // All records, in wire byte order and ascending sequence order.
  std::span<const AceRecord> records() const { return records_; }
  // Those numbered above `sequence`.
  std::span<const AceRecord> records_after(uint32_t sequence) const;
  // Writes the rule_count() records that are not remarks, and returns the end of what was written.
  std::byte* copy_rules(std::byte* out) const;

 private:
  std::string name_;
  std::vector<AceRecord> records_;
  std::vector<size_t> remarks_;  // positions in records_, ascending
};

using AclPtr = std::shared_ptr<const Acl>;

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_ACL_H_
