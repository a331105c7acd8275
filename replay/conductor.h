// SPDX-License-Identifier: ISC
// A replay run: the unchanged daemon in a sandbox of its own, the simulator
// playing the plan's script, and the outside's part played at the points
// of the log where it shows, until the replayed log has gone as far as the
// original, parted from it, or stalled.
#pragma once
#include <string>
#include <vector>

#include "replay/entries.h"
#include "replay/plan.h"

namespace replay {

struct RunOptions {
  std::string daemon;   // wdsd to run
  std::string sandbox;  // wds-sandbox
  std::string dir;      // the sandbox's exchange directory
  double limit_s = 0;   // the whole run at most, 0: no limit
};

struct RunResult {
  std::vector<Entry> replayed;  // from where the comparison starts
  Keys keys;
  double seconds = 0;           // from the sandbox's start to the end of the run
  std::string ended;            // why the run ended
  std::vector<std::string> done;  // what the outside did, and when
  std::string script_note;      // what the simulator said of its script
};

// Throws std::runtime_error when the sandbox cannot be run.
RunResult run_replay(const Plan& plan, const RunOptions& options);

}  // namespace replay
