// Who can have got to a slot that leaves the list, and what becomes of it: it stays as it is for readers, and is used
// again at once where there can be none. The clock stands still, so that no grace time ends.
#include <cstdarg>
#include <random>
#include <utility>

#include "acl.h"
#include "fixture.h"

namespace store_test {

class Readers : public AclTest {
 public:
  using AclTest::acl, AclTest::add, AclTest::remove;
  Readers() { add_all(); }

  void add_all() {
    for (uint32_t seq = 1; seq <= kNumbers; ++seq) change(seq, batches->add);
  }

  // One change, as a pushed batch makes it: searched for first. An ACE that is added gets a tag of its own.
  void change(uint32_t seq, es_acl_batch_fn operation) {
    es_acl_ace ace{};
    ace.capture = ++tag;
    search(seq);
    es_acl_batch_item item{seq, ES_ACL_ADD_REPLACE, &ace, nullptr, 0};
    operation(acl, &item, 1);
  }
  void change_some(uint32_t times) {
    for (uint32_t i = 0; i != times; ++i)
      change(1 + static_cast<uint32_t>(random()) % numbers,
             random() % 2 == 0 ? batches->add : batches->remove);
  }
  void shorten() {
    numbers = 40;
    for (uint32_t seq = numbers + 1; seq <= kNumbers; ++seq) change(seq, batches->remove);
  }
  // Takes and gives up more slots than a batch of anything in the store.
  void replace_all_but(uint32_t seq) {
    for (uint32_t each = 1; each <= kNumbers; ++each)
      if (each != seq) change(each, batches->add);
  }
  es_acl_ace* search(uint32_t seq) {
    es_acl_batch_item item{seq, 0, nullptr, nullptr, 0};
    batches->search(acl, &item, 1);
    return item.ace;
  }
  size_t slab_bytes() const { return es_tree::Acl::of(acl)->slab_bytes(); }

  static constexpr uint32_t kNumbers = 200;
  uint32_t numbers = kNumbers;  // that are changed at random
  uint32_t tag = 0;
  std::mt19937 random{1};
};

// A reader, who goes on now and then. Where it stands nothing changes, and each step leads on. A step takes three calls: the
// look, the link, and whether the store has not taken note of the look meanwhile.
struct Reader {
  const Node* node = nullptr;
  es_acl_ace ace{};
  uint32_t look = 0;
  const Node* next = nullptr;

  void go_on(es_acl_head* acl) {
    if (node != nullptr) {
      ASSERT_EQ(ace_of(node)->seq, ace.seq);
      ASSERT_EQ(ace_of(node)->capture, ace.capture);
    }
    if (look == 0) {
      look = look_at(acl);
    } else if (next == nullptr) {
      next = node == nullptr ? first_of(acl) : next_of(node);
    } else {
      const Node* const reached = std::exchange(next, nullptr);
      if (std::exchange(look, 0) == acl->looks) arrive(acl, reached);
    }
  }

  void arrive(es_acl_head* acl, const Node* reached) {
    if (is_end(acl, reached)) {
      *this = {};
      return;
    }
    ASSERT_GT(ace_of(reached)->seq, ace.seq);
    node = reached;
    ace = *ace_of(reached);
  }
};

// In long lists they meet the edges of leaves, in short ones each other and what comes and goes.
TEST_F(Readers, StandOnWhatStaysAndGoOnInOrder) {
  Reader readers[3];
  for (uint32_t i = 0; i != 60'000; ++i) {
    if (i == 20'000) shorten();
    change_some(random() % 64);
    ASSERT_NO_FATAL_FAILURE(readers[random() % 3].go_on(acl));
  }
}

// A reader on an ACE that is removed goes on to the next, which is new, and by then removed as well.
TEST_F(Readers, GoOnFromAnyPlace) {
  for (uint32_t seq = 1; seq != kNumbers; ++seq) {
    SCOPED_TRACE(seq);
    add_all();
    const Node* node = nullptr;
    for (uint32_t i = 0; i != seq; ++i) node = follow(acl, node == nullptr ? acl->ace_first : node->next);
    replace_all_but(seq);
    const uint32_t next = ace_of(next_of(node))->capture;
    for (const uint32_t each : {seq, seq + 1}) change(each, batches->remove);
    replace_all_but(seq);
    ASSERT_EQ(ace_of(next_of(node))->seq, seq + 1);
    ASSERT_EQ(ace_of(next_of(node))->capture, next);
  }
}

TEST_F(Readers, HaveNotGotToWhatWasNotLookedAt) {
  change_some(1000);
  const size_t before = slab_bytes();
  change_some(100'000);
  EXPECT_EQ(slab_bytes(), before);
  follow(acl, acl->ace_first);
  api().search_entry(acl, 1);
  change_some(100'000);
  EXPECT_LT(slab_bytes(), before + 1000 * 128) << "what was there waits, what that led to, and little more";
}

// Eras are counted in a byte.
TEST_F(Readers, AreNotForgottenAfterAnyNumberOfLooks) {
  for (uint32_t looks = 250; looks != 260; ++looks) {
    SCOPED_TRACE(looks);
    add_all();
    const Node* const first = follow(acl, acl->ace_first);
    const uint32_t is = ace_of(first)->capture;
    for (uint32_t i = 0; i != looks; ++i) {
      follow(acl, acl->ace_first);
      for (uint32_t each = 0; each != 16; ++each) change(100, batches->add);
    }
    change(1, batches->remove);
    replace_all_but(1);
    ASSERT_EQ(ace_of(first)->capture, is);
  }
}

uint32_t visit(es_acl_head*, const es_acl_ace* ace, va_list* args) {
  if (ace->seq == 100) *va_arg(*args, const es_acl_ace**) = ace;
  return 0;
}
void traverse(es_acl_head* acl, ...) {
  va_list args;
  va_start(args, acl);
  api().traverse_list(acl, visit, &args);
  va_end(args);
}

// The slots that hand out an ACE, and the changes of one ACE beside somebody who has found it for a batch.
TEST_F(Readers, AreAlsoThoseWhoGoAceByAce) {
  using Find = const es_acl_ace* (*)(Readers*);
  const Find ways[] = {
      [](Readers* self) -> const es_acl_ace* { return api().search_entry(self->acl, 100); },
      [](Readers* self) -> const es_acl_ace* {
        return api().search_entry_iter(self->acl, 100, ES_ACL_BACKWARD, nullptr);
      },
      [](Readers* self) {
        const es_acl_ace* found = nullptr;
        traverse(self->acl, &found);
        return found;
      },
      [](Readers* self) -> const es_acl_ace* {
        const es_acl_ace* const found = self->search(100);
        self->remove(100);
        return found;
      },
      [](Readers* self) -> const es_acl_ace* {
        const es_acl_ace* const found = self->search(100);
        EXPECT_EQ(self->add(100, 0, ES_ACL_ADD_REPLACE), 0u);
        return found;
      },
  };
  for (const Find& find : ways) {
    SCOPED_TRACE(&find - ways);
    for (int i = 0; i != 2; ++i) replace_all_but(0);
    const es_acl_ace* const found = find(this);
    const es_acl_ace is = *found;
    change(100, batches->remove);
    replace_all_but(100);
    EXPECT_EQ(found->seq, is.seq);
    EXPECT_EQ(found->capture, is.capture);
  }
}

}  // namespace store_test
