// The store plug-in: the API table with its inert defaults, and the loading of the module that fills it.
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl_store.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"
#include "es_platform/loader.h"

namespace es_acl {

char es_acl_db_dll_name[kStoreNameSize] = "libes_acl_tree.dll";
void* es_acl_db_dll_handle;
const es_acl_batch_table* es_acl_batches;

namespace {

// Before a plug-in is loaded every call is harmless: lookups and searches find nothing, additions store
// nothing.
uint32_t dummy_init(void*) { return 0; }
es_acl_head* dummy_acl_lookup(const char*) { return nullptr; }
es_acl_head* dummy_get_header(const char*) { return nullptr; }
void dummy_acl_release(const char*) {}
es_acl_status dummy_add_acl_item(es_acl_head*, es_acl_ace*, uint32_t, uint32_t) { return 0; }
es_acl_status dummy_add_acl_item_iter(es_acl_head*, es_acl_ace*, uint32_t, uint32_t, es_acl_iter*) {
  return 0;
}
void dummy_delete_entry(es_acl_head*, uint32_t) {}
void dummy_delete_entry_iter(es_acl_head*, uint32_t, uint32_t, es_acl_iter*) {}
es_acl_ace* dummy_search_entry(es_acl_head*, uint32_t) { return nullptr; }
es_acl_ace* dummy_search_entry_iter(es_acl_head*, uint32_t, uint32_t, es_acl_iter*) { return nullptr; }
void dummy_freelist(es_acl_head*, uint32_t* out) {
  if (out != nullptr) *out = 0;
}
uint32_t dummy_match_complex(es_acl_head*, const void*, uint32_t, uint64_t) { return 0; }
uint32_t dummy_reserved_13() { return 2; }
es_acl_status dummy_resequence(es_acl_head*, uint32_t, uint32_t, uint32_t, const uint32_t*) { return 0; }
void* dummy_get_db_pointer(void*, void*, void*, void*, void*, void*) { return nullptr; }
void dummy_traverse_list(es_acl_head*, es_acl_visitor, va_list*) {}

es_acl_api_table api_table = {
    dummy_init,          dummy_acl_lookup,        dummy_get_header,   dummy_acl_release,
    dummy_add_acl_item,  dummy_add_acl_item_iter, dummy_delete_entry, dummy_delete_entry_iter,
    dummy_search_entry,  dummy_search_entry_iter, dummy_freelist,     dummy_match_complex,
    dummy_match_complex, dummy_reserved_13,       dummy_resequence,   dummy_get_db_pointer,
    dummy_traverse_list};

// `name` may be the buffer itself.
void store_module_name(const char* name) {
  const size_t length = strnlen(name, kStoreNameSize - 1);
  std::memmove(es_acl_db_dll_name, name, length);
  es_acl_db_dll_name[length] = '\0';
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_api_table* es_acl_apis = &api_table;

void es_acl_offer_batches(const es_acl_batch_table* batches) { es_acl_batches = batches; }

es_acl_status es_acl_use_db_dll(const char* name) {
  DBG_INFO("Entering : %s: name: %s", __func__, shown(name));
  if (name == nullptr) {
    DBG_ERR("%s: Name cannot be null", __func__);
    trace(__func__, "null name", EINVAL);
    return EINVAL;
  }
  store_module_name(name);
  if (es_acl_db_dll_handle != nullptr) {
    DBG_DETAIL("%s: DLL %s is already open", __func__, es_acl_db_dll_name);
    return 0;
  }
  es_acl_db_dll_handle = dll_open(es_acl_db_dll_name, 0);
  if (es_acl_db_dll_handle == nullptr) {
    DBG_ERR("%s: dlopen failed", __func__);
    trace(__func__, "dlopen failed", ES_ACL_E_DB_OPEN);
    return ES_ACL_E_DB_OPEN;
  }
  const auto init_funcs =
      reinterpret_cast<es_acl_api_init_funcs_fn>(dll_symbol(es_acl_db_dll_handle, ES_ACL_STORE_INIT_SYMBOL));
  if (init_funcs == nullptr) {
    DBG_ERR("%s: dlsym failed", __func__);
    trace(__func__, "dlsym failed", ES_ACL_E_DB_SYMBOL);
    dll_close(es_acl_db_dll_handle);
    es_acl_db_dll_handle = nullptr;
    return ES_ACL_E_DB_SYMBOL;
  }
  init_funcs(es_acl_apis);
  trace_name(__func__, "plug-in loaded", es_acl_db_dll_name);
  return 0;
}
