// SPDX-License-Identifier: ISC
#include "sim/sandbox/children.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "sim/runtime.h"
#include "sim/sandbox/files.h"
#include "sim/sandbox/layout.h"
#include "sim/text.h"

namespace sandbox {

namespace {

constexpr int kSimStartLimitMs = 20000;

std::string describe_status(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "unknown " + std::to_string(status);
}

void reset_child_state() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
}

void redirect_output(const char* path) {
  int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
  int null = open("/dev/null", O_RDONLY);
  if (null >= 0) dup2(null, 0);
  if (fd >= 0) {
    dup2(fd, 1);
    dup2(fd, 2);
  }
}

}  // namespace

Children::Children(const Options& o) : o_(o) {
  // The programs are reached through descriptors opened before /run, /var,
  // /dev and /proc are covered: the build may live below one.
  sim_exe_fd_ = open_program(o_.sim);
  if (!o_.daemon.empty()) daemon_exe_fd_ = open_program(o_.daemon);
  if (!o_.supervisor.empty()) supervisor_exe_fd_ = open_program(o_.supervisor);
}

void Children::start_sim(int uevent_fd) {
  int ready[2];
  check(pipe2(ready, O_CLOEXEC), "pipe");
  std::vector<std::string> args = {o_.sim, "--mode", o_.sim_mode, "--dir", kExchange, "--device", "/dev/qmitty0",
                                   "--ready-fd", "3"};
  if (o_.no_tun) args.push_back("--no-tun");
  // Passed under its own number, kept above 3, where the ready pipe goes.
  int uevent_copy = -1;
  if (uevent_fd >= 0) {
    uevent_copy = fcntl(uevent_fd, F_DUPFD_CLOEXEC, 4);
    if (uevent_copy < 0) throw std::runtime_error("cannot pass the uevent pipe");
    args.insert(args.end(), {"--uevent-fd", std::to_string(uevent_copy)});
  }
  for (const auto& c : o_.sim_commands) {
    args.push_back("--do");
    args.push_back(c);
  }
  sim_pid_ = fork();
  if (sim_pid_ < 0) throw std::runtime_error("fork failed");
  if (sim_pid_ == 0) {
    reset_child_state();
    redirect_output("/run/sandbox/sim.out");
    dup2(ready[1], 3);  // dup2 clears close-on-exec
    if (uevent_copy >= 0) fcntl(uevent_copy, F_SETFD, 0);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::string path = std::string("PATH=") + kPath;
    char* envp[] = {path.data(), nullptr};
    execveat(sim_exe_fd_, "", argv.data(), envp, AT_EMPTY_PATH);
    _exit(127);
  }
  close(ready[1]);
  if (uevent_copy >= 0) close(uevent_copy);
  pollfd p{ready[0], POLLIN, 0};
  int n = poll(&p, 1, kSimStartLimitMs);
  char b = 0;
  bool ok = n == 1 && read(ready[0], &b, 1) == 1 && b == 'R';
  close(ready[0]);
  if (!ok) {
    std::string out;
    try {
      out = read_file("/run/sandbox/sim.out");
    } catch (...) {
      // No output at all: the message says enough.
    }
    throw std::runtime_error("simulator did not start: " + out);
  }
}

void Children::start_daemon() {
  if (daemon_state_ == DaemonState::kRunning) throw sim::CommandError("daemon already running");
  std::vector<std::string> args = {started()};
  int exe_fd = daemon_exe_fd_;
  if (!o_.supervisor.empty()) {
    // The supervisor reaches the daemon by a path: a link to PID 1's
    // descriptor of it, named as the daemon is on a gateway.
    std::string daemon = std::string(kBinDir) + "/wdsd";
    unlink(daemon.c_str());
    check(symlink(("/proc/1/fd/" + std::to_string(daemon_exe_fd_)).c_str(), daemon.c_str()), "link " + daemon);
    args.insert(args.end(), {"--daemon", daemon});
    args.insert(args.end(), o_.supervisor_args.begin(), o_.supervisor_args.end());
    exe_fd = supervisor_exe_fd_;
  }
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    reset_child_state();
    redirect_output("/run/sandbox/daemon.out");
    for (int fd = 3; fd < 1024; ++fd) {
      if (fd != exe_fd) close(fd);  // close-on-exec: gone once the program runs
    }
    if (chdir("/") != 0) _exit(127);
    std::string path = std::string("PATH=") + kPath;
    char* envp[] = {path.data(), nullptr};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execveat(exe_fd, "", argv.data(), envp, AT_EMPTY_PATH);
    _exit(127);
  }
  launcher_pid_ = pid;
  daemon_pid_ = pid;
  daemon_state_ = DaemonState::kRunning;
  unlink("/run/sandbox/daemon.exit");
  unlink("/run/sandbox/daemon.pid");
}

std::string Children::describe() const {
  std::string state = daemon_state_ == DaemonState::kNotStarted ? "not-started"
                      : daemon_state_ == DaemonState::kRunning  ? "running"
                                                                : "exited";
  std::string out = "daemon=" + state + " pid=" +
                    std::to_string(daemon_state_ == DaemonState::kNotStarted ? 0 : daemon_pid_);
  if (daemon_state_ == DaemonState::kExited) {
    auto parts = sim::split_words(daemon_status_);
    out += " " + parts[0] + "=" + parts[1];
  }
  out += " sim=" + std::string(sim_pid_ > 0 ? "running" : "exited");
  if (sim_pid_ <= 0) out += " sim-status=" + sim_status_;
  return out;
}

// The detached daemon: re-parented to us and named after the daemon's
// binary (it may not have made itself a session leader yet). Zombies still
// show these fields.
pid_t Children::find_detached_daemon() const {
  std::string want = started().substr(started().rfind('/') + 1).substr(0, 15);
  pid_t best = 0;
  DIR* d = opendir(kRealProc);
  if (!d) return 0;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    pid_t pid = std::stoi(name);
    if (pid == 1 || pid == sim_pid_ || pid == launcher_pid_) continue;
    std::string stat;
    try {
      stat = read_file(std::string(kRealProc) + "/" + name + "/stat");
    } catch (...) {
      continue;  // gone meanwhile
    }
    size_t open_paren = stat.find('('), close_paren = stat.rfind(')');
    if (open_paren == std::string::npos || close_paren == std::string::npos) continue;
    std::string comm = stat.substr(open_paren + 1, close_paren - open_paren - 1);
    auto fields = sim::split_words(stat.substr(close_paren + 1));
    if (fields.size() < 4) continue;
    int ppid = std::stoi(fields[1]);
    if (comm == want && ppid == 1 && pid != daemon_pid_ && (best == 0 || pid < best)) best = pid;
  }
  closedir(d);
  return best;
}

void Children::daemon_ended(int status) {
  daemon_state_ = DaemonState::kExited;
  daemon_status_ = describe_status(status);
  write_file("/run/sandbox/daemon.exit", daemon_status_ + "\n");
}

void Children::reap() {
  for (;;) {
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) return;
    pid_t pid = info.si_pid;
    if ((pid == launcher_pid_ || pid == daemon_pid_) && info.si_code == CLD_EXITED && info.si_status == 0) {
      // daemon(): the parent has exited, the child now belongs to us. musl's
      // daemon() forks twice, so the first child ends too and hands over to
      // the second. Look before reaping, while the ending pid cannot be
      // reused.
      pid_t detached = find_detached_daemon();
      if (detached > 0) {
        daemon_pid_ = detached;
        write_file("/run/sandbox/daemon.pid", std::to_string(detached) + "\n");
      }
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return;
    append_file("/run/sandbox/reaped.log", std::to_string(pid) + " " + describe_status(status) + "\n");
    if (pid == sim_pid_) {
      sim_pid_ = -1;
      sim_status_ = describe_status(status);
    } else if (pid == launcher_pid_) {
      launcher_pid_ = -1;
      if (daemon_pid_ == pid) daemon_ended(status);  // it did not detach
    } else if (pid == daemon_pid_ && daemon_state_ == DaemonState::kRunning) {
      daemon_ended(status);
    }
  }
}

}  // namespace sandbox
