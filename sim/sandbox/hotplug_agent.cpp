// SPDX-License-Identifier: ISC
#include "sim/sandbox/hotplug_agent.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "sim/sandbox/files.h"
#include "sim/sandbox/layout.h"
#include "sim/sandbox/spawn.h"

namespace sandbox {

namespace {

// The daemon's re-initialisation request.
constexpr int kReinitSignal = 38;
// The integrator's handler, and what it printed.
constexpr char kScriptPath[] = "/run/hotplug-handler";
constexpr char kScriptOut[] = "/run/sandbox/hotplug.out";
// The modem's tty as the kernel announces it.
constexpr char kDevName[] = "qmitty0";
constexpr char kDevPath[] = "/devices/platform/usb/usb1/1-1/1-1:1.2/tty/qmitty0";

}  // namespace

HotplugAgent::HotplugAgent(const std::string& ifname, const std::string& script)
    : pid_path_("/var/wan/" + ifname + "/pid"), script_(!script.empty()) {
  int p[2];
  check(pipe2(p, O_CLOEXEC | O_NONBLOCK), "hotplug pipe");
  fd_ = p[0];
  sim_end_ = p[1];
  if (script_) write_file(kScriptPath, script, 0755);
}

HotplugAgent::~HotplugAgent() {
  close_sim_end();
  if (fd_ >= 0) close(fd_);
}

void HotplugAgent::close_sim_end() {
  if (sim_end_ >= 0) close(sim_end_);
  sim_end_ = -1;
}

void HotplugAgent::receive() {
  char buf[256];
  ssize_t n;
  while ((n = read(fd_, buf, sizeof buf)) > 0) pending_.append(buf, static_cast<size_t>(n));
  if (n == 0) {
    // The simulator has gone: nothing more will come, and an ended pipe
    // would keep poll() awake.
    close(fd_);
    fd_ = -1;
  }
  for (size_t nl; (nl = pending_.find('\n')) != std::string::npos; pending_.erase(0, nl + 1))
    handle(pending_.substr(0, nl));
}

void HotplugAgent::handle(const std::string& event) {
  if (script_) {
    run_script(event);
    return;
  }
  if (event != "add") {
    append_record(kPlatformLog, "hotplug " + event);
    return;
  }
  pid_t pid = 0;
  try {
    pid = static_cast<pid_t>(strtol(read_file(pid_path_).c_str(), nullptr, 10));
  } catch (const std::exception&) {
    // No pid file: no daemon yet, or it has ended.
  }
  if (pid <= 1) {
    append_record(kPlatformLog, "hotplug add: no daemon to tell (no pid in " + pid_path_ + ")");
    return;
  }
  std::string what = "hotplug add: signal 38 to " + std::to_string(pid);
  if (kill(pid, kReinitSignal) != 0) what += std::string(" failed: ") + strerror(errno);
  append_record(kPlatformLog, what);
}

void HotplugAgent::run_script(const std::string& event) {
  std::string outcome = run_to_end({kScriptPath},
                                   {"ACTION=" + event, std::string("DEVPATH=") + kDevPath, "SUBSYSTEM=tty",
                                    std::string("DEVNAME=") + kDevName, "MAJOR=250", "MINOR=0",
                                    "SEQNUM=" + std::to_string(++seqnum_), "HOME=/", std::string("PATH=") + kPath},
                                   kScriptOut);
  append_record(kPlatformLog, "hotplug " + event + ": handler " + outcome);
}

}  // namespace sandbox
