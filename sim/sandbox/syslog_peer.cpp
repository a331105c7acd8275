// SPDX-License-Identifier: ISC
#include "sim/sandbox/syslog_peer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "sim/sandbox/files.h"

namespace sandbox {

namespace {

constexpr char kSocketPath[] = "/dev/log";
constexpr char kSyslogLog[] = "/run/sandbox/syslog.log";

// The datagram as it came, but for control bytes and backslashes (\xHH).
std::string printable(const char* data, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    auto c = static_cast<unsigned char>(data[i]);
    if (c >= 0x20 && c != 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

}  // namespace

SyslogPeer::SyslogPeer() {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) throw std::runtime_error("syslog socket failed");
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocketPath);
  check(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), std::string("bind ") + kSocketPath);
}

SyslogPeer::~SyslogPeer() {
  if (fd_ >= 0) close(fd_);
}

void SyslogPeer::receive() {
  char buf[8192];
  for (ssize_t n; (n = recv(fd_, buf, sizeof buf, 0)) >= 0;)
    append_record(kSyslogLog, printable(buf, static_cast<size_t>(n)));
}

}  // namespace sandbox
