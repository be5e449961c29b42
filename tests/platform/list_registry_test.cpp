#include "es_platform/list_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

void function_a() {}
void function_b() {}

class ListRegistry : public testing::Test {
 protected:
  void add(char name) { ASSERT_EQ(list_registry_add(registry.get(), function_a, context(name)), 0u); }
  uint32_t remove(char name) { return list_registry_delete(registry.get(), function_a, context(name)); }

  // Walks and names what is shown; `at_each` may change the registry meanwhile.
  std::string walk(const std::function<void(char)>& at_each = [](char) {}) {
    std::string shown;
    list_registry_function function = nullptr;
    void* shown_context = nullptr;
    list_registry_cursor* cursor = list_registry_first(registry.get(), &function, &shown_context);
    for (; cursor != nullptr; cursor = list_registry_next(cursor, &function, &shown_context)) {
      shown += *static_cast<char*>(shown_context);
      at_each(shown.back());
    }
    return shown;
  }

  void* context(char name) {
    names[static_cast<unsigned char>(name)] = name;
    return &names[static_cast<unsigned char>(name)];
  }

  std::unique_ptr<list_registry, decltype(&list_registry_destroy)> registry{list_registry_create(0, 3),
                                                                            list_registry_destroy};
  char names[256] = {};
};

TEST_F(ListRegistry, AWalkStandsChangesFromItsCallbacks) {
  const struct {
    const char* what;
    char at;
    const char* deletes;
    bool adds_again;
    const char *shown, *left;
  } cases[] = {
      {"deletes the next", 'a', "b", false, "ac", "ac"},
      {"deletes all", 'a', "abc", false, "a", ""},
      {"deletes itself and the earlier ones", 'c', "abc", false, "abc", ""},
      {"deletes an earlier one", 'b', "a", false, "abc", "bc"},
      {"moves itself to the end", 'b', "b", true, "abc", "acb"},
  };
  for (const auto& one : cases) {
    registry.reset(list_registry_create(0, 3));
    for (const char name : {'a', 'b', 'c'}) add(name);
    const auto change = [&](char name) {
      if (name != one.at) return;
      for (const char* gone = one.deletes; *gone != '\0'; ++gone) remove(*gone);
      if (one.adds_again) add(name);
    };
    EXPECT_EQ(walk(change), one.shown) << one.what;
    EXPECT_EQ(walk(), one.left) << one.what;
  }
}

TEST_F(ListRegistry, WalksNestAndEndEarly) {
  for (const char name : {'a', 'b', 'c', 'a'}) add(name);
  list_registry_function function = nullptr;
  void* shown = nullptr;
  std::vector<list_registry_cursor*> open;
  for (int i = 0; i < 10; ++i) open.push_back(list_registry_first(registry.get(), &function, &shown));
  EXPECT_EQ(remove('a'), 0u);
  EXPECT_EQ(remove('x'), 2u);
  EXPECT_EQ(list_registry_delete(registry.get(), function_b, context('c')), 2u) << "another function";
  EXPECT_EQ(walk(), "bca") << "the first of equal ones has gone";
  for (list_registry_cursor* cursor : open) {
    ASSERT_NE(cursor = list_registry_next(cursor, &function, &shown), nullptr);
    EXPECT_EQ(*static_cast<char*>(shown), 'b');
    list_registry_end(cursor);
  }
  list_registry_end(nullptr);
}

// One thread adds and deletes, the other walks. What stays is shown always, and in order.
TEST_F(ListRegistry, WalksAreConsistentWhileAnotherThreadChanges) {
  add('A');
  for (char name = 'a'; name <= 'f'; ++name) context(name);
  add('Z');
  std::atomic<bool> done{false};
  std::thread changer([&] {
    std::minstd_rand random(1);
    for (int i = 0; i < 20000; ++i) {
      void* const pair = &names['a' + static_cast<int>(random() % 6)];
      if (list_registry_delete(registry.get(), function_b, pair) != 0)
        list_registry_add(registry.get(), function_b, pair);
    }
    done = true;
  });
  while (!done) ASSERT_EQ(walk().substr(0, 2), "AZ");
  changer.join();
}

}  // namespace
