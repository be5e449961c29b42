// Applying a pushed batch that nobody is told of, in a store that offers batches: the list, the marks in the records and the
// trace become what they become when it is told, and nothing is made that only callbacks would see.
//
// The records are searched for, judged and changed where they lie in the message. A callback that is registered meanwhile
// hears of the next batch.
#ifndef ES_ACL_SRC_CPCX_UNTOLD_H_
#define ES_ACL_SRC_CPCX_UNTOLD_H_

#include <cstdint>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_buffer.h"
#include "es_acl_cpcx_private.h"

namespace es_acl {

class UntoldUpdate {
 public:
  UntoldUpdate(const PushedBatch& pushed, const es_acl_batch_table& store);
  UntoldUpdate(const UntoldUpdate&) = delete;
  UntoldUpdate& operator=(const UntoldUpdate&) = delete;

  // Whether there was memory for it.
  bool exists() const { return items_ != nullptr; }
  // *changed, when non-null, is set to 1 when an addition was made.
  uint32_t run(uint32_t* changed);
  // Whether the store has taken all that has been made.
  bool complete() const { return complete_; }

 private:
  void call(es_acl_batch_fn operation, uint32_t first, uint32_t count);
  void search(uint32_t first, uint32_t at, uint32_t count);
  void report_removals() const;
  void remove();
  bool changes(es_acl_ace& ace, const es_acl_ace* stored);
  void keep(uint32_t first, uint32_t at, uint32_t count);
  void collect_additions();
  void add_all();

  static constexpr uint32_t kFew = 2 * ES_ACL_BATCH_MAX;

  const PushedBatch pushed_;
  const es_acl_batch_table& store_;
  const bool add_only_;
  const Buffer<es_acl_batch_item> many_;
  es_acl_batch_item few_[kFew];
  // One for each record; from the collecting of additions on, one for each of these.
  es_acl_batch_item* const items_;
  uint32_t additions_ = 0;
  uint32_t removals_ = 0;  // that callbacks would have been told of
  bool complete_ = true;
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_CPCX_UNTOLD_H_
