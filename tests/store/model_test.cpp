// The store beside the simplest thing that could be right, a sorted vector, both driven by the same random
// operations.
#include <algorithm>
#include <random>

#include "fixture.h"

namespace store_test {
namespace {

struct Entry {
  uint32_t seq;
  uint32_t tag;
};

// How a run is shaped: many operations on few numbers, or growth over many.
struct Shape {
  const char* name;
  uint32_t numbers;  // sequence numbers are drawn from as many
  uint32_t stride;   // ... this far apart
  uint32_t adds;     // weights of the operations
  uint32_t removals;
  uint32_t searches;
  uint32_t runs;  // stretches of neighbouring numbers, with one position carried
  uint32_t operations;
};

class Model : public AclTest, public testing::WithParamInterface<std::tuple<Shape, uint32_t>> {
 protected:
  std::vector<Entry>::iterator at(uint32_t seq) {
    return std::lower_bound(model.begin(), model.end(), seq,
                            [](const Entry& entry, uint32_t wanted) { return entry.seq < wanted; });
  }
  bool holds(uint32_t seq) {
    const auto it = at(seq);
    return it != model.end() && it->seq == seq;
  }
  es_acl_iter* position() { return random() % 3 == 0 ? nullptr : &positions[random() % positions.size()]; }

  void add_one(uint32_t seq, es_acl_iter* iter) {
    const uint32_t tag = random();
    const uint32_t flag = random() % 2;
    ASSERT_EQ(add(seq, tag, flag, iter), 0u);
    const auto it = at(seq);
    if (!holds(seq)) {
      model.insert(it, {seq, tag});
    } else if (flag == ES_ACL_ADD_REPLACE) {
      it->tag = tag;
    }
  }

  void remove_one(uint32_t seq, es_acl_iter* iter) {
    api().delete_entry_iter(acl, seq, random() % 2, iter);
    if (holds(seq)) model.erase(at(seq));
  }

  void search_one(uint32_t seq, uint32_t direction, es_acl_iter* iter) {
    const es_acl_ace* ace =
        iter == nullptr ? api().search_entry(acl, seq) : api().search_entry_iter(acl, seq, direction, iter);
    ASSERT_EQ(ace != nullptr, holds(seq)) << seq;
    if (ace == nullptr) return;
    ASSERT_EQ(ace->seq, seq);
    ASSERT_EQ(ace->capture, at(seq)->tag);
  }

  // A stretch of neighbouring numbers in one direction, as pushed batches bring them.
  void run(uint32_t seq, const Shape& shape) {
    const uint32_t direction = random() % 2;
    const uint32_t step = direction == ES_ACL_FORWARD ? shape.stride : -shape.stride;
    const uint32_t kind = random() % 3;
    es_acl_iter iter = nullptr;
    for (uint32_t n = random() % 200; n != 0; --n, seq += step) {
      if (kind == 0) add_one(seq, &iter);
      if (kind == 1) remove_one(seq, &iter);
      search_one(seq, direction, &iter);
    }
  }

  void resequence_all() {
    const uint32_t start = 1 + random() % 1000;
    const uint32_t step = 1 + random() % 20;
    std::vector<uint32_t> skip(random() % 20);
    for (uint32_t& number : skip) number = start + step * (random() % 30);
    ASSERT_EQ(api().resequence(acl, start, step, static_cast<uint32_t>(skip.size()), skip.data()), 0u);
    uint32_t number = start;
    for (Entry& entry : model) {
      while (std::find(skip.begin(), skip.end(), number) != skip.end()) number += step;
      entry.seq = number;
      number += step;
    }
  }

  void compare() {
    ASSERT_EQ(acl->ace_count, model.size());
    const std::vector<uint32_t> seqs = walk();
    ASSERT_TRUE(std::equal(seqs.begin(), seqs.end(), model.begin(), model.end(),
                           [](uint32_t seq, const Entry& entry) { return seq == entry.seq; }));
    for (const Entry& entry : model) search_one(entry.seq, 0, nullptr);
  }

  std::mt19937 random{std::get<1>(GetParam())};
  std::vector<Entry> model;
  std::array<es_acl_iter, 4> positions{};  // carried all the time, so stale in every way
};

TEST_P(Model, AgreesWithASortedVector) {
  const Shape shape = std::get<0>(GetParam());
  std::discrete_distribution<> kind(
      {double(shape.adds), double(shape.removals), double(shape.searches), double(shape.runs), 0.01});
  for (uint32_t i = 0; i != shape.operations && !HasFatalFailure(); ++i) {
    const uint32_t seq = random() % shape.numbers * shape.stride;
    switch (kind(random)) {
      case 0:
        add_one(seq, position());
        break;
      case 1:
        remove_one(seq, position());
        break;
      case 2:
        search_one(seq, random() % 2, position());
        break;
      case 3:
        run(seq, shape);
        break;
      default:
        resequence_all();
    }
    if (random() % 64 == 0) advance_clock_ms(random() % 2000);
    if (random() % 1024 == 0) compare();
  }
  compare();
  // Down to nothing, in random order, and up again.
  std::vector<Entry> rest = model;
  std::shuffle(rest.begin(), rest.end(), random);
  for (const Entry& entry : rest) remove_one(entry.seq, position());
  compare();
  for (uint32_t n = 0; n != 300; ++n) add_one(random(), position());
  compare();
}

INSTANTIATE_TEST_SUITE_P(
    Random, Model,
    testing::Combine(testing::Values(Shape{"small", 100, 1, 40, 40, 20, 0, 20000},
                                     Shape{"dense", 5000, 1, 40, 38, 20, 1, 40000},
                                     Shape{"growing", 60000, 7, 90, 2, 6, 1, 60000},
                                     Shape{"shrinking", 20000, 200000, 20, 30, 10, 3, 30000}),
                     testing::Values(1u, 2u, 3u)),
    [](const auto& run) { return std::get<0>(run.param).name + std::to_string(std::get<1>(run.param)); });

}  // namespace
}  // namespace store_test
