// SPDX-License-Identifier: ISC
// The data side of the modem: a tun interface whose packets the modem
// consumes, so that transmit counters move exactly and nothing leaves the
// namespace.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "sim/runtime.h"

namespace sim {

class TunReader {
 public:
  explicit TunReader(Recorder* recorder);
  ~TunReader();
  // Creates the interface (IFF_TUN | IFF_NO_PI) and starts consuming.
  // Throws on failure.
  void open(const std::string& name);
  // Closing the descriptor makes the interface disappear.
  void close();
  std::string describe();

 private:
  void loop();
  Recorder* recorder_;
  std::string name_;
  int fd_ = -1;
  int wake_[2] = {-1, -1};
  std::thread thread_;
  std::atomic<uint64_t> packets_{0}, bytes_{0};
};

}  // namespace sim
