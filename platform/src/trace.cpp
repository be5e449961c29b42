// Trace buffers: records of a fixed size, written without a lock and readable by others while they are
// written.
//
// A record is put together on the stack and then stored word by word under its ticket (diag_layout.h): a
// writer owns a record from the moment it has changed its ticket from even to odd until it makes it even
// again. A writer that finds its record owned by another, or already holding a later one, was overtaken by a
// whole round and drops its own.
//
// The words are stored with release order so that none of them is seen before the odd ticket that announces
// them.
//
// A unique buffer is a hash table with linear probing over the same records: a record is owned once, filled,
// and from then on only its count changes. Two threads that write the same new record at the same moment may
// both place it.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <string>

#include "diag_file.h"
#include "es_platform/clock.h"
#include "guard.h"

using es_platform::trace_body;
using es_platform::trace_record;

struct rlog_ctx {
  std::string name;
  uint32_t opened;
  trace_body* body;
  trace_record* records;
  uint32_t capacity;  // kept here too: what stands in the file is for others to read, not for us to trust
  bool unique;
};

namespace {

using shared_word = std::atomic_ref<uint64_t>;

constexpr size_t kWords = sizeof(trace_record) / sizeof(uint64_t);
constexpr uint64_t kOwned = 1;
constexpr size_t kValueWord = offsetof(trace_record, values) / sizeof(uint64_t);
// What makes two records of a unique buffer equal begins here.
constexpr size_t kContentWord = offsetof(trace_record, operation) / sizeof(uint64_t);

thread_local uint32_t cached_thread = 0;

// A child has other thread ids than the process that it was forked from.
uint32_t this_thread() {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, [] { cached_thread = 0; });
  if (cached_thread == 0) cached_thread = static_cast<uint32_t>(gettid());
  return cached_thread;
}

constexpr size_t kLongestText = 64;

// Copies at most `longest` characters and fills the field up with zeros.
template <size_t kSize>
void copy_cut(char (&to)[kSize], const char* from, size_t longest = kSize - 1) {
  if (from == nullptr) from = "(null)";
  std::strncpy(to, from, longest);
  std::memset(to + longest, 0, kSize - longest);
}

class draft {
 public:
  draft(const char* operation, const char* event) {
    record_.time_ns = clock_now_ns();
    record_.thread = this_thread();
    record_.hash = 0;
    record_.count = 1;
    copy_cut(record_.operation, operation);
    copy_cut(record_.event, event);
  }

  void set_named(const char* text, uint64_t a, uint64_t b) {
    record_.payload = es_platform::kTraceNamed;
    copy_cut(record_.named.text, text, kLongestText);
    record_.named.values[0] = a;
    record_.named.values[1] = b;
    used_ = kWords;
  }

  void set_values(std::initializer_list<uint64_t> values) {
    record_.payload = static_cast<uint32_t>(values.size());
    std::copy(values.begin(), values.end(), record_.values);
    used_ = kValueWord + values.size();
  }

  void write_to(rlog_ctx* ctx) {
    if (ctx->unique) {
      fill_up();
      add_unique(ctx);
    } else {
      append(ctx);
    }
  }

 private:
  // A unique buffer compares whole records.
  void fill_up() {
    const size_t used = used_ * sizeof(uint64_t);
    std::memset(reinterpret_cast<char*>(&record_) + used, 0, sizeof record_ - used);
    used_ = kWords;
  }
  void append(rlog_ctx* ctx);
  void add_unique(rlog_ctx* ctx);
  bool counted_up_in(trace_record& place) const;
  void store_in(trace_record& place, uint64_t final_ticket);
  void words(uint64_t (&to)[kWords]) const { std::memcpy(to, &record_, sizeof record_); }

  trace_record record_;  // the first `used_` words of it
  size_t used_ = 0;
};

// Owns the record when it is complete and older than `ticket`; -1 is no answer here, the caller drops its
// record then.
bool own(trace_record& place, uint64_t ticket) {
  const shared_word word(place.ticket);
  uint64_t seen = word.load(std::memory_order_relaxed);
  if ((seen & kOwned) != 0 || seen >= ticket) return false;
  return word.compare_exchange_strong(seen, ticket | kOwned, std::memory_order_acq_rel,
                                      std::memory_order_relaxed);
}

void drop(rlog_ctx* ctx) { shared_word(ctx->body->dropped).fetch_add(1, std::memory_order_relaxed); }

void draft::store_in(trace_record& place, uint64_t final_ticket) {
  const auto* from = reinterpret_cast<const char*>(&record_);
  auto* to = reinterpret_cast<uint64_t*>(&place);
  for (size_t i = 1; i < used_; ++i) {
    uint64_t word;
    std::memcpy(&word, from + i * sizeof word, sizeof word);
    shared_word(to[i]).store(word, std::memory_order_release);
  }
  shared_word(place.ticket).store(final_ticket, std::memory_order_release);
}

// A buffer is so large that who writes mostly finds the next record out of the near caches.
inline void prefetch(const trace_record& record) {
  const auto* bytes = reinterpret_cast<const char*>(&record);
  for (size_t at = 0; at < sizeof record; at += 64) __builtin_prefetch(bytes + at, 1);
}

// Tickets are even and begin at 2.
void draft::append(rlog_ctx* ctx) {
  const uint64_t turn = shared_word(ctx->body->next).fetch_add(1, std::memory_order_relaxed);
  trace_record& place = ctx->records[turn & (ctx->capacity - 1)];
  prefetch(ctx->records[(turn + 1) & (ctx->capacity - 1)]);
  const uint64_t ticket = 2 * (turn + 1);
  if (own(place, ticket)) {
    store_in(place, ticket);
  } else {
    drop(ctx);
  }
}

uint32_t hash_of(const uint64_t* content, size_t count) {
  uint64_t hash = 0x9e3779b97f4a7c15u;
  for (size_t i = 0; i < count; ++i) hash = (std::rotl(hash, 23) ^ content[i]) * 0xff51afd7ed558ccdu;
  return static_cast<uint32_t>(hash >> 32);
}

// Whether the complete record is this one; if so it is counted.
bool draft::counted_up_in(trace_record& place) const {
  uint64_t mine[kWords];
  words(mine);
  if (std::atomic_ref(place.hash).load(std::memory_order_relaxed) != record_.hash) return false;
  auto* theirs = reinterpret_cast<uint64_t*>(&place);
  for (size_t i = kContentWord; i < kWords; ++i) {
    if (shared_word(theirs[i]).load(std::memory_order_relaxed) != mine[i]) return false;
  }
  std::atomic_ref(place.count).fetch_add(1, std::memory_order_relaxed);
  return true;
}

void draft::add_unique(rlog_ctx* ctx) {
  uint64_t mine[kWords];
  words(mine);
  record_.hash = hash_of(mine + kContentWord, kWords - kContentWord) ^ record_.payload;
  for (uint32_t i = 0; i < ctx->capacity; ++i) {
    trace_record& place = ctx->records[(record_.hash + uint64_t{i}) % ctx->capacity];
    const uint64_t ticket = shared_word(place.ticket).load(std::memory_order_acquire);
    if (ticket == 0 && own(place, 2)) return store_in(place, 2);
    if (ticket == 2 && counted_up_in(place)) return;
  }
  drop(ctx);
}

// The open buffers. Never destroyed: other threads may outlive the end of main().
struct open_buffers {
  std::mutex mutex;
  std::list<rlog_ctx> list;

  static open_buffers& instance() {
    static open_buffers& all = *new open_buffers;
    return all;
  }
};

rlog_ctx* open_again(open_buffers& all, const std::string& name) {
  for (rlog_ctx& ctx : all.list) {
    if (ctx.name != name) continue;
    ++ctx.opened;
    return &ctx;
  }
  return nullptr;
}

uint32_t open_new(open_buffers& all, const std::string& name, uint32_t capacity, bool unique,
                  rlog_ctx** out) {
  const size_t size = offsetof(trace_body, records) + size_t{capacity} * sizeof(trace_record);
  all.list.push_back({name, 1, nullptr, nullptr, capacity, unique});
  auto* body = static_cast<trace_body*>(
      es_platform::diag_region_new(es_platform::diag_kind::trace, name.c_str(), nullptr, size));
  if (body == nullptr) {
    all.list.pop_back();
    return ENOMEM;
  }
  body->capacity = capacity;
  body->record_size = sizeof(trace_record);
  body->unique = unique ? 1 : 0;
  all.list.back().body = body;
  all.list.back().records = body->records;
  *out = &all.list.back();
  return 0;
}

}  // namespace

uint32_t acl_rlog_init(const char* path, const char* suffix, uint32_t unique, uint32_t wrapping,
                       rlog_ctx** ctx) {
  if (path == nullptr || suffix == nullptr || ctx == nullptr) return EINVAL;
  if ((unique != 0) == (wrapping != 0)) return EINVAL;
  if (std::max(unique, wrapping) > es_platform::kMaxTraceRecords) return EINVAL;
  return es_platform::guarded([&]() -> uint32_t {
    const std::string name = std::string(path) + suffix;
    open_buffers& all = open_buffers::instance();
    const std::lock_guard lock(all.mutex);
    if (rlog_ctx* open = open_again(all, name)) {
      *ctx = open;
      return 0;
    }
    return open_new(all, name, unique != 0 ? unique : std::bit_ceil(wrapping), unique != 0, ctx);
  });
}

void acl_rlog_close(rlog_ctx* ctx) {
  if (ctx == nullptr) return;
  open_buffers& all = open_buffers::instance();
  const std::lock_guard lock(all.mutex);
  if (--ctx->opened > 0) return;
  es_platform::diag_region_free(ctx->body);
  all.list.remove_if([ctx](const rlog_ctx& one) { return &one == ctx; });
}

namespace {

void write_values(rlog_ctx* ctx, const char* operation, const char* event,
                  std::initializer_list<uint64_t> values) {
  if (ctx == nullptr) return;
  const es_platform::errno_keeper keeper;
  draft record(operation, event);
  record.set_values(values);
  record.write_to(ctx);
}

}  // namespace

void _rlog_str(rlog_ctx* ctx, const char* operation, const char* event, const char* text, uint64_t a,
               uint64_t b) {
  if (ctx == nullptr) return;
  const es_platform::errno_keeper keeper;
  draft record(operation, event);
  record.set_named(text, a, b);
  record.write_to(ctx);
}

void _rlog_1(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a) {
  write_values(ctx, operation, event, {a});
}

void _rlog_2(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b) {
  write_values(ctx, operation, event, {a, b});
}

void _rlog_3(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b, uint64_t c) {
  write_values(ctx, operation, event, {a, b, c});
}

void _rlog_4(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b, uint64_t c,
             uint64_t d) {
  write_values(ctx, operation, event, {a, b, c, d});
}
