// Managed timers: the started leaves of a tree in one ordered set, and one timerfd that the event manager
// watches.
//
// A leaf has expired when its time has come; nothing is moved when that happens, the set's front simply lies
// in the past. The timerfd is armed for the earliest expiry still to come. When it fires, the tree signals
// its event if there is an expired leaf, and arms the timerfd again. Stopping a leaf leaves the timerfd as it
// is: at worst it fires for nothing.
//
// A leaf owns its set node from birth, so that starting one allocates nothing and cannot fail.
//
// mtimer_tree_first_expired() begins a new step of the event manager (evm_internal.h) and notes its number in
// the leaf; mtimer_leaf_free() takes the leaf out of the tree and then waits, holding no lock, until that
// step has passed.
#include "es_platform/mtimer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <mutex>
#include <new>
#include <set>
#include <unordered_set>
#include <utility>

#include "clock_source.h"
#include "es_platform/clock.h"
#include "evm_internal.h"

namespace {

// Earlier expiry first; of equal ones the one started first.
struct due {
  uint64_t at_ns;
  uint64_t serial;
  mtimer_leaf* leaf;
  bool operator<(const due& other) const {
    return at_ns != other.at_ns ? at_ns < other.at_ns : serial < other.serial;
  }
};

using due_set = std::set<due>;

}  // namespace

struct mtimer_leaf {
  mtimer_leaf(mtimer_tree* its_tree, uint16_t its_type, void* its_context)
      : tree(its_tree), type(its_type), context(its_context) {
    due_set birthplace;
    idle = birthplace.extract(birthplace.insert(due{0, 0, this}).first);
  }

  mtimer_tree* const tree;
  const uint16_t type;
  void* const context;
  // Guarded by the tree's mutex:
  due_set::node_type idle;     // the leaf's node while it is stopped, else empty
  due_set::iterator place;     // its place while it is started
  uint64_t taken_in_step = 0;  // step of the event manager that serves it; 0: none did
};

struct mtimer_tree {
 public:
  explicit mtimer_tree(const evm_sigevent& event)
      : event_(event), timer_fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {}
  ~mtimer_tree();
  mtimer_tree(const mtimer_tree&) = delete;
  mtimer_tree& operator=(const mtimer_tree&) = delete;

  // Completes the construction; false with errno.
  bool open();
  mtimer_leaf* make_leaf(uint16_t type, void* context);
  void free_leaf(mtimer_leaf* leaf);
  void start(mtimer_leaf* leaf, uint64_t delay);
  void stop(mtimer_leaf* leaf);
  bool expired();
  mtimer_leaf* first_expired();

 private:
  static void on_timer(int, void* tree) { static_cast<mtimer_tree*>(tree)->timer_fired(); }
  void timer_fired();
  void take_out(mtimer_leaf* leaf);
  bool front_expired(uint64_t now) const { return !started_.empty() && started_.begin()->at_ns <= now; }
  void arm(uint64_t at_ns);

  const evm_sigevent event_;
  const int timer_fd_;
  int watch_ = -1;

  std::mutex mutex_;  // guards everything below
  std::unordered_set<mtimer_leaf*> leaves_;
  due_set started_;
  uint64_t last_serial_ = 0;
  uint64_t armed_for_ = 0;  // 0: not armed
};

bool mtimer_tree::open() {
  if (timer_fd_ < 0) return false;
  watch_ = es_platform::evm_watch(event_.manager, timer_fd_, on_timer, this);
  return watch_ >= 0;
}

mtimer_tree::~mtimer_tree() {
  if (watch_ >= 0) es_platform::evm_unwatch(event_.manager, watch_);
  if (timer_fd_ >= 0) close(timer_fd_);
  started_.clear();
  for (mtimer_leaf* leaf : leaves_) delete leaf;
}

mtimer_leaf* mtimer_tree::make_leaf(uint16_t type, void* context) {
  mtimer_leaf* leaf = new mtimer_leaf(this, type, context);
  try {
    const std::lock_guard lock(mutex_);
    leaves_.insert(leaf);
  } catch (const std::bad_alloc&) {
    delete leaf;
    throw;
  }
  return leaf;
}

void mtimer_tree::take_out(mtimer_leaf* leaf) {
  if (leaf->idle.empty()) leaf->idle = started_.extract(leaf->place);
}

void mtimer_tree::free_leaf(mtimer_leaf* leaf) {
  uint64_t taken_in_step;
  {
    const std::lock_guard lock(mutex_);
    take_out(leaf);
    leaves_.erase(leaf);
    taken_in_step = leaf->taken_in_step;
  }
  es_platform::evm_wait_step_passed(event_.manager, taken_in_step);
  delete leaf;
}

void mtimer_tree::start(mtimer_leaf* leaf, uint64_t delay) {
  const std::lock_guard lock(mutex_);
  const uint64_t now = clock_now_ns();
  take_out(leaf);
  due& key = leaf->idle.value();
  key.at_ns =
      delay < std::numeric_limits<uint64_t>::max() - now ? now + delay : std::numeric_limits<uint64_t>::max();
  key.serial = ++last_serial_;
  leaf->place = started_.insert(std::move(leaf->idle)).position;
  if (armed_for_ == 0 || leaf->place->at_ns < armed_for_) arm(leaf->place->at_ns);
}

void mtimer_tree::stop(mtimer_leaf* leaf) {
  const std::lock_guard lock(mutex_);
  take_out(leaf);
}

// Far expiries are armed in bounded steps: a kernel timer does not take every 64-bit number of nanoseconds.
void mtimer_tree::arm(uint64_t at_ns) {
  constexpr uint64_t kFarthest = uint64_t{1} << 62;
  armed_for_ = at_ns < kFarthest ? at_ns : kFarthest;
  es_platform::clock_current().arm(timer_fd_, armed_for_);
}

void mtimer_tree::timer_fired() {
  bool has_expired;
  {
    const std::lock_guard lock(mutex_);
    uint64_t times;
    [[maybe_unused]] const ssize_t got = read(timer_fd_, &times, sizeof times);
    const uint64_t now = clock_now_ns();
    const auto next = started_.upper_bound(due{now, std::numeric_limits<uint64_t>::max(), nullptr});
    armed_for_ = 0;
    if (next != started_.end()) arm(next->at_ns);
    has_expired = front_expired(now);
  }
  if (has_expired) evm_signal(&event_);
}

bool mtimer_tree::expired() {
  const std::lock_guard lock(mutex_);
  return front_expired(clock_now_ns());
}

mtimer_leaf* mtimer_tree::first_expired() {
  const std::lock_guard lock(mutex_);
  if (!front_expired(clock_now_ns())) return nullptr;
  mtimer_leaf* leaf = started_.begin()->leaf;
  leaf->taken_in_step = es_platform::evm_next_step(event_.manager, event_.code);
  return leaf;
}

uint64_t timer_one_second() { return 1'000'000'000; }

mtimer_tree* mtimer_tree_new(const evm_sigevent* event, uint32_t) {
  if (event == nullptr || event->manager == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  mtimer_tree* tree = new (std::nothrow) mtimer_tree(*event);
  if (tree == nullptr) {
    errno = ENOMEM;
  } else if (!tree->open()) {
    const int error = errno;
    delete tree;
    errno = error;
    return nullptr;
  }
  return tree;
}

void mtimer_tree_free(mtimer_tree* tree) { delete tree; }

mtimer_leaf* mtimer_leaf_new(mtimer_tree* tree, uint16_t type, uint32_t, void* context) {
  if (tree == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    return tree->make_leaf(type, context);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void mtimer_leaf_free(mtimer_leaf* leaf) {
  if (leaf != nullptr) leaf->tree->free_leaf(leaf);
}

void mtimer_leaf_start(mtimer_leaf* leaf, uint64_t delay) { leaf->tree->start(leaf, delay); }
void mtimer_leaf_stop(mtimer_leaf* leaf) { leaf->tree->stop(leaf); }
uint16_t mtimer_leaf_get_type(const mtimer_leaf* leaf) { return leaf->type; }
void* mtimer_leaf_get_context(const mtimer_leaf* leaf) { return leaf->context; }
int mtimer_tree_expired(mtimer_tree* tree) { return tree->expired() ? 1 : 0; }
mtimer_leaf* mtimer_tree_first_expired(mtimer_tree* tree) { return tree->first_expired(); }
