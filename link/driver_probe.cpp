// SPDX-License-Identifier: ISC
// The driver's private request, sent on the interface once the link is configured.
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "link/link.h"

namespace {
constexpr int kProbeDataSize = 32;
}

int usbnet_private_probe(const char* ifname) {
  int sock = socket(AF_INET, SOCK_DGRAM, 0);
  if (sock < 0) return -1;
  ifreq request;
  memset(&request, 0, sizeof request);
  unsigned char data[kProbeDataSize] = {};
  if (ifname != nullptr) {
    memcpy(request.ifr_name, ifname, strnlen(ifname, sizeof request.ifr_name - 1));
  }
  request.ifr_data = reinterpret_cast<char*>(data);
  int result = ioctl(sock, SIOCDEVPRIVATE, &request);
  close(sock);
  return result == 0 ? 0 : -1;
}
