// SPDX-License-Identifier: ISC
#include "sim/sandbox/commands.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "sim/sandbox/layout.h"
#include "sim/sandbox/udp.h"
#include "sim/text.h"

namespace sandbox {

namespace {

std::optional<int> signal_number(const std::string& name) {
  static const std::map<std::string, int> kNames = {
      {"TERM", SIGTERM}, {"KILL", SIGKILL}, {"HUP", SIGHUP},   {"INT", SIGINT},   {"USR1", SIGUSR1},
      {"USR2", SIGUSR2}, {"ALRM", SIGALRM}, {"QUIT", SIGQUIT}, {"STOP", SIGSTOP}, {"CONT", SIGCONT},
      {"SEGV", SIGSEGV}, {"ABRT", SIGABRT}, {"PIPE", SIGPIPE}};
  std::string n = name.starts_with("SIG") ? name.substr(3) : name;
  if (auto it = kNames.find(n); it != kNames.end()) return it->second;
  if (n.starts_with("RTMIN+")) {
    auto v = sim::parse_uint(n.substr(6), 32);
    if (v) return SIGRTMIN + static_cast<int>(*v);
  }
  auto v = sim::parse_uint(n, 64);
  if (v && *v > 0) return static_cast<int>(*v);
  return std::nullopt;
}

}  // namespace

InitCommands::InitCommands(const Options& o, Children& children) : o_(o), children_(children) {
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  server_ = std::make_unique<sim::ControlServer>(std::string(kExchange) + "/init.sock",
                                                 [this](const std::string& line) { return post(line); });
}

InitCommands::~InitCommands() {
  stop();
  if (wake_fd_ >= 0) close(wake_fd_);
}

void InitCommands::start() { server_->start(); }

void InitCommands::stop() {
  {
    std::lock_guard lock(mu_);
    closed_ = true;
    cv_.notify_all();
  }
  server_->stop();
}

std::string InitCommands::post(const std::string& line) {
  std::unique_lock lock(mu_);
  posted_.push_back(line);
  uint64_t ticket = ++posted_seq_;
  uint64_t w = 1;
  ssize_t n = write(wake_fd_, &w, sizeof w);
  (void)n;  // an eventfd write fails only on overflow, and then it is readable anyway
  cv_.wait(lock, [&] { return answered_seq_ >= ticket || closed_; });
  if (answered_seq_ < ticket) return "err sandbox is shutting down";
  std::string answer = std::move(answers_[ticket]);
  answers_.erase(ticket);
  return answer;
}

void InitCommands::answer_waiting() {
  uint64_t v;
  ssize_t n = read(wake_fd_, &v, sizeof v);
  (void)n;  // only clears the wake-up; the queue says what waits
  std::lock_guard lock(mu_);
  while (!posted_.empty()) {
    answers_[++answered_seq_] = command(posted_.front());
    posted_.pop_front();
  }
  cv_.notify_all();
}

std::string InitCommands::command(const std::string& line) {
  auto words = sim::split_words(line);
  if (words.empty()) return "err empty command";
  const std::string& verb = words[0];
  try {
    if (verb == "ping") return "ok";
    if (verb == "status") return "ok " + children_.describe();
    if (verb == "kill") {
      if (words.size() != 2) return "err usage: kill SIGNAL";
      auto sig = signal_number(words[1]);
      if (!sig) return "err unknown signal " + words[1];
      if (!children_.daemon_running()) return "err daemon not running";
      if (kill(children_.daemon_pid(), *sig) != 0) return std::string("err kill: ") + strerror(errno);
      return "ok";
    }
    if (verb == "start") {
      if (o_.daemon.empty()) return "err no daemon given";
      children_.start_daemon();
      return "ok";
    }
    if (verb == "udp") return send_udp(words);
    if (verb == "shutdown") {
      shutdown_requested_ = true;
      return "ok";
    }
    return "err unknown command '" + verb + "'";
  } catch (const std::exception& e) {
    return std::string("err ") + e.what();
  }
}

}  // namespace sandbox
