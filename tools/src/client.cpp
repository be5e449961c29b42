#include "client.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

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
  const uint32_t status = es_acl_check_acl_name(name.c_str());
  if (status != 0) return invalid_name(name, status);
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

// Nothing when the ACL is configured and just has no entries.
std::optional<Problem> Client::explain_empty(const std::string& name) {
  void* address = nullptr;
  uint32_t status = dsv_lookup_data(es_acl_classhandle, name.c_str(), &address);
  if (status == 0) return std::nullopt;
  if (status != DSV_NO_DATA) return failure(status);
  status = query_producer(name);
  if (status == ENOENT) return no_producer();
  if (status != 0) return failure(status);
  return Problem{State::kNotConfigured, DSV_NO_DATA,
                 "not configured at the producer: " + status_text(DSV_NO_DATA)};
}

Result<AclHandle> Client::get(const std::string& name) {
  if (auto problem = refuse(name)) return *problem;
  std::string copy = name;  // the list's entries are not const
  void* name_entries[] = {copy.data()};
  void* acl_entries[] = {nullptr};
  const es_acl_handle_list names = {1, name_entries};
  es_acl_handle_list acls = {1, acl_entries};
  uint32_t result = 0;
  const uint32_t status = es_acl_get_acl(&names, &acls, &result);
  if (acl_entries[0] == nullptr) return failure(result != 0 ? result : status);
  AclHandle acl(static_cast<es_acl_head*>(acl_entries[0]));
  if (es_get_first_ace(acl.get()) == nullptr) {
    if (auto problem = explain_empty(name)) return *problem;
  }
  return acl;
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

}  // namespace es_acl::tool
