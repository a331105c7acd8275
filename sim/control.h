// SPDX-License-Identifier: ISC
// A line-oriented command socket: each line received is one command, each
// answered with one line ("ok ..." or "err ...").
#pragma once
#include <functional>
#include <string>
#include <thread>

namespace sim {

class ControlServer {
 public:
  using Handler = std::function<std::string(const std::string& line)>;
  ControlServer(std::string path, Handler handler);
  ~ControlServer();
  // Binds and starts serving on its own thread. Throws on failure.
  void start();
  void stop();

 private:
  void loop();
  std::string path_;
  Handler handler_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

// Client side: sends one command line and returns the answer line (without
// its newline). Throws std::runtime_error when the socket cannot be reached.
std::string control_request(const std::string& path, const std::string& line, int timeout_ms = 10000);

}  // namespace sim
