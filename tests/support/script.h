// The scripted results of one function: a queue of steps, each used up by one call, in front of a step for
// all further calls. A step is a value to return, or a function that is run inside the call with its
// arguments.
#ifndef TESTS_SUPPORT_SCRIPT_H_
#define TESTS_SUPPORT_SCRIPT_H_

#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>

#include "event_log.h"

namespace es_test {

template <class Signature>
class Script;

template <class Result, class... Arguments>
class Script<Result(Arguments...)> {
 public:
  using Step = std::function<Result(Arguments...)>;

  template <class What>
  explicit Script(What otherwise) : otherwise_(as_step(std::move(otherwise))) {}

  // The next call that is not spoken for yet; `times` calls in a row.
  template <class What>
  void next(What what, int times = 1) {
    const Backstage backstage;
    const std::lock_guard guard(mutex_);
    for (; times > 0; --times) steps_.push_back(as_step(what));
  }

  // All calls behind the queued ones.
  template <class What>
  void always(What what) {
    const Backstage backstage;
    const std::lock_guard guard(mutex_);
    otherwise_ = as_step(std::move(what));
  }

  Result operator()(Arguments... arguments) {
    const Backstage backstage;
    return take()(arguments...);
  }

 private:
  template <class What>
  static Step as_step(What what) {
    if constexpr (std::is_invocable_r_v<Result, What, Arguments...>) {
      return what;
    } else {
      return [what](Arguments...) -> Result { return static_cast<Result>(what); };
    }
  }

  Step take() {
    const std::lock_guard guard(mutex_);
    if (steps_.empty()) return otherwise_;
    Step step = std::move(steps_.front());
    steps_.pop_front();
    return step;
  }

  std::mutex mutex_;
  std::deque<Step> steps_;
  Step otherwise_;
};

// A step that reports its failure through errno.
inline auto failed_with(int code) {
  return [code](auto...) -> uint32_t {
    errno = code;
    return UINT32_C(0xffffffff);
  };
}

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPT_H_
