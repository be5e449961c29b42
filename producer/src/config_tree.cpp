#include "config_tree.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string_view>
#include <vector>

#include "ace_values.h"
#include "config_error.h"

namespace es_acl::producer {
namespace {

// Strict parsing leaves no node without its schema.
const char* name_of(const lyd_node* node) { return node->schema->name; }

const lyd_node* child(const lyd_node* parent, std::string_view name) {
  const lyd_node* node = parent ? lyd_child(parent) : nullptr;
  while (node && name != name_of(node)) node = node->next;
  return node;
}

// Precondition: `leaf` is a leaf.
const lyd_value& value_of(const lyd_node* leaf) {
  return reinterpret_cast<const lyd_node_term*>(leaf)->value;
}

bool flag(const lyd_node* parent, std::string_view name) {
  const lyd_node* leaf = child(parent, name);
  return leaf && value_of(leaf).boolean;
}

[[noreturn]] void refuse(const lyd_node* leaf, const char* reason) {
  const std::unique_ptr<char, decltype(&std::free)> path(lyd_path(leaf, LYD_PATH_STD, nullptr, 0),
                                                         &std::free);
  throw ConfigError(std::string(path ? path.get() : name_of(leaf)) + ": " + reason);
}

MacWords mac(const lyd_node* leaf) {
  const auto words = parse_mac(lyd_get_value(leaf));
  if (!words) refuse(leaf, "not a MAC address");
  return *words;
}

// The wildcard mask of the address, given as it is, as its complement, or not at all.
MacWords wildcard(const lyd_node* eth, const std::string& address_leaf) {
  if (const lyd_node* leaf = child(eth, address_leaf + "-wildcard")) return mac(leaf);
  const lyd_node* leaf = child(eth, address_leaf + "-mask");
  if (!leaf) return {};
  MacWords words = mac(leaf);
  for (uint16_t& word : words) word = static_cast<uint16_t>(~word);
  return words;
}

// Where an entry holds an address, and the bit that says so.
struct AddressFields {
  const char* leaf;
  uint16_t (es_acl_ace::*address)[3];
  uint16_t (es_acl_ace::*wildcard)[3];
  uint64_t bit;
};

constexpr AddressFields kAddresses[] = {
    {"source-mac-address", &es_acl_ace::src_addr, &es_acl_ace::src_wild, ES_ACL_MATCH_SRC_ADDR},
    {"destination-mac-address", &es_acl_ace::dst_addr, &es_acl_ace::dst_wild, ES_ACL_MATCH_DST_ADDR},
};

// Address bits that the mask ignores are cleared, so that entries that mean the same are the same.
uint64_t read_address(const lyd_node* eth, const AddressFields& fields, es_acl_ace& ace) {
  const lyd_node* leaf = child(eth, fields.leaf);
  if (!leaf) return 0;
  const MacWords address = mac(leaf);
  const MacWords ignored = wildcard(eth, fields.leaf);
  for (size_t i = 0; i < 3; ++i) {
    (ace.*fields.address)[i] = static_cast<uint16_t>(address[i] & ~ignored[i]);
    (ace.*fields.wildcard)[i] = ignored[i];
  }
  return fields.bit;
}

// Likewise for a VLAN tag.
struct TagFields {
  const char* container;
  uint16_t es_acl_ace::*first;
  uint16_t es_acl_ace::*last;
  uint8_t es_acl_ace::*cos;
  uint8_t es_acl_ace::*dei;
  uint64_t id_bit, cos_bit, dei_bit;
};

constexpr TagFields kTags[] = {
    {"outer-vlan", &es_acl_ace::vlan_first, &es_acl_ace::vlan_last, &es_acl_ace::cos, &es_acl_ace::dei,
     ES_ACL_MATCH_VLAN, ES_ACL_MATCH_COS, ES_ACL_MATCH_DEI},
    {"inner-vlan", &es_acl_ace::ivlan_first, &es_acl_ace::ivlan_last, &es_acl_ace::icos, &es_acl_ace::idei,
     ES_ACL_MATCH_IVLAN, ES_ACL_MATCH_ICOS, ES_ACL_MATCH_IDEI},
};

uint64_t read_tag(const lyd_node* eth, const TagFields& fields, es_acl_ace& ace) {
  const lyd_node* tag = child(eth, fields.container);
  uint64_t mask = 0;
  if (const lyd_node* id = child(tag, "id")) {
    const lyd_node* last = child(tag, "last-id");
    ace.*fields.first = value_of(id).uint16;
    ace.*fields.last = value_of(last ? last : id).uint16;
    mask |= fields.id_bit;
  }
  if (const lyd_node* pcp = child(tag, "pcp")) {
    ace.*fields.cos = value_of(pcp).uint8;
    mask |= fields.cos_bit;
  }
  if (const lyd_node* dei = child(tag, "dei")) {
    ace.*fields.dei = value_of(dei).boolean ? 1 : 0;
    mask |= fields.dei_bit;
  }
  return mask;
}

uint64_t read_ethertype(const lyd_node* eth, es_acl_ace& ace) {
  const lyd_node* leaf = child(eth, "ethertype");
  if (!leaf) return 0;
  const auto value = parse_ethertype(lyd_get_value(leaf));
  if (!value) refuse(leaf, "not an EtherType");
  ace.eth_type = *value;
  return ES_ACL_MATCH_ETH_TYPE;
}

void read_matches(const lyd_node* eth, es_acl_ace& ace) {
  uint64_t mask = read_ethertype(eth, ace);
  for (const AddressFields& fields : kAddresses) mask |= read_address(eth, fields, ace);
  for (const TagFields& fields : kTags) mask |= read_tag(eth, fields, ace);
  es_acl_ace_set_match_mask(&ace, mask);
}

void read_actions(const lyd_node* actions, es_acl_ace& ace) {
  const std::string_view forwarding = lyd_get_value(child(actions, "forwarding"));
  ace.grant = forwarding == "accept" ? ES_ACL_PERMIT : ES_ACL_DENY;
  ace.capture = flag(actions, "capture") ? 1 : 0;
  ace.log_option = flag(actions, "logging") ? 1 : 0;
}

es_acl_ace read_ace(const lyd_node* entry) {
  es_acl_ace ace{};
  ace.seq = value_of(child(entry, "sequence")).uint32;
  if (child(entry, "remark")) {
    ace.kind = ES_ACL_KIND_REMARK;
    return ace;
  }
  read_matches(child(child(entry, "matches"), "eth"), ace);
  read_actions(child(entry, "actions"), ace);
  return ace;
}

// Calls `visit` with each list entry of that name.
template <typename Visit>
void for_each_entry(const lyd_node* container, std::string_view list, Visit visit) {
  const lyd_node* node = container ? lyd_child(container) : nullptr;
  for (; node; node = node->next) {
    if (list == name_of(node)) visit(node);
  }
}

AclPtr read_acl(const lyd_node* acl) {
  std::vector<es_acl_ace> aces;
  for_each_entry(child(acl, "aces"), "ace", [&](const lyd_node* entry) { aces.push_back(read_ace(entry)); });
  return std::make_shared<const Acl>(lyd_get_value(child(acl, "name")), std::move(aces));
}

std::string duplicate_sequence(const lyd_node* acl) {
  std::set<uint32_t> seen;
  std::string duplicate;
  for_each_entry(child(acl, "aces"), "ace", [&](const lyd_node* entry) {
    const uint32_t sequence = value_of(child(entry, "sequence")).uint32;
    if (seen.insert(sequence).second || !duplicate.empty()) return;
    duplicate = "acl '" + std::string(lyd_get_value(child(acl, "name"))) +
                "': duplicate entry: sequence number " + std::to_string(sequence) + " stands twice";
  });
  return duplicate;
}

}  // namespace

DatabasePtr database_from_tree(const lyd_node* acls) {
  auto database = std::make_shared<Database>();
  for_each_entry(acls, "acl", [&](const lyd_node* acl) { database->add(read_acl(acl)); });
  return database;
}

std::string describe_duplicate(const lyd_node* acls) {
  std::set<std::string_view> names;
  std::string duplicate;
  for_each_entry(acls, "acl", [&](const lyd_node* acl) {
    if (!duplicate.empty()) return;
    const char* name = lyd_get_value(child(acl, "name"));
    duplicate = names.insert(name).second
                    ? duplicate_sequence(acl)
                    : "acl '" + std::string(name) + "': duplicate ACL: the name stands twice";
  });
  return duplicate;
}

}  // namespace es_acl::producer
