#include "audience.h"

#include <algorithm>
#include <iterator>

namespace es_acl::producer {

void Audience::add(uint64_t peer, std::string_view name) { member(peer, name).armed.reset(); }

void Audience::arm(uint64_t peer, std::string_view name, Form form) {
  if (find(peer, name) != nullptr) member(peer, name).armed = form;
}

bool Audience::is_armed(uint64_t peer, std::string_view name) const {
  const Member* found = find(peer, name);
  return found != nullptr && found->armed.has_value();
}

void Audience::remove(uint64_t peer, std::string_view name) noexcept {
  const auto members = members_.find(name);
  if (members == members_.end()) return;
  std::erase_if(members->second, [peer](const Member& one) { return one.peer == peer; });
  if (members->second.empty()) members_.erase(members);
}

void Audience::remove_everywhere(uint64_t peer) noexcept {
  for (auto entry = members_.begin(); entry != members_.end();) {
    std::erase_if(entry->second, [peer](const Member& one) { return one.peer == peer; });
    entry = entry->second.empty() ? members_.erase(entry) : std::next(entry);
  }
}

std::span<const Audience::Member> Audience::of(std::string_view name) const {
  const auto members = members_.find(name);
  return members != members_.end() ? std::span<const Member>(members->second) : std::span<const Member>();
}

Audience::Member& Audience::member(uint64_t peer, std::string_view name) {
  Members& members = members_[std::string(name)];
  const auto found = std::ranges::find(members, peer, &Member::peer);
  return found != members.end() ? *found : members.emplace_back(Member{peer, std::nullopt});
}

const Audience::Member* Audience::find(uint64_t peer, std::string_view name) const {
  const auto members = of(name);
  const auto found = std::ranges::find(members, peer, &Member::peer);
  return found != members.end() ? &*found : nullptr;
}

}  // namespace es_acl::producer
