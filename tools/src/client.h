// The tool's use of the library: start it, have an ACL or its counts, and find out why one could not be had.
//
// The library gives an empty ACL for a name that nobody configured and for a producer that is not there. Both
// matter to whoever reads the answer, so whatever comes back empty is looked into with the platform's
// queries. One thread.
#ifndef ES_ACL_TOOLS_CLIENT_H_
#define ES_ACL_TOOLS_CLIENT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "es_acl/es_acl.h"
#include "es_platform/evm.h"

namespace es_acl::tool {

enum class State {
  kOk,
  kInvalidName,
  kNotConfigured,  // the producer has no ACL of that name
  kNoProducer,
  kUnreachable,  // its socket cannot be used; the status, an errno value, says why
  kFailed,       // the status tells
};

// Why an ACL, or the library as a whole, could not be had. `text` is the explanation, without the ACL's name.
struct Problem {
  State state;
  uint32_t status;
  std::string text;
};

template <typename T>
using Result = std::variant<T, Problem>;

struct Counts {
  uint32_t aces = 0;  // remarks included
  uint32_t remarks = 0;
};

struct ReleaseAcl {
  void operator()(es_acl_head* acl) const;
};
using AclHandle = std::unique_ptr<es_acl_head, ReleaseAcl>;

// Calls visit(ace) for each ACE in order, until it returns false.
template <typename Visit>
void for_each_ace(es_acl_head* acl, Visit visit) {
  for (es_acl_ace_node* node = es_get_first_ace(acl); node != nullptr; node = es_get_next_ace(acl, node)) {
    const es_acl_ace* ace = es_get_ace_data(acl, node);
    if (ace == nullptr || !visit(*ace)) return;
  }
}

Counts count_entries(es_acl_head* acl);

// Where the producer is looked for.
struct BusDirectory {
  std::string path;
  const char* origin;  // what named it
};
BusDirectory bus_directory();

class Client {
 public:
  // Once, before anything else. `store` names the plug-in; empty for the default one.
  std::optional<Problem> start(const std::string& store);
  // The process's event manager, after a successful start.
  evm* events() const;

  Result<AclHandle> get(const std::string& name);
  Result<Counts> count(const std::string& name);

 private:
  std::optional<Problem> refuse(const std::string& name) const;
  Problem failure(uint32_t status);
  std::optional<Problem> explain_empty(const std::string& name);
  uint32_t query_producer(const std::string& name) const;

  bool producer_silent_ = false;  // it let a deadline pass: no further name waits for it
};

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_CLIENT_H_
