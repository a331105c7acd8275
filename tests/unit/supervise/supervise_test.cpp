// SPDX-License-Identifier: ISC
// wdsd-supervise's parts on their own: the daemon's output cut into lines,
// the syslog records byte for byte and their delivery, the bounded file,
// /proc, and the following of a process that detaches.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "supervise/supervise.h"
#include "tests/unit/support/unit.h"

namespace {

using namespace std::chrono_literals;

// ---- lines ------------------------------------------------------------------

void collect(void* ctx, const char* line) { static_cast<Strings*>(ctx)->push_back(line); }

TEST(Lines, WholeLinesGoOutAtOnceWithoutTheBlanksAndCarriageReturnsAround) {
  const std::string x1030(1030, 'x'), y1024(1024, 'y');
  const struct {
    const char* name;
    Strings reads;
    Strings lines;
  } cases[] = {
      {"one line", {"abc\n"}, {"abc"}},
      {"split across reads", {"ab", "c\nde", "f\n"}, {"abc", "def"}},
      {"the daemon's leading newlines", {"\n===>QMITTY can be opened fd = 3\n\n\n\ncmd1=[x]\n\n\n"},
       {"===>QMITTY can be opened fd = 3", "cmd1=[x]"}},
      {"CRs at the ends only", {"\r\n*** qmi set tcp mss cmd:[echo 1420]\n", "a\rb\r\n"}, {"*** qmi set tcp mss cmd:[echo 1420]", "a\rb"}},
      {"tabs kept", {"cmd\t = 3\n"}, {"cmd\t = 3"}},
      {"nothing but line ends", {"\r\n\r\r\n\n"}, {}},
      {"longer than the maximum: in pieces", {x1030 + "\n"}, {x1030.substr(0, 1024), x1030.substr(1024)}},
      {"the maximum, then its newline", {y1024 + "\n"}, {y1024}},
      {"no newline yet", {"===>Query WDS Client id succeed, id=1."}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    line_buffer lb;
    line_reset(&lb);
    Strings out;
    for (const auto& r : c.reads) line_feed(&lb, r.data(), r.size(), 0, collect, &out);
    EXPECT_EQ(out, c.lines);
  }
}

TEST(Lines, APartialLineGoesOutOnceItHasWaitedHalfASecondOrWhenForced) {
  line_buffer lb;
  line_reset(&lb);
  Strings out;
  EXPECT_EQ(line_due_in(&lb, 1000), -1);
  line_feed(&lb, "abc", 3, 1000, collect, &out);
  line_feed(&lb, "d", 1, 1300, collect, &out);  // the wait runs from the first byte
  EXPECT_EQ(line_due_in(&lb, 1300), 200);
  line_flush(&lb, 1499, false, collect, &out);
  EXPECT_EQ(out, Strings{});
  line_flush(&lb, 1500, false, collect, &out);
  EXPECT_EQ(out, Strings{"abcd"});
  EXPECT_EQ(line_due_in(&lb, 1500), -1);
  line_feed(&lb, "ef", 2, 2000, collect, &out);
  line_flush(&lb, 2001, true, collect, &out);
  EXPECT_EQ(out, (Strings{"abcd", "ef"}));
}

// ---- sinks ------------------------------------------------------------------

// A syslog daemon's socket under /var (the test's own tmpfs).
struct FakeSyslog {
  explicit FakeSyslog(const char* p) : path(p) { bind_it(); }
  ~FakeSyslog() { close(fd); }
  void bind_it() {
    unlink(path.c_str());
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    timeval limit = {5, 0};  // a reader waiting for a record that was lost
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) throw std::runtime_error("bind " + path);
  }
  void restart() {
    close(fd);
    bind_it();
  }
  std::string next() {
    char buf[2048];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n < 0 ? "(none)" : std::string(buf, static_cast<size_t>(n));
  }
  std::string path;
  int fd = -1;
};

class Sinks : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC0", 1);
    tzset();
    std::filesystem::remove_all("/var/sv");
    mkdir("/var/sv", 0755);
  }
};

TEST_F(Sinks, SyslogGetsOneDatagramPerRecordStampedLikeSyslog) {
  FakeSyslog syslogd("/var/sv/log");
  log_sink s;
  sink_syslog(&s, syslogd.path.c_str());
  const struct {
    time_t when;
    const char* ident;
    pid_t pid;
    const char* text;
    const char* datagram;
  } cases[] = {
      {1704164645, "wdsd", 42, "hello", "<30>Jan  2 03:04:05 wdsd[42]: hello"},
      {1735689599, "wdsd-supervise", 7, "a\tb", "<30>Dec 31 23:59:59 wdsd-supervise[7]: a\tb"},
      {0, "wdsd", 1, "", "<30>Jan  1 00:00:00 wdsd[1]: "},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sink_write(&s, c.when, c.ident, c.pid, c.text), 0);
    EXPECT_EQ(syslogd.next(), c.datagram);
  }
}

TEST_F(Sinks, SyslogStartedLaterOrRestartedIsReachedAgain) {
  // At boot the supervisor may start before the syslog daemon; later that
  // daemon may be restarted, which leaves the old socket dead.
  log_sink s;
  sink_syslog(&s, "/var/sv/log");
  EXPECT_EQ(sink_write(&s, 0, "wdsd", 1, "lost"), -1);
  FakeSyslog syslogd("/var/sv/log");
  EXPECT_EQ(sink_write(&s, 0, "wdsd", 1, "first"), 0);
  EXPECT_EQ(syslogd.next(), "<30>Jan  1 00:00:00 wdsd[1]: first");
  syslogd.restart();
  EXPECT_EQ(sink_write(&s, 0, "wdsd", 1, "second"), 0);
  EXPECT_EQ(syslogd.next(), "<30>Jan  1 00:00:00 wdsd[1]: second");
}

TEST_F(Sinks, ABurstLongerThanTheSyslogQueueArrivesWhole) {
  // The kernel queues a few datagrams for a reader (10 by default); the
  // daemon's bring-up prints more at once, and a syslog daemon may be slow
  // to be scheduled.
  FakeSyslog syslogd("/var/sv/log");
  log_sink s;
  sink_syslog(&s, syslogd.path.c_str());
  Strings got;
  std::thread reader([&] {
    std::this_thread::sleep_for(50ms);  // the writer finds the queue full meanwhile
    char buf[2048];
    for (ssize_t n; got.size() < 40 && (n = recv(syslogd.fd, buf, sizeof buf, 0)) > 0;)
      got.emplace_back(buf, static_cast<size_t>(n));
  });
  int failed = 0;
  for (int i = 0; i < 40; ++i) failed += sink_write(&s, 0, "wdsd", 1, std::to_string(i).c_str()) != 0;
  reader.join();
  EXPECT_EQ(failed, 0);
  ASSERT_EQ(got.size(), 40u);
  EXPECT_EQ(got[39], "<30>Jan  1 00:00:00 wdsd[1]: 39");
}

TEST_F(Sinks, ASyslogThatStopsReadingLosesRecordsButHoldsTheWriterOnlyOnce) {
  // Waiting for each record would stop the supervisor reading the pipe, and
  // the daemon on its next printf once the pipe is full: one wait runs out,
  // and the records after it go or are lost at once.
  FakeSyslog syslogd("/var/sv/log");
  // Left to a writer that is held, should the test fail.
  struct Shared {
    log_sink s;
    std::atomic<int> lost{0};
    std::atomic<bool> done{false};
  };
  auto* shared = new Shared;
  sink_syslog(&shared->s, syslogd.path.c_str());
  std::thread writer([shared] {
    for (int i = 0; i < 1000; ++i) shared->lost += sink_write(&shared->s, 0, "wdsd", 1, std::string(200, 'z').c_str()) != 0;
    shared->done = true;
  });
  for (auto deadline = std::chrono::steady_clock::now() + 10s; !shared->done && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(10ms);
  if (!shared->done) {
    writer.detach();
    FAIL() << "the writer is held";
  }
  writer.join();
  EXPECT_GT(shared->lost, 900);  // one wait ran out, the others went without
  EXPECT_EQ(syslogd.next().substr(0, 4), "<30>");
  delete shared;
}

TEST_F(Sinks, TheFileStaysWithinItsSizeAndItsPreviousPartIsKept) {
  // Each record here is 50 bytes: the stamp, "wdsd[1]: ", 24 characters, a newline.
  const std::string text(24, 't');
  const std::string rec = "Jan  1 00:00:00 wdsd[1]: " + text + "\n";
  write_file("/var/sv/out", std::string(60, 'o'));
  log_sink s;
  ASSERT_EQ(sink_file(&s, "/var/sv/out", 110), 0);
  const struct {
    const char* after;
    std::string file, previous;
  } steps[] = {
      {"one record, 60 + 50 = 110: fits", std::string(60, 'o') + rec, "(none)"},
      {"one more would pass 110: moved", rec, std::string(60, 'o') + rec},
      {"two records, 100", rec + rec, std::string(60, 'o') + rec},
      {"a third, 150: moved again", rec, rec + rec},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.after);
    ASSERT_EQ(sink_write(&s, 0, "wdsd", 1, text.c_str()), 0);
    EXPECT_EQ(read_file("/var/sv/out"), step.file);
    EXPECT_EQ(read_file("/var/sv/out.1"), step.previous);
  }
  struct stat st;
  ASSERT_EQ(stat("/var/sv/out.1", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(Sinks, AFileThatIsALinkIsRefused) {
  write_file("/var/sv/target", "kept");
  ASSERT_EQ(symlink("/var/sv/target", "/var/sv/out"), 0);
  log_sink s;
  EXPECT_EQ(sink_file(&s, "/var/sv/out", 4096), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(read_file("/var/sv/target"), "kept");
}

// ---- /proc ------------------------------------------------------------------

TEST(Proc, ANameWithBlanksAndParenthesesAndTheCaughtSignals) {
  char saved[16] = {};
  prctl(PR_GET_NAME, saved);
  prctl(PR_SET_NAME, "a) b (c");
  proc_info p;
  ASSERT_EQ(proc_read(getpid(), &p), 0);
  prctl(PR_SET_NAME, saved);
  EXPECT_STREQ(p.comm, "a) b (c");
  EXPECT_EQ(p.ppid, getppid());
  EXPECT_EQ(p.state, 'R');
  EXPECT_EQ(instance_running("a) b (c"), 0);  // this process is not another

  struct sigaction sa{}, old38{};
  sa.sa_handler = [](int) {};
  sigaction(38, &sa, &old38);
  signal(37, SIG_IGN);
  EXPECT_TRUE(proc_catches(getpid(), 38));
  EXPECT_FALSE(proc_catches(getpid(), 37));  // ignored is not caught
  EXPECT_FALSE(proc_catches(getpid(), 36));
  sigaction(38, &old38, nullptr);
  signal(37, SIG_DFL);
  EXPECT_FALSE(proc_catches(getpid(), 38));
}

// ---- following a process that detaches ----------------------------------------

// Runs `script` as the daemon and reaps until it ends; *launcher is the
// process started.
supervised run_daemon(const std::string& script, pid_t* launcher, std::chrono::milliseconds first_look = 0ms) {
  write_file("/var/daemon.sh", "#!/bin/sh\n" + script + "\n");
  chmod("/var/daemon.sh", 0755);
  int out = open("/dev/null", O_WRONLY | O_CLOEXEC), lock = open("/var/daemon.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  supervised sv;
  if (child_start(&sv, "/var/daemon.sh", out, lock) != 0) throw std::runtime_error("not started");
  *launcher = sv.pid;
  close(out);
  close(lock);
  std::this_thread::sleep_for(first_look);
  for (auto deadline = std::chrono::steady_clock::now() + 20s; !sv.ended && std::chrono::steady_clock::now() < deadline;) {
    child_reap(&sv);
    std::this_thread::sleep_for(5ms);
  }
  return sv;
}

TEST(Child, TheDaemonIsFollowedThroughItsDetachingAndItsEndIsTheOneReported) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const struct {
    const char* name;
    const char* script;
    int status;  // child_exit_status
    bool followed;
    std::chrono::milliseconds first_look = 0ms;
  } cases[] = {
      {"no detaching", "exit 5", 5, false},
      {"one fork, as glibc's daemon()", "sh -c 'sleep 0.3; exit 3' & exit 0", 3, true},
      {"two forks, as musl's", "sh -c 'sh -c \"sleep 0.3; exit 4\" & exit 0' & exit 0", 4, true},
      {"killed", "sh -c 'sleep 0.3; kill -9 $$' & exit 0", 137, true},
      // A supervisor held up until the whole chain has ended still reports
      // the daemon's end, not the launcher's.
      {"two forks, all ended before the first look", "sh -c 'sh -c \"exit 6\" & exit 0' & exit 0", 6, true, 1000ms},
      // Started after the detaching window, a process left behind is one of
      // the daemon's own (a command runner's waiter), not the daemon.
      {"a child left behind later", "sh -c 'sleep 3; sleep 30 & exit 0' & exit 0", 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    pid_t launcher = 0;
    supervised sv = run_daemon(c.script, &launcher, c.first_look);
    ASSERT_TRUE(sv.ended);
    EXPECT_EQ(child_exit_status(&sv), c.status);
    EXPECT_EQ(sv.pid != launcher, c.followed);
  }
  // What is left: the long sleep, a child of ours now.
  pid_t left = proc_find([](void*, pid_t, const proc_info& p) { return p.ppid == getpid() && p.state != 'Z'; }, nullptr);
  ASSERT_GT(left, 0);
  kill(left, SIGKILL);
}

}  // namespace
