// What the producer's tests share: a directory that goes away with its test, and short ways to make requests.
#ifndef ES_ACL_TESTS_PRODUCER_SUPPORT_H_
#define ES_ACL_TESTS_PRODUCER_SUPPORT_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "es_acl/es_acl_wire.h"

namespace es_acl::producer::test {

class TempDir {
 public:
  TempDir() : path_(std::filesystem::temp_directory_path() / "es-acl-producer-XXXXXX") {
    ::mkdtemp(path_.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

 private:
  std::string path_;
};

inline acl_pcx_query_req count_request(const std::string& name) {
  acl_pcx_query_req request{ACL_PCX_QUERY_ACE_COUNT, ES_ACL_PCX_VERSION, {}, {}};
  es_acl_wire_set_name(request.acl_name, name.c_str());
  es_acl_wire_query_req_order(&request);
  return request;
}

inline acl_pcx_read_req read_request(const std::string& name, uint32_t start_seq, uint32_t max_entries) {
  acl_pcx_read_req request{ACL_PCX_READ_ACES, ES_ACL_PCX_VERSION, {}, {}, start_seq, max_entries};
  es_acl_wire_set_name(request.acl_name, name.c_str());
  es_acl_wire_read_req_order(&request);
  return request;
}

}  // namespace es_acl::producer::test

#endif  // ES_ACL_TESTS_PRODUCER_SUPPORT_H_
