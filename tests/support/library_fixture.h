// What the library's test cases start from. The library's state is the process's and is never torn down:
// CTest runs every case in a process of its own, and each case is written to be the first there.
#ifndef TESTS_SUPPORT_LIBRARY_FIXTURE_H_
#define TESTS_SUPPORT_LIBRARY_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "event_log.h"
#include "memory_store.h"
#include "scripted_platform.h"
#include "wire_bytes.h"

namespace es_test {

class LibraryTest : public ::testing::Test {
 protected:
  LibraryTest() {
    name_pointer(&context_, "ctx");
    name_pointer(&es_acl_hmutex, "es_acl_hmutex");
    name_pointer(reinterpret_cast<void*>(&es_acl_cpcx_handler), "es_acl_cpcx_handler");
  }

  void* ctx() { return &context_; }

  // Initialises as a client (or as the store's owner) and forgets what was recorded meanwhile.
  void initialise() {
    ASSERT_EQ(es_acl_clib_init(ctx()), 0U);
    clear_log();
  }
  void initialise_owner() {
    ASSERT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
    clear_log();
  }

  // A head as the store makes it, registered on the bus as "reg", with ACEs of these numbers.
  es_acl_head* make_acl(const std::string& name, std::initializer_list<uint32_t> sequence = {}) {
    es_acl_head* const head = es_acl_get_header(name.c_str());
    head->reg_handle = &registration_;
    name_pointer(head->reg_handle, "reg");
    for (const uint32_t seq : sequence) es_acl_add_acl_item(head, make_ace(seq), seq, ES_ACL_ADD_KEEP);
    clear_log();
    return head;
  }

 private:
  uint64_t context_ = 0;
  uint64_t registration_ = 0;
};

inline std::string long_name(size_t length) { return std::string(length, 'n'); }

}  // namespace es_test

#endif  // TESTS_SUPPORT_LIBRARY_FIXTURE_H_
