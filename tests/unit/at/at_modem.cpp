#include "at_modem.h"

#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

constexpr size_t kMaxPiece = 500;

volatile sig_atomic_t g_seen_ticks = 0;
int g_stop_after = 0;
int g_reply_fd = -1;
int g_reply_at_tick = 0;
const char* g_reply = nullptr;
struct sigaction g_saved_alarm;

void stop_timer() {
  struct itimerval off = {};
  setitimer(ITIMER_REAL, &off, nullptr);
}

void on_alarm(int) {
  at_tick();
  g_seen_ticks = g_seen_ticks + 1;
  if (g_reply_at_tick > 0 && g_seen_ticks == g_reply_at_tick) {
    send(g_reply_fd, g_reply, strlen(g_reply), MSG_NOSIGNAL | MSG_DONTWAIT);
    stop_timer();
  }
  if (g_seen_ticks >= g_stop_after) stop_timer();
}

}  // namespace

void fresh_channel() {
  at_rx_ring.wpos = -1;
  at_rx_ring.rpos = -1;
  g_at_line_acc[0] = '\0';
  g_at_pending_cr = 0;
  g_at_wait_state = AT_WAIT_PARSE;
  g_at_ticks = 0;
}

SeqModem::SeqModem() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0) {
    port_ = fds[0];
    peer_ = fds[1];
  }
  g_at_fd = port_;
}

SeqModem::~SeqModem() {
  // Closing the port first releases a feeder blocked on a full queue.
  if (g_at_fd == port_) g_at_fd = -1;
  if (port_ >= 0) close(port_);
  if (feeder_.joinable()) feeder_.join();
  if (peer_ >= 0) close(peer_);
}

void SeqModem::feed(const std::vector<std::string>& chunks, bool hang_up_after) {
  std::vector<std::string> pieces;
  for (const auto& chunk : chunks) {
    for (size_t at = 0; at < chunk.size(); at += kMaxPiece) pieces.push_back(chunk.substr(at, kMaxPiece));
  }
  if (feeder_.joinable()) feeder_.join();
  // The feeder must never take a signal meant for the code under test.
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &saved);
  const int peer = peer_;
  feeder_ = std::thread([peer, pieces, hang_up_after] {
    for (const auto& piece : pieces) {
      if (send(peer, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) return;
    }
    if (hang_up_after) shutdown(peer, SHUT_WR);
  });
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

void SeqModem::send_now(const std::string& chunk) {
  send(peer_, chunk.data(), chunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void SeqModem::hang_up() {
  if (feeder_.joinable()) feeder_.join();
  shutdown(peer_, SHUT_WR);
}

std::string SeqModem::written() {
  std::string out;
  char buf[1024];
  for (;;) {
    const ssize_t n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT);
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

PtyModem::PtyModem() {
  if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0) return;
  struct termios tio;
  tcgetattr(slave_, &tio);
  cfmakeraw(&tio);
  tcsetattr(slave_, TCSANOW, &tio);
  g_at_fd = slave_;
}

PtyModem::~PtyModem() {
  if (g_at_fd == slave_) g_at_fd = -1;
  if (slave_ >= 0) close(slave_);
  if (master_ >= 0) close(master_);
}

void PtyModem::send(const std::string& bytes) {
  size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t n = write(master_, bytes.data() + at, bytes.size() - at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    at += static_cast<size_t>(n);
  }
}

std::string PtyModem::command() {
  std::string out;
  while (out.find('\r') == std::string::npos) {
    struct pollfd pfd = {master_, POLLIN, 0};
    if (poll(&pfd, 1, 2000) <= 0) break;
    char c;
    if (read(master_, &c, 1) != 1) break;
    out.push_back(c);
  }
  return out;
}

TickDriver::TickDriver(int stop_after, int reply_fd, int reply_at_tick, const char* reply, int period_us) {
  g_seen_ticks = 0;
  g_stop_after = stop_after;
  g_reply_fd = reply_fd;
  g_reply_at_tick = reply_at_tick;
  g_reply = reply;
  struct sigaction action = {};
  action.sa_handler = on_alarm;  // no SA_RESTART: the tick interrupts a blocked read
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, &g_saved_alarm);
  struct itimerval every = {{0, period_us}, {0, period_us}};
  setitimer(ITIMER_REAL, &every, nullptr);
}

TickDriver::~TickDriver() {
  stop_timer();
  sigaction(SIGALRM, &g_saved_alarm, nullptr);
}

int TickDriver::ticks() const { return g_seen_ticks; }

AtOutcome send_command(const std::string& command, const std::string& prefix, int32_t timeout,
                       uint32_t save_to_file) {
  at_request req;
  memset(&req, 0, sizeof req);
  req.kind = kAtKind;
  req.seq = at_next_seq();
  req.timeout = timeout;
  req.save_to_file = save_to_file;
  memcpy(req.body.in.command, command.data(), std::min(command.size(), sizeof req.body.in.command));
  memcpy(req.body.in.reply_prefix, prefix.data(), std::min(prefix.size(), sizeof req.body.in.reply_prefix));
  int err = -12345;
  const int ret = at_send_command(&req, &err);
  return {ret, err, req.body.out.result,
          std::string(req.body.out.response, strnlen(req.body.out.response, sizeof req.body.out.response))};
}

std::string ring_contents() {
  std::string out;
  if (at_rx_ring.rpos < 0) return out;
  for (int32_t at = at_rx_ring.rpos; at != at_rx_ring.wpos; at = (at + 1) % kAtRingSize) {
    if (at_rx_ring.buf[at] != 0) out.push_back(static_cast<char>(at_rx_ring.buf[at]));
  }
  return out;
}
