// Test support for the QMI client: hex byte arrays, the log of the current
// test, a socket pair standing in for the tty, and ticks driven by the test.
#pragma once
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/internal.h"
#include "log/log.h"
#include "private_var.h"
#include "qmi/internal.h"

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

// "0020 000E 02" -> {0x00, 0x20, 0x00, 0x0E, 0x02}; blanks are ignored.
inline Bytes hex(std::string_view text) {
  std::string digits;
  for (char c : text) {
    if (c != ' ') digits += c;
  }
  EXPECT_EQ(digits.find_first_not_of("0123456789abcdefABCDEF"), std::string::npos) << text;
  EXPECT_EQ(digits.size() % 2, 0u) << text;
  Bytes out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
  }
  return out;
}

inline std::string to_hex(const Bytes& bytes) {
  std::string out;
  char cell[4];
  for (uint8_t b : bytes) out.append(cell, static_cast<size_t>(snprintf(cell, sizeof cell, "%02x ", b)));
  return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// A whole message: ctl_flag, txId, msg_type, mlen counted from the TLVs, the TLVs.
inline Bytes qmi_message(uint8_t ctl_flag, uint16_t tx_id, uint16_t msg_type, std::string_view tlvs) {
  const Bytes body = hex(tlvs);
  char header[16];
  snprintf(header, sizeof header, "%02x%04x%04x%04zx", ctl_flag, tx_id, msg_type, body.size());
  return concat({hex(header), body});
}

// Fixture: a fresh log in the private /var/log, and the QMI client and the
// shared records back to their process-start values.
class QmiTest : public testing::Test {
 protected:
  void SetUp() override {
    qmi_codec_reset();
    qmi_transport_reset();
    wds_client_reset();
    wan_reset();
    restart_log();
  }
  void TearDown() override { log_close(); }
  // Empties the log, also between the cases of one test.
  static void restart_log() {
    log_reset();
    reset_private_var("rmnet0");
    ASSERT_GE(log_open(), 0);
  }
};

inline Strings log_lines() {
  Strings lines;
  std::istringstream in(read_text_file("/var/log/wds.log"));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}
// The log's lines with the prefix of each wds_msg record removed; dump rows as they are.
inline Strings log_texts() {
  Strings texts;
  for (const std::string& line : log_lines()) {
    const bool record = line.rfind("[ info][", 0) == 0 || line.rfind("[error][", 0) == 0;
    if (record) {
      EXPECT_EQ(line.substr(8, 16), "         wds_msg") << line;
    }
    const size_t end = record ? line.find("] ", 8) : std::string::npos;
    texts.push_back(end == std::string::npos ? line : line.substr(end + 2));
  }
  return texts;
}
inline int log_count(const std::string& text) {
  const Strings texts = log_texts();
  return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

// A SOCK_SEQPACKET pair: one end is qmitty_fd, the other is the modem.
class TtyPair {
 public:
  TtyPair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    qmitty_fd = fds[0];
    modem_ = fds[1];
    // A daemon-side read that would wait for ever fails the test instead.
    const timeval guard = {10, 0};
    setsockopt(qmitty_fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
  }
  ~TtyPair() {
    if (qmitty_fd >= 0) close(qmitty_fd);
    qmitty_fd = -1;
    close(modem_);
  }
  void reply(const Bytes& block) const {   // one block the daemon will read
    ASSERT_EQ(send(modem_, block.data(), block.size(), MSG_NOSIGNAL), static_cast<ssize_t>(block.size()));
  }
  // The next message the daemon wrote within the time-out, or nothing.
  Bytes take(int timeout_ms = 5000) const {
    pollfd p = {modem_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return {};
    Bytes out(4096);
    const ssize_t n = recv(modem_, out.data(), out.size(), MSG_DONTWAIT);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
  }
  void end_of_file() const { shutdown(modem_, SHUT_WR); }   // reads see EOF; writes still go through
  void close_daemon_end() const { close(qmitty_fd); qmitty_fd = -1; }   // the daemon's reads and writes fail

 private:
  int modem_ = -1;
};

// What f printed on standard output; f's result goes to *ret.
template <class F>
std::string printed_by(F f, int* ret) {
  testing::internal::CaptureStdout();
  *ret = f();
  return testing::internal::GetCapturedStdout();
}

// Polls cond for up to 5 s; a failure when it never held.
template <class Cond>
void wait_until(Cond cond, const char* what) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << what;
      return;
    }
    std::this_thread::yield();
  }
}

// Every SIGALRM the test's handler saw.
inline std::atomic<int> g_test_ticks{0};

// Installs a tick handler that advances g_wait_ticks as the daemon's does,
// without SA_RESTART so a tick ends a blocked call with EINTR; with an
// interval, a timer sends the ticks too. Both undone at destruction.
class Ticker {
 public:
  explicit Ticker(int interval_us = 0) {
    struct sigaction action = {};
    action.sa_handler = [](int) {
      g_wait_ticks = static_cast<uint8_t>(g_wait_ticks + 1);
      g_test_ticks.fetch_add(1);
    };
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved_);
    const itimerval timer = {{0, interval_us}, {0, interval_us}};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  ~Ticker() {
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved_, nullptr);
  }

 private:
  struct sigaction saved_ = {};
};

// Runs main() on this thread while peer() runs on one that ticks never
// reach, with a timer ticking every interval_us (0: none); main()'s result.
template <class Main, class Peer>
int run_with_peer(int interval_us, Main main, Peer peer) {
  Ticker ticker(interval_us);
  sigset_t alarm, saved;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm, &saved);
  std::thread thread(peer);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  const int ret = main();
  thread.join();
  return ret;
}

// Runs wait() while modem(tick) plays the modem on a peer thread; tick()
// sends one tick and returns once its handler has run, so no two ticks
// merge. The modem starts once the wait has (a tick before it would be lost
// to the wait's reset of the count); when it returns true, ticks go on until
// the wait is over.
template <class Wait, class Modem>
int wait_with_ticks(Wait wait, Modem modem) {
  constexpr uint8_t kNotWaiting = 200;
  const pthread_t waiter = pthread_self();
  std::atomic<bool> done{false};
  const auto tick = [&] {
    const int before = g_test_ticks.load();
    pthread_kill(waiter, SIGALRM);
    wait_until([&] { return g_test_ticks.load() != before; }, "tick not handled");
  };
  g_wait_ticks = kNotWaiting;
  return run_with_peer(0, [&] {
    const int ret = wait();
    done = true;
    return ret;
  }, [&] {
    wait_until([] { return g_wait_ticks != kNotWaiting; }, "the wait did not start");
    if (modem(tick)) {
      while (!done.load()) tick();
    }
  });
}
