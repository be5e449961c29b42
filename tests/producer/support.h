// What the producer's tests share: a directory that goes away with its test, and short ways to make ACLs and requests.
#ifndef ES_ACL_TESTS_PRODUCER_SUPPORT_H_
#define ES_ACL_TESTS_PRODUCER_SUPPORT_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "database.h"
#include "es_acl/es_acl_digest.h"

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

// An ACL's entries by number. What one says is a letter; an upper-case one is a remark.
using Entries = std::map<uint32_t, char>;
using State = std::map<std::string, Entries>;

inline AclPtr make_acl(const std::string& name, const Entries& entries) {
  std::vector<es_acl_ace> aces;
  for (const auto& [number, content] : entries) {
    es_acl_ace& ace = aces.emplace_back();
    ace.seq = number;
    ace.kind = content <= 'Z' ? ES_ACL_KIND_REMARK : ES_ACL_KIND_RULE;
    ace.dst_addr[0] = static_cast<uint16_t>(content);
  }
  return std::make_shared<const Acl>(name, std::move(aces));
}

inline DatabasePtr make_database(const State& state) {
  auto database = std::make_shared<Database>();
  for (const auto& [name, entries] : state) database->add(make_acl(name, entries));
  return database;
}

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

inline es_acl_pcx_verify_req verify_request(const std::string& name, uint32_t deadline_ms = 60000) {
  es_acl_pcx_verify_req request{ES_ACL_PCX_VERIFY, ES_ACL_PCX_VERSION, {}, {}, deadline_ms};
  es_acl_wire_set_name(request.acl_name, name.c_str());
  es_acl_wire_verify_req_order(&request);
  return request;
}

using Bytes = std::vector<std::byte>;

template <typename Record>
Bytes bytes_of(const Record& record) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  return {bytes.begin(), bytes.end()};
}

inline Bytes bulk_request(uint32_t command, const std::vector<std::string>& names) {
  acl_pcx_bulk_req header{command, ES_ACL_PCX_VERSION, static_cast<uint32_t>(names.size()), 1};
  es_acl_wire_bulk_req_order(&header);
  Bytes request = bytes_of(header);
  for (const std::string& name : names) {
    request.resize(request.size() + ES_ACL_NAME_FIELD_SIZE);
    es_acl_wire_set_name(reinterpret_cast<char*>(&request.end()[-ES_ACL_NAME_FIELD_SIZE]), name.c_str());
  }
  return request;
}

}  // namespace es_acl::producer::test

#endif  // ES_ACL_TESTS_PRODUCER_SUPPORT_H_
