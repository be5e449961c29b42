// Log lines that others can cause, at most one of a kind a second: the first of equal lines is written at once, those of
// the second behind it are only counted, and the count is written with the next line.
//
// Not thread-safe.
#ifndef ES_ACL_PRODUCER_LINE_LIMITER_H_
#define ES_ACL_PRODUCER_LINE_LIMITER_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace es_acl::producer {

class LineLimiter {
 public:
  using Log = std::function<void(std::string_view line)>;
  using Milliseconds = std::function<uint64_t()>;  // a clock that never goes back

  LineLimiter(Log log, Milliseconds now);
  ~LineLimiter();  // writes the counts that are left
  LineLimiter(const LineLimiter&) = delete;
  LineLimiter& operator=(const LineLimiter&) = delete;

  void write(std::string_view line);

 private:
  struct Seen {
    uint64_t since;
    uint64_t suppressed;
  };
  void tell_suppressed(const std::string& line, const Seen& seen) const;
  void sweep(uint64_t now);

  const Log log_;
  const Milliseconds now_;
  std::map<std::string, Seen, std::less<>> seen_;  // bounded: further lines count as one
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_LINE_LIMITER_H_
