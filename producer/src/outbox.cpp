#include "outbox.h"

#include <algorithm>

namespace es_acl::producer {

Outbox::Outbox(std::span<const AclChange> changes) {
  parcels_.reserve(changes.size());
  for (const AclChange& change : changes) {
    Parcel& parcel = parcels_.emplace_back(Parcel{&change, {}});
    for (size_t form = 0; form != kFormCount; ++form)
      parcel.messages[form] = change.messages(static_cast<Form>(form));
  }
}

void Outbox::address_to(const Audience& audience) {
  for (const Parcel& parcel : parcels_) {
    for (const Audience::Member& member : audience.of(parcel.change->name())) {
      if (!member.armed) continue;
      const auto& messages = parcel.messages[static_cast<size_t>(*member.armed)];
      if (!messages.empty()) addressees_.push_back({member.peer, parcel.change, messages});
    }
  }
}

Delivery Outbox::send(BusPort& bus, Audience* audience) noexcept {
  std::erase_if(addressees_, [&](const Addressee& to) {
    const auto push = [&](Message message) { return bus.push_to(to.peer, to.change->name(), message) == 0; };
    if (std::ranges::all_of(to.messages, push)) return false;
    audience->remove(to.peer, to.change->name());
    return true;
  });
  Delivery delivery;
  for (const Addressee& to : addressees_) delivery.messages += to.messages.size();
  std::ranges::sort(addressees_, {}, &Addressee::peer);
  const auto same_peer = [](const Addressee& a, const Addressee& b) { return a.peer == b.peer; };
  const auto end = std::unique(addressees_.begin(), addressees_.end(), same_peer);
  delivery.consumers = static_cast<size_t>(end - addressees_.begin());
  return delivery;
}

}  // namespace es_acl::producer
