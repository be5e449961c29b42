// A small store in memory behind the 17 slots: records every call and does as the test says.
//
// A head shows in the log as "head:NAME", its lock as "lock:NAME". The store keeps the records it is given
// (or gives the offered one back when the number is taken and the flag says keep), in the list shape that the
// walk reads.
#ifndef TESTS_SUPPORT_MEMORY_STORE_H_
#define TESTS_SUPPORT_MEMORY_STORE_H_

#include <string>
#include <type_traits>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "script.h"

namespace es_test {

// Every slot that is recorded and scripted: X(slot, what it does without a script).
#define SCRIPTED_SLOTS(X)            \
  X(init, 0)                         \
  X(acl_lookup, look_up)             \
  X(get_header, make_head)           \
  X(acl_release, remove_list)        \
  X(add_acl_item_iter, add)          \
  X(delete_entry_iter, remove_entry) \
  X(search_entry, find)              \
  X(search_entry_iter, find)         \
  X(freelist, discard)               \
  X(match_complex, 0)                \
  X(match_complex_2, 0)              \
  X(resequence, 0)                   \
  X(get_db_pointer, nullptr)         \
  X(traverse_list, visit_all)

struct Store {
  Store();
#define MEMBER(slot, otherwise) Script<std::remove_pointer_t<decltype(es_acl_api_table::slot)>> slot;
  SCRIPTED_SLOTS(MEMBER)
#undef MEMBER
};

Store& store();

// What the scripted loader hands out as es_acl_api_init_funcs: fills every slot but the unused ones 4, 6
// and 13.
void install_store(es_acl_api_table* apis);

// What the store holds, for the test's own eyes (nothing is recorded).
es_acl_head* held(const std::string& name);
Lines held_names();
std::vector<uint32_t> held_sequence(const es_acl_head* head);

// A record from the library's pool with this number.
es_acl_ace* make_ace(uint32_t seq);

}  // namespace es_test

#endif  // TESTS_SUPPORT_MEMORY_STORE_H_
