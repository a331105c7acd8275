// SPDX-License-Identifier: ISC
// The modem's AT command interpreter in NDIS mode: command lines end with a
// carriage return, answers are framed "\r\n<line>\r\n".
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/runtime.h"

namespace sim {

struct AtSettings : CallAddresses {
  bool echo = false;
  // "No address yet" (ERROR) for the first dhcp_wait queries after each dial.
  int dhcp_wait = 0;
  // Every answer is cut into read blocks of this many bytes (0: whole).
  size_t split_every = 0;
};

struct AtRule {
  int times = -1;
  bool silent = false;
  std::optional<std::string> raw;  // whole answer text instead
};

// Which command a line is, by its leading text.
enum class AtCommand { kDial, kHangUp, kDhcp, kIpv6Cap, kEchoOff, kEchoOn, kCmee, kCurc, kAt, kOther };
AtCommand classify_at(std::string_view line);
std::optional<AtCommand> parse_at_key(std::string_view key);
// "^DHCP: <clip>,<netmask>,<gate>,<dhcp>,<pDNS>,<sDNS>,<max_rx>,<max_tx>":
// addresses as 8 lower-case hex digits, first pair = first octet.
std::string dhcp_line(const CallAddresses& a);

class AtModel : public Model {
 public:
  explicit AtModel(ModemIo io);

  int on_write(std::string_view bytes, int device_errno) override;
  std::optional<std::string> command(const std::vector<std::string>& words) override;
  bool set(const std::string& key, const std::string& value) override;
  std::string describe() override;
  void on_unplug() override;

 private:
  void handle_line(const std::string& line);
  std::string answer(AtCommand cmd, const AtRule& rule);
  void send_text(const std::string& text);

  ModemIo io_;
  std::mutex mu_;
  AtSettings settings_;
  std::map<AtCommand, std::deque<AtRule>> rules_;
  std::string pending_line_;
  bool dialled_ = false;
  int dhcp_polls_ = 0;
  uint64_t lines_ = 0;
  // Reports to put into the next answer: before the first line, before the
  // final result, or after it.
  struct Interleave {
    std::string text;
    enum class Where { kBefore, kMiddle, kAfter } where;
  };
  std::vector<Interleave> interleave_;
};

}  // namespace sim
