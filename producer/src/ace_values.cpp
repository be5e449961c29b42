#include "ace_values.h"

#include <charconv>
#include <utility>

namespace es_acl::producer {
namespace {

// The names that the typedef ethertype of es-acl.yang admits.
constexpr std::pair<std::string_view, uint16_t> kEtherTypes[] = {
    {"ipv4", 0x0800},          {"arp", 0x0806},   {"rarp", 0x8035},   {"vlan", 0x8100},
    {"ipv6", 0x86dd},          {"slow", 0x8809},  {"mpls", 0x8847},   {"pppoe-discovery", 0x8863},
    {"pppoe-session", 0x8864}, {"eapol", 0x888e}, {"q-in-q", 0x88a8}, {"lldp", 0x88cc},
    {"macsec", 0x88e5},        {"cfm", 0x8902},   {"ptp", 0x88f7},
};

// The whole text as a hexadecimal number of at most `max_digits` digits.
std::optional<uint16_t> parse_hex(std::string_view text, size_t max_digits) {
  uint16_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, 16);
  if (text.empty() || text.size() > max_digits || stop != end || error != std::errc{}) return std::nullopt;
  return value;
}

}  // namespace

std::optional<MacWords> parse_mac(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  MacWords words{};
  for (size_t i = 0; i < 6; ++i) {
    const auto byte = parse_hex(text.substr(i * 3, 2), 2);
    if (!byte || (i < 5 && text[i * 3 + 2] != ':')) return std::nullopt;
    words[i / 2] = static_cast<uint16_t>(words[i / 2] << 8 | *byte);
  }
  return words;
}

std::optional<uint16_t> parse_ethertype(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) return parse_hex(text.substr(2), 4);
  for (const auto& [name, value] : kEtherTypes) {
    if (name == text) return value;
  }
  return std::nullopt;
}

}  // namespace es_acl::producer
