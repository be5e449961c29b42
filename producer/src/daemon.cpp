#include "daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "es_platform/diag.h"
#include "es_platform/pcx_producer.h"
#include "log.h"
#include "service.h"

namespace es_acl::producer {
namespace {

struct ProducerCloser {
  void operator()(pcx_producer* producer) const { pcx_producer_close(producer); }
};
using ProducerPtr = std::unique_ptr<pcx_producer, ProducerCloser>;

struct BusUser {
  Service service;
  bool verbose;
};

// The two operations that the bus calls; no exception leaves them.
uint32_t on_read(void* user, const pcx_peer* peer, void* request, uint32_t request_length, void* answer,
                 uint32_t capacity, uint32_t* answer_length) {
  try {
    return static_cast<BusUser*>(user)->service.answer(
        *peer, {static_cast<std::byte*>(request), request_length},
        {static_cast<std::byte*>(answer), capacity}, answer_length);
  } catch (const std::bad_alloc&) {
    *answer_length = 0;
    return ENOMEM;
  }
}

void on_peer_gone(void* user, const pcx_peer* peer) {
  auto* bus_user = static_cast<BusUser*>(user);
  bus_user->service.forget(*peer);
  if (!bus_user->verbose) return;
  try {
    log_line("process " + std::to_string(peer->pid) + " is gone");
  } catch (const std::bad_alloc&) {
    // the line is lost, nothing else
  }
}

void log_bus_line(const char* line) {
  try {
    log_line(line);
  } catch (const std::bad_alloc&) {
    // as above
  }
}

ProducerPtr open_bus(BusUser* user) {
  const pcx_producer_ops operations = {on_read, on_peer_gone};
  const pcx_producer_options bus_options = {0, log_bus_line};
  pcx_producer* producer = nullptr;
  if (pcx_producer_open(ES_ACL_DSV_CLASS_NAME, &operations, user, &bus_options, &producer) != 0) {
    log_line(std::string("bus: ") + pcx_producer_error());
  }
  return ProducerPtr(producer);
}

bool publish_names(pcx_producer* producer, const Database& database) {
  for (const auto& [name, acl] : database.acls()) {
    const uint32_t status = pcx_producer_publish(producer, name.c_str());
    if (status == 0) continue;
    log_line("bus: acl '" + name + "' cannot be published: " + errcode_string(status));
    return false;
  }
  return true;
}

// A standard descriptor stays open: whatever is opened next would take its number.
bool write_and_close(int fd, const std::string& text) {
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  if (fd > STDERR_FILENO) ::close(fd);
  errno = error;
  return written;
}

// The file appears under its name when it is complete.
bool make_ready_file(const std::string& file) {
  const std::string draft = file + ".new";
  const int fd = ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return fd >= 0 && write_and_close(fd, std::to_string(::getpid()) + "\n") &&
         ::rename(draft.c_str(), file.c_str()) == 0;
}

// Tells whoever started the program that it serves now. Who reads "ready" finds the file there.
bool report_ready(const Options& options) {
  if (!options.ready_file.empty() && !make_ready_file(options.ready_file)) {
    log_line("--ready-file " + options.ready_file + ": cannot be made: " + std::strerror(errno));
    return false;
  }
  if (options.ready_fd >= 0 && !write_and_close(options.ready_fd, "ready\n")) {
    log_line("--ready-fd " + std::to_string(options.ready_fd) +
             ": cannot be written: " + std::strerror(errno));
    return false;
  }
  return true;
}

sigset_t block_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // a closed --ready-fd is an error, not the end
  return signals;
}

}  // namespace

int serve(DatabasePtr database, const Options& options) {
  const sigset_t end_signals = block_end_signals();
  BusUser user{Service(database, log_line), options.verbose};
  const ProducerPtr producer = open_bus(&user);
  if (!producer) return kExitBus;
  // Being the only producer now, we may take away what one that was killed has left.
  if (!options.ready_file.empty()) ::unlink(options.ready_file.c_str());
  if (!publish_names(producer.get(), *database)) return kExitBus;
  if (!report_ready(options)) return kExitSystem;

  int signal = 0;
  sigwait(&end_signals, &signal);
  if (options.verbose) log_line(std::string("ended by ") + strsignal(signal));
  if (!options.ready_file.empty()) ::unlink(options.ready_file.c_str());
  return kExitOk;
}

}  // namespace es_acl::producer
