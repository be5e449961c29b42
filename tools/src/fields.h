// The fields of an Ethernet header as people write them, and as the ACE record holds them. Pure functions.
#ifndef ES_ACL_TOOLS_FIELDS_H_
#define ES_ACL_TOOLS_FIELDS_H_

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace es_acl::tool {

// 48 bits as three 16-bit words, most significant first, as in es_acl_ace.
using MacWords = std::array<uint16_t, 3>;

// "00:11:22:33:44:55", "00-11-22-33-44-55" or "0011.2233.4455", in either case.
std::optional<MacWords> parse_mac(std::string_view text);

// "0x88cc", "88cc" (one to four digits) or a well-known name such as "ipv6".
std::optional<uint16_t> parse_ethertype(std::string_view text);

// Null when the number has no well-known name.
const char* ethertype_name(uint16_t ethertype);

void append_mac(std::string& out, const uint16_t words[3]);
void append_ethertype(std::string& out, uint16_t ethertype);  // "0x88cc"

template <typename Integer>
void append_number(std::string& out, Integer number) {
  char digits[24];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// The text with everything unprintable shown as "\xNN", so that a name from outside cannot play with a
// terminal.
std::string printable(std::string_view text);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_FIELDS_H_
