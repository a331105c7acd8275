// SPDX-License-Identifier: ISC
#include "sim/wire_narrator.h"

#include <cstdio>

#include "decode/decode.h"

namespace sim {

namespace {

constexpr size_t kIpv4HeaderMin = 20;

std::string packet_words(std::string_view p) {
  auto byte = [&](size_t i) { return static_cast<uint8_t>(p[i]); };
  if (p.size() < kIpv4HeaderMin || byte(0) >> 4 != 4) return "ip packet, not IPv4, " + std::to_string(p.size()) + " bytes seen";
  const uint8_t proto = byte(9);
  std::string name = proto == 1 ? "ICMP" : proto == 6 ? "TCP" : proto == 17 ? "UDP" : "protocol " + std::to_string(proto);
  auto quad = [&](size_t at) {
    char buf[16];
    snprintf(buf, sizeof buf, "%u.%u.%u.%u", byte(at), byte(at + 1), byte(at + 2), byte(at + 3));
    return std::string(buf);
  };
  const unsigned total = static_cast<unsigned>(byte(2)) << 8 | byte(3);
  return "ip " + name + " " + quad(12) + " -> " + quad(16) + ", " + std::to_string(total) + " bytes";
}

// Printable text as it is, blanks included; other bytes as \xHH.
std::string readable(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out.push_back(static_cast<char>(c));
    } else {
      char buf[5];
      snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> WireNarrator::narrate(std::string_view kind, std::string_view bytes) {
  if (kind == "net") return {packet_words(bytes)};
  if (kind != "rx" && kind != "tx") return {};
  if (dialect_ == Dialect::kAt) {
    std::lock_guard lock(mu_);
    return at_lines(kind == "rx" ? at_rx_ : at_tx_, kind, bytes);
  }
  std::vector<std::string> out;
  for (const auto& m : wdsdecode::describe_block(bytes)) out.push_back("wds " + std::string(kind) + " " + m);
  return out;
}

// AT commands end with CR, the modem's lines are framed by CR LF: either
// ends a line, and the empty ones between them say nothing.
std::vector<std::string> WireNarrator::at_lines(std::string& pending, std::string_view direction,
                                                std::string_view bytes) {
  std::vector<std::string> out;
  for (char c : bytes) {
    if (c != '\r' && c != '\n') {
      pending.push_back(c);
    } else if (!pending.empty()) {
      out.push_back("at " + std::string(direction) + " " + readable(pending));
      pending.clear();
    }
  }
  return out;
}

}  // namespace sim
