#include "qmi_test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <sstream>

#include "log/log.h"
#include "private_var.h"
#include "qmi/qmi.h"

std::atomic<int> g_test_ticks{0};

namespace {

const char kLogPath[] = "/var/log/wds.log";

void test_tick(int) {
  g_wait_ticks = static_cast<uint8_t>(g_wait_ticks + 1);
  g_test_ticks.fetch_add(1);
}

}  // namespace

Bytes hex(std::string_view text) {
  Bytes out;
  int nibbles = 0;
  unsigned value = 0;
  for (char c : text) {
    if (c == ' ' || c == ',' || c == '\n') continue;
    unsigned digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      digit = static_cast<unsigned>(c - 'A' + 10);
    } else {
      ADD_FAILURE() << "not a hex digit: " << c;
      return out;
    }
    value = value * 16 + digit;
    if (++nibbles == 2) {
      out.push_back(static_cast<uint8_t>(value));
      nibbles = 0;
      value = 0;
    }
  }
  EXPECT_EQ(nibbles, 0) << "odd number of hex digits in " << text;
  return out;
}

std::string to_hex(const Bytes& bytes) {
  std::string out;
  char cell[4];
  for (uint8_t b : bytes) {
    snprintf(cell, sizeof cell, "%02x ", b);
    out += cell;
  }
  if (!out.empty()) out.pop_back();
  return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

Bytes qmi_message(uint8_t ctl_flag, uint16_t tx_id, uint16_t msg_type, const Bytes& tlvs) {
  Bytes out = {ctl_flag,
               static_cast<uint8_t>(tx_id >> 8),
               static_cast<uint8_t>(tx_id),
               static_cast<uint8_t>(msg_type >> 8),
               static_cast<uint8_t>(msg_type),
               static_cast<uint8_t>(tlvs.size() >> 8),
               static_cast<uint8_t>(tlvs.size())};
  out.insert(out.end(), tlvs.begin(), tlvs.end());
  return out;
}

Bytes from_id(uint16_t msg_type, const Bytes& tlvs) {
  const Bytes whole = qmi_message(0x02, 0, msg_type, tlvs);
  return Bytes(whole.begin() + 3, whole.end());
}

Bytes result_tlv(uint16_t result, uint16_t error) {
  return {0x02, 0x00, 0x04, static_cast<uint8_t>(result >> 8), static_cast<uint8_t>(result),
          static_cast<uint8_t>(error >> 8), static_cast<uint8_t>(error)};
}

void reset_qmi_state() {
  g_tx_id = 0;
  g_qmi_result = 1;
  g_qmi_error = 0;
  qmitty_fd = -1;
  g_wait_ticks = 0;
  connection_status = 1;
  reconfiguration_flag = 0;
  g_connection_status_rsp = 1;
  conn_handle = 0;
  g_connect_ticks = 0;
  link_settings = {};
  wan_profile = {};
}

void QmiTest::SetUp() {
  restart_log();
  reset_qmi_state();
}

void QmiTest::restart_log() {
  log_close();
  reset_private_var("rmnet0");
  log_bytes = 0;
  ASSERT_GE(log_open(), 0);
}

void QmiTest::TearDown() {
  log_close();
  reset_qmi_state();
}

std::vector<std::string> QmiTest::log_lines() const {
  std::vector<std::string> lines;
  std::istringstream in(read_text_file(kLogPath));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> QmiTest::log_messages() const {
  std::vector<std::string> messages;
  for (const std::string& line : log_lines()) {
    const bool record = line.rfind("[ info][", 0) == 0 || line.rfind("[error][", 0) == 0;
    if (!record) continue;
    EXPECT_EQ(line.substr(8, 16), "         wds_msg") << line;
    const size_t end = line.find("] ", 8);
    if (end == std::string::npos) continue;
    messages.push_back(line.substr(end + 2));
  }
  return messages;
}

int QmiTest::log_count(std::string_view message) const {
  int count = 0;
  for (const std::string& m : log_messages()) count += (m == message);
  return count;
}

TtyPair::TtyPair() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
    ADD_FAILURE() << "socketpair: " << strerror(errno);
    return;
  }
  qmitty_fd = fds[0];
  modem_ = fds[1];
  // A daemon-side read that would wait for ever fails the test instead.
  timeval guard = {10, 0};
  setsockopt(qmitty_fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
}

TtyPair::~TtyPair() {
  if (qmitty_fd >= 0) close(qmitty_fd);
  qmitty_fd = -1;
  if (modem_ >= 0) close(modem_);
}

void TtyPair::reply(const Bytes& block) const {
  ASSERT_EQ(send(modem_, block.data(), block.size(), MSG_NOSIGNAL), static_cast<ssize_t>(block.size()));
}

Bytes TtyPair::take(int timeout_ms) const {
  pollfd p = {modem_, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) != 1) return {};
  Bytes out(4096);
  const ssize_t n = recv(modem_, out.data(), out.size(), MSG_DONTWAIT);
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

bool TtyPair::pending() const {
  pollfd p = {modem_, POLLIN, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

void TtyPair::end_of_file() { shutdown(modem_, SHUT_WR); }

TickHandler::TickHandler() {
  struct sigaction action = {};
  action.sa_handler = test_tick;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGALRM, &action, &saved_);
}

TickHandler::~TickHandler() { sigaction(SIGALRM, &saved_, nullptr); }

FastTimer::FastTimer(int interval_us) {
  itimerval timer = {};
  timer.it_interval.tv_usec = interval_us;
  timer.it_value.tv_usec = interval_us;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

FastTimer::~FastTimer() {
  itimerval off = {};
  setitimer(ITIMER_REAL, &off, nullptr);
}

void tick_and_wait(pthread_t thread) {
  const int before = g_test_ticks.load();
  pthread_kill(thread, SIGALRM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (g_test_ticks.load() == before) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "tick not handled";
      return;
    }
    std::this_thread::yield();
  }
}

void await_wait_start() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (g_wait_ticks == kNotWaiting) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "the wait did not start";
      return;
    }
    std::this_thread::yield();
  }
}

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  file_ = memfd_create("stdout-capture", MFD_CLOEXEC);
  saved_ = dup(STDOUT_FILENO);
  dup2(file_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() { finish(); }

std::string StdoutCapture::finish() {
  std::string out;
  if (file_ < 0) return out;
  fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  char chunk[512];
  for (off_t at = 0;;) {
    const ssize_t n = pread(file_, chunk, sizeof chunk, at);
    if (n <= 0) break;
    out.append(chunk, static_cast<size_t>(n));
    at += n;
  }
  close(file_);
  file_ = -1;
  return out;
}
