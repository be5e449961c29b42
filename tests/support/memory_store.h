// A small store in memory behind the 17 slots: records every call and does as the test says.
//
// A head shows in the log as "head:NAME", its lock as "lock:NAME". The store keeps the records it is given
// (or gives the offered one back when the number is taken and the flag says keep), in the list shape that the
// walk reads.
#ifndef TESTS_SUPPORT_MEMORY_STORE_H_
#define TESTS_SUPPORT_MEMORY_STORE_H_

#include <string>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "script.h"

namespace es_test {

struct Store {
  Store();

  Script<es_acl_status(void*)> init;
  Script<es_acl_head*(const char*)> acl_lookup;
  Script<es_acl_head*(const char*)> get_header;
  Script<void(const char*)> acl_release;
  Script<es_acl_status(es_acl_head*, es_acl_ace*, uint32_t, uint32_t, es_acl_iter*)> add_acl_item_iter;
  Script<void(es_acl_head*, uint32_t, uint32_t, es_acl_iter*)> delete_entry_iter;
  Script<es_acl_ace*(es_acl_head*, uint32_t)> search_entry;
  Script<es_acl_ace*(es_acl_head*, uint32_t, uint32_t, es_acl_iter*)> search_entry_iter;
  Script<void(es_acl_head*, uint32_t*)> freelist;
  Script<uint32_t(es_acl_head*, const void*, uint32_t, uint64_t)> match_complex;
  Script<uint32_t(es_acl_head*, const void*, uint32_t, uint64_t)> match_complex_2;
  Script<es_acl_status(es_acl_head*, uint32_t, uint32_t, uint32_t, const uint32_t*)> resequence;
  Script<void*(void*, void*, void*, void*, void*, void*)> get_db_pointer;
  Script<void(es_acl_head*, es_acl_visitor, va_list*)> traverse_list;

  pthread_mutexattr_t* lock_type = nullptr;  // of the heads made from now on; null: the default mutex
};

Store& store();

// What the scripted loader hands out as es_acl_api_init_funcs: fills every slot but the unused ones 4, 6
// and 13.
void install_store(es_acl_api_table* apis);

// What the store holds, for the test's own eyes (nothing is recorded).
es_acl_head* held(const std::string& name);
std::vector<std::string> held_names();
std::vector<uint32_t> held_sequence(const es_acl_head* head);

// A record from the library's pool with this number.
es_acl_ace* make_ace(uint32_t seq);

}  // namespace es_test

#endif  // TESTS_SUPPORT_MEMORY_STORE_H_
