// SPDX-License-Identifier: ISC
// wds-sandbox: runs the unchanged daemon without hardware. Makes new mount,
// network, pid, uts and ipc namespaces; its child, PID 1 inside, makes the
// directory it was started in the root of its mount namespace (root.h),
// prepares private /run, /dev, /proc, /sys and /var, starts the modem
// simulator and then the daemon, reaps every process, records the daemon's
// exit status and stands in for the gateway's platform around the daemon:
// the bus peer "cms" and the hotplug handler. Everything lives and dies with
// PID 1.
//
// The exchange directory (--dir, a host directory) appears inside as
// /run/sandbox and holds:
//   init.pid     PID 1 as the host sees it (for nsenter and /proc/<pid>/root)
//   ready        written once the simulator and the daemon have been started
//   failed       why the sandbox could not start
//   init.sock    commands to PID 1 (see commands.h)
//   sim.sock     commands to the simulator
//   device.log   what crossed the modem's tty, see sim/runtime.h
//   bus.log      messages received by "cms", see cms_peer.h
//   platform.log what "cms" and the hotplug handler did, see cms_peer.h and
//                hotplug_agent.h (--no-cms-route, --no-hotplug: neither acts)
//   atcmd.log    arguments of each call of the stub atcmd
//   daemon.out   the daemon's standard output and error
//   daemon.pid   the detached daemon's pid inside the sandbox
//   daemon.exit  "exit N" or "signal N" once the daemon has ended
//   final/       copy of /var/log and /var/wan taken at shutdown
//
// Inside, /proc is a tmpfs of links into a fresh procfs (at /run/realproc)
// plus the datacard chip file; pids stay below 2048 so each has its link.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/sandbox/files.h"
#include "sim/sandbox/options.h"
#include "sim/sandbox/pid1.h"

namespace {

pid_t g_init = -1;

void forward_to_init(int) {
  if (g_init > 0) kill(g_init, SIGTERM);
}

// The child that becomes PID 1 of the new pid namespace; waits for the go
// from the host side, which has recorded its pid by then.
[[noreturn]] void become_pid1(const sandbox::Options& o, int go) {
  // Dies with us, whatever kills us.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  char b;
  if (read(go, &b, 1) != 1) _exit(1);
  close(go);
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
    fprintf(stderr, "wds-sandbox: unshare: %s\n", strerror(errno));
    _exit(1);
  }
  // Where PID 1 reports why it could not start, whatever it has mounted by
  // then.
  int exchange_fd = open(o.dir.c_str(), O_DIRECTORY | O_CLOEXEC);
  if (exchange_fd < 0) _exit(1);
  _exit(sandbox::run_pid1(o, exchange_fd));
}

}  // namespace

int main(int argc, char** argv) {
  sandbox::Options o = sandbox::parse_options(argc, argv);
  sandbox::make_dir(o.dir);
  if (char* abs = realpath(o.dir.c_str(), nullptr)) {
    o.dir = abs;
    free(abs);
  }
  for (const char* f : {"ready", "failed", "ended", "init.pid", "daemon.exit", "daemon.pid"})
    unlink((o.dir + "/" + f).c_str());

  // Only the pid namespace is made here (it takes effect for the child);
  // PID 1 makes the others itself, so this runner stays wholly on the host.
  if (unshare(CLONE_NEWPID) != 0) {
    fprintf(stderr, "wds-sandbox: unshare: %s (root needed)\n", strerror(errno));
    return 1;
  }

  int go[2];
  if (pipe2(go, O_CLOEXEC) != 0) return 1;
  sigset_t set, old;
  sigemptyset(&set);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
  sigprocmask(SIG_BLOCK, &set, &old);

  pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    close(go[1]);
    become_pid1(o, go[0]);
  }
  close(go[0]);
  g_init = child;
  sandbox::write_file(o.dir + "/init.pid", std::to_string(child) + "\n");
  ssize_t n = write(go[1], "G", 1);
  (void)n;  // should it fail, PID 1 sees end of file and exits: the run fails visibly
  close(go[1]);

  struct sigaction sa{};
  sa.sa_handler = forward_to_init;
  sigemptyset(&sa.sa_mask);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaction(s, &sa, nullptr);
  sigprocmask(SIG_SETMASK, &old, nullptr);

  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  // _exit: after unshare(CLONE_NEWPID) this process can start no thread, which
  // a leak checker run at exit would need; there is nothing left to release.
  fflush(nullptr);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}
