// The frame of every scripted function: records the call, and keeps the thread backstage until it returns.
#ifndef TESTS_SUPPORT_SCRIPTED_CALL_H_
#define TESTS_SUPPORT_SCRIPTED_CALL_H_

#include "event_log.h"

namespace es_test {

class ScriptedCall {
 public:
  template <class... Arguments>
  explicit ScriptedCall(const char* operation, Arguments... arguments)
      : ScriptedCall(kCall, operation, arguments...) {}

  template <class... Arguments>
  ScriptedCall(Kind kind, const char* operation, Arguments... arguments) {
    record({kind, describe(operation, arguments...), {}, {}});
  }

 private:
  Backstage backstage_;
};

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPTED_CALL_H_
