#include "fields.h"

#include <cstdio>

namespace es_acl::tool {

namespace {

struct EthertypeName {
  uint16_t number;
  const char* name;
};

constexpr EthertypeName kEthertypeNames[] = {
    {0x0800, "ipv4"},          {0x0806, "arp"},   {0x8035, "rarp"},   {0x8100, "vlan"},
    {0x86dd, "ipv6"},          {0x8809, "slow"},  {0x8847, "mpls"},   {0x8863, "pppoe-discovery"},
    {0x8864, "pppoe-session"}, {0x888e, "eapol"}, {0x88a8, "q-in-q"}, {0x88cc, "lldp"},
    {0x88e5, "macsec"},        {0x8902, "cfm"},   {0x88f7, "ptp"},
};

constexpr char kHexDigits[] = "0123456789abcdef";

std::optional<uint16_t> parse_hex(std::string_view digits) {
  uint16_t number = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number, 16);
  if (error != std::errc() || stop != end || digits.size() > 4) return std::nullopt;
  return number;
}

// Twelve hexadecimal digits in groups of `group` with the separator in between, without the separators.
std::optional<std::string> join_groups(std::string_view text, char separator, size_t group) {
  if (text.size() != 12 + 12 / group - 1) return std::nullopt;
  std::string digits;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool at_separator = i % (group + 1) == group;
    if (at_separator != (text[i] == separator)) return std::nullopt;
    if (!at_separator) digits += text[i];
  }
  return digits;
}

void append_hex16(std::string& out, uint16_t word) {
  const char digits[] = {kHexDigits[word >> 12], kHexDigits[word >> 8 & 15], kHexDigits[word >> 4 & 15],
                         kHexDigits[word & 15]};
  out.append(digits, sizeof digits);
}

}  // namespace

std::optional<MacWords> parse_mac(std::string_view text) {
  auto digits = join_groups(text, ':', 2);
  if (!digits) digits = join_groups(text, '-', 2);
  if (!digits) digits = join_groups(text, '.', 4);
  if (!digits) return std::nullopt;
  MacWords words;
  for (size_t i = 0; i < words.size(); ++i) {
    const auto word = parse_hex(std::string_view(*digits).substr(4 * i, 4));
    if (!word) return std::nullopt;
    words[i] = *word;
  }
  return words;
}

std::optional<uint16_t> parse_ethertype(std::string_view text) {
  for (const EthertypeName& known : kEthertypeNames)
    if (text == known.name) return known.number;
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  return parse_hex(text);
}

const char* ethertype_name(uint16_t ethertype) {
  for (const EthertypeName& known : kEthertypeNames)
    if (ethertype == known.number) return known.name;
  return nullptr;
}

void append_mac(std::string& out, const uint16_t words[3]) {
  char text[17];
  char* next = text;
  for (int i = 0; i < 3; ++i) {
    if (i != 0) *next++ = ':';
    *next++ = kHexDigits[words[i] >> 12];
    *next++ = kHexDigits[words[i] >> 8 & 15];
    *next++ = ':';
    *next++ = kHexDigits[words[i] >> 4 & 15];
    *next++ = kHexDigits[words[i] & 15];
  }
  out.append(text, sizeof text);
}

void append_ethertype(std::string& out, uint16_t ethertype) {
  out += "0x";
  append_hex16(out, ethertype);
}

std::string printable(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      out += c;
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    out += escaped;
  }
  return out;
}

}  // namespace es_acl::tool
