// SPDX-License-Identifier: ISC
#include "sim/sandbox/network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "sim/sandbox/files.h"

namespace sandbox {

void prepare_network() {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) throw std::runtime_error("socket failed");
  ifreq ifr{};
  snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
  check(ioctl(s, SIOCGIFFLAGS, &ifr), "SIOCGIFFLAGS lo");
  ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
  check(ioctl(s, SIOCSIFFLAGS, &ifr), "SIOCSIFFLAGS lo");
  close(s);
  // Without this, bringing the interface up sends IPv6 router
  // solicitations that move its transmit counters.
  for (const char* p : {"/proc/sys/net/ipv6/conf/all/disable_ipv6", "/proc/sys/net/ipv6/conf/default/disable_ipv6"}) {
    int fd = open(p, O_WRONLY | O_CLOEXEC);
    if (fd < 0) continue;
    ssize_t w = write(fd, "1", 1);
    (void)w;  // a kernel without IPv6 has nothing to switch off
    close(fd);
  }
}

}  // namespace sandbox
