#include "memory_store.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "scripted_call.h"
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

void name_head(List* list) {
  name_pointer(&list->head, "head:" + list->name);
  watch_mutex(&list->head.lock, "lock:" + list->name);
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
  pthread_mutex_init(&head.lock, store().lock_type);
  relink(list.get());
  name_head(list.get());
  return &head;
}

void remove_list(const char* name) {
  const std::lock_guard guard(index_mutex);
  const auto found = lists().find(name);
  if (found == lists().end()) return;
  for (const auto& [seq, entry] : found->second->entries) es_acl_free_rules(entry->ace());
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

es_acl_ace* find(es_acl_head* head, uint32_t seq) {
  const auto& entries = list_of(head)->entries;
  const auto found = entries.find(seq);
  return found == entries.end() ? nullptr : found->second->ace();
}

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

// --- The slots ---

es_acl_status slot_init(void* ctx) {
  const ScriptedCall call(kStore, "store.init", ctx);
  return store().init(ctx);
}

es_acl_head* slot_acl_lookup(const char* name) {
  const ScriptedCall call(kStore, "store.acl_lookup", name);
  return store().acl_lookup(name);
}

es_acl_head* slot_get_header(const char* name) {
  const ScriptedCall call(kStore, "store.get_header", name);
  return store().get_header(name);
}

void slot_acl_release(const char* name) {
  const ScriptedCall call(kStore, "store.acl_release", name);
  store().acl_release(name);
}

es_acl_status slot_add(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag, es_acl_iter* iter) {
  const ScriptedCall call(kStore, "store.add_acl_item_iter", static_cast<void*>(acl), seq, flag,
                          static_cast<void*>(iter));
  return store().add_acl_item_iter(acl, ace, seq, flag, iter);
}

void slot_delete(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
  const ScriptedCall call(kStore, "store.delete_entry_iter", static_cast<void*>(acl), seq, direction,
                          static_cast<void*>(iter));
  store().delete_entry_iter(acl, seq, direction, iter);
}

es_acl_ace* slot_search(es_acl_head* acl, uint32_t seq) {
  const ScriptedCall call(kStore, "store.search_entry", static_cast<void*>(acl), seq);
  return store().search_entry(acl, seq);
}

es_acl_ace* slot_search_iter(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
  const ScriptedCall call(kStore, "store.search_entry_iter", static_cast<void*>(acl), seq, direction,
                          static_cast<void*>(iter));
  return store().search_entry_iter(acl, seq, direction, iter);
}

void slot_freelist(es_acl_head* acl, uint32_t* out) {
  const ScriptedCall call(kStore, "store.freelist", static_cast<void*>(acl), static_cast<void*>(out));
  store().freelist(acl, out);
}

uint32_t slot_match(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64) {
  const ScriptedCall call(kStore, "store.match_complex", static_cast<void*>(acl), key, value32, value64);
  return store().match_complex(acl, key, value32, value64);
}

uint32_t slot_match_2(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64) {
  const ScriptedCall call(kStore, "store.match_complex_2", static_cast<void*>(acl), key, value32, value64);
  return store().match_complex_2(acl, key, value32, value64);
}

es_acl_status slot_resequence(es_acl_head* acl, uint32_t start_seq, uint32_t step, uint32_t count,
                              const uint32_t* skip_seqs) {
  const ScriptedCall call(kStore, "store.resequence", static_cast<void*>(acl), start_seq, step, count,
                          static_cast<const void*>(skip_seqs));
  return store().resequence(acl, start_seq, step, count, skip_seqs);
}

void* slot_get_db_pointer(void* a, void* b, void* c, void* d, void* e, void* f) {
  const ScriptedCall call(kStore, "store.get_db_pointer", a, b, c, d, e, f);
  return store().get_db_pointer(a, b, c, d, e, f);
}

void slot_traverse(es_acl_head* acl, es_acl_visitor visitor, va_list* arguments) {
  const ScriptedCall call(kStore, "store.traverse_list", static_cast<void*>(acl));
  store().traverse_list(acl, visitor, arguments);
}

}  // namespace

Store::Store()
    : init(0),
      acl_lookup(look_up),
      get_header(make_head),
      acl_release(remove_list),
      add_acl_item_iter(add),
      delete_entry_iter(remove_entry),
      search_entry(find),
      search_entry_iter(
          [](es_acl_head* acl, uint32_t seq, uint32_t, es_acl_iter*) { return find(acl, seq); }),
      freelist(discard),
      match_complex(0),
      match_complex_2(0),
      resequence(0),
      get_db_pointer(nullptr),
      traverse_list(visit_all) {}

Store& store() {
  const Backstage backstage;
  static Store* const instance = new Store;
  return *instance;
}

void install_store(es_acl_api_table* apis) {
  const ScriptedCall call(kStore, "es_acl_api_init_funcs", apis == es_acl_apis ? "es_acl_apis" : "another");
  apis->init = slot_init;
  apis->acl_lookup = slot_acl_lookup;
  apis->get_header = slot_get_header;
  apis->acl_release = slot_acl_release;
  apis->add_acl_item_iter = slot_add;
  apis->delete_entry_iter = slot_delete;
  apis->search_entry = slot_search;
  apis->search_entry_iter = slot_search_iter;
  apis->freelist = slot_freelist;
  apis->match_complex = slot_match;
  apis->match_complex_2 = slot_match_2;
  apis->resequence = slot_resequence;
  apis->get_db_pointer = slot_get_db_pointer;
  apis->traverse_list = slot_traverse;
}

es_acl_head* held(const std::string& name) {
  const Backstage backstage;
  return look_up(name.c_str());
}

std::vector<std::string> held_names() {
  const Backstage backstage;
  const std::lock_guard guard(index_mutex);
  std::vector<std::string> names;
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
