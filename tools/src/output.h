// Standard output, in large writes: an ACL may have a million entries.
//
// The first failed write ends it: what follows is dropped, and failed() tells a long loop to stop. A reader
// that went away (a pager that was left, `head`) is such an end, but not an error. One thread.
#ifndef ES_ACL_TOOLS_OUTPUT_H_
#define ES_ACL_TOOLS_OUTPUT_H_

#include <string>
#include <string_view>

namespace es_acl::tool {

class Output {
 public:
  explicit Output(int fd) : fd_(fd) { buffer_.reserve(2 * kFlushSize); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void put(std::string_view text) {
    buffer_ += text;
    if (buffer_.size() >= kFlushSize) flush();
  }
  // Writes out what is held back.
  void flush();

  bool failed() const { return error_ != 0; }
  // The errno value of the write that failed; 0 when none did or the reader just went away.
  int error() const;

 private:
  static constexpr size_t kFlushSize = 256 * 1024;

  int fd_;
  int error_ = 0;
  std::string buffer_;
};

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_OUTPUT_H_
