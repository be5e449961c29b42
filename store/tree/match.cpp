#include "match.h"

#include <cstring>

namespace es_tree {

namespace {

constexpr uint64_t kOuterFields = ES_ACL_MATCH_VLAN | ES_ACL_MATCH_COS | ES_ACL_MATCH_DEI;
constexpr uint64_t kInnerFields = ES_ACL_MATCH_IVLAN | ES_ACL_MATCH_ICOS | ES_ACL_MATCH_IDEI;

// An address as one number. Which one does not matter: addresses and masks are only compared bit by bit.
uint64_t bits(const uint16_t (&address)[3]) noexcept {
  uint64_t value = 0;
  std::memcpy(&value, address, sizeof address);
  return value;
}

bool differs(uint64_t address, const uint16_t (&wanted)[3], const uint16_t (&wild)[3]) noexcept {
  return ((address ^ bits(wanted)) & ~bits(wild)) != 0;
}

bool outside(uint16_t value, uint16_t first, uint16_t last) noexcept { return value < first || last < value; }

}  // namespace

Matcher::Matcher(const es_acl_match_key& key) noexcept
    : key_(key),
      src_(bits(key.src_addr)),
      dst_(bits(key.dst_addr)),
      impossible_((key.tags < ES_ACL_KEY_TAGGED ? kOuterFields : 0) |
                  (key.tags < ES_ACL_KEY_DOUBLE_TAGGED ? kInnerFields : 0)) {}

// What decides most often comes first: the addresses.
bool Matcher::matches(const es_acl_ace& ace) const noexcept {
  if (ace.kind != ES_ACL_KIND_RULE) return false;
  const uint64_t mask = es_acl_ace_match_mask(&ace);
  if ((mask & impossible_) != 0) return false;
  if ((mask & ES_ACL_MATCH_SRC_ADDR) != 0 && differs(src_, ace.src_addr, ace.src_wild)) return false;
  if ((mask & ES_ACL_MATCH_DST_ADDR) != 0 && differs(dst_, ace.dst_addr, ace.dst_wild)) return false;
  if ((mask & ES_ACL_MATCH_VLAN) != 0 && outside(key_.vlan, ace.vlan_first, ace.vlan_last)) return false;
  if ((mask & ES_ACL_MATCH_ETH_TYPE) != 0 && key_.eth_type != ace.eth_type) return false;
  if ((mask & ES_ACL_MATCH_IVLAN) != 0 && outside(key_.ivlan, ace.ivlan_first, ace.ivlan_last)) return false;
  if ((mask & ES_ACL_MATCH_COS) != 0 && key_.cos != ace.cos) return false;
  if ((mask & ES_ACL_MATCH_DEI) != 0 && key_.dei != ace.dei) return false;
  if ((mask & ES_ACL_MATCH_ICOS) != 0 && key_.icos != ace.icos) return false;
  return (mask & ES_ACL_MATCH_IDEI) == 0 || key_.idei == ace.idei;
}

}  // namespace es_tree
