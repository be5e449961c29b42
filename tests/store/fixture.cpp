#include "fixture.h"

#include <atomic>
#include <cstdlib>

#include "clock.h"

namespace {

std::atomic<int64_t> out{0};
std::atomic<uint64_t> clock_ms{1000};

}  // namespace

// The library's part of the bargain.
void es_acl_free_rules(es_acl_ace* rules) {
  std::free(rules);
  --out;
}

namespace es_tree {

uint64_t now_ms() noexcept { return clock_ms; }

}  // namespace es_tree

extern "C" void es_acl_api_init_funcs(es_acl_api_table* apis);

namespace store_test {

es_acl_ace* offer(uint32_t seq, uint32_t tag) {
  auto* ace = static_cast<es_acl_ace*>(std::calloc(1, sizeof(es_acl_ace)));
  ace->seq = seq;
  ace->capture = tag;
  ++out;
  return ace;
}

int64_t records_out() { return out; }

void advance_clock_ms(uint64_t ms) { clock_ms += ms; }

const es_acl_api_table& api() {
  static const es_acl_api_table table = [] {
    es_acl_api_table apis{};
    es_acl_api_init_funcs(&apis);
    return apis;
  }();
  return table;
}

std::vector<uint32_t> AclTest::walk() const {
  std::vector<uint32_t> seqs;
  const auto* sentinel = reinterpret_cast<const es_acl_ace_node*>(&acl->ace_first);
  const es_acl_ace_node* before = sentinel;
  es_acl_ace_node* node = first_of(acl);
  for (; !is_end(acl, node); before = node, node = next_of(node)) {
    EXPECT_EQ(node->aux, before);
    seqs.push_back(seq_of(ace_of(node)));
  }
  EXPECT_EQ(acl->ace_count, seqs.size());
  EXPECT_EQ(node, sentinel) << "a walk ends at the sentinel";
  return seqs;
}

}  // namespace store_test
