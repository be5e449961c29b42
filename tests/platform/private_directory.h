// A directory of this test process's own, where its diagnostics files and debug lines go.
#ifndef ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
#define ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_

#include <string>

std::string private_directory();
std::string diagnostics_directory();
std::string debug_file();

#endif  // ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
