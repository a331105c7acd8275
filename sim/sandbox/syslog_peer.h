// SPDX-License-Identifier: ISC
// A stand-in for the gateway's syslog daemon: binds /dev/log and records
// every datagram that reaches it in syslog.log, one line each, the datagram
// as it came but for control bytes and backslashes, written \xHH:
//   <monotonic µs> <30>Nov 24 09:04:05 wdsd[8]: ===>QMITTY can be opened fd = 3
#pragma once

namespace sandbox {

class SyslogPeer {
 public:
  // Throws std::runtime_error when /dev/log cannot be bound.
  SyslogPeer();
  ~SyslogPeer();
  SyslogPeer(const SyslogPeer&) = delete;
  SyslogPeer& operator=(const SyslogPeer&) = delete;

  // Non-blocking; readable when a datagram waits.
  int fd() const { return fd_; }
  // Records every waiting datagram.
  void receive();

 private:
  int fd_ = -1;
};

}  // namespace sandbox
