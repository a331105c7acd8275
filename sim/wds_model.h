// SPDX-License-Identifier: ISC
// The modem's Wireless Data Service as the daemon sees it in QMI mode: one
// client, one call, answers in the big-endian dialect, and behaviours a test
// switches at run time.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "sim/qmi_wire.h"
#include "sim/runtime.h"

namespace sim {

// An address of 0 leaves its TLV out.
struct WdsSettings : CallAddresses {
  std::string user = "wds";
  uint8_t auth = 0;
  uint32_t handle = 0x1A2B3C4D;
  // The status indication that follows a start-network response.
  enum class Ind { kSame, kSeparate, kNone } ind = Ind::kSeparate;
  int ind_delay_ms = 0;
  uint8_t ind_status = qmi::kStatusConnected;
  uint8_t ind_reconf = 0;
  // The indication that follows a stop-network response.
  bool stop_ind = true;
  int stop_reason = 1;  // -1: no reason TLV
  // A start while a call is up is answered "No Effect", as a modem does.
  bool refuse_second_start = true;
};

// How the next request(s) of one message id are answered.
struct WdsRule {
  int times = -1;  // -1: until cleared
  bool silent = false;
  std::optional<uint16_t> fail;
  int delay_ms = 0;
  std::optional<size_t> truncate;  // keep only the first N bytes
  std::optional<uint16_t> mlen;    // overwrite the header's length field
  bool bad_result = false;         // result TLV with length 5
  bool extra_tlv = false;          // one more TLV (0x10, 1 byte) at the end
  std::optional<uint16_t> other;   // first a response with this id
  std::optional<std::string> raw;  // these bytes instead of the answer
  bool dup = false;                // the answer twice
};

class WdsModel : public Model {
 public:
  explicit WdsModel(ModemIo io);

  void on_write(std::string_view bytes) override;
  std::optional<std::string> command(const std::vector<std::string>& words) override;
  bool set(const std::string& key, const std::string& value) override;
  std::string describe() override;
  void on_unplug() override;
  void reset() override;

  // Parses "on <msg> <token>..." arguments (after the message name).
  static WdsRule parse_rule(const std::vector<std::string>& tokens, size_t from);

 private:
  void handle_request(const qmi::Message& req);
  std::string normal_answer(const qmi::Message& req, std::vector<std::string>* follow_up);
  std::string indication(uint8_t status, uint8_t reconf, int reason) const;
  void send(std::vector<std::string> blocks, int delay_ms);

  ModemIo io_;
  std::mutex mu_;
  WdsSettings settings_;
  std::map<uint16_t, std::deque<WdsRule>> rules_;
  uint8_t call_status_ = qmi::kStatusDisconnected;
  uint32_t live_handle_ = 0;
  uint64_t epoch_ = 0;  // answers scheduled before an unplug are dropped
  uint64_t requests_ = 0;
};

}  // namespace sim
