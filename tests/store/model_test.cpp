// The store beside the simplest thing that could be right, an ordered map, both driven by the same random
// operations. Whenever the store allocates it is first made to do without, and must not have changed.
#include <algorithm>
#include <array>
#include <map>
#include <random>

#include "fixture.h"

namespace store_test {

using Items = std::vector<es_acl_batch_item>;

// kRun: a stretch of neighbouring numbers, with one position carried.
enum Operation { kAdd, kRemove, kSearch, kRun, kRenumber };

// How a phase is shaped: many operations on few numbers, growth over many, or decline.
struct Shape {
  uint32_t numbers;               // sequence numbers are drawn from as many
  uint32_t stride;                // ... this far apart
  std::array<double, 5> weights;  // of the operations
  int operations;
};

constexpr Shape kPhases[] = {{100, 1, {40, 40, 20, 0, 0.01}, 20000},
                             {60000, 7, {90, 2, 6, 1, 0.01}, 60000},
                             {5000, 1, {40, 38, 20, 1, 0.01}, 40000},
                             {20000, 200000, {20, 30, 10, 3, 0.01}, 30000}};

class Model : public AclTest, public testing::WithParamInterface<int> {
 protected:
  // Null, one carried all the time and so stale in every way, or one of nobody's making.
  es_acl_iter* position() {
    es_acl_iter* carried = &positions[random() % positions.size()];
    if (random() % 32 == 0) *carried = reinterpret_cast<es_acl_iter>(random() >> random() % 32);
    return random() % 3 == 0 ? nullptr : carried;
  }

  // Mostly as the shape says, now and then at the edges of what there is.
  uint32_t number() {
    return random() % 100 == 0 ? random() % 3 - 2 : random() % shape.numbers * shape.stride;
  }

  void apply(int operation, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
    if (random() % 4 == 0) search_some(seq);
    if (operation == kAdd) random() % 8 == 0 ? add_some(seq) : add_one(seq, iter);
    if (operation == kRemove) random() % 8 == 0 ? remove_some(seq) : remove_one(seq, direction, iter);
    if (operation == kRun) run(seq, direction);
    if (operation == kRenumber) renumber();
    search_one(seq, direction, iter);
  }

  // The number with others, some of them twice.
  Items some(uint32_t seq) {
    Items items(1 + random() % (random() % 4 == 0 ? ES_ACL_BATCH_MAX : 5));
    for (es_acl_batch_item& item : items) {
      item = {&item == items.data() ? seq : number(), static_cast<uint32_t>(random() % 2), nullptr, nullptr,
              99};
      if (const auto mark = marks.find(item.seq); mark != marks.end()) item.mark = mark->second;
    }
    return items;
  }
  static uint32_t size(const Items& items) { return static_cast<uint32_t>(items.size()); }

  // The marks are kept for what changes the numbers, which may happen soon, later or never.
  void search_some(uint32_t seq) {
    Items items = some(seq);
    batches->search(acl, items.data(), size(items));
    for (const es_acl_batch_item& item : items) {
      const auto entry = model.find(item.seq);
      ASSERT_EQ(item.ace != nullptr, entry != model.end()) << item.seq;
      ASSERT_TRUE(item.ace == nullptr || item.ace->capture == entry->second) << item.seq;
      marks[item.seq] = item.mark;
    }
  }

  // The records stay the caller's. Where an allocation fails, it is for one of the items, and the others are added.
  void add_some(uint32_t seq) {
    Items items = some(seq);
    for (es_acl_batch_item& item : items) item.ace = offer(random(), random());
    if (random() % 4 == 0) failing = allocations + random() % 2;
    batches->add(acl, items.data(), size(items));
    failing = -1;
    for (const es_acl_batch_item& item : items) {
      ASSERT_TRUE(item.status == 0 || item.status == ENOMEM);
      if (item.status == 0) {
        const auto entry = model.try_emplace(item.seq, item.ace->capture).first;
        if (item.flag == ES_ACL_ADD_REPLACE) entry->second = item.ace->capture;
      }
      es_acl_free_rules(item.ace);
    }
  }

  void remove_some(uint32_t seq) {
    Items items = some(seq);
    batches->remove(acl, items.data(), size(items));
    for (const es_acl_batch_item& item : items) model.erase(item.seq);
  }

  void add_one(uint32_t seq, es_acl_iter* iter) {
    const uint32_t tag = random();
    const uint32_t flag = random() % 2;
    es_acl_ace* offered = offer(random(), tag);  // the number in the record does not count
    const auto attempt = [&] { return api().add_acl_item_iter(acl, offered, seq, flag, iter); };
    ASSERT_EQ(despite_failures(attempt, [&] { search_one(seq, 0, nullptr); }), 0u);
    const auto entry = model.try_emplace(seq, tag).first;
    if (flag == ES_ACL_ADD_REPLACE) entry->second = tag;
  }

  void remove_one(uint32_t seq, uint32_t direction, es_acl_iter* iter) {
    api().delete_entry_iter(acl, seq, direction, iter);
    model.erase(seq);
  }

  void search_one(uint32_t seq, uint32_t direction, es_acl_iter* iter) {
    const es_acl_ace* ace =
        iter == nullptr ? api().search_entry(acl, seq) : api().search_entry_iter(acl, seq, direction, iter);
    const auto entry = model.find(seq);
    ASSERT_EQ(acl->ace_count, model.size());
    ASSERT_EQ(ace != nullptr, entry != model.end()) << seq;
    if (ace == nullptr) return;
    ASSERT_EQ(ace->seq, seq);
    ASSERT_EQ(ace->capture, entry->second);
  }

  void run(uint32_t seq, uint32_t direction) {
    const uint32_t step = direction == ES_ACL_FORWARD ? shape.stride : -shape.stride;
    const int operation = random() % 3;
    es_acl_iter iter = nullptr;
    for (uint32_t n = random() % 200; n != 0; --n, seq += step) apply(operation, seq, direction, &iter);
  }

  void renumber() {
    const uint32_t start = 1 + random() % 1000;
    const uint32_t step = 1 + random() % 20;
    Seqs skip(1 + random() % 20);
    for (uint32_t& number : skip) number = start + step * (random() % 30);
    const auto attempt = [&] { return api().resequence(acl, start, step, skip.size(), skip.data()); };
    ASSERT_EQ(despite_failures(attempt, [&] { compare(); }), 0u);
    std::map<uint32_t, uint32_t> renumbered;
    for (uint32_t next = start; const auto& [seq, tag] : model) {
      while (std::find(skip.begin(), skip.end(), next) != skip.end()) next += step;
      renumbered[next] = tag;
      next += step;
    }
    model = renumbered;
  }

  void compare() {
    const Seqs seqs = walk();
    ASSERT_TRUE(std::equal(seqs.begin(), seqs.end(), model.begin(), model.end(),
                           [](uint32_t seq, const auto& entry) { return seq == entry.first; }));
    for (const uint32_t seq : seqs) search_one(seq, 0, nullptr);
  }

  Shape shape{};
  std::mt19937 random{static_cast<uint32_t>(GetParam())};
  std::map<uint32_t, void*> marks;     // what searches gave last
  std::map<uint32_t, uint32_t> model;  // tags by number
  std::array<es_acl_iter, 4> positions{};
};

TEST_P(Model, AgreesWithAnOrderedMap) {
  for (const Shape& phase : kPhases) {
    shape = phase;
    std::discrete_distribution<> operation(shape.weights.begin(), shape.weights.end());
    for (int i = 0; i != shape.operations && !HasFatalFailure(); ++i) {
      apply(operation(random), number(), random() % 2, position());
      if (random() % 64 == 0) clock_ms += random() % 2000;
      if (random() % 2048 == 0) compare();
    }
    compare();
    if (HasFatalFailure()) return;
  }
  // Down to nothing, in random order, and up again.
  Seqs rest = walk();
  std::shuffle(rest.begin(), rest.end(), random);
  for (const uint32_t seq : rest) remove_one(seq, random() % 2, position());
  compare();
  for (uint32_t n = 0; n != 300; ++n) add_one(random(), position());
  compare();
}

INSTANTIATE_TEST_SUITE_P(Random, Model, testing::Values(1, 2, 3, 4));

}  // namespace store_test
