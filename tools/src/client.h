// The tool's use of the library: start it, have an ACL or its counts, and find out why one could not be had.
//
// The library gives an empty ACL for a name that nobody configured and for a producer that is not there. Both
// matter to whoever reads the answer, so whatever comes back empty is looked into with the platform's
// queries. One thread.
#ifndef ES_ACL_TOOLS_CLIENT_H_
#define ES_ACL_TOOLS_CLIENT_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_verify.h"
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
  bool remarks_left_out = false;  // there may be some at the producer
};

struct ReleaseAcl {
  void operator()(es_acl_head* acl) const;
};
using AclHandle = std::unique_ptr<es_acl_head, ReleaseAcl>;

// An ACL that is held.
struct Acl {
  AclHandle handle;
  bool got_with_others = false;  // in one call, which gives rules alone

  es_acl_head* head() const { return handle.get(); }
};

// Calls visit(ace) for each ACE in order, until it returns false.
template <typename Visit>
void for_each_ace(es_acl_head* acl, Visit visit) {
  for (es_acl_ace_node* node = es_get_first_ace(acl); node != nullptr; node = es_get_next_ace(acl, node)) {
    const es_acl_ace* ace = es_get_ace_data(acl, node);
    if (ace == nullptr || !visit(*ace)) return;
  }
}

Counts count_entries(es_acl_head* acl);
Counts count_entries(const Acl& acl);

// Why this cannot be the name of an ACL; nothing when it can. After Client::start().
std::optional<Problem> check_name(const std::string& name);

// Where the producer is looked for.
struct BusDirectory {
  std::string path;
  const char* origin;  // what named it
};
BusDirectory bus_directory();

struct BulkAnswer;

class Client {
 public:
  // Once, before anything else. `store` names the plug-in; empty for the default one.
  std::optional<Problem> start(const std::string& store);
  // The process's event manager, after a successful start.
  evm* events() const;

  Result<Acl> get(const std::string& name);
  // Gets these ACLs and hands each on, in the order of the names, until `take` returns false. More than one are fetched
  // together, a portion at a time.
  using TakeAcl = std::function<bool(const std::string& name, Result<Acl> acl)>;
  void get_all(const std::vector<std::string>& names, const TakeAcl& take);
  Result<Counts> count(const std::string& name);
  // The producer's list first, and the clients' as es_acl_verify() tells them.
  using Lists = std::vector<es_acl_list_info>;
  Result<Lists> verify(const std::string& name, double wait);

 private:
  std::vector<Result<Acl>> get_portion(std::span<const std::string> names);
  std::vector<Result<Acl>> get_together(std::span<std::string> names);
  Result<Acl> settle(const std::string& name, BulkAnswer answer);
  std::optional<Problem> refuse(const std::string& name) const;
  std::optional<Problem> explain_silence(const std::string& name);
  Problem failure(uint32_t status);
  std::optional<Problem> explain_empty(const std::string& name);
  uint32_t query_producer(const std::string& name) const;

  bool producer_silent_ = false;  // it let a deadline pass: no further name waits for it
};

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_CLIENT_H_
