// The plug-in's face: the slots of the store API table, each a few lines over Acl and Names.
//
// No exception leaves a slot. Slots 4 and 6 are called without the ACL's lock and take it themselves.
#include <cerrno>
#include <cstdarg>
#include <exception>
#include <new>

#include "acl.h"
#include "match.h"
#include "names.h"
#include "root.h"

namespace es_tree {

namespace {

// The process's ACLs. Never destroyed: other threads may still use them while the process ends.
struct Store {
  Names names;
  es_acl_tree_root root{sizeof(es_acl_tree_root), 1, 0, SlotQueue::kShortGraceMs};

  void update_root() noexcept { __atomic_store_n(&root.acl_count, names.size(), __ATOMIC_RELAXED); }
};

Store& store() {
  static Store* const the = new Store;
  return *the;
}

class Lock {
 public:
  explicit Lock(es_acl_head* acl) noexcept : mutex_(&acl->lock) { pthread_mutex_lock(mutex_); }
  ~Lock() { pthread_mutex_unlock(mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// --- The store and its ACLs ---

es_acl_status init(void*) {
  try {
    store();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  return 0;
}

es_acl_head* acl_lookup(const char* name) {
  try {
    return store().names.find(Names::view(name));
  } catch (const std::exception&) {
    return nullptr;
  }
}

es_acl_head* get_header(const char* name) {
  const std::string_view view = Names::view(name);
  if (view.empty()) return nullptr;
  try {
    Acl* acl = store().names.create(view);
    store().update_root();
    return acl;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void acl_release(const char* name) {
  store().names.take(Names::view(name));
  store().update_root();
}

void freelist(es_acl_head* head, uint32_t* out) {
  if (out != nullptr) *out = head != nullptr ? head->ace_count : 0;
  if (head == nullptr) return;
  store().names.take(Acl::of(head));
  store().update_root();
}

void* get_db_pointer(void*, void*, void*, void*, void*, void*) { return &store().root; }

// --- One ACL's list ---

es_acl_status add_acl_item_iter(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag,
                                es_acl_iter* iter) {
  return Acl::of(acl)->add(ace, seq, flag, iter);
}

es_acl_status add_acl_item(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag) {
  const Lock lock(acl);
  return Acl::of(acl)->add(ace, seq, flag, nullptr);
}

void delete_entry_iter(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
  Acl::of(acl)->remove(seq, direction, iter);
}

void delete_entry(es_acl_head* acl, uint32_t seq) {
  const Lock lock(acl);
  Acl::of(acl)->remove(seq, ES_ACL_FORWARD, nullptr);
}

es_acl_ace* search_entry(es_acl_head* acl, uint32_t seq) {
  return Acl::of(acl)->search(seq, ES_ACL_FORWARD, nullptr);
}

es_acl_ace* search_entry_iter(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
  return Acl::of(acl)->search(seq, direction, iter);
}

es_acl_status resequence(es_acl_head* acl, uint32_t start_seq, uint32_t step, uint32_t num_skip_seqs,
                         const uint32_t* skip_seqs) {
  return Acl::of(acl)->resequence(start_seq, step, num_skip_seqs, skip_seqs);
}

void traverse_list(es_acl_head* acl, es_acl_visitor visitor, va_list* args) {
  Acl::of(acl)->note_look();
  Acl::of(acl)->each([&](const es_acl_ace* ace) {
    va_list copy;
    va_copy(copy, *args);
    const uint32_t result = visitor(acl, ace, &copy);
    va_end(copy);
    return result == 0;
  });
}

// --- Several ACEs with one call ---

constexpr es_acl_batch_table kBatches = {
    [](es_acl_head* acl, es_acl_batch_item* items, uint32_t n) { Acl::of(acl)->search(items, n); },
    [](es_acl_head* acl, es_acl_batch_item* items, uint32_t n) { Acl::of(acl)->add(items, n); },
    [](es_acl_head* acl, es_acl_batch_item* items, uint32_t n) { Acl::of(acl)->remove(items, n); },
};

// --- Matching ---

const es_acl_ace* first_match(es_acl_head* acl, const es_acl_match_key& key) {
  const Matcher matcher(key);
  const es_acl_ace* found = nullptr;
  Acl::of(acl)->each([&](const es_acl_ace* ace) {
    if (matcher.matches(*ace)) found = ace;
    return found == nullptr;
  });
  return found;
}

es_acl_match_hit* hits_at(uint64_t value64) {
  return reinterpret_cast<es_acl_match_hit*>(static_cast<uintptr_t>(value64));
}

uint32_t match_complex(es_acl_head* acl, const void* key, uint32_t, uint64_t value64) {
  const es_acl_ace* ace = first_match(acl, *static_cast<const es_acl_match_key*>(key));
  if (ace == nullptr) return ES_ACL_MATCH_NONE;
  if (value64 != 0) *hits_at(value64) = {ace->seq, ace->capture, ace->log_option};
  return ace->grant == ES_ACL_PERMIT ? ES_ACL_MATCH_PERMIT : ES_ACL_MATCH_DENY;
}

uint32_t match_complex_2(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64) {
  const auto* keys = static_cast<const es_acl_match_key*>(key);
  es_acl_match_hit* hits = hits_at(value64);
  uint32_t matched = 0;
  for (uint32_t i = 0; i != value32; ++i) {
    const es_acl_ace* ace = first_match(acl, keys[i]);
    if (ace != nullptr) ++matched;
    if (hits == nullptr) continue;
    if (ace != nullptr) {
      hits[i] = {ace->seq, ace->capture, ace->log_option};
    } else {
      hits[i].seq = 0;
    }
  }
  return matched;
}

}  // namespace

}  // namespace es_tree

// Slot 13 is left to the library's default.
extern "C" ES_ACL_API void es_acl_api_init_funcs(es_acl_api_table* apis) {
  using namespace es_tree;
  apis->init = init;
  apis->acl_lookup = acl_lookup;
  apis->get_header = get_header;
  apis->acl_release = acl_release;
  apis->add_acl_item = add_acl_item;
  apis->add_acl_item_iter = add_acl_item_iter;
  apis->delete_entry = delete_entry;
  apis->delete_entry_iter = delete_entry_iter;
  apis->search_entry = search_entry;
  apis->search_entry_iter = search_entry_iter;
  apis->freelist = freelist;
  apis->match_complex = match_complex;
  apis->match_complex_2 = match_complex_2;
  apis->resequence = resequence;
  apis->get_db_pointer = get_db_pointer;
  apis->traverse_list = traverse_list;
  es_acl_offer_batches(&kBatches);
}
