#include "entry_json.h"

#include <array>
#include <nlohmann/json.hpp>

namespace es_acl::tool {

namespace {

void put_address(Members& eth, const char* address_name, const char* wildcard_name, const uint16_t address[3],
                 const uint16_t wildcard[3]) {
  eth.mac(address_name, address);
  if ((wildcard[0] | wildcard[1] | wildcard[2]) != 0) eth.mac(wildcard_name, wildcard);
}

struct TagBits {
  uint64_t vlan, cos, dei;
};
constexpr TagBits kOuterBits = {ES_ACL_MATCH_VLAN, ES_ACL_MATCH_COS, ES_ACL_MATCH_DEI};
constexpr TagBits kInnerBits = {ES_ACL_MATCH_IVLAN, ES_ACL_MATCH_ICOS, ES_ACL_MATCH_IDEI};

void put_tag(Members& eth, const char* name, uint64_t mask, const TagBits& bits,
             const std::array<uint16_t, 4>& first_last_cos_dei) {
  if ((mask & (bits.vlan | bits.cos | bits.dei)) == 0) return;
  const auto& [first, last, cos, dei] = first_last_cos_dei;
  Members tag(eth.name(name));
  if ((mask & bits.vlan) != 0) tag.number("id", first);
  if ((mask & bits.vlan) != 0 && last != first) tag.number("last-id", last);
  if ((mask & bits.cos) != 0) tag.number("pcp", cos);
  if ((mask & bits.dei) != 0) tag.boolean("dei", dei != 0);
  tag.end();
}

void put_matches(std::string& out, const es_acl_ace& ace) {
  const uint64_t mask = es_acl_ace_match_mask(&ace);
  Members eth(out);
  if ((mask & ES_ACL_MATCH_SRC_ADDR) != 0)
    put_address(eth, "source-mac-address", "source-mac-address-wildcard", ace.src_addr, ace.src_wild);
  if ((mask & ES_ACL_MATCH_DST_ADDR) != 0)
    put_address(eth, "destination-mac-address", "destination-mac-address-wildcard", ace.dst_addr,
                ace.dst_wild);
  if ((mask & ES_ACL_MATCH_ETH_TYPE) != 0) {
    append_ethertype(eth.name("ethertype") += '"', ace.eth_type);
    out += '"';
  }
  put_tag(eth, "outer-vlan", mask, kOuterBits, {ace.vlan_first, ace.vlan_last, ace.cos, ace.dei});
  put_tag(eth, "inner-vlan", mask, kInnerBits, {ace.ivlan_first, ace.ivlan_last, ace.icos, ace.idei});
  eth.end();
}

}  // namespace

std::string quoted(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

const char* state_name(State state) {
  switch (state) {
    case State::kOk:
      return "ok";
    case State::kInvalidName:
      return "invalid-name";
    case State::kNotConfigured:
      return "not-configured";
    case State::kNoProducer:
      return "no-producer";
    case State::kUnreachable:
      return "unreachable";
    case State::kFailed:
      break;
  }
  return "failed";
}

void put_ace(std::string& out, const es_acl_ace& ace) {
  Members entry(out);
  entry.number("sequence", ace.seq);
  if (ace.kind == ES_ACL_KIND_REMARK) {
    entry.boolean("remark", true);
    entry.end();
    return;
  }
  Members matches(entry.name("matches"));
  put_matches(matches.name("eth"), ace);
  matches.end();
  Members actions(entry.name("actions"));
  actions.word("forwarding", ace.grant == ES_ACL_PERMIT ? "accept" : "drop");
  actions.boolean("capture", ace.capture != 0);
  actions.boolean("logging", ace.log_option != 0);
  actions.end();
  entry.end();
}

void put_counts(Members& members, const Counts& counts) {
  members.number("entries", counts.aces);
  members.number("remarks", counts.remarks);
  if (counts.remarks_left_out) members.boolean("remarks-left-out", true);
}

}  // namespace es_acl::tool
