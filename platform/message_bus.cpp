// SPDX-License-Identifier: ISC
// Message bus stand-in: abstract Unix datagram sockets, one name per peer.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace {

int g_bus_fd = -1;
char g_bus_name[kZunMsgNameSize];

socklen_t bus_address(const char* name, sockaddr_un* addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  // Abstract namespace: sun_path starts with a NUL and is not terminated.
  int len = snprintf(addr->sun_path + 1, sizeof addr->sun_path - 1, "%s%s", kZunMsgAddrPrefix, name);
  if (len < 0) len = 0;
  size_t max = sizeof addr->sun_path - 1;
  size_t used = static_cast<size_t>(len) < max ? static_cast<size_t>(len) : max;
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + used);
}

}  // namespace

int ZUN_MSG_Init(const char* name) {
  if (name == nullptr) return -1;
  if (g_bus_fd >= 0) close(g_bus_fd);
  snprintf(g_bus_name, sizeof g_bus_name, "%s", name);
  g_bus_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (g_bus_fd < 0) return -1;
  sockaddr_un addr;
  socklen_t addr_len = bus_address(name, &addr);
  // A name still held by an earlier registration is not an error: the
  // daemon only sends, so an unbound socket serves as well.
  bind(g_bus_fd, reinterpret_cast<sockaddr*>(&addr), addr_len);
  return 0;
}

int ZUN_MSG_SendMsgData(const char* receiver, uint32_t type, const void* data, uint32_t len) {
  if (receiver == nullptr || g_bus_fd < 0) return -1;
  if (len > kZunMsgMaxPayload || (len > 0 && data == nullptr)) return -1;

  unsigned char datagram[sizeof(zun_msg_header) + kZunMsgMaxPayload];
  zun_msg_header header = {};
  memcpy(header.sender, g_bus_name, sizeof header.sender);
  header.type = type;
  header.len = len;
  memcpy(datagram, &header, sizeof header);
  if (len > 0) memcpy(datagram + sizeof header, data, len);

  sockaddr_un addr;
  socklen_t addr_len = bus_address(receiver, &addr);
  ssize_t sent = sendto(g_bus_fd, datagram, sizeof header + len, MSG_DONTWAIT,
                        reinterpret_cast<sockaddr*>(&addr), addr_len);
  return sent == static_cast<ssize_t>(sizeof header + len) ? 0 : -1;
}
