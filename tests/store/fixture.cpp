// What the store takes from outside: the clock, the rules pool, which is the library's, and memory. The test
// programs are linked with --wrap for the calls that it allocates by.
#include "fixture.h"

#include <cstdlib>
#include <new>

#include "clock.h"

using store_test::allocations, store_test::failing;

uint64_t es_tree::now_ms() noexcept { return store_test::clock_ms; }

void es_acl_free_rules(es_acl_ace* rules) {
  std::free(rules);
  --store_test::records_out;
}

void es_acl_offer_batches(const es_acl_batch_table* batches) { store_test::batches = batches; }

es_acl_ace* store_test::offer(uint32_t seq, uint32_t tag) {
  auto* ace = static_cast<es_acl_ace*>(std::calloc(1, sizeof(es_acl_ace)));
  ace->seq = seq;
  ace->capture = tag;
  ++records_out;
  return ace;
}

extern "C" {
void* __real_aligned_alloc(size_t alignment, size_t size);
void* __real__Znwm(size_t size);
void* __real__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment);

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
  return allocations++ == failing ? nullptr : __real_aligned_alloc(alignment, size);
}
void* __wrap__Znwm(size_t size) {
  return allocations++ == failing ? throw std::bad_alloc() : __real__Znwm(size);
}
void* __wrap__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment) {
  return allocations++ == failing ? throw std::bad_alloc() : __real__ZnwmSt11align_val_t(size, alignment);
}

void es_acl_api_init_funcs(es_acl_api_table* apis);
}

const es_acl_api_table& store_test::api() {
  static es_acl_api_table table{};
  if (table.init == nullptr) es_acl_api_init_funcs(&table);
  return table;
}
