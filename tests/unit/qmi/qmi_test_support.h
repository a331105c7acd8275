// Test support for the QMI client: hex byte arrays, the log of the current
// test, a socket pair standing in for the tty, and ticks driven by the test.
#pragma once
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using Bytes = std::vector<uint8_t>;

// "00 01 05" -> {0x00, 0x01, 0x05}; blanks and commas are ignored.
Bytes hex(std::string_view text);
std::string to_hex(const Bytes& bytes);
Bytes concat(std::initializer_list<Bytes> parts);

// A whole message: ctl_flag, txId, msg_type, mlen (the TLVs' size), TLVs.
Bytes qmi_message(uint8_t ctl_flag, uint16_t tx_id, uint16_t msg_type, const Bytes& tlvs);
// The same from the message identifier on, as the parsers take it.
Bytes from_id(uint16_t msg_type, const Bytes& tlvs);
// The result TLV 02 00 04 with the given result and error.
Bytes result_tlv(uint16_t result, uint16_t error);

// Every QMI module variable and the dial profile back to their process-start values.
void reset_qmi_state();

// Fixture: a fresh log in the private /var/log and a fresh QMI state.
class QmiTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Empties the log between the cases of one test.
  void restart_log();
  // Texts of the wds_msg records (prefix removed), in order; dump lines excluded.
  std::vector<std::string> log_messages() const;
  int log_count(std::string_view message) const;
  // Lines of the whole log file, records and dump rows alike.
  std::vector<std::string> log_lines() const;
};

// A SOCK_SEQPACKET pair: one end is qmitty_fd, the other is the modem.
class TtyPair {
 public:
  TtyPair();
  ~TtyPair();
  void reply(const Bytes& block) const;     // one block the daemon will read
  Bytes take(int timeout_ms = 5000) const;  // next message the daemon wrote
  bool pending() const;                     // something written and not taken
  void end_of_file();                       // reads see EOF; writes still go through
  int modem() const { return modem_; }

 private:
  int modem_ = -1;
};

// Counts every SIGALRM the test's handler saw; the handler also advances
// g_wait_ticks as the daemon's tick does.
extern std::atomic<int> g_test_ticks;

// Installs the test tick handler without SA_RESTART, so a tick ends blocked
// calls with EINTR; restores the old one afterwards.
class TickHandler {
 public:
  TickHandler();
  ~TickHandler();

 private:
  struct sigaction saved_ {};
};

// A fast interval timer driving the tick handler.
class FastTimer {
 public:
  explicit FastTimer(int interval_us = 1000);
  ~FastTimer();

 private:
  TickHandler handler_;
};

// Starts a thread with SIGALRM blocked, so every tick goes to the test's thread.
template <class F>
std::thread peer_thread(F&& body) {
  sigset_t alarm, saved;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm, &saved);
  std::thread thread(std::forward<F>(body));
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  return thread;
}

// Sends one tick to the thread and waits until its handler has run, so no
// two ticks ever merge into one pending signal.
void tick_and_wait(pthread_t thread);

// Ticks sent before a wait starts would be lost to its reset of the count:
// set g_wait_ticks to kNotWaiting, and let the ticking thread call
// await_wait_start() before its first tick.
inline constexpr uint8_t kNotWaiting = 200;
void await_wait_start();

// Standard output of the code run between construction and finish(), which
// restores the real one (so failures reported after it are seen).
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  std::string finish();

 private:
  int saved_ = -1;
  int file_ = -1;
};
