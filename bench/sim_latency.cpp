// SPDX-License-Identifier: ISC
// Latency of the simulated modem and start-up time of the sandbox: what an
// end-to-end test pays per request and per sandbox.
//
//   sim_latency [ROUNDS]
//
// Runs in private mount and network namespaces of its own (root needed);
// prints one line per figure: median, 99th percentile and maximum.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/control.h"

namespace {

using Clock = std::chrono::steady_clock;

double us_since(Clock::time_point t0) { return std::chrono::duration<double, std::micro>(Clock::now() - t0).count(); }

void report(const char* what, std::vector<double> v, const char* unit = "us") {
  std::sort(v.begin(), v.end());
  printf("%-34s n=%-5zu median %9.1f %s   p99 %9.1f %s   max %9.1f %s\n", what, v.size(), v[v.size() / 2], unit,
         v[v.size() * 99 / 100], unit, v.back(), unit);
}

pid_t start_sim(const std::string& dir) {
  int ready[2];
  if (pipe(ready) != 0) exit(1);
  pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    std::string fd = std::to_string(ready[1]);
    std::string dev = dir + "/qmitty0";
    execl(WDS_SIM_PATH, "wds-sim", "--mode", "qmi", "--dir", dir.c_str(), "--device", dev.c_str(), "--no-tun",
          "--ready-fd", fd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ready[1]);
  char b;
  if (read(ready[0], &b, 1) != 1) {
    fprintf(stderr, "wds-sim did not start\n");
    exit(1);
  }
  close(ready[0]);
  return pid;
}

void on_alarm(int) {}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 2000;
  char base[] = "/tmp/wds-bench.XXXXXX";
  if (mkdtemp(base) == nullptr || unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", base, "tmpfs", 0, "mode=1777") != 0) {
    perror("private namespaces (root needed)");
    return 1;
  }
  std::string dir = std::string(base) + "/bench";
  mkdir(dir.c_str(), 0755);
  pid_t sim = start_sim(dir);
  std::string dev = dir + "/qmitty0";

  std::vector<double> open_us, rtt_us, intr_us;
  for (int i = 0; i < 200; ++i) {
    auto t0 = Clock::now();
    int fd = open(dev.c_str(), O_RDWR);
    open_us.push_back(us_since(t0));
    close(fd);
  }
  report("open /dev/qmitty0", open_us);

  int fd = open(dev.c_str(), O_RDWR);
  // Packet service status request; the answer is 18 bytes.
  const unsigned char req[] = {0x00, 0x00, 0x01, 0x00, 0x22, 0x00, 0x00};
  char buf[1000];
  for (int i = 0; i < rounds; ++i) {
    auto t0 = Clock::now();
    if (write(fd, req, sizeof req) != sizeof req || read(fd, buf, sizeof buf) != 18) {
      fprintf(stderr, "round trip failed: %s\n", strerror(errno));
      return 1;
    }
    rtt_us.push_back(us_since(t0));
  }
  report("write request -> read answer", rtt_us);

  struct sigaction sa {};
  sa.sa_handler = on_alarm;
  sigaction(SIGALRM, &sa, nullptr);
  for (int i = 0; i < 50; ++i) {
    itimerval it{};
    it.it_value.tv_usec = 2000;
    auto t0 = Clock::now();
    setitimer(ITIMER_REAL, &it, nullptr);
    ssize_t n = read(fd, buf, sizeof buf);  // nothing to read: blocks until the signal
    double waited = us_since(t0);
    if (n == -1 && errno == EINTR) intr_us.push_back(waited - 2000.0);
  }
  // The blocked read lasts the 2 ms of the timer plus the time the signal
  // takes to end it.
  report("SIGALRM -> read() returns EINTR", intr_us);
  close(fd);
  kill(sim, SIGTERM);
  waitpid(sim, nullptr, 0);

  std::vector<double> start_ms;
  for (int i = 0; i < 10; ++i) {
    std::string sdir = dir + "/sb" + std::to_string(i);
    auto t0 = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execl(WDS_SANDBOX_PATH, "wds-sandbox", "--dir", sdir.c_str(), "--no-start", static_cast<char*>(nullptr));
      _exit(127);
    }
    std::string ready = sdir + "/ready";
    while (access(ready.c_str(), F_OK) != 0) {
      if (us_since(t0) > 20e6) {
        fprintf(stderr, "sandbox did not start\n");
        return 1;
      }
      usleep(200);
    }
    start_ms.push_back(us_since(t0) / 1000.0);
    sim::control_request(sdir + "/init.sock", "shutdown");
    waitpid(pid, nullptr, 0);
  }
  report("sandbox start-up (until ready)", start_ms, "ms");
  umount2(base, MNT_DETACH);
  rmdir(base);
  return 0;
}
