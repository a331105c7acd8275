// SPDX-License-Identifier: ISC
// The platform bus peer "cms" as the gateway has it, inside the sandbox:
// binds the bus name and records every message it receives in bus.log, one
// line each:
//   <monotonic µs> <sender> <type hex> <len> <payload hex or ->
//   <monotonic µs> short <hex>             a datagram without a whole header
// On 0x3d02 (demand link ready) it runs "route add default gw 10.112.112.112",
// as the gateway's cms does, unless told not to, and records that in
// platform.log:
//   <monotonic µs> cms 0x3d02: route add default gw 10.112.112.112 (exit N)
#pragma once
#include <cstdint>
#include <string>

namespace sandbox {

class CmsPeer {
 public:
  // Throws std::runtime_error when the name cannot be bound.
  explicit CmsPeer(bool reinstall_demand_route);
  ~CmsPeer();
  CmsPeer(const CmsPeer&) = delete;
  CmsPeer& operator=(const CmsPeer&) = delete;

  // Non-blocking; readable when a message waits.
  int fd() const { return fd_; }
  // Takes every waiting message.
  void receive();

 private:
  struct Message {
    std::string sender;  // as sent, may be empty
    uint32_t type;
    uint32_t len;        // as the header claims
    std::string payload;
  };
  void handle(const Message& m);

  bool reinstall_demand_route_;
  int fd_ = -1;
};

}  // namespace sandbox
