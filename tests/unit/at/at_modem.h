// The modem side of the AT port for tests.
#pragma once
#include <string>
#include <thread>
#include <vector>

#include "at/at.h"

// Puts the channel's module state (ring, accumulator, pending CR, wait state,
// tick count) back to what it is when the process starts.
void fresh_channel();

// The port on a SOCK_SEQPACKET pair: each chunk the modem sends is exactly one
// read of the port, so tests choose where the modem's output is split.
class SeqModem {
 public:
  SeqModem();
  ~SeqModem();
  // Sends the chunks in order from a helper thread (the pair queues only a
  // few); pieces over 500 bytes are cut so no read truncates them.
  void feed(const std::vector<std::string>& chunks, bool hang_up_after = false);
  // Sends from the calling thread; for the few chunks that fit the queue.
  void send_now(const std::string& chunk);
  void hang_up();
  // Everything the port wrote so far (each write is one message).
  std::string written();
  int peer() const { return peer_; }
  int port() const { return port_; }

 private:
  int port_ = -1;
  int peer_ = -1;
  std::thread feeder_;
};

// The port on a pty in raw mode (the slave is the port).
class PtyModem {
 public:
  PtyModem();
  ~PtyModem();
  void send(const std::string& bytes);
  // Reads what the port wrote up to and including the first "\r"; waits at
  // most two seconds for it.
  std::string command();
  int master() const { return master_; }
  int slave() const { return slave_; }

 private:
  int master_ = -1;
  int slave_ = -1;
};

// Drives at_tick from SIGALRM every few milliseconds, as the daemon's tick
// does, interrupting blocked reads. With reply_at_tick > 0 the handler sends
// `reply` to `reply_fd` at that tick and stops the timer; without, the timer
// stops after `stop_after` ticks. No other thread may run meanwhile.
class TickDriver {
 public:
  explicit TickDriver(int stop_after = 1000, int reply_fd = -1, int reply_at_tick = 0,
                      const char* reply = "\r\nOK\r\n", int period_us = 3000);
  ~TickDriver();
  int ticks() const;
};

struct AtOutcome {
  int ret;
  int err;
  uint32_t result;
  std::string response;
};

// One command through at_send_command with the given prefix and time-out.
AtOutcome send_command(const std::string& command, const std::string& prefix, int32_t timeout = 30,
                       uint32_t save_to_file = 0);

std::string ring_contents();  // bytes still waiting in the ring, not taken
