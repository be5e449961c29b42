// Who is at an ACL right now: uses, first fills, teardowns. What happens when they meet.
//
// Three kinds of work on one ACL can meet on different threads:
//   - a use: a pushed message or a drain of notifications is being handled, callbacks included;
//   - the first fill: a get reads the ACL's ACEs for the first time;
//   - the teardown: the last release, or a fill that failed, takes the ACL down.
// Each says so, by the ACL's name, with an object on its stack. One small mutex orders the saying; nothing else
// runs under it. They are found by name, however many ACLs one get fills. Then:
//   - a pushed change that meets a fill is kept aside, and applied in order by the filling thread at the fill's
//     end. The fill ends under the mutex under which messages are kept, so none is lost. The delivery thread does
//     not wait, unless more arrives during that end than is worth keeping: else the end might never come;
//   - a use that meets a teardown finds the ACL not held any more;
//   - a teardown that meets a use waits for it, with no lock held. On a thread that is in a use itself (a
//     callback releases an ACL) it does not wait but is left to the end of the use that it meets: no two
//     callbacks can wait for each other. Who gets the ACL again before that end takes it over, alive;
//   - a get that meets a teardown waits until the ACL is gone; in a callback it fails, for the same reason.
// A use inside a use of the same thread, a fill inside a fill, a teardown inside a teardown change nothing.
#ifndef ES_ACL_SRC_GATE_H_
#define ES_ACL_SRC_GATE_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "es_acl/es_acl_types.h"
#include "es_acl_buffer.h"

namespace es_acl {

// One thread's presence at one ACL.
struct Stay {
  enum class Kind { use, fill, teardown };

  Stay(Kind its_kind, const char* its_name);
  Stay(const Stay&) = delete;
  Stay& operator=(const Stay&) = delete;

  const Kind kind;
  const pthread_t thread;
  char name[ES_ACL_NAME_FIELD_SIZE];  // a copy: the head, and its name, may go first
  Stay** const place;                 // where the stays at this name, and some others, are linked
  Stay* next = nullptr;
  bool linked = false;
  bool late = false;                  // of a use: it met a teardown, and nobody waits for it
  std::atomic<bool> leaving = false;  // of a use: it leaves the head alone
};

// The teardown of a head, for when it cannot be done at once.
using TeardownWork = void (*)(es_acl_head* head);

class AclUse : private Stay {
 public:
  // Null: of no ACL, for callbacks that are not about one.
  explicit AclUse(const char* name);
  // For a pushed change: when another thread fills the ACL, the message is kept aside for it. Waits for the fill's end
  // when that has been given too many already.
  AclUse(const char* name, const void* message, uint32_t length);
  // For an event of the link to the producer: when another thread fills the ACL, that fill notes it, and keeps nothing
  // more once the link is lost: what comes then belongs to another list.
  struct LinkEvent {
    bool lost;
  };
  AclUse(const char* name, LinkEvent);
  // For a look at the ACL: what another thread is just filling is nothing to look at, and kept() says so.
  struct Look {};
  AclUse(const char* name, Look);
  // Does a teardown that was left to this use.
  ~AclUse();

  // The message, or the event, has been kept for the filling thread: nothing is to be done with it here.
  bool kept() const { return kept_; }
  // Whatever a lookup finds, the ACL is on its way out, or is another one already that a fill just begins.
  bool leaving() const { return Stay::leaving.load(std::memory_order_relaxed); }

 private:
  friend class AclArrival;
  friend class AclTeardown;
  struct WhenGone {};
  AclUse(const char* name, WhenGone);  // waits for the end of a teardown, where it may
  void enter_locked();

  bool kept_ = false;
  es_acl_head* left_head_ = nullptr;
  TeardownWork left_work_ = nullptr;
};

// A get that looks whether the ACL is held: while there is one, nobody takes the ACL down.
class AclArrival : private AclUse {
 public:
  explicit AclArrival(const char* its_name) : AclUse(its_name, WhenGone()) {}
  // Another thread is taking the ACL down, and this one is in a callback, where it does not wait.
  using AclUse::leaving;
  // The ACL has a holder again: it is not taken down at the end of a callback that has released it.
  void keep();
};

class AclFill : private Stay {
 public:
  explicit AclFill(const char* name);
  // Drops what is kept.
  ~AclFill();

  // Ends the fill: calls `apply` for the messages that were kept, in order of arrival. 0; or 12 when one could not be
  // kept, and then the ACL's list is not to be trusted.
  uint32_t finish(void (*apply)(void* message, uint32_t length));

  // Drops what has been kept so far: it belongs to a list older than the one to be read now.
  void forget();
  // After the end: something has happened to the link meanwhile.
  bool link_changed() const { return link_changed_; }
  bool link_lost() const { return link_lost_; }

 private:
  friend class AclUse;
  struct Message;

  bool has_room_locked() const;
  void keep_locked(const void* message, uint32_t length);
  Message* take();

  Message* first_ = nullptr;
  Message** end_ = &first_;
  bool lost_ = false;
  bool ending_ = false;
  bool link_changed_ = false;
  bool link_lost_ = false;
  uint32_t kept_at_end_ = 0;  // messages that came while others were applied
};

// The fills of one get of many ACLs.
class AclFills {
 public:
  AclFills() = default;
  AclFills(const AclFills&) = delete;
  AclFills& operator=(const AclFills&) = delete;
  ~AclFills();

  // Makes room for `count` fills, which have not begun. False when there is no memory.
  bool reserve(uint32_t count);
  void begin(const char* name);
  // Ends the one begun last: there is nothing to fill. What it has kept is for whoever holds an ACL of that name.
  void give_up_last(void (*apply)(void* message, uint32_t length));
  // Ends all of them, as AclFill::finish() does; at the first that fails it stops.
  uint32_t finish(void (*apply)(void* message, uint32_t length));
  // After the end: something has happened to the link while one of them went on.
  bool link_changed() const;
  bool link_lost() const;

 private:
  Buffer<AclFill> fills_;  // room for them: those that have begun are alive
  uint32_t count_ = 0;
};

// Whether another thread waits to take the ACL down: who is at it with something long may end it.
bool teardown_waits(const char* name);

class AclTeardown : private Stay {
 public:
  // `work` is done later by somebody else when granted() says no.
  AclTeardown(es_acl_head* head, TeardownWork work);
  ~AclTeardown();

  bool granted() const { return granted_; }

 private:
  bool granted_ = true;
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_GATE_H_
