// What the producer's tests share: a directory that goes away with its test, and short ways to make ACLs and
// requests.
#ifndef ES_ACL_TESTS_PRODUCER_SUPPORT_H_
#define ES_ACL_TESTS_PRODUCER_SUPPORT_H_

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "database.h"

namespace es_acl::producer::test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "es-acl-producer-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

 private:
  std::string path_;
};

// An ACL with these sequence numbers; every number that ends in 5 is a remark. `grant` tells two states
// apart.
inline AclPtr make_acl(const std::string& name, const std::vector<uint32_t>& sequences, uint8_t grant = 0) {
  std::vector<es_acl_ace> aces;
  for (const uint32_t sequence : sequences) {
    es_acl_ace ace{};
    ace.seq = sequence;
    ace.kind = sequence < 100 && sequence % 10 == 5 ? ES_ACL_KIND_REMARK : ES_ACL_KIND_RULE;
    ace.grant = grant;
    aces.push_back(ace);
  }
  return std::make_shared<const Acl>(name, std::move(aces));
}

inline DatabasePtr make_database(std::initializer_list<AclPtr> acls) {
  auto database = std::make_shared<Database>();
  for (const AclPtr& acl : acls) database->add(acl);
  return database;
}

inline acl_pcx_query_req count_request(const std::string& name) {
  acl_pcx_query_req request{};
  request.cmd = ACL_PCX_QUERY_ACE_COUNT;
  request.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(request.acl_name, name.c_str());
  es_acl_wire_query_req_order(&request);
  return request;
}

inline acl_pcx_read_req read_request(const std::string& name, uint32_t start_seq, uint32_t max_entries) {
  acl_pcx_read_req request{};
  request.cmd = ACL_PCX_READ_ACES;
  request.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(request.acl_name, name.c_str());
  request.start_seq = start_seq;
  request.max_entries = max_entries;
  es_acl_wire_read_req_order(&request);
  return request;
}

}  // namespace es_acl::producer::test

#endif  // ES_ACL_TESTS_PRODUCER_SUPPORT_H_
