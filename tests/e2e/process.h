// Runs programs as child processes, with their output caught and a deadline on everything.
//
// One thread. A child dies with the test program.
#ifndef ES_ACL_TESTS_E2E_PROCESS_H_
#define ES_ACL_TESTS_E2E_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace es_acl::e2e {

using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

// What came of a program. `code` is its exit code, 128 + the signal that ended it, or -1 when it ran past the
// deadline and was killed.
struct Ended {
  int code = -1;
  std::string out;
  std::string err;
  std::chrono::milliseconds took{0};
};

constexpr std::chrono::seconds kRunDeadline{60};  // sanitizers on a busy machine take their time

enum class Stdout { kPipe, kTerminal };

// Runs the program to its end. The environment is as given, the working directory is "/".
Ended run(const Arguments& arguments, const Environment& environment, Stdout kind = Stdout::kPipe);

// A program that runs beside the test.
class Background {
 public:
  // Its standard error goes to `log`.
  Background(const Arguments& arguments, const Environment& environment, const std::string& log);
  ~Background() { kill_now(); }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  void signal(int number) const;
  // Stops it, and returns when it stands still.
  void stop() const;
  bool running();

 private:
  void kill_now();

  pid_t pid_;
};

// Waits until the condition holds; false when it does not within the deadline.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = kRunDeadline);

void sleep_briefly();

template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    sleep_briefly();
  }
  return true;
}

}  // namespace es_acl::e2e

#endif  // ES_ACL_TESTS_E2E_PROCESS_H_
