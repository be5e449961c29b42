#include "daemon.h"

#include <malloc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>

#include "config_file.h"
#include "config_watch.h"
#include "es_platform/diag.h"
#include "line_limiter.h"
#include "log.h"
#include "pcx_bus.h"
#include "readiness.h"
#include "service.h"
#include "updater.h"

namespace es_acl::producer {
namespace {

// SIGTERM and SIGINT end the program, SIGHUP makes it read its configuration again.
class Signals {
 public:
  Signals() {
    sigemptyset(&set_);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set_, signal);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a closed --ready-fd is an error, not the end
    fd_ = ::signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) throw std::bad_alloc();
  }
  ~Signals() { ::close(fd_); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int fd() const { return fd_; }
  // The next one that has come; 0 when none has.
  int take() const {
    signalfd_siginfo info;
    return ::read(fd_, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
  }
  // One that ends the program is waiting to be taken.
  static bool end_is_near() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
  }

 private:
  sigset_t set_;
  int fd_;
};

bool publish_names(PcxBus& bus, const Database& database) {
  for (const auto& [name, acl] : database.acls()) {
    const uint32_t status = bus.publish(name);
    if (status == 0) continue;
    log_line("bus: acl '" + name + "' cannot be published: " + errcode_string(status));
    return false;
  }
  return true;
}

uint64_t milliseconds_now() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// One line, whatever becomes of it. What is wrong with a configuration changes nothing.
void reload(Updater& updater, const Options& options) {
  try {
    const Updater::Outcome outcome = updater.apply(load_configuration(options));
    if (outcome.result == Updater::Result::kRefused) {
      log_line(options.config + ": change refused: " + outcome.text);
    } else if (outcome.result == Updater::Result::kApplied || options.verbose) {
      log_line(options.config + ": " + outcome.text);
    }
  } catch (const ConfigError& error) {
    log_line(error.what());
  } catch (const std::exception& error) {
    log_line(options.config + ": change refused: " + error.what());
  }
}

// The signal that ended it.
int follow(const Signals& signals, ConfigWatch& watch, Updater& updater, const Options& options) {
  for (;;) {
    pollfd waits[] = {{signals.fd(), POLLIN, 0}, {watch.fd(), POLLIN, 0}};
    ::poll(waits, 2, watch.timeout_ms());
    bool wanted = watch.take_change();
    while (const int signal = signals.take()) {
      if (signal != SIGHUP) return signal;
      wanted = true;
    }
    if (wanted) reload(updater, options);
  }
}

}  // namespace

DatabasePtr load_configuration(const Options& options) {
  const auto begin = std::chrono::steady_clock::now();
  DatabasePtr database = YangModel().load(options.config);
  ::malloc_trim(0);  // the parsed tree was many times the size of what is kept
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  if (options.verbose) {
    log_line(options.config + ": loaded in " + std::to_string(took.count()) + " ms: " + describe(*database));
  }
  return database;
}

std::string describe(const Database& database) {
  return std::to_string(database.acls().size()) + " ACLs, " + std::to_string(database.ace_count()) +
         " entries, " + std::to_string(database.remark_count()) + " of them remarks";
}

int serve(const Options& options) {
  const Signals signals;
  ConfigWatch watch(options.config);  // before the file is read: no change falls between the two
  const DatabasePtr database = load_configuration(options);
  LineLimiter limiter(log_line, milliseconds_now);
  Service service(database, [&](std::string_view line) { limiter.write(line); });
  const uint64_t queue_limit = uint64_t{options.queue_limit_mib} << 20;
  const auto bus = PcxBus::open(service, queue_limit, options.verbose);
  if (!bus) return kExitBus;
  // Being the only producer now, we may take away what one that was killed has left.
  retract_ready(options);
  if (!publish_names(*bus, *database)) return kExitBus;
  if (!report_ready(options)) return kExitSystem;

  const Asking asking = {service, *bus, options.question_deadline_ms, log_line, Signals::end_is_near};
  Updater updater(service, *bus, asking, {PcxBus::message_size(queue_limit), options.check_resources});
  const int signal = follow(signals, watch, updater, options);
  if (options.verbose) log_line(std::string("ended by ") + strsignal(signal));
  retract_ready(options);
  return kExitOk;
}

}  // namespace es_acl::producer
