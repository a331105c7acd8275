// SPDX-License-Identifier: ISC
#include "sim/tun_reader.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace sim {

TunReader::TunReader(Recorder* recorder) : recorder_(recorder) {}

TunReader::~TunReader() { close(); }

void TunReader::open(const std::string& name) {
  if (fd_ >= 0) throw CommandError("tun already open");
  int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (fd < 0) throw CommandError(std::string("open /dev/net/tun: ") + strerror(errno));
  ifreq ifr{};
  ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
  snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", name.c_str());
  if (ioctl(fd, TUNSETIFF, &ifr) != 0) {
    int err = errno;
    ::close(fd);
    throw CommandError("TUNSETIFF " + name + ": " + strerror(err));
  }
  if (pipe2(wake_, O_CLOEXEC) != 0) {
    ::close(fd);
    throw CommandError("pipe failed");
  }
  name_ = name;
  fd_ = fd;
  thread_ = std::thread([this] { loop(); });
  if (recorder_) recorder_->event("tun open " + name);
}

void TunReader::close() {
  if (fd_ < 0) return;
  char b = 0;
  ssize_t n = write(wake_[1], &b, 1);
  (void)n;
  thread_.join();
  ::close(fd_);
  ::close(wake_[0]);
  ::close(wake_[1]);
  fd_ = -1;
  wake_[0] = wake_[1] = -1;
  if (recorder_) recorder_->event("tun close " + name_);
}

void TunReader::loop() {
  block_main_signals();
  char packet[65536];
  for (;;) {
    pollfd fds[2] = {{wake_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents & POLLIN) return;  // asked to stop
    if (fds[1].revents & POLLIN) {
      ssize_t n = read(fd_, packet, sizeof packet);
      if (n <= 0) continue;
      packets_ += 1;
      bytes_ += static_cast<uint64_t>(n);
      if (recorder_) recorder_->bytes("net", std::string_view(packet, static_cast<size_t>(n < 128 ? n : 128)));
    }
  }
}

std::string TunReader::describe() {
  return "tun=" + std::string(fd_ >= 0 ? name_ : "closed") + " tun-packets=" + std::to_string(packets_.load()) +
         " tun-bytes=" + std::to_string(bytes_.load());
}

}  // namespace sim
