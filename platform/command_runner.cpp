// SPDX-License-Identifier: ISC
// Command runner stand-in: "/bin/sh -c cmd" in a clean child.
//
// The shell runs as a grandchild of a short-lived intermediate process, so
// the daemon only ever waits for a child that exits at once (no zombie can
// be left behind, whatever the command does); the shell's own parent reports
// its end by closing a pipe, and the daemon waits for that a bounded time so
// consecutive commands keep their order without a hung command wedging it.
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "platform/platform.h"

namespace {

constexpr int kCommandWaitMs = 5000;
constexpr int kMaxSignal = 64;

void reset_signals() {
  for (int sig = 1; sig <= kMaxSignal; ++sig) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void close_descriptors_from(int first, int keep) {
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > 65536) max = 65536;
  for (int fd = first; fd < max; ++fd) {
    if (fd != keep) close(fd);
  }
}

long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

[[noreturn]] void run_waiter(const char* cmd, int done_fd) {
  close_descriptors_from(3, done_fd);
  pid_t shell = fork();
  if (shell == 0) {
    close(done_fd);
    execl("/bin/sh", "sh", "-c", cmd, static_cast<char*>(nullptr));
    _exit(127);
  }
  if (shell > 0) {
    while (waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
      // interrupted: wait again, the shell's end is what this process is for
    }
  }
  _exit(0);  // closes done_fd: the daemon sees the end of the command
}

void wait_for_end(int done_fd) {
  const long deadline = now_ms() + kCommandWaitMs;
  pollfd pfd = {done_fd, POLLIN, 0};
  for (;;) {
    long left = deadline - now_ms();
    if (left <= 0) return;
    int ready = poll(&pfd, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    char byte;
    ssize_t got = read(done_fd, &byte, 1);
    if (got == 0) return;                      // end of file: command finished
    if (got < 0 && errno != EINTR) return;
  }
}

}  // namespace

int ZUN_UTIL_ExecCmdNoHang(const char* cmd) {
  if (cmd == nullptr) return -1;
  int done[2];
  if (pipe2(done, O_CLOEXEC) != 0) return -1;

  // No handler of the daemon may run in a child before it is reset.
  // sigprocmask cannot fail with a valid how and set, here and below.
  sigset_t all, saved;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &saved);
  pid_t intermediate = fork();
  if (intermediate == 0) {
    reset_signals();
    close(done[0]);
    if (fork() == 0) run_waiter(cmd, done[1]);
    _exit(0);
  }
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  close(done[1]);
  if (intermediate < 0) {
    close(done[0]);
    return -1;
  }
  while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR) {
    // interrupted by the daemon's tick: the intermediate exits at once, wait again
  }
  wait_for_end(done[0]);
  close(done[0]);
  return 0;
}
