#include "memory_store.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "scripted_platform.h"

namespace es_test {
namespace {

struct Element {
  void* words[ES_ACL_ELEMENT_ACE_WORD + 1] = {};
};

struct Entry {
  es_acl_ace_node node{};
  Element element;
  es_acl_ace* ace() const { return static_cast<es_acl_ace*>(element.words[ES_ACL_ELEMENT_ACE_WORD]); }
};

// The head is the first member, so that a head's address is its list's.
struct List {
  es_acl_head head;
  std::string name;
  std::map<uint32_t, std::unique_ptr<Entry>> entries;
  Element end;
};

std::mutex index_mutex;
std::map<std::string, std::unique_ptr<List>>& lists() {
  static auto* const instance = new std::map<std::string, std::unique_ptr<List>>;
  return *instance;
}

List* list_of(es_acl_head* head) { return reinterpret_cast<List*>(head); }

es_acl_ace_node* sentinel(es_acl_head* head) { return reinterpret_cast<es_acl_ace_node*>(&head->ace_first); }

void relink(List* list) {
  es_acl_ace_node* last = sentinel(&list->head);
  for (const auto& [seq, entry] : list->entries) {
    __atomic_store_n(&last->next, &entry->node, __ATOMIC_RELEASE);
    last = &entry->node;
  }
  __atomic_store_n(&last->next, sentinel(&list->head), __ATOMIC_RELEASE);
  __atomic_store_n(&list->head.ace_count, static_cast<uint32_t>(list->entries.size()), __ATOMIC_RELAXED);
}

es_acl_head* look_up(const char* name) {
  const std::lock_guard guard(index_mutex);
  const auto found = lists().find(name == nullptr ? "" : name);
  return found == lists().end() ? nullptr : &found->second->head;
}

es_acl_head* make_head(const char* name) {
  const std::lock_guard guard(index_mutex);
  std::unique_ptr<List>& list = lists()[name];
  if (list != nullptr) return nullptr;
  list = std::make_unique<List>();
  list->name = name;
  es_acl_head& head = list->head;
  memset(&head, 0, sizeof head);
  head.name = list->name.c_str();
  head.refcount = 1;
  head.ace_end = &list->end;
  list->end.words[ES_ACL_ELEMENT_ACE_WORD] = &list->end;  // no ACE: who follows it has walked too far
  pthread_mutex_init(&head.lock, nullptr);
  relink(list.get());
  name_pointer(&head, "head:" + list->name);
  watch_mutex(&head.lock, "lock:" + list->name);
  return &head;
}

void remove_list(const char* name) {
  const std::lock_guard guard(index_mutex);
  const auto found = lists().find(name);
  if (found == lists().end()) return;
  for (const auto& [seq, entry] : found->second->entries) es_acl_free_rules(entry->ace());
  name_pointer(&found->second->head, "ptr");  // the address may come back as another's
  unwatch_mutex(&found->second->head.lock);
  pthread_mutex_destroy(&found->second->head.lock);
  lists().erase(found);
}

es_acl_status add(es_acl_head* head, es_acl_ace* ace, uint32_t seq, uint32_t flag, es_acl_iter*) {
  std::unique_ptr<Entry>& entry = list_of(head)->entries[seq];
  if (entry != nullptr) {
    es_acl_free_rules(flag == ES_ACL_ADD_KEEP ? ace : entry->ace());
    if (flag == ES_ACL_ADD_REPLACE) entry->element.words[ES_ACL_ELEMENT_ACE_WORD] = ace;
    return 0;
  }
  entry = std::make_unique<Entry>();
  entry->node.element = &entry->element;
  entry->element.words[ES_ACL_ELEMENT_ACE_WORD] = ace;
  relink(list_of(head));
  return 0;
}

void remove_entry(es_acl_head* head, uint32_t seq, uint32_t, es_acl_iter*) {
  auto& entries = list_of(head)->entries;
  const auto found = entries.find(seq);
  if (found == entries.end()) return;
  es_acl_free_rules(found->second->ace());
  entries.erase(found);
  relink(list_of(head));
}

// With or without a position.
constexpr auto find = [](es_acl_head* head, uint32_t seq, auto...) -> es_acl_ace* {
  const auto& entries = list_of(head)->entries;
  const auto found = entries.find(seq);
  return found == entries.end() ? nullptr : found->second->ace();
};

void discard(es_acl_head* head, uint32_t* out) {
  if (out != nullptr) *out = 0;
  remove_list(std::string(head->name).c_str());
}

void visit_all(es_acl_head* head, es_acl_visitor visitor, va_list* arguments) {
  for (const auto& [seq, entry] : list_of(head)->entries) {
    va_list copy;
    va_copy(copy, *arguments);
    const uint32_t stop = visitor(head, entry->ace(), &copy);
    va_end(copy);
    if (stop != 0) return;
  }
}

}  // namespace

Store::Store() {
#define PLAIN(slot, otherwise) slot.always(otherwise);
  SCRIPTED_SLOTS(PLAIN)
#undef PLAIN
}

Store& store() {
  const Backstage backstage;
  static Store* const instance = new Store;
  return *instance;
}

void install_store(es_acl_api_table* apis) {
  const Backstage backstage;
  record(kStore, describe("es_acl_api_init_funcs", apis == es_acl_apis ? "es_acl_apis" : "another"));
#define INSTALL(slot, otherwise) \
  apis->slot = [](auto... arguments) { return play(kStore, "store." #slot, store().slot, arguments...); };
  SCRIPTED_SLOTS(INSTALL)
#undef INSTALL
}

es_acl_head* held(const std::string& name) {
  const Backstage backstage;
  return look_up(name.c_str());
}

Lines held_names() {
  const Backstage backstage;
  const std::lock_guard guard(index_mutex);
  Lines names;
  for (const auto& [name, list] : lists()) names.push_back(name);
  return names;
}

std::vector<uint32_t> held_sequence(const es_acl_head* head) {
  const Backstage backstage;
  std::vector<uint32_t> sequence;
  for (const auto& [seq, entry] : reinterpret_cast<const List*>(head)->entries) sequence.push_back(seq);
  return sequence;
}

es_acl_ace* make_ace(uint32_t seq) {
  const Backstage backstage;
  es_acl_ace* ace = es_acl_alloc_rules();
  memset(ace, 0, sizeof *ace);
  ace->seq = seq;
  return ace;
}

}  // namespace es_test
