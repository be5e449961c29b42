// A directory of this test process's own, where its diagnostics files and debug lines go.
#ifndef ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
#define ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_

#include <sys/types.h>

#include <string>

#include "diag_reader.h"

std::string private_directory();
std::string diagnostics_directory();
std::string debug_file();
// The region that this process has under that name; a failure of the test when there is none.
es_diag::region region_called(es_diag::diag_kind kind, const std::string& name);

#endif  // ES_ACL_TESTS_PLATFORM_PRIVATE_DIRECTORY_H_
