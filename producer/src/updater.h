// Takes the producer from one configuration to the next: as a whole, or not at all.
//
// The order makes that possible. First everyone who has a say is asked, then the new names are published, and only
// then the new database takes the old one's place and its pushes are queued, a step that cannot fail half-way. What
// went before it is taken back on every way out but that one.
//
// To be used by one thread; may block for the questions' deadlines.
#ifndef ES_ACL_PRODUCER_UPDATER_H_
#define ES_ACL_PRODUCER_UPDATER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "questions.h"

namespace es_acl::producer {

struct UpdaterOptions {
  size_t max_message;  // bytes
  bool check_resources;
};

class Updater {
 public:
  enum class Result { kUnchanged, kApplied, kRefused };
  struct Outcome {
    Result result;
    std::string text;  // what was done, or why it was not
  };

  Updater(Service& service, BusPort& bus, const Asking& asking, const UpdaterOptions& options)
      : service_(service), bus_(bus), asking_(asking), options_(options) {}

  // std::bad_alloc, and then nothing has changed.
  Outcome apply(DatabasePtr next);

 private:
  Service& service_;
  BusPort& bus_;
  const Asking& asking_;
  const UpdaterOptions options_;
  uint16_t number_ = 0;  // of the last change
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_UPDATER_H_
