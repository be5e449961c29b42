#include "diag_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <tuple>

#include "diag_file.h"

namespace es_diag {

namespace {

using namespace es_platform;

constexpr uint64_t kLargestFile =
    sizeof(diag_header) + sizeof(trace_body) + uint64_t{kMaxTraceRecords} * sizeof(trace_record);

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

class open_file {
 public:
  open_file(const std::string& path, int flags)
      : path_(path), fd_(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)) {
    if (fd_ < 0) fail(path, std::strerror(errno));
  }
  ~open_file() { close(fd_); }
  open_file(const open_file&) = delete;
  open_file& operator=(const open_file&) = delete;

  uint64_t size() const {
    struct stat info;
    if (fstat(fd_, &info) != 0) fail(path_, std::strerror(errno));
    if (!S_ISREG(info.st_mode)) fail(path_, "not a regular file");
    return static_cast<uint64_t>(info.st_size);
  }

  void read_at(uint64_t offset, void* to, size_t size) const {
    char* at = static_cast<char*>(to);
    while (size > 0) {
      const ssize_t got = pread(fd_, at, size, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) fail(path_, got < 0 ? std::strerror(errno) : "shorter than its header says");
      at += got;
      offset += static_cast<uint64_t>(got);
      size -= static_cast<size_t>(got);
    }
  }

  void write_at(uint64_t offset, const void* from, size_t size) const {
    if (pwrite(fd_, from, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) {
      fail(path_, std::strerror(errno));
    }
  }

 private:
  const std::string path_;
  const int fd_;
};

// A text in a field that need not be terminated.
template <size_t Size>
std::string text_of(const char (&field)[Size]) {
  return std::string(field, strnlen(field, Size));
}

diag_header read_header(const open_file& file, const std::string& path) {
  const uint64_t size = file.size();
  if (size < sizeof(diag_header)) fail(path, "too short for a header");
  diag_header header;
  file.read_at(0, &header, sizeof header);
  if (std::memcmp(header.magic, kDiagMagic, sizeof kDiagMagic) != 0) fail(path, "not a diagnostics file");
  if (header.version != kDiagVersion)
    fail(path, "version " + std::to_string(header.version) + " is not known");
  if (header.size != size || size > kLargestFile) fail(path, "its size is not what its header says");
  if (header.kind < 1 || header.kind > 4) fail(path, "kind " + std::to_string(header.kind) + " is not known");
  return header;
}

region read_region(const std::string& path) {
  const open_file file(path, O_RDONLY);
  const diag_header header = read_header(file, path);
  region read{path,
              static_cast<diag_kind>(header.kind),
              header.pid,
              text_of(header.process),
              text_of(header.name),
              header.wall_offset_ns,
              diag_is_dead(header),
              {}};
  for (std::vector<char>& body : read.body) {
    body.resize(header.size - sizeof header);
    file.read_at(sizeof header, body.data(), body.size());
  }
  return read;
}

// What a file's name, PID.KIND.NUMBER, says about it.
struct file_name {
  int32_t pid;
  std::string kind;
};

std::optional<file_name> parse_name(const std::string& name) {
  const size_t first = name.find('.');
  const size_t second = first != std::string::npos ? name.find('.', first + 1) : std::string::npos;
  if (second == std::string::npos || name.find('.', second + 1) != std::string::npos) return std::nullopt;
  int32_t pid = 0;
  for (size_t i = 0; i < first; ++i) {
    if (name[i] < '0' || name[i] > '9' || pid > 99'999'999) return std::nullopt;
    pid = pid * 10 + (name[i] - '0');
  }
  return file_name{pid, name.substr(first + 1, second - first - 1)};
}

void read_into(directory& all, const std::filesystem::path& path, std::optional<diag_kind> kind) {
  try {
    region read = read_region(path);
    if (kind && read.kind != *kind) fail(path, "is not of the kind that its name says");
    all.regions.push_back(std::move(read));
  } catch (const std::runtime_error& error) {
    // A process that has ended meanwhile took its file with it.
    std::error_code gone;
    if (std::filesystem::exists(path, gone) || gone) all.errors.push_back(error.what());
  }
}

// A body of fixed size, in one of the three readings.
template <typename Body>
const Body& body_as(const region& from, size_t reading) {
  if (from.body[reading].size() != sizeof(Body)) fail(from.path, "its body has not the size of its kind");
  return *reinterpret_cast<const Body*>(from.body[reading].data());
}

// The records of a trace, in one of the three readings.
const trace_record* records_of(const region& from, size_t reading) {
  return reinterpret_cast<const trace_record*>(from.body[reading].data() + offsetof(trace_body, records));
}

trace_entry decode_record(const region& from, const trace_record& record) {
  trace_entry entry{static_cast<int64_t>(record.time_ns + static_cast<uint64_t>(from.wall_offset_ns)),
                    record.thread,
                    record.count,
                    text_of(record.operation),
                    text_of(record.event),
                    std::nullopt,
                    {}};
  if (record.payload == kTraceNamed) {
    entry.text = text_of(record.named.text);
    entry.values.assign(std::begin(record.named.values), std::end(record.named.values));
  } else {
    const size_t count = std::min<size_t>(record.payload, kTraceValues);
    entry.values.assign(record.values, record.values + count);
  }
  return entry;
}

std::vector<counter> nonzero(const acl_client_relay_entry (&block)[ACL_CLIENT_RELAY_ENTRIES]) {
  std::vector<counter> found;
  for (uint32_t i = 0; i < ACL_CLIENT_RELAY_ENTRIES; ++i) {
    if (block[i].count != 0) found.push_back({i, block[i].count});
  }
  return found;
}

}  // namespace

directory read_directory(const std::string& path, std::optional<diag_kind> kind, std::optional<int32_t> pid) {
  directory all;
  std::error_code error;
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
    const std::optional<file_name> name = parse_name(at->path().filename());
    if (!name || (pid && name->pid != *pid)) continue;
    ++all.files;
    if (!kind || name->kind == diag_kind_word(*kind)) read_into(all, at->path(), kind);
  }
  if (error && error != std::errc::no_such_file_or_directory)
    all.errors.push_back(path + ": " + error.message());
  std::sort(all.regions.begin(), all.regions.end(), [](const region& a, const region& b) {
    return std::tie(a.pid, a.kind, a.name) < std::tie(b.pid, b.kind, b.name);
  });
  return all;
}

trace_dump decode_trace(const region& from) {
  const size_t size = from.body[1].size();
  if (size < offsetof(trace_body, records)) fail(from.path, "too short for a trace");
  const auto& body = *reinterpret_cast<const trace_body*>(from.body[1].data());
  if (body.record_size != sizeof(trace_record)) fail(from.path, "its records have another size");
  if (body.capacity > kMaxTraceRecords) fail(from.path, "its number of records is out of bounds");
  if (size != offsetof(trace_body, records) + size_t{body.capacity} * sizeof(trace_record)) {
    fail(from.path, "its size does not fit its number of records");
  }
  std::vector<const trace_record*> whole;
  for (uint32_t i = 0; i < body.capacity; ++i) {
    const uint64_t ticket = records_of(from, 0)[i].ticket;
    if (ticket == 0 || ticket % 2 != 0 || records_of(from, 2)[i].ticket != ticket) continue;
    whole.push_back(&records_of(from, 1)[i]);
  }
  std::sort(whole.begin(), whole.end(), [](const trace_record* a, const trace_record* b) {
    return std::tie(a->ticket, a->time_ns) < std::tie(b->ticket, b->time_ns);
  });
  trace_dump dump{body.unique != 0, body.dropped, {}};
  for (const trace_record* record : whole) dump.entries.push_back(decode_record(from, *record));
  return dump;
}

counter_dump decode_counters(const region& from) {
  const auto& body = body_as<counters_body>(from, 1);
  return {nonzero(body.main), nonzero(body.error)};
}

std::vector<category> decode_categories(const region& from) {
  const auto& body = body_as<debug_body>(from, 1);
  if (body.count > kMaxCategories) fail(from.path, "its number of categories is out of bounds");
  std::vector<category> found;
  for (uint32_t i = 0; i < body.count; ++i) {
    const debug_category& one = body.categories[i];
    found.push_back({i, one.enabled != 0, text_of(one.name), text_of(one.text)});
  }
  return found;
}

std::vector<blocked_thread> decode_threads(const region& from) {
  std::vector<blocked_thread> found;
  for (uint32_t i = 0; i < kThreadSlots; ++i) {
    const uint64_t ticket = body_as<threads_body>(from, 0).slots[i].ticket;
    const thread_slot& slot = body_as<threads_body>(from, 1).slots[i];
    if (ticket % 2 == 0 || body_as<threads_body>(from, 2).slots[i].ticket != ticket) continue;
    found.push_back({slot.thread, slot.mutex, slot.since_ns, slot.number, text_of(slot.name)});
  }
  return found;
}

void switch_category(const region& where, uint32_t index, bool enabled) {
  if (where.dead) fail(where.path, "its process is gone");
  const open_file file(where.path, O_RDWR);
  const diag_header header = read_header(file, where.path);
  if (header.kind != static_cast<uint32_t>(diag_kind::debug) || index >= kMaxCategories) {
    fail(where.path, "has no such category");
  }
  const uint32_t word = enabled ? 1 : 0;
  const size_t offset = sizeof header + offsetof(debug_body, categories) + index * sizeof(debug_category) +
                        offsetof(debug_category, enabled);
  if (offset + sizeof word > header.size) fail(where.path, "too short for the category");
  file.write_at(offset, &word, sizeof word);
}

}  // namespace es_diag
