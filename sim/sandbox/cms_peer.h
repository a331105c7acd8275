// The platform bus peer "cms" as the gateway has it, inside the sandbox:
// binds the bus name and records every message it receives in bus.log, one
// line each:
//   <monotonic µs> <sender> <type hex> <len> <payload hex or ->
//   <monotonic µs> short <hex>             a datagram without a whole header
#pragma once
#include <cstdint>
#include <string>

namespace sandbox {

class CmsPeer {
 public:
  // Throws std::runtime_error when the name cannot be bound.
  CmsPeer();
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

  int fd_ = -1;
};

}  // namespace sandbox
