// The scripted results of one function, and how a call of it is shown and played.
#ifndef TESTS_SUPPORT_SCRIPT_H_
#define TESTS_SUPPORT_SCRIPT_H_

#include <cerrno>
#include <concepts>
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

// A queue of steps, each used up by one call, in front of a step for all further calls. A step is a value to
// return, or a function that is run inside the call with its arguments.
template <class Result, class... Arguments>
class Script<Result(Arguments...)> {
 public:
  using Step = std::function<Result(Arguments...)>;

  // The next call that is not spoken for yet; `times` calls in a row.
  template <class What>
  void next(What what, int times = 1) {
    const Backstage backstage;
    const std::lock_guard guard(mutex_);
    steps_.insert(steps_.end(), static_cast<size_t>(times), as_step(std::move(what)));
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

// --- Showing a call's arguments ---

// The length of a buffer, in and out: "cap 320".
struct Capacity {
  operator uint32_t*() const { return length; }
  uint32_t* length;
};

template <std::integral Number>
std::string show(Number value) {
  return std::to_string(value);
}
inline std::string show(const char* text) { return text == nullptr ? "null" : '"' + std::string(text) + '"'; }
inline std::string show(const void* pointer) { return pointer_name(pointer); }
inline std::string show(Capacity capacity) { return "cap " + std::to_string(*capacity.length); }
template <class Result, class... Arguments>
std::string show(Result (*function)(Arguments...)) {
  return pointer_name(reinterpret_cast<const void*>(function));
}

// "operation(argument, argument)".
template <class... Arguments>
std::string describe(std::string_view operation, Arguments... arguments) {
  std::string list;
  ((list += (list.empty() ? "" : ", ") + show(arguments)), ...);
  return std::string(operation) + "(" + list + ")";
}

// What every scripted function does: records its call and plays back its script.
template <class Result, class... Parameters, class... Arguments>
Result play(Kind kind, const char* operation, Script<Result(Parameters...)>& script, Arguments... arguments) {
  const Backstage backstage;
  record(kind, describe(operation, arguments...));
  return script(arguments...);
}

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPT_H_
