// Who has registered which ACL, and who of them is to be told of its changes.
//
// A registration that has read nothing yet is told nothing: its read will show the state of that moment. With the
// read it is armed, and told of every change behind that state. One that a change could not be brought to any more
// is taken out; it may have gone, or will register again.
//
// Not thread-safe.
#ifndef ES_ACL_PRODUCER_AUDIENCE_H_
#define ES_ACL_PRODUCER_AUDIENCE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "acl_change.h"

namespace es_acl::producer {

class Audience {
 public:
  struct Member {
    uint64_t peer;
    std::optional<Form> armed;
  };

  // A registration that is new, or has come again with a new connection: what was queued for the old one may have gone with
  // it. An earlier one of this consumer is forgotten.
  void add(uint64_t peer, std::string_view name);
  // The consumer reads the ACL from its beginning, in that form. No registration, no effect.
  void arm(uint64_t peer, std::string_view name, Form form);
  bool is_armed(uint64_t peer, std::string_view name) const;

  void remove(uint64_t peer, std::string_view name) noexcept;
  void remove_everywhere(uint64_t peer) noexcept;

  // Valid until the next change.
  std::span<const Member> of(std::string_view name) const;

 private:
  using Members = std::vector<Member>;

  Member& member(uint64_t peer, std::string_view name);
  const Member* find(uint64_t peer, std::string_view name) const;

  std::map<std::string, Members, std::less<>> members_;  // no empty ones
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_AUDIENCE_H_
