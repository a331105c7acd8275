// SPDX-License-Identifier: ISC
#include "sim/sandbox/cms_peer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "decode/format.h"
#include "platform/platform.h"
#include "sim/runtime.h"
#include "sim/sandbox/files.h"
#include "sim/sandbox/layout.h"
#include "sim/sandbox/spawn.h"
#include "sim/text.h"

namespace sandbox {

namespace {

constexpr char kBusLog[] = "/run/sandbox/bus.log";
constexpr uint32_t kDemandLinkReady = 0x3d02;
// The kernel drops the default route through the demand gateway when a
// call's address replaces the placeholder, and the daemon's teardown brings
// back only the host route: without this no later traffic reaches the
// interface and no second demand call starts.
constexpr char kDemandRouteCmd[] = "route add default gw 10.112.112.112";

}  // namespace

CmsPeer::CmsPeer(bool reinstall_demand_route) : reinstall_demand_route_(reinstall_demand_route) {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) throw std::runtime_error("bus socket failed");
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string name = std::string(kZunMsgAddrPrefix) + "cms";
  memcpy(addr.sun_path + 1, name.data(), name.size());
  socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  check(bind(fd_, reinterpret_cast<sockaddr*>(&addr), len), "bind bus name cms");
}

CmsPeer::~CmsPeer() {
  if (fd_ >= 0) close(fd_);
}

void CmsPeer::receive() {
  for (;;) {
    unsigned char buf[sizeof(zun_msg_header) + kZunMsgMaxPayload + 1];
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n < 0) return;
    std::string_view bytes(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
    if (bytes.size() < sizeof(zun_msg_header)) {
      append_record(kBusLog, "short " + wdsdecode::hex(bytes));
      continue;
    }
    zun_msg_header h;
    memcpy(&h, buf, sizeof h);
    handle({std::string(h.sender, strnlen(h.sender, sizeof h.sender)), h.type, h.len,
            std::string(bytes.substr(sizeof h))});
  }
}

void CmsPeer::handle(const Message& m) {
  char type[16];
  snprintf(type, sizeof type, "0x%x", m.type);
  append_record(kBusLog, (m.sender.empty() ? "-" : sim::escape(m.sender)) + " " + type + " " + std::to_string(m.len) +
                            " " + (m.payload.empty() ? "-" : wdsdecode::hex(m.payload)));
  if (m.type == kDemandLinkReady && reinstall_demand_route_) {
    std::string outcome = run_to_end({"/bin/sh", "-c", kDemandRouteCmd}, {std::string("PATH=") + kPath}, "/dev/null");
    append_record(kPlatformLog, "cms 0x3d02: " + std::string(kDemandRouteCmd) + " (" + outcome + ")");
  }
}

}  // namespace sandbox
