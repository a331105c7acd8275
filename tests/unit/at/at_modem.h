// The modem side of the AT port for tests: a socket pair in place of the tty,
// the daemon's tick from SIGALRM, and one command through at_send_command.
#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "at/internal.h"
#include "private_var.h"

inline std::string pattern(size_t n) {  // "ABC...Z" over and over
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>('A' + i % 26));
  return s;
}

// Puts the channel's module state back to what it is when the process starts.
inline void fresh_channel() {
  at_port_reset();
  at_response_reset();
}

struct AtChannel : ::testing::Test {
  void SetUp() override {
    reset_private_var("rmnet_tarvek0");
    fresh_channel();
  }
  void TearDown() override { at_port_cleanup(); }
};

// The port on a SOCK_SEQPACKET pair: each chunk the modem sends is exactly one
// read of the port, so tests choose where the modem's output is split.
struct SeqModem {
  int port = -1, peer = -1;
  std::thread feeder;
  SeqModem() {
    int fds[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds);
    g_at_fd = port = fds[0];
    peer = fds[1];
  }
  ~SeqModem() {
    if (g_at_fd == port) g_at_fd = -1;
    close(port);  // first: it releases a feeder blocked on a full queue
    if (feeder.joinable()) feeder.join();
    close(peer);
  }
  // Sends from a helper thread, as the pair queues only a few chunks; pieces
  // over 500 bytes are cut so that no read truncates them.
  void feed(const std::vector<std::string>& chunks) {
    std::vector<std::string> pieces;
    for (const auto& chunk : chunks) {
      for (size_t at = 0; at < chunk.size(); at += 500) pieces.push_back(chunk.substr(at, 500));
    }
    // The feeder must never take a signal meant for the code under test.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
    feeder = std::thread([peer = peer, pieces] {
      for (const auto& piece : pieces) {
        if (send(peer, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) return;
      }
    });
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  }
  void send_now(const std::string& chunk) { send(peer, chunk.data(), chunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT); }
  std::string written() {  // everything the port wrote so far
    std::string out;
    char buf[1024];
    for (ssize_t n; (n = recv(peer, buf, sizeof buf, MSG_DONTWAIT)) > 0;) out.append(buf, static_cast<size_t>(n));
    return out;
  }
};

// Drives at_tick from SIGALRM as the daemon's tick does, interrupting blocked
// reads, until the wait's own count reaches `stop_after` (ticks before the
// wait began are reset by it); given `answer_fd`, it sends an OK there at
// that last tick. A tick already pending when it stops is ignored: it would
// take the count past the limit. No other thread may take the signal.
struct TickDriver {
  explicit TickDriver(int stop_after, int answer_fd = -1, int period_us = 3000) {
    done_ = 0;
    stop_after_ = static_cast<uint32_t>(stop_after);
    answer_fd_ = answer_fd;
    struct sigaction action = {};
    action.sa_handler = on_alarm;  // no SA_RESTART: the tick interrupts a blocked read
    sigaction(SIGALRM, &action, &saved_);
    arm(period_us);
  }
  ~TickDriver() {
    arm(0);
    sigaction(SIGALRM, &saved_, nullptr);
  }
  static void arm(int period_us) {
    const struct itimerval every = {{0, period_us}, {0, period_us}};
    setitimer(ITIMER_REAL, &every, nullptr);
  }
  static void on_alarm(int) {
    if (done_) return;
    at_tick();
    if (g_at_ticks < stop_after_) return;
    done_ = 1;
    if (answer_fd_ >= 0) send(answer_fd_, "\r\nOK\r\n", 6, MSG_NOSIGNAL | MSG_DONTWAIT);
    arm(0);
  }
  static inline volatile sig_atomic_t done_ = 0;
  static inline uint32_t stop_after_ = 0;
  static inline int answer_fd_ = -1;
  struct sigaction saved_ = {};
};

struct AtOutcome {
  int ret, err;
  uint32_t result;
  std::string response;
  bool operator==(const AtOutcome&) const = default;
  friend void PrintTo(const AtOutcome& o, std::ostream* os) {
    *os << "{ret " << o.ret << ", err " << o.err << ", result " << o.result << ", "
        << ::testing::PrintToString(o.response) << "}";
  }
};

// One command through at_send_command with the given reply prefix and time-out.
inline AtOutcome send_command(const std::string& command, const std::string& prefix, int32_t timeout = 30,
                              uint32_t save_to_file = 0) {
  at_request req;
  memset(&req, 0, sizeof req);
  req.timeout = timeout;
  req.save_to_file = save_to_file;
  memcpy(req.body.in.command, command.data(), std::min(command.size(), sizeof req.body.in.command));
  memcpy(req.body.in.reply_prefix, prefix.data(), std::min(prefix.size(), sizeof req.body.in.reply_prefix));
  int err = -12345;
  const int ret = at_send_command(&req, &err);
  const char* response = req.body.out.response;
  return {ret, err, req.body.out.result, std::string(response, strnlen(response, sizeof req.body.out.response))};
}
