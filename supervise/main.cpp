// SPDX-License-Identifier: ISC
// wdsd-supervise [--daemon PATH] [--log-file FILE [--log-size BYTES]]
// wdsd-supervise --version
//
// Keeps wdsd in the foreground for an init system (see supervise.h) and
// exits with the daemon's exit status, or 128 plus the signal that killed
// it, so that the init system's respawn limits apply. Its own notes go where
// the daemon's lines go, under the name "wdsd-supervise".
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "supervise/supervise.h"
#include "wds_version.h"

namespace {

constexpr char kSelf[] = "wdsd-supervise";
constexpr char kDaemonIdent[] = "wdsd";
constexpr off_t kDefaultLogSize = 65536;
constexpr off_t kMinLogSize = 4096;
// How often held signals are offered again while the daemon starts.
constexpr int kPendingPollMs = 100;

struct options {
  const char* daemon = WDS_DAEMON_PATH;
  const char* log_file = nullptr;
  off_t log_size = kDefaultLogSize;
};

// Everything the loop works on lives here, for the line callback.
struct state {
  log_sink sink;
  supervised daemon;
  line_buffer line;
};
state g;

[[noreturn]] void usage(const char* why) {
  fprintf(stderr,
          "%s: %s\n"
          "usage: %s [--daemon PATH] [--log-file FILE [--log-size BYTES]]\n"
          "       %s --version\n",
          kSelf, why, kSelf, kSelf);
  exit(2);
}

options parse_options(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (strcmp(a, "--version") == 0) {
      printf("%s %s\n", kSelf, WDS_VERSION);
      exit(0);
    }
    if (strcmp(a, "--daemon") != 0 && strcmp(a, "--log-file") != 0 && strcmp(a, "--log-size") != 0)
      usage("unknown option");
    if (i + 1 >= argc) usage("missing value");
    const char* value = argv[++i];
    if (strcmp(a, "--daemon") == 0) {
      o.daemon = value;
    } else if (strcmp(a, "--log-file") == 0) {
      o.log_file = value;
    } else {
      char* end;
      long long v = strtoll(value, &end, 10);
      if (*end != '\0' || v < kMinLogSize) usage("--log-size takes a number of bytes, at least 4096");
      o.log_size = static_cast<off_t>(v);
    }
  }
  return o;
}

// The daemon's name as the kernel keeps it: the file's name, cut to 15.
void daemon_name(const char* path, char* out, size_t size) {
  const char* slash = strrchr(path, '/');
  snprintf(out, size < 16 ? size : 16, "%s", slash ? slash + 1 : path);
}

void record(const char* ident, pid_t pid, const char* text) {
  if (sink_write(&g.sink, time(nullptr), ident, pid, text) == 0) return;
  // Nowhere to record it: standard error, which init systems keep.
  char line[kLineMax + 64];
  int n = snprintf(line, sizeof line, "%s[%d]: %s\n", ident, static_cast<int>(pid), text);
  ssize_t w = write(2, line, n < 0 ? 0 : static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1);
  (void)w;  // there is no further place to report it
}

__attribute__((format(printf, 1, 2))) void note(const char* fmt, ...) {
  char text[256];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  record(kSelf, getpid(), text);
}

void daemon_line(void*, const char* line) { record(kDaemonIdent, g.daemon.pid, line); }

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Takes what waits in the pipe; false once it has ended.
bool read_output(int fd) {
  char buf[4096];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
      line_feed(&g.line, buf, static_cast<size_t>(n), now_ms(), daemon_line, nullptr);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 && errno == EAGAIN;
  }
}

// Descriptors 0 to 2 open, whatever the init system left, so that nothing
// opened later takes their place.
void keep_standard_descriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Held from the start, to be read from a descriptor: the init system may
  // signal at once, and every one of these is for the daemon.
  sigset_t taken;
  sigemptyset(&taken);
  for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, kReinitSignal}) sigaddset(&taken, sig);
  sigprocmask(SIG_BLOCK, &taken, nullptr);
  options o = parse_options(argc, argv);
  keep_standard_descriptors();
  // The time zone is loaded now: the first local time may allocate.
  tzset();
  char name[16];
  daemon_name(o.daemon, name, sizeof name);

  if (o.log_file) {
    if (sink_file(&g.sink, o.log_file, o.log_size) != 0) {
      fprintf(stderr, "%s: cannot open %s: %s\n", kSelf, o.log_file, strerror(errno));
      return 1;
    }
  } else {
    sink_syslog(&g.sink, kSyslogSocket);
  }

  // A refusal goes to standard error for whoever started it, and to the log
  // for whoever looks there later.
  char refused[256] = "";
  int lock_fd = -1;
  int locked = instance_lock(kLockPath, &lock_fd);
  if (locked > 0)
    snprintf(refused, sizeof refused, "%s is already running (%s is taken by its supervisor or by the daemon itself); not starting another",
             name, kLockPath);
  else if (locked < 0)
    snprintf(refused, sizeof refused, "cannot take %s: %s", kLockPath, strerror(errno));
  else if (pid_t other = instance_running(name))
    snprintf(refused, sizeof refused, "%s is already running as pid %d, started without %s; not starting another", name,
             static_cast<int>(other), kSelf);
  if (refused[0] != '\0') {
    fprintf(stderr, "%s: %s\n", kSelf, refused);
    note("%s", refused);
    return 1;
  }
  line_reset(&g.line);

  // The daemon detaches: its process is handed to us instead of to init.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    fprintf(stderr, "%s: cannot become the child subreaper: %s\n", kSelf, strerror(errno));
    return 1;
  }
  int sfd = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
  signal(SIGPIPE, SIG_IGN);
  int out[2];
  if (sfd < 0 || pipe2(out, O_CLOEXEC) != 0 || fcntl(out[0], F_SETFL, O_NONBLOCK) != 0) {
    fprintf(stderr, "%s: %s\n", kSelf, strerror(errno));
    return 1;
  }
  if (child_start(&g.daemon, o.daemon, out[1], lock_fd) != 0) {
    fprintf(stderr, "%s: cannot start %s: %s\n", kSelf, o.daemon, strerror(errno));
    return 1;
  }
  close(out[1]);
  note("started %s", o.daemon);

  int out_fd = out[0];
  while (!g.daemon.ended) {
    int timeout = line_due_in(&g.line, now_ms());
    if (g.daemon.pending != 0 && (timeout < 0 || timeout > kPendingPollMs)) timeout = kPendingPollMs;
    pollfd fds[2] = {{sfd, POLLIN, 0}, {out_fd, POLLIN, 0}};
    if (poll(fds, 2, timeout) < 0) {
      if (errno == EINTR) continue;
      note("poll failed: %s; leaving %s to itself", strerror(errno), name);
      return 1;
    }
    if (fds[1].revents != 0 && !read_output(out_fd)) {
      // Every writer has gone; the daemon's end comes as SIGCHLD.
      close(out_fd);
      out_fd = -1;
    }
    line_flush(&g.line, now_ms(), false, daemon_line, nullptr);
    if (fds[0].revents & POLLIN) {
      signalfd_siginfo si;
      while (read(sfd, &si, sizeof si) == sizeof si) {
        int sig = static_cast<int>(si.ssi_signo);
        if (sig == SIGCHLD) continue;
        if (child_signal(&g.daemon, sig)) continue;
        if (sig == kReinitSignal)
          note("signal %d dropped: %s has no handler for it yet, and the bring-up under way is what it asks for", sig, name);
        else
          note("signal %d held until %s has its handler", sig, name);
      }
      child_reap(&g.daemon);
    }
    child_pass_pending(&g.daemon);
  }
  // Its last lines, then the supervisor's account of its end.
  if (out_fd >= 0) read_output(out_fd);
  line_flush(&g.line, now_ms(), true, daemon_line, nullptr);
  int status = child_exit_status(&g.daemon);
  if (status > 128)
    note("%s (pid %d) was killed by signal %d", name, static_cast<int>(g.daemon.pid), status - 128);
  else
    note("%s (pid %d) exited with status %d", name, static_cast<int>(g.daemon.pid), status);
  return status;
}
