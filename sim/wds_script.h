// SPDX-License-Identifier: ISC
// The modem's side of a recorded run, for a replay: each write of the
// daemon in order, what became of it, and the blocks the daemon read before
// its next write. A script is text, one item a line:
//   write MSG [refuse=ERRNO]   the daemon's next write is a request of MSG
//                              (a message word or 0xNNNN), refused with ERRNO
//   read [after=N] HEX         a block for the daemon's next read; with after,
//                              only once N reads waiting on the tty have been
//                              ended by a signal (the daemon's ticks)
//   gone [after=N]             the tty goes away: the next read fails with ENODEV
// Lines starting with '#' and blank lines say nothing.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sim/runtime.h"

namespace sim {

struct ScriptItem {
  enum class Kind { kWrite, kRead, kGone };
  Kind kind = Kind::kWrite;
  uint16_t msg = 0;    // kWrite
  int refuse = 0;      // kWrite
  int after = 0;       // kRead, kGone
  std::string bytes;   // kRead
};

// Throws CommandError naming the line of a bad item.
std::vector<ScriptItem> parse_script(std::string_view text);

// Plays a script to the daemon: answers each write with the reads that
// follow it. A write the script does not expect ends the play: what follows
// could only be a guess.
class ScriptPlayer {
 public:
  ScriptPlayer(std::vector<ScriptItem> items, const ModemIo* io);
  // The errno the write fails with, or 0.
  int on_write(std::string_view bytes, int device_errno);
  void on_interrupted_read();
  // "script=<items played>/<items>", and "script-parted=1" once a write
  // was not the one expected.
  std::string describe() const;

 private:
  void release();
  void part(const std::string& why);

  std::vector<ScriptItem> items_;
  const ModemIo* io_;
  size_t next_ = 0;
  int interrupts_ = 0;  // since the last write or block
  bool parted_ = false;
  bool ended_ = false;  // a write came after the last item
};

}  // namespace sim
