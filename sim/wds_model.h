// SPDX-License-Identifier: ISC
// The modem's Wireless Data Service as the daemon sees it in QMI mode: one
// client, one call, answers in the big-endian dialect, behaviours a test
// switches at run time, or a replay's script in their place.
#pragma once
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "sim/qmi_wire.h"
#include "sim/runtime.h"
#include "sim/wds_script.h"

namespace sim {

// An address of 0 leaves its TLV out.
struct WdsSettings : CallAddresses {
  uint32_t handle = 0x1A2B3C4D;
  // The status indication that follows a start-network response, in a read
  // of its own.
  bool start_ind = true;
  uint8_t start_ind_reconf = 0;
};

// How the next request(s) of one message id are answered.
struct WdsRule {
  int times = -1;  // -1: until cleared
  bool silent = false;
  std::optional<uint16_t> fail;
  int delay_ms = 0;
};

class WdsModel : public Model {
 public:
  explicit WdsModel(ModemIo io);

  int on_write(std::string_view bytes, int device_errno) override;
  void on_interrupted_read() override;
  std::optional<std::string> command(const std::vector<std::string>& words) override;
  bool set(const std::string& key, const std::string& value) override;
  std::string describe() override;
  void on_unplug() override;

 private:
  void handle_request(const qmi::Message& req);
  std::string normal_answer(const qmi::Message& req, std::vector<std::string>* follow_up);
  std::string indication(uint8_t status, uint8_t reconf, int reason) const;
  void end_call();

  ModemIo io_;
  std::mutex mu_;
  WdsSettings settings_;
  std::map<uint16_t, std::deque<WdsRule>> rules_;
  std::optional<ScriptPlayer> script_;
  uint8_t call_status_ = qmi::kStatusDisconnected;
  uint32_t live_handle_ = 0;
  uint64_t epoch_ = 0;  // answers scheduled before an unplug are dropped
  uint64_t requests_ = 0;
};

}  // namespace sim
