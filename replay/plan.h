// SPDX-License-Identifier: ISC
// What a replay of a log does, worked out from the log alone: where the
// comparison starts, the modem's side as a script for the simulator, the
// dial profile, and what the management side and the platform did (dial
// requests, signals, a tty or a profile that was missing, a restart), each
// tied to the point of the log where it shows.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "decode/log_reader.h"
#include "replay/entries.h"

namespace replay {

struct Action {
  enum class Kind {
    kDial,            // write `value` to the dial file
    kSignal,          // signal `value` to the daemon
    kRestart,         // once the daemon has ended, it is started again
    kRemoveProfile,   // no dial profile until kRestoreProfile
    kRestoreProfile,
    kTrafficOn,       // packets out of the interface, for dial on demand
    kTrafficOff,
  };
  Kind kind = Kind::kDial;
  int value = 0;
  size_t at_key = 0;  // done once the replay matches every key of the original before this one
  // A dial that starts a call: at which tick count modulo 3 the daemon
  // should read it, so that its status polls fall as in the original, and
  // whether it reads the file at every tick (idle) or in its bring-up's
  // 3-second polls.
  std::optional<int> residue;
  bool read_at_ticks = false;
  bool after_hang_up = false;  // NDIS: only once the modem's call is down
  std::string why;
};

struct PlanOptions {
  std::optional<std::string> profile;  // the dial profile, when the log cannot tell it
};

struct Plan {
  bool ndis = false;
  size_t first_line = 0;  // of the log, where the comparison starts
  bool from_request = false;  // cut at the bound with no bring-up left: a call is set up first
  bool connected_before = false;  // ... and brought up to connected
  bool tx_aside = false;
  std::string profile;
  std::string script;  // QMI: the modem's side
  std::vector<Action> actions;
  std::vector<std::string> notes;  // what the log cannot tell
  std::vector<Entry> original;     // from first_line on
  Keys keys;
};

Plan make_plan(const std::vector<wdsdecode::LogItem>& items, const PlanOptions& options);

}  // namespace replay
