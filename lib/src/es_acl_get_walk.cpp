// Walking an ACL without a lock and without a call into the store.
//
// The store publishes links with release stores and keeps what it removes readable (es_acl_store.h), so the
// reads here are acquire loads of a node's link and element and of the element's ACE word. The end marker never
// changes. What is written is the head's number of looks.
#include <cerrno>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_diag.h"
#include "es_db_private.h"

namespace es_acl {
namespace {

template <typename T>
T* load(T* const& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

bool is_end(const es_acl_head* acl, const es_acl_ace_node* node) {
  return load(node->element) == acl->ace_end;
}

[[gnu::cold, gnu::noinline]] es_acl_ace_node* follow_anew(es_acl_head* acl, es_acl_ace_node* const& link);

// The node that the link leads to. The store has been told of the look before, and has not taken note of it until after.
inline es_acl_ace_node* follow(es_acl_head* acl, es_acl_ace_node* const& link) {
  const std::atomic_ref<uint32_t> looks(acl->looks);
  const uint32_t look = looks.load(std::memory_order_acquire);
  es_acl_ace_node* const node = load(link);
  if (look % 2 != 0 && looks.load(std::memory_order_relaxed) == look) [[likely]]
    return node;
  return follow_anew(acl, link);
}

es_acl_ace_node* follow_anew(es_acl_head* acl, es_acl_ace_node* const& link) {
  begin_look(acl);
  return follow(acl, link);
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_ace_node* es_get_first_ace(es_acl_head* acl) {
  if (acl == nullptr) {
    trace(__func__, "null handle", EINVAL);
    return nullptr;
  }
  es_acl_ace_node* node = follow(acl, acl->ace_first);
  return node == nullptr || is_end(acl, node) ? nullptr : node;  // a snapshot has no list
}

es_acl_ace_node* es_get_next_ace(es_acl_head* acl, es_acl_ace_node* node) {
  if (acl == nullptr || node == nullptr || is_end(acl, node)) return nullptr;
  return follow(acl, node->next);
}

es_acl_ace* es_get_ace_data(es_acl_head* acl, es_acl_ace_node* node) {
  if (acl == nullptr || node == nullptr) return nullptr;
  void* const element = load(node->element);
  if (element == nullptr || element == acl->ace_end) return nullptr;
  return load(static_cast<es_acl_ace* const*>(element)[ES_ACL_ELEMENT_ACE_WORD]);
}

const char* es_acl_get_acl_name(es_acl_head* acl) { return acl == nullptr ? nullptr : acl->name; }
