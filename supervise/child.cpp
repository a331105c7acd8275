// SPDX-License-Identifier: ISC
// The daemon as a child of the supervisor. It detaches at once: the process
// started here exits with status 0 and leaves its child (glibc), or a child
// that does the same once more (musl, uClibc), which the kernel hands to us,
// the subreaper. So a child of ours that ends with status 0 while the daemon
// is being followed passes the daemon on to the live child it left behind.
// The daemon's command runner also leaves processes to us (its waiters, and
// their shells); they are reaped and otherwise ignored.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "supervise/supervise.h"

namespace {

constexpr int kForwarded[] = {SIGTERM, SIGINT, SIGHUP, kReinitSignal};
constexpr long kMaxDescriptors = 65536;

struct successor_query {
  pid_t self, ended;
  uint64_t latest_start;  // ticks
  pid_t best;
  uint64_t best_start;
};

// The youngest child of ours, other than the one that ended, started within
// the detach window: the end of the chain. It may have ended already (a
// supervisor held up long enough sees the whole chain as zombies): it is
// still the daemon, and its status the one to report.
pid_t find_successor(const supervised* sv, pid_t ended) {
  successor_query q = {getpid(), ended, sv->launch_ticks + kDetachWindowMs * sysconf(_SC_CLK_TCK) / 1000, 0, 0};
  proc_find(
      [](void* ctx, pid_t pid, const proc_info& p) {
        auto* q = static_cast<successor_query*>(ctx);
        if (p.ppid != q->self || pid == q->ended || p.start_ticks > q->latest_start) return false;
        if (q->best == 0 || p.start_ticks > q->best_start || (p.start_ticks == q->best_start && pid > q->best)) {
          q->best = pid;
          q->best_start = p.start_ticks;
        }
        return false;  // every child looked at
      },
      &q);
  return q.best;
}

void close_descriptors_from(int first, int keep) {
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > kMaxDescriptors) max = kMaxDescriptors;
  for (int fd = first; fd < max; ++fd)
    if (fd != keep) close(fd);
}

unsigned bit(int sig) {
  for (unsigned i = 0; i < sizeof kForwarded / sizeof kForwarded[0]; ++i)
    if (kForwarded[i] == sig) return 1u << i;
  return 0;
}

}  // namespace

int child_start(supervised* sv, const char* path, int out_fd, int lock_fd) {
  *sv = supervised{};
  // Nothing of ours may run in the child before exec: every signal stays
  // blocked there until the mask is emptied.
  sigset_t all, saved;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &saved);
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    dup2(out_fd, 1);
    dup2(out_fd, 2);
    // Nothing the supervisor was given goes on to the daemon but the lock,
    // which it holds too.
    close_descriptors_from(3, lock_fd);
    fcntl(lock_fd, F_SETFD, 0);
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    char* argv[] = {const_cast<char*>(path), nullptr};
    execv(path, argv);
    _exit(127);
  }
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  if (pid < 0) return -1;
  sv->pid = pid;
  proc_info p;
  if (proc_read(pid, &p) == 0) sv->launch_ticks = p.start_ticks;
  return 0;
}

void child_reap(supervised* sv) {
  for (;;) {
    siginfo_t info{};
    // Looked at before it is reaped, so that its pid is not reused meanwhile.
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) return;
    pid_t pid = info.si_pid;
    bool detached = false;
    if (pid == sv->pid && !sv->ended && info.si_code == CLD_EXITED && info.si_status == 0) {
      pid_t next = find_successor(sv, pid);
      if (next > 0) {
        sv->pid = next;
        detached = true;
      }
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return;
    if (pid == sv->pid && !detached && !sv->ended) {
      sv->ended = true;
      sv->status = status;
    }
  }
}

bool child_signal(supervised* sv, int sig) {
  if (sv->ended) return false;
  if (proc_catches(sv->pid, sig)) return kill(sv->pid, sig) == 0;
  if (sig != kReinitSignal) sv->pending |= bit(sig);
  return false;
}

void child_pass_pending(supervised* sv) {
  for (int sig : kForwarded) {
    if ((sv->pending & bit(sig)) != 0 && !sv->ended && proc_catches(sv->pid, sig)) {
      sv->pending &= ~bit(sig);
      kill(sv->pid, sig);
    }
  }
}

int child_exit_status(const supervised* sv) {
  if (WIFEXITED(sv->status)) return WEXITSTATUS(sv->status);
  if (WIFSIGNALED(sv->status)) return 128 + WTERMSIG(sv->status);
  return 1;
}
