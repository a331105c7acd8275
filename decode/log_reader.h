// SPDX-License-Identifier: ISC
// The daemon's log taken apart: its records (level, module, source line,
// process id, text) and its message dumps (the bytes of their rows). A dump
// is a header line "message(0x%04x) buf(%dbytes)" (the id's two bytes show
// swapped) and one row per 16 bytes, "%04d: " and "%02x " per byte with
// three more blanks after the eighth. The log restarts at 64 KiB and copies
// of it are cut anywhere, so a dump may lack its start or its end: it then
// holds the bytes that are there.
#pragma once
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace wdsdecode {

struct LogItem {
  enum class Kind {
    kRecord,  // "[ info][module:line:pid=N] text" or "[error]..."
    kDump,    // a message dump
    kOther,   // any other line: an empty one, rows whose header was lost, garbage
  };
  Kind kind = Kind::kOther;
  size_t line_no = 0;  // of its first line in the input, from 1
  std::string raw;     // the line as it is (records and other lines)
  // Records.
  bool error = false;
  std::string module;
  int source_line = 0, pid = 0;
  std::string text;  // after the prefix, as written
  // Dumps.
  std::string bytes;
  size_t announced = 0;  // the length its header gave
  bool read = false;     // a block the daemon read (after "read msg len"), else one it wrote
  bool cut() const { return bytes.size() < announced; }
};

// Line by line, as a file is read; every item goes to the sink once whole.
class LogReader {
 public:
  using Sink = std::function<void(const LogItem&)>;
  explicit LogReader(Sink sink);
  void line(std::string_view text);  // without its newline
  void finish();                     // end of input: a dump still open goes out

 private:
  bool take_dump_row(std::string_view text);
  void close_dump();

  Sink sink_;
  size_t line_no_ = 0;
  bool in_dump_ = false;
  bool last_was_read_len_ = false;
  LogItem dump_;
};

std::vector<LogItem> read_log(std::string_view text);

// Each line of `text` without its newline, the last one also when no
// newline ends it.
void each_line(std::string_view text, const std::function<void(std::string_view)>& fn);

// A record's text without the error suffix's "<strerror text>": the C
// libraries word errors differently, the number says the same.
std::string without_error_text(std::string_view text);

}  // namespace wdsdecode
