# Compiler options that every target of this project takes, as one interface target.
add_library(es_acl_options INTERFACE)
target_compile_options(es_acl_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wundef -Wvla -Wpointer-arith -Wcast-qual -Wformat -Wformat-security
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  -fstack-protector-strong -fno-omit-frame-pointer)
target_link_options(es_acl_options INTERFACE -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)
if(ES_ACL_WERROR)
  target_compile_options(es_acl_options INTERFACE -Werror)
endif()
if(ES_ACL_SANITIZE)
  # clang links what these two checks call to C++ programs only.
  target_compile_options(es_acl_options INTERFACE -fsanitize=${ES_ACL_SANITIZE} -fno-sanitize-recover=all
    $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=vptr,function>)
  target_link_options(es_acl_options INTERFACE -fsanitize=${ES_ACL_SANITIZE})
else()
  target_link_options(es_acl_options INTERFACE -Wl,--no-undefined)
endif()

# GoogleTest's header is most of what a test is made of: it is compiled once for all of them, in a program that does nothing.
function(es_acl_add_test_headers)
  set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers.cpp)
  file(CONFIGURE OUTPUT ${unit} CONTENT "")
  add_executable(es_acl_test_headers ${unit})
  target_link_libraries(es_acl_test_headers PRIVATE es_acl_options GTest::gtest_main Threads::Threads)
  target_precompile_headers(es_acl_test_headers PRIVATE <gtest/gtest.h>)
endfunction()

# es_acl_add_test(NAME name SOURCES ... [LIBRARIES ...]): one GoogleTest program, each of its cases one CTest test.
function(es_acl_add_test)
  cmake_parse_arguments(arg "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${arg_NAME} ${arg_SOURCES})
  target_link_libraries(${arg_NAME} PRIVATE es_acl_options ${arg_LIBRARIES} GTest::gtest_main Threads::Threads)
  target_precompile_headers(${arg_NAME} REUSE_FROM es_acl_test_headers)
  gtest_discover_tests(${arg_NAME} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()
