// SPDX-License-Identifier: ISC
#include "sim/sandbox/pid1.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "sim/sandbox/children.h"
#include "sim/sandbox/cms_peer.h"
#include "sim/sandbox/commands.h"
#include "sim/sandbox/copy_tree.h"
#include "sim/sandbox/files.h"
#include "sim/sandbox/filesystems.h"
#include "sim/sandbox/hotplug_agent.h"
#include "sim/sandbox/layout.h"
#include "sim/sandbox/network.h"
#include "sim/sandbox/syslog_peer.h"
#include "sim/text.h"

namespace sandbox {

namespace {

void write_failed(int exchange_fd, const std::string& why) {
  fprintf(stderr, "wds-sandbox: %s\n", why.c_str());
  // Through the descriptor: the failure may come before the bind mount.
  int fd = openat(exchange_fd, "failed", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string line = why + "\n";
  ssize_t w = write(fd, line.data(), line.size());
  (void)w;  // stderr has it too
  close(fd);
}

void announce_ready(const Options& o) {
  write_file(std::string(kExchange) + "/ready", "ok\n");
  std::string host_pid = "PID1";
  try {
    host_pid = sim::split_words(read_file(std::string(kExchange) + "/init.pid")).at(0);
  } catch (...) {
    // The host side writes it; without it the hints name no pid.
  }
  fprintf(stderr,
          "wds-sandbox: ready in %s (%s, %s)\n"
          "  wds-simctl %s get                  the simulator\n"
          "  wds-simctl %s init status          PID 1 and the daemon\n"
          "  nsenter -t %s -m -n -p ip addr     a command inside\n"
          "  /proc/%s/root/var/log/wds.log      the daemon's log\n"
          "  Ctrl-C or SIGTERM ends it all.\n",
          o.dir.c_str(), o.sim_mode.c_str(), o.ifname.c_str(), o.dir.c_str(), o.dir.c_str(), host_pid.c_str(),
          host_pid.c_str());
}

// Until a termination signal or "shutdown": children, bus, syslog, hotplug
// events (hotplug may be null) and commands.
void serve(Children& children, CmsPeer& cms, SyslogPeer& syslog, HotplugAgent* hotplug, InitCommands& commands) {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
  int sfd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  bool stopping = false;
  children.reap();
  while (!stopping && !commands.shutdown_requested()) {
    pollfd fds[5] = {{sfd, POLLIN, 0},
                     {cms.fd(), POLLIN, 0},
                     {commands.wake_fd(), POLLIN, 0},
                     {hotplug ? hotplug->fd() : -1, POLLIN, 0},
                     {syslog.fd(), POLLIN, 0}};
    if (poll(fds, 5, -1) < 0 && errno != EINTR) break;
    if (fds[0].revents & POLLIN) {
      signalfd_siginfo si;
      while (read(sfd, &si, sizeof si) == sizeof si) {
        if (si.ssi_signo != SIGCHLD) stopping = true;
      }
      children.reap();
    }
    if (fds[1].revents & POLLIN) cms.receive();
    if (fds[2].revents & POLLIN) commands.answer_waiting();
    if (fds[3].revents) hotplug->receive();
    if (fds[4].revents & POLLIN) syslog.receive();
  }
}

}  // namespace

int run_pid1(const Options& o, int exchange_fd) {
  std::unique_ptr<Children> children;
  std::unique_ptr<CmsPeer> cms;
  std::unique_ptr<SyslogPeer> syslog;
  std::unique_ptr<HotplugAgent> hotplug;
  std::unique_ptr<InitCommands> commands;
  try {
    children = std::make_unique<Children>(o);
    prepare_filesystems(o);
    prepare_network();
    cms = std::make_unique<CmsPeer>(o.cms_route);
    syslog = std::make_unique<SyslogPeer>();
    if (o.hotplug) hotplug = std::make_unique<HotplugAgent>(o.ifname, o.hotplug_script);
    children->start_sim(hotplug ? hotplug->sim_end() : -1);
    if (hotplug) hotplug->close_sim_end();
    if (o.start_daemon) children->start_daemon();
    commands = std::make_unique<InitCommands>(o, *children);
    commands->start();
  } catch (const std::exception& e) {
    write_failed(exchange_fd, e.what());
    return 1;
  }
  announce_ready(o);
  serve(*children, *cms, *syslog, hotplug.get(), *commands);
  // Files of /var die with the namespace: keep a copy for the test.
  mkdir((std::string(kExchange) + "/final").c_str(), 0755);
  copy_tree("/var/log", std::string(kExchange) + "/final/log");
  copy_tree("/var/wan", std::string(kExchange) + "/final/wan");
  append_file(std::string(kExchange) + "/ended", "ok\n");
  commands->stop();
  // Leaving as PID 1 kills every process of the namespace; the mounts and
  // the interface go with the last of them.
  return 0;
}

}  // namespace sandbox
