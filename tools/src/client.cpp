#include "client.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "bulk.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_platform/diag.h"
#include "es_platform/dsv.h"
#include "es_platform/loader.h"
#include "es_platform/pcx.h"
#include "fields.h"

namespace es_acl::tool {

namespace {

evm* event_manager;  // the process's, and never destroyed: the library uses it until the process ends

constexpr char kDefaultStore[] = "libes_acl_tree.dll";

std::string status_text(uint32_t status) {
  char code[24];
  std::snprintf(code, sizeof code, " (status 0x%x)", status);
  return errcode_string(status) + std::string(code);
}

const char* environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

std::string producer_place() {
  const BusDirectory directory = bus_directory();
  return printable(directory.path) + " (" + directory.origin + ")";
}

// The directory of the file that the loader takes as its own: a plug-in is looked for there first.
std::string library_directory() {
  Dl_info info;
  if (dladdr(reinterpret_cast<const void*>(&dll_open), &info) == 0 || info.dli_fname == nullptr) return {};
  std::error_code error;
  const auto file = std::filesystem::canonical(info.dli_fname, error);
  return error ? std::string() : file.parent_path().string();
}

std::string places_of(const std::string& store) {
  if (store.find('/') != std::string::npos) return store;
  return store + ", looked for in " + library_directory() + " and then where the system looks for libraries";
}

// Takes the loader's reason, so it must be the first to be asked after the failure.
Problem store_problem(const std::string& store, uint32_t status) {
  std::string text = "cannot initialise: " + status_text(status);
  if (status == ES_ACL_E_DB_OPEN || status == ES_ACL_E_DB_SYMBOL) {
    const std::string reason = dll_error();
    text += "\n  plug-in: " + places_of(store.empty() ? kDefaultStore : store) + "\n  reason: " + reason;
  }
  return {State::kFailed, status, text};
}

// So many ACLs are fetched together, and held at a time by whoever hands them on.
constexpr size_t kPortion = 1000;

Problem invalid_name(const std::string& name, uint32_t status) {
  std::string text = status_text(status);
  text +=
      es_acl_is_name_reserved(name.c_str()) != 0
          ? ": this word is reserved"
          : ": a name has 1 to 64 of the characters A-Z a-z 0-9 - _ . : and starts with a letter or digit";
  return {State::kInvalidName, status, text};
}

// Whether the bus would talk to the socket's owner: this user, root, or the directory's owner.
bool is_trusted(const struct stat& socket, const std::string& directory) {
  struct stat info;
  if (socket.st_uid == geteuid() || socket.st_uid == 0) return true;
  return stat(directory.c_str(), &info) == 0 && info.st_uid == socket.st_uid;
}

// Why nobody can be reached at the producer's socket: an errno value; 0 when there is just nobody. The bus
// calls both "no producer".
int obstacle(const std::string& directory) {
  const std::string socket = directory + "/" ES_ACL_DSV_CLASS_NAME ".sock";
  if (socket.size() >= sizeof(sockaddr_un::sun_path)) return ENAMETOOLONG;
  struct stat info;
  if (access(socket.c_str(), W_OK) != 0 || stat(socket.c_str(), &info) != 0)
    return errno == ENOENT ? 0 : errno;
  return is_trusted(info, directory) ? 0 : EPERM;
}

Problem no_producer() {
  const int error = obstacle(bus_directory().path);
  if (error == 0) return {State::kNoProducer, ENOENT, "no producer serves " + producer_place()};
  std::string text = "no producer can be reached in " + producer_place() + ": ";
  text += error == EPERM ? "the socket belongs to a user who is not trusted" : std::strerror(error);
  return {State::kUnreachable, static_cast<uint32_t>(error), text};
}

// What a status of an exchange means to whoever waits for the ACL.
std::string meaning(uint32_t status) {
  switch (status) {
    case ESRCH:
      return "the producer went away half-way: ";
    case EAGAIN:
      return "the producer is busy: ";
    case ETIME:
      return "the producer in " + producer_place() + " did not answer in time: ";
    default:
      return {};
  }
}

}  // namespace

void ReleaseAcl::operator()(es_acl_head* acl) const {
  void* entries[] = {acl};
  const es_acl_handle_list handles = {1, entries};
  es_acl_release(&handles);
}

Counts count_entries(es_acl_head* acl) {
  Counts counts;
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    ++counts.aces;
    counts.remarks += ace.kind == ES_ACL_KIND_REMARK;
    return true;
  });
  return counts;
}

Counts count_entries(const Acl& acl) {
  Counts counts = count_entries(acl.head());
  counts.remarks_left_out = acl.got_with_others && counts.remarks == 0;
  return counts;
}

std::optional<Problem> check_name(const std::string& name) {
  uint32_t status = es_acl_check_acl_name(name.c_str());
  if (name.find('\0') != name.npos) status = ES_ACL_E_NAME;
  if (status != 0) return invalid_name(name, status);
  return std::nullopt;
}

BusDirectory bus_directory() {
  if (const char* directory = environment("ES_PCX_DIR")) return {directory, "from ES_PCX_DIR"};
  if (const char* base = environment("XDG_RUNTIME_DIR"))
    return {std::string(base) + "/es-acl", "from XDG_RUNTIME_DIR; ES_PCX_DIR is not set"};
  return {"/run/es-acl", "the default; ES_PCX_DIR and XDG_RUNTIME_DIR are not set"};
}

std::optional<Problem> Client::start(const std::string& store) {
  uint32_t status = evm_create(&event_manager);
  if (status != 0) return Problem{State::kFailed, status, "cannot initialise: " + status_text(status)};
  if (!store.empty()) status = es_acl_use_db_dll(store.c_str());
  if (status == 0) status = es_acl_clib_init(event_manager);
  if (status != 0) return store_problem(store, status);
  return std::nullopt;
}

evm* Client::events() const { return event_manager; }

std::optional<Problem> Client::refuse(const std::string& name) const {
  if (auto problem = check_name(name)) return problem;
  if (producer_silent_)
    return Problem{State::kFailed, ETIME, "not asked, the producer is silent: " + status_text(ETIME)};
  return std::nullopt;
}

Problem Client::failure(uint32_t status) {
  producer_silent_ = status == ETIME;
  return {State::kFailed, status, meaning(status) + status_text(status)};
}

// 0 when there is a producer, 2 when there is none, or another status.
uint32_t Client::query_producer(const std::string& name) const {
  void* registration = nullptr;
  uint32_t status = dsv_register(es_acl_classhandle, name.c_str(), &registration);
  if (status != 0) return status == PLATFORM_FAILED ? static_cast<uint32_t>(errno) : status;
  status = pcx_query_producer(registration);
  pcx_unregister(registration);
  return status;
}

// Nothing when there is a producer.
std::optional<Problem> Client::explain_silence(const std::string& name) {
  const uint32_t status = query_producer(name);
  if (status == ENOENT) return no_producer();
  if (status != 0) return failure(status);
  return std::nullopt;
}

// Nothing when the ACL is configured and just has no entries.
std::optional<Problem> Client::explain_empty(const std::string& name) {
  void* address = nullptr;
  const uint32_t status = dsv_lookup_data(es_acl_classhandle, name.c_str(), &address);
  if (status == 0) return std::nullopt;
  if (status != DSV_NO_DATA) return failure(status);
  if (auto problem = explain_silence(name)) return problem;
  return Problem{State::kNotConfigured, DSV_NO_DATA,
                 "not configured at the producer: " + status_text(DSV_NO_DATA)};
}

Result<Acl> Client::get(const std::string& name) {
  if (auto problem = refuse(name)) return *problem;
  std::string copy = name;  // the list's entries are not const
  void* name_entries[] = {copy.data()};
  void* acl_entries[] = {nullptr};
  const es_acl_handle_list names = {1, name_entries};
  es_acl_handle_list acls = {1, acl_entries};
  uint32_t result = 0;
  const uint32_t status = es_acl_get_acl(&names, &acls, &result);
  if (acl_entries[0] == nullptr) return failure(result != 0 ? result : status);
  Acl acl{AclHandle(static_cast<es_acl_head*>(acl_entries[0]))};
  if (es_get_first_ace(acl.head()) == nullptr) {
    if (auto problem = explain_empty(name)) return *problem;
  }
  return acl;
}

void Client::get_all(const std::vector<std::string>& names, const TakeAcl& take) {
  if (names.size() == 1) {
    take(names[0], get(names[0]));
    return;
  }
  for (std::span<const std::string> rest = names; !rest.empty();) {
    const auto portion = rest.first(std::min(rest.size(), kPortion));
    std::vector<Result<Acl>> acls = get_portion(portion);
    for (size_t i = 0; i < portion.size(); ++i)
      if (!take(portion[i], std::move(acls[i]))) return;
    rest = rest.subspan(portion.size());
  }
}

std::vector<Result<Acl>> Client::get_portion(std::span<const std::string> names) {
  std::vector<std::optional<Problem>> refusals;
  std::vector<std::string> wanted;
  for (const std::string& name : names) {
    refusals.push_back(refuse(name));
    if (!refusals.back()) wanted.push_back(name);
  }
  std::vector<Result<Acl>> fetched = get_together(wanted);
  std::vector<Result<Acl>> results;
  results.reserve(names.size());
  auto next = fetched.begin();
  for (const auto& refusal : refusals)
    results.push_back(refusal ? Result<Acl>(*refusal) : std::move(*next++));
  return results;
}

// A producer that is not there, or silent, is found out by one question: otherwise each name would wait for it.
std::vector<Result<Acl>> Client::get_together(std::span<std::string> names) {
  std::vector<Result<Acl>> results;
  if (names.empty()) return results;
  if (const auto problem = explain_silence(names.front())) {
    for (size_t i = 0; i < names.size(); ++i) results.emplace_back(*problem);
    return results;
  }
  std::vector<BulkAnswer> answers = get_in_bulk(names);
  for (size_t i = 0; i < names.size(); ++i) results.push_back(settle(names[i], std::move(answers[i])));
  return results;
}

Result<Acl> Client::settle(const std::string& name, BulkAnswer answer) {
  if (answer.acl != nullptr) return Acl{std::move(answer.acl), true};
  return asks_for_own_get(answer.status) ? get(name) : failure(answer.status);
}

Result<Counts> Client::count(const std::string& name) {
  if (auto problem = refuse(name)) return *problem;
  Counts counts;
  const uint32_t status = es_acl_get_ace_count(name.c_str(), &counts.aces, &counts.remarks);
  if (status != 0) return failure(status);
  if (counts.aces == 0) {
    if (auto problem = explain_empty(name)) return *problem;
  }
  return counts;
}

Result<Client::Lists> Client::verify(const std::string& name, double wait) {
  if (auto problem = refuse(name)) return *problem;
  struct Gathered {
    Lists lists;
    bool out_of_memory = false;
  } gathered;
  const auto gather = [](const es_acl_list_info* list, void* context) {
    auto& all = *static_cast<Gathered*>(context);
    try {
      all.lists.push_back(*list);
    } catch (const std::bad_alloc&) {
      all.out_of_memory = true;
    }
  };
  const uint32_t status = es_acl_verify(name.c_str(), static_cast<uint32_t>(wait * 1000), gather, &gathered);
  if (gathered.out_of_memory) throw std::bad_alloc();
  if (status == ESRCH) {
    if (auto problem = explain_silence(name)) return *problem;
  }
  if (status != 0) return failure(status);
  if (gathered.lists.size() == 1 && gathered.lists.front().num_aces == 0) {
    if (auto problem = explain_empty(name)) return *problem;
  }
  return std::move(gathered.lists);
}

}  // namespace es_acl::tool
