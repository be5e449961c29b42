#include "names.h"

#include <cstring>
#include <mutex>
#include <utility>

namespace es_tree {

std::string_view Names::view(const char* name) noexcept {
  if (name == nullptr) return {};
  const size_t length = strnlen(name, ES_ACL_NAME_MAX + 1);
  return length <= ES_ACL_NAME_MAX ? std::string_view(name, length) : std::string_view();
}

Acl* Names::find(std::string_view name) const {
  const std::shared_lock lock(mutex_);
  const auto at = acls_.find(name);
  return at != acls_.end() ? at->second.get() : nullptr;
}

Acl* Names::create(std::string_view name) {
  auto acl = std::make_unique<Acl>(name);
  const std::unique_lock lock(mutex_);
  Acl* made = acl.get();
  const bool is_new = acls_.try_emplace(made->name, std::move(acl)).second;
  return is_new ? made : nullptr;
}

std::unique_ptr<Acl> Names::take(std::string_view name) {
  const std::unique_lock lock(mutex_);
  auto node = acls_.extract(name);
  return node.empty() ? nullptr : std::move(node.mapped());
}

std::unique_ptr<Acl> Names::take(Acl* acl) {
  const std::unique_lock lock(mutex_);
  const auto at = acls_.find(acl->name);
  if (at == acls_.end() || at->second.get() != acl) return nullptr;
  auto taken = std::move(at->second);
  acls_.erase(at);
  return taken;
}

uint32_t Names::size() const {
  const std::shared_lock lock(mutex_);
  return static_cast<uint32_t>(acls_.size());
}

}  // namespace es_tree
