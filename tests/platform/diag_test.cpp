#include "es_platform/diag.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "es_platform/dsv.h"
#include "es_platform/process.h"
#include "private_directory.h"

namespace {

using es_diag::diag_kind;

std::string last_debug_line() {
  std::ifstream file(private_directory() + "/debug.log");
  std::string line, last;
  while (std::getline(file, line)) last = line;
  return last;
}

TEST(Debug, TheEnvironmentSaysWhatStartsEnabled) {
  const struct {
    const char* path;
    const char* value;
    const char* enabled;  // of three categories
  } cases[] = {
      {"/debug/t1/", "", "---"},
      {"/debug/t2/", "all", "+++"},
      {"/debug/t3/", "category1", "-+-"},
      {"/debug/t4/", "category0,category2", "+-+"},
      {"/debug/t5/", "/debug/t5/category2,/debug/other/category0", "--+"},
      {"/debug/t6", "/debug/t6/category0", "+--"},
      {"/debug/t7/", "category,category10,ory1,,", "---"},
  };
  for (const auto& one : cases) {
    setenv("ES_DEBUG", one.value, 1);
    debug_category* categories = nullptr;
    ASSERT_EQ(acl_debug_init(&categories, nullptr, one.path, 3), 0u);
    for (size_t i = 0; i < 3; ++i)
      EXPECT_EQ(categories[i].enabled != 0, one.enabled[i] == '+') << one.path << i;
  }
  unsetenv("ES_DEBUG");
}

TEST(Debug, ALineIsOneLineAndNamesItsOrigin) {
  debug_category* categories = nullptr;
  ASSERT_EQ(acl_debug_init(&categories, nullptr, "/debug/es_acl_dll/", 6), 0u);
  errno = 77;
  debug_printf(&categories[1], 0, 1, "Entering : %s\n", "a\nb\x1b");
  EXPECT_EQ(errno, 77);
  const std::string line = last_debug_line();
  const std::string end = "[" + std::to_string(getpid()) + "] info: Entering : a b ";
  ASSERT_GT(line.size(), end.size());
  EXPECT_EQ(line.substr(line.size() - end.size()), end);
  debug_printf(&categories[0], 0, 1, "%s", std::string(5000, 'x').c_str());
  EXPECT_TRUE(last_debug_line().ends_with("xxx...")) << "cut, and says so";
}

TEST(Errcode, HasATextForEveryCode) {
  static const errcode_text table[] = {{0xa6b18600, "the plug-in could not be opened"}, {5, "our own five"}};
  EXPECT_EQ(errcode_add_table(table, 2), 0u);
  const struct {
    uint32_t code;
    const char* text;
  } cases[] = {
      {0, "Success"},
      {5, "our own five"},
      {12, "Cannot allocate memory"},
      {DSV_NO_DATA, "no data is registered under the name"},
      {0xa6b18600, "the plug-in could not be opened"},
      {275, "error 0x113 (275)"},
      {0x80000001, "transient error 0x80000001 (2147483649)"},
  };
  for (const auto& one : cases) EXPECT_STREQ(errcode_string(one.code), one.text);
  const char* first = errcode_string(70000);
  for (uint32_t code = 70001; code < 70004; ++code) errcode_string(code);
  EXPECT_STREQ(first, "error 0x11170 (70000)");
}

TEST(AssertDeathTest, NamesThePlaceAndAborts) {
  EXPECT_EXIT(assert_fail("_err == 0", "a/b", 258, "es_acl_lock"), testing::KilledBySignal(SIGABRT),
              "a/b:258: es_acl_lock: assertion `_err == 0' failed");
}

TEST(ThreadMarks, AreSeenWhileTheyStand) {
  int mutex = 0;
  const auto marked = [&] {
    std::string numbers;
    for (const auto& one : es_diag::decode_threads(region_called(diag_kind::threads, "threads"))) {
      EXPECT_EQ(one.name, "es_acl_lock");
      EXPECT_EQ(one.mutex, reinterpret_cast<uintptr_t>(&mutex));
      EXPECT_NE(one.thread, 0);
      numbers += std::to_string(one.number) + ' ';
    }
    return numbers;
  };
  thread_unmark_mutex_block();
  thread_mark_mutex_block(&mutex, "es_acl_lock", 254);
  std::thread([&] {
    thread_mark_mutex_block(&mutex, "es_acl_lock", 255);
    EXPECT_EQ(marked(), "254 255 ");
    thread_unmark_mutex_block();
  }).join();
  EXPECT_EQ(marked(), "254 ");
  thread_unmark_mutex_block();
  EXPECT_EQ(marked(), "");
}

}  // namespace
