#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "es_platform/process.h"

namespace {

TEST(Process, TellsNamesThatFitTheBuffer) {
  char name[128] = "untouched", cut[4];
  uint32_t length = 4;
  EXPECT_EQ(procmgr_get_procname(name, &length), static_cast<uint32_t>(ERANGE));
  EXPECT_STREQ(name, "untouched");
  length = sizeof name;
  ASSERT_EQ(procmgr_get_procname(name, &length), 0u);
  EXPECT_EQ(std::string(name), std::string(program_invocation_short_name).substr(0, 15));
  ASSERT_EQ(proc_name_get(getpid(), cut, sizeof cut), 0u);
  EXPECT_EQ(std::string(cut), std::string(name).substr(0, 3));
  for (const int32_t pid : {0, -1, INT_MAX}) EXPECT_EQ(proc_name_get(pid, name, sizeof name), 3u) << pid;
}

}  // namespace
