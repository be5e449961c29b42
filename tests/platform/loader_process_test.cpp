#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "es_platform/loader.h"
#include "es_platform/process.h"

namespace {

TEST(Loader, FindsAModuleBesideItselfAndKeepsItsSymbolsApart) {
  ASSERT_EQ(chdir("/"), 0) << "so that only its own place can tell";
  void* module = dll_open("libplatform_probe_module.so", 0);
  ASSERT_NE(module, nullptr) << dll_error();
  void* symbol = dll_symbol(module, "platform_probe_answer");
  ASSERT_NE(symbol, nullptr) << dll_error();
  EXPECT_EQ(reinterpret_cast<int (*)()>(symbol)(), 42);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "platform_probe_answer"), nullptr);
  EXPECT_EQ(dll_symbol(module, "no_such_symbol"), nullptr);
  EXPECT_NE(std::strstr(dll_error(), "no_such_symbol"), nullptr) << dll_error();
  dll_close(module);
}

TEST(Loader, SaysWhyItFailed) {
  for (const char* name : {"libno_such_module.so", "/no/such/path.so", "/proc/self/exe/x.so"}) {
    EXPECT_EQ(dll_open(name, 0), nullptr);
    EXPECT_NE(std::strstr(dll_error(), name), nullptr) << dll_error();
  }
  EXPECT_EQ(dll_open("", 0), nullptr) << "not the program itself";
}

TEST(Process, TellsNamesThatFitTheBuffer) {
  char name[128] = "untouched", cut[4], node[64], host[64];
  uint32_t length = 4;
  EXPECT_EQ(procmgr_get_procname(name, &length), static_cast<uint32_t>(ERANGE));
  EXPECT_STREQ(name, "untouched");
  length = sizeof name;
  ASSERT_EQ(procmgr_get_procname(name, &length), 0u);
  EXPECT_EQ(std::string(name), std::string(program_invocation_short_name).substr(0, 15));
  EXPECT_EQ(length, std::strlen(name));
  ASSERT_EQ(proc_name_get(getpid(), cut, sizeof cut), 0u);
  EXPECT_EQ(std::string(cut), std::string(name).substr(0, 3));
  for (const int32_t pid : {0, -1, INT_MAX}) EXPECT_EQ(proc_name_get(pid, name, sizeof name), 3u) << pid;
  ASSERT_EQ(node_name_get(node, sizeof node), 0u);
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  EXPECT_STREQ(node, host);
}

}  // namespace
