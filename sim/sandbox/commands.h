// SPDX-License-Identifier: ISC
// PID 1's command socket, init.sock in the exchange directory: one line per
// command, one line back ("ok ..." or "err ..."):
//   ping
//   status                     the daemon and the simulator (Children::describe)
//   kill SIGNAL                to the daemon: TERM, SIGHUP, RTMIN+4, 38, ...
//   start                      the daemon again, once it has ended
//   udp ADDR PORT [LEN] [COUNT]
//   shutdown                   PID 1 copies /var out and leaves
// Commands arrive on the control thread, while PID 1's state belongs to its
// main loop: they are handed over and answered there.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/control.h"
#include "sim/sandbox/children.h"
#include "sim/sandbox/options.h"

namespace sandbox {

class InitCommands {
 public:
  InitCommands(const Options& o, Children& children);
  ~InitCommands();

  // Serves the socket from its own thread. Throws std::runtime_error.
  void start();
  // Readable when commands wait for the main loop.
  int wake_fd() const { return wake_fd_; }
  // Main loop: answers every waiting command.
  void answer_waiting();
  bool shutdown_requested() const { return shutdown_requested_; }
  // Commands still waiting, and those to come, are refused; the socket goes.
  void stop();

 private:
  std::string post(const std::string& line);
  std::string command(const std::string& line);

  const Options& o_;
  Children& children_;
  int wake_fd_ = -1;
  bool shutdown_requested_ = false;
  std::unique_ptr<sim::ControlServer> server_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::string> posted_;
  uint64_t posted_seq_ = 0, answered_seq_ = 0;
  bool closed_ = false;
  std::map<uint64_t, std::string> answers_;
};

}  // namespace sandbox
