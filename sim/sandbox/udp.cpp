// SPDX-License-Identifier: ISC
#include "sim/sandbox/udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "sim/text.h"

namespace sandbox {

std::string send_udp(const std::vector<std::string>& words) {
  if (words.size() < 3 || words.size() > 5) return "err usage: udp ADDR PORT [LEN] [COUNT]";
  auto addr = sim::parse_ipv4(words[1]);
  auto port = sim::parse_uint(words[2], 65535);
  auto len = words.size() > 3 ? sim::parse_uint(words[3], 65507) : std::optional<uint64_t>(32);
  auto count = words.size() > 4 ? sim::parse_uint(words[4], 10000) : std::optional<uint64_t>(1);
  if (!addr || !port || !len || !count) return "err usage: udp ADDR PORT [LEN] [COUNT]";
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return "err socket failed";
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(*port));
  to.sin_addr.s_addr = htonl(*addr);
  std::string payload(*len, 'x');
  uint64_t sent = 0;
  for (uint64_t i = 0; i < *count; ++i)
    if (sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >= 0) ++sent;
  int err = errno;
  close(s);
  if (sent == 0) return std::string("err sendto: ") + strerror(err);
  return "ok sent=" + std::to_string(sent);
}

}  // namespace sandbox
