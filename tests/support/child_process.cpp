#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace mvtest {

ChildProcess::ChildProcess(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return;
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    // Only async-signal-safe calls between fork and exec: the parent process has threads.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(126);
    ::dup2(pipeFds[1], STDERR_FILENO);
    ::dup2(pipeFds[1], STDOUT_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  if (pid_ < 0) {
    ::close(pipeFds[0]);
    return;
  }
  started_ = true;
  errors_ = pipeFds[0];
  reader_ = std::thread(&ChildProcess::readErrors, this);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  if (reader_.joinable()) reader_.join();
  if (errors_ >= 0) ::close(errors_);
}

void ChildProcess::readErrors() {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(errors_, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    std::lock_guard lock(mutex_);
    if (n <= 0) {
      ended_ = true;
      changed_.notify_all();
      return;
    }
    log_.append(buffer, static_cast<std::size_t>(n));
    changed_.notify_all();
  }
}

bool ChildProcess::waitForLog(std::string_view text, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] {
    return log_.find(text) != std::string::npos || ended_;
  }) && log_.find(text) != std::string::npos;
}

uint16_t ChildProcess::waitForPort(std::chrono::milliseconds limit) {
  constexpr std::string_view kMark = "listening on ";
  if (!waitForLog(kMark, limit) || !waitForLog(")", limit)) return 0;
  std::lock_guard lock(mutex_);
  const auto at = log_.find(kMark);
  const auto space = log_.find(' ', at + kMark.size());
  const std::string address = log_.substr(at + kMark.size(), space - at - kMark.size());
  const auto colon = address.rfind(':');
  return colon == std::string::npos
             ? 0
             : static_cast<uint16_t>(std::strtoul(address.c_str() + colon + 1, nullptr, 10));
}

void ChildProcess::signal(int number) {
  if (pid_ > 0) ::kill(pid_, number);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds limit) {
  if (pid_ <= 0) return std::nullopt;
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      if (reader_.joinable()) reader_.join();
      return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    if (std::chrono::steady_clock::now() >= end) return std::nullopt;
    std::this_thread::sleep_for(20ms);
  }
}

std::string ChildProcess::log() {
  std::lock_guard lock(mutex_);
  return log_;
}

int runProgram(const std::vector<std::string>& args, std::string* output,
               std::chrono::milliseconds limit) {
  ChildProcess child(args);
  const std::optional<int> status = child.waitExit(limit);
  if (output) *output = child.log();
  return status ? *status : -1000;
}

}  // namespace mvtest
