#include "bus/unix_acceptor.h"

#include <fcntl.h>

#include <cerrno>

namespace es_platform::bus {

bool UnixAcceptor::open() {
  reserve_ = Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return static_cast<bool>(reserve_);
}

bool UnixAcceptor::next(Fd* fd, Credentials* who) {
  for (;;) {
    Fd fresh;
    const int error = accept_from(endpoint_.listener(), &fresh);
    if (error == EMFILE || error == ENFILE) refuse_for_want_of_descriptors();
    if (error != 0) return false;
    out_of_descriptors_ = false;
    if (!is_allowed(fresh, who)) continue;
    *fd = std::move(fresh);
    return true;
  }
}

// With no descriptor left the connection would wait in the listener's queue and the thread would spin on it:
// the descriptor held in reserve takes it out and closes it.
void UnixAcceptor::refuse_for_want_of_descriptors() {
  if (!out_of_descriptors_) log_.line("no descriptors left; connections refused");
  out_of_descriptors_ = true;
  reserve_.reset();
  Fd fd;
  accept_from(endpoint_.listener(), &fd);
  fd.reset();
  open();
}

bool UnixAcceptor::is_allowed(const Fd& fd, Credentials* who) {
  *who = {};
  if (credentials_of(fd.get(), who) && user_is_allowed(who->uid, endpoint_.directory())) return true;
  if (who->pid != last_refused_)
    log_.line("process %d of user %u refused", static_cast<int>(who->pid), who->uid);
  last_refused_ = who->pid;
  return false;
}

}  // namespace es_platform::bus
