// SPDX-License-Identifier: ISC
// The processes PID 1 starts and reaps: the modem simulator and the daemon.
// The daemon detaches (its parent exits at once), so PID 1 finds the
// detached process among its re-parented children and records its exit
// status in the exchange directory (daemon.pid, daemon.exit); every reaped
// process is listed in reaped.log. With a supervisor (--supervisor) it is the
// supervisor that is started and recorded, as an init system would: it
// stays in the foreground and runs the daemon, reached at /run/bin/wdsd.
#pragma once
#include <sys/types.h>

#include <string>

#include "sim/sandbox/options.h"

namespace sandbox {

class Children {
 public:
  // Opens both programs at once, before private mounts may cover them.
  // Throws std::runtime_error.
  explicit Children(const Options& o);

  // Starts the simulator and waits until it serves the tty; it reports the
  // modem's removal and return on uevent_fd when that is not -1. Throws.
  void start_sim(int uevent_fd);
  // Starts the daemon; sim::CommandError while it is running.
  void start_daemon();
  // Reaps every child that has ended; call on SIGCHLD.
  void reap();

  bool daemon_running() const { return daemon_state_ == DaemonState::kRunning; }
  pid_t daemon_pid() const { return daemon_pid_; }
  // "daemon=running pid=N sim=running", with exit=N / signal=N once the
  // daemon has ended and sim-status=... once the simulator has.
  std::string describe() const;

 private:
  enum class DaemonState { kNotStarted, kRunning, kExited };
  pid_t find_detached_daemon() const;
  // The supervisor when there is one, else the daemon.
  const std::string& started() const { return o_.supervisor.empty() ? o_.daemon : o_.supervisor; }
  void daemon_ended(int status);

  const Options& o_;
  int sim_exe_fd_ = -1;
  int daemon_exe_fd_ = -1;
  int supervisor_exe_fd_ = -1;
  pid_t sim_pid_ = -1;
  std::string sim_status_;
  pid_t launcher_pid_ = -1;
  pid_t daemon_pid_ = -1;
  DaemonState daemon_state_ = DaemonState::kNotStarted;
  std::string daemon_status_;
};

}  // namespace sandbox
