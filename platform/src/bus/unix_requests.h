// Request connections of a consumer process to the producer of one class. A calling thread takes a connection
// for itself, sends, receives the answer straight into its caller's buffer, and gives the connection back for
// the next. Thread-safe.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_REQUESTS_H_
#define ES_PLATFORM_SRC_BUS_UNIX_REQUESTS_H_

#include <atomic>
#include <mutex>
#include <vector>

#include "bus/frame.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

// This process, as its hellos name it.
uint64_t process_token();

// The status by which a caller learns of a failed connection or transfer.
uint32_t status_of_errno(int error);

class UnixRequests {
 public:
  explicit UnixRequests(const UnixAddress& address);

  // One request and its answer. `header` is complete but for the tag. *answer_length: capacity in, length
  // out; unchanged on failure. A status of pcx_read().
  uint32_t exchange(FrameHeader header, const void* payload, void* answer, uint32_t* answer_length,
                    const Deadline& deadline);

 private:
  struct Result {
    int error = 0;        // transport failure, 0 when an answer came
    bool unsent = false;  // nothing had left when it failed
    uint32_t status = 0;  // of the answer
  };
  bool take_idle(Fd* out);
  void give_back(Fd fd);
  int connect_new(const Deadline& deadline, Fd* out);
  Result send_and_receive(int fd, bool fresh, const FrameHeader& header, const void* payload, void* answer,
                          uint32_t* answer_length, const Deadline& deadline);
  Result receive_answer(int fd, uint64_t tag, void* answer, uint32_t* answer_length,
                        const Deadline& deadline);

  const UnixAddress& address_;
  std::atomic<uint64_t> next_tag_{1};
  std::atomic<bool> complained_{false};
  std::mutex mutex_;
  std::vector<Fd> idle_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_REQUESTS_H_
