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
  uint32_t max_rx = 150000000;
  uint32_t max_tx = 50000000;
  bool echo = false;
  // "No address yet" for the first dhcp_wait queries after each dial,
  // answered ERROR or with a ^DHCP line whose address is 0.
  int dhcp_wait = 0;
  bool dhcp_wait_zero = false;
  int ipv6cap = 1;
  bool ndisstat = false;  // ^NDISSTAT report after dial and hang-up
  // Every answer is cut at these offsets into separate read blocks.
  std::vector<size_t> split_at;
  size_t split_every = 0;
};

struct AtRule {
  int times = -1;
  bool silent = false;
  int delay_ms = 0;
  enum class Final { kNormal, kOk, kError, kCme } final = Final::kNormal;
  int cme = 0;
  std::optional<std::string> raw;  // whole answer text instead
};

// Which command a line is, by its leading text.
enum class AtCommand { kDial, kHangUp, kDhcp, kIpv6Cap, kEchoOff, kEchoOn, kCmee, kCurc, kAt, kOther };
AtCommand classify_at(std::string_view line);
std::optional<AtCommand> parse_at_key(std::string_view key);
// "^DHCP: <clip>,<netmask>,<gate>,<dhcp>,<pDNS>,<sDNS>,<max_rx>,<max_tx>":
// addresses as 8 lower-case hex digits, first pair = first octet.
std::string dhcp_line(uint32_t clip, uint32_t mask, uint32_t gate, uint32_t dhcp, uint32_t dns1, uint32_t dns2,
                      uint32_t rx, uint32_t tx);
// Cuts `text` at the offsets (ascending, in range) and/or every `every`
// bytes; empty pieces are dropped.
std::vector<std::string> split_blocks(const std::string& text, const std::vector<size_t>& at, size_t every);

class AtModel : public Model {
 public:
  explicit AtModel(ModemIo io);

  void on_write(std::string_view bytes) override;
  std::optional<std::string> command(const std::vector<std::string>& words) override;
  bool set(const std::string& key, const std::string& value) override;
  std::string describe() override;
  void on_unplug() override;
  void reset() override;

 private:
  void handle_line(const std::string& line);
  std::string answer(AtCommand cmd, const std::string& line, const AtRule& rule);
  void send_text(std::string text, int delay_ms);

  ModemIo io_;
  std::mutex mu_;
  AtSettings settings_;
  std::map<AtCommand, std::deque<AtRule>> rules_;
  std::string pending_line_;
  bool dialled_ = false;
  int dhcp_polls_ = 0;
  uint64_t lines_ = 0;
  uint64_t epoch_ = 0;
  // Reports to put into the next answer: before the first line, before the
  // final result, or after it.
  struct Interleave {
    std::string text;
    enum class Where { kBefore, kMiddle, kAfter } where;
  };
  std::vector<Interleave> interleave_;
};

}  // namespace sim
