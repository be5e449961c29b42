#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <utility>

namespace es_acl::e2e {

namespace {

using Clock = std::chrono::steady_clock;

class Fd {
 public:
  explicit Fd(int number = -1) : number_(number) {}
  Fd(Fd&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  ~Fd() { close_now(); }
  int get() const { return number_; }
  void close_now() {
    if (number_ >= 0) close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

struct Channel {
  Fd read_end;
  Fd write_end;
};

Channel make_channel(Stdout kind) {
  int ends[2];
  const int result =
      kind == Stdout::kTerminal ? openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) : pipe(ends);
  if (result != 0) throw std::runtime_error("no channel for a child");
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  return {Fd(ends[0]), Fd(ends[1])};
}

[[noreturn]] void become(Arguments arguments, const Environment& environment, int out, int err) {
  std::vector<std::string> settings;
  for (const auto& [name, value] : environment) settings.push_back(name + "=" + value);
  std::vector<char*> argv, envp;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  for (std::string& setting : settings) envp.push_back(setting.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  if (chdir("/") == 0) execve(argv[0], argv.data(), envp.data());
  _exit(127);
}

pid_t start(const Arguments& arguments, const Environment& environment, int out, int err) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  become(arguments, environment, out, err);
}

// Reads what is there; false at the end. A terminal ends with EIO.
bool drain(int fd, std::string* text) {
  char buffer[65536];
  const ssize_t length = read(fd, buffer, sizeof buffer);
  if (length > 0) text->append(buffer, static_cast<size_t>(length));
  return length > 0 || (length < 0 && errno == EINTR);
}

int milliseconds_until(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Reads both to their ends; false when the time is up before.
bool gather(int out, int err, Clock::time_point end, Ended* ended) {
  pollfd sources[] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
  std::string* const texts[] = {&ended->out, &ended->err};
  while (sources[0].fd >= 0 || sources[1].fd >= 0) {
    const int ready = poll(sources, 2, milliseconds_until(end));
    if (ready == 0) return false;
    for (int i = 0; i < 2; ++i)
      if (ready > 0 && sources[i].revents != 0 && !drain(sources[i].fd, texts[i])) sources[i].fd = -1;
  }
  return true;
}

int code_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace

void sleep_briefly() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

Ended run(const Arguments& arguments, const Environment& environment, Stdout kind) {
  const auto begin = Clock::now();
  Ended ended;
  Channel out = make_channel(kind);
  Channel err = make_channel(Stdout::kPipe);
  const pid_t pid = start(arguments, environment, out.write_end.get(), err.write_end.get());
  out.write_end.close_now();
  err.write_end.close_now();
  const bool in_time = gather(out.read_end.get(), err.read_end.get(), begin + kRunDeadline, &ended);
  if (!in_time) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  ended.code = in_time ? code_of(status) : -1;
  ended.took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
  return ended;
}

Background::Background(const Arguments& arguments, const Environment& environment, const std::string& log) {
  const Fd file(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  pid_ = start(arguments, environment, file.get(), file.get());
}

void Background::signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

void Background::stop() const {
  signal(SIGSTOP);
  waitpid(pid_, nullptr, WUNTRACED);
}

bool Background::running() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
  return pid_ > 0;
}

void Background::kill_now() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace es_acl::e2e
