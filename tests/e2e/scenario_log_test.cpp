// The daemon's log over a long, busy run: the file stays within its bound of
// 65536 counted bytes, restarts from empty when a record takes the count
// past it, and holds nothing but well-formed records and message dumps.
#include <algorithm>
#include <cctype>
#include <string_view>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

constexpr size_t kLimit = 65536;
constexpr size_t kRecordMax = 1024;  // the writer formats into this many bytes
constexpr int kManualConnect = 37;   // while connected: one record per signal
constexpr char kManualNote[] = "wds_manual_connect_handle : connected or connecting";

// What the log holds, taken apart line by line.
struct LogCheck {
  std::vector<std::string> bad;  // lines that are neither record nor dump
  size_t counted = 0;            // bytes the writer counts for these items
  size_t first_item = 0;         // the count of the first item alone
  size_t items = 0;
  size_t notes = 0;  // records of kManualNote
  bool starts_with_item = false;
};

bool each_is(std::string_view s, int (*is)(int)) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [&](char c) { return is(static_cast<unsigned char>(c)); });
}
int is_lower_hex(int c) { return isdigit(c) || (c >= 'a' && c <= 'f'); }

// A field printed with "%<width>s" or "%<width>d": blanks, then the value,
// or the value alone when it is wider.
std::string_view right_aligned(std::string_view field, size_t width) {
  size_t lead = field.find_first_not_of(' ');
  if (lead == std::string_view::npos || field.size() < width || (lead > 0 && field.size() != width)) return {};
  return field.substr(lead);
}

// "[ info][%16s:%4d:pid=%3d] " or "[error][...]" and the text; error
// records end with " errno = %d <%s> ".
bool is_record(std::string_view line, int pid, bool* is_note) {
  if (!line.starts_with("[ info][") && !line.starts_with("[error][")) return false;
  size_t colon1 = line.find(':', 8);
  if (colon1 == std::string_view::npos) return false;
  std::string_view module = right_aligned(line.substr(8, colon1 - 8), 16);
  if (module != "main" && module != "wds_msg" && module != "atrwapi") return false;
  size_t colon2 = line.find(':', colon1 + 1);
  if (colon2 == std::string_view::npos || !each_is(right_aligned(line.substr(colon1 + 1, colon2 - colon1 - 1), 4), isdigit))
    return false;
  size_t close = line.find("] ", colon2);
  if (line.substr(colon2, 5) != ":pid=" || close == std::string_view::npos ||
      right_aligned(line.substr(colon2 + 5, close - colon2 - 5), 3) != std::to_string(pid))
    return false;
  std::string_view text = line.substr(close + 2);
  if (line[1] == 'e') {
    size_t e = text.rfind(" errno = ");
    if (e == std::string_view::npos || !text.ends_with("> ")) return false;
    size_t lt = text.find(" <", e);
    if (lt == std::string_view::npos || !each_is(text.substr(e + 9, lt - e - 9), isdigit)) return false;
  }
  *is_note = text == kManualNote;
  return true;
}

// "message(0x%04x) buf(%dbytes)"; returns the length or -1.
long dump_header(std::string_view line, unsigned* header) {
  if (!line.starts_with("message(0x") || line.size() < 20 || line.substr(14, 6) != ") buf(" ||
      !line.ends_with("bytes)") || !each_is(line.substr(10, 4), is_lower_hex) ||
      !each_is(line.substr(20, line.size() - 26), isdigit))
    return -1;
  *header = static_cast<unsigned>(std::stoul(std::string(line.substr(10, 4)), nullptr, 16));
  return std::stol(std::string(line.substr(20, line.size() - 26)));
}

// One row of a dump: "%04d: " with the offset, then "%02x " per byte with
// three more blanks between the eighth and the ninth.
bool dump_row(std::string_view line, long offset, long count, std::vector<unsigned>* bytes) {
  char label[32];
  size_t at = static_cast<size_t>(snprintf(label, sizeof label, "%04ld: ", offset));
  if (!line.starts_with(label)) return false;
  for (long i = 0; i < count; ++i, at += 3) {
    if (i == 8 && line.substr(at, 3) != "   ") return false;
    if (i == 8) at += 3;
    if (at + 3 > line.size() || line[at + 2] != ' ' || !each_is(line.substr(at, 2), is_lower_hex)) return false;
    bytes->push_back(static_cast<unsigned>(std::stoul(std::string(line.substr(at, 2)), nullptr, 16)));
  }
  return at == line.size();
}

LogCheck check_log(const std::string& text, int pid) {
  LogCheck c;
  std::vector<std::string_view> lines;
  std::string_view all(text);
  for (size_t start = 0, nl; (nl = all.find('\n', start)) != std::string_view::npos; start = nl + 1)
    lines.push_back(all.substr(start, nl - start));  // a half-written last line is left out
  auto add_item = [&](size_t i, size_t counted) {
    if (c.items++ == 0) c.first_item = counted;
    c.starts_with_item |= i == 0;
    c.counted += counted;
  };
  bool after_record = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string_view line = lines[i];
    bool note = false;
    unsigned header = 0;
    long len;
    if (is_record(line, pid, &note)) {
      add_item(i, line.size() + 1);  // the text and its own newline
      c.notes += note;
      after_record = true;
      continue;
    }
    if (line.empty() && after_record) {
      // A text ending in two newlines keeps one of them as an empty line.
      c.counted += 1;
      after_record = false;
      continue;
    }
    after_record = false;
    if ((len = dump_header(line, &header)) >= 0) {
      // The dump is counted at 3 per byte and 7 per row, whatever it writes.
      add_item(i, static_cast<size_t>(3 * len + 7 * (len / 16 + 1)));
      std::vector<unsigned> bytes;
      for (long r = 0; r < (len + 15) / 16 && i + 1 < lines.size(); ++r)  // the last rows may be still unwritten
        if (!dump_row(lines[++i], r * 16, std::min<long>(16, len - r * 16), &bytes))
          c.bad.push_back(std::string(lines[i]));
      // The header shows bytes 3 and 4 as a little-endian number.
      if (len >= 5 && bytes.size() == static_cast<size_t>(len) && header != (bytes[3] | bytes[4] << 8))
        c.bad.push_back(std::string(line) + " (header does not match bytes 3 and 4)");
      continue;
    }
    c.bad.push_back(std::string(line));
  }
  return c;
}

TEST(Log, StaysWithinItsBoundRestartsWhenFullAndHoldsOnlyRecordsAndDumps) {
  // Claim: over two restarts driven by a record per manual-connect signal,
  // the file never exceeds 65536 bytes plus one record, restarts only when
  // the writer's count is nearly full and never past 65536, and holds only
  // records with the exact prefix (module, line, this daemon's pid) and
  // well-formed dumps of the status polls.
  Sandbox sb({.dial = 3});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  auto pid = sb.daemon_pid();
  ASSERT_TRUE(pid.has_value());

  std::string text = sb.log();
  LogCheck now = check_log(text, *pid);
  size_t max_size = text.size();
  int restarts = 0;
  size_t signals = 0;
  auto deadline = std::chrono::steady_clock::now() + 100s;
  while (restarts < 2 && std::chrono::steady_clock::now() < deadline) {
    const std::string before_text = text;
    const LogCheck before = now;
    sb.signal(kManualConnect);
    ++signals;
    // Wait for this signal's record, in the same file or in a restarted one.
    ASSERT_TRUE(sb.wait_until(
        [&] {
          text = sb.log();
          now = check_log(text, *pid);
          // A restarted file is judged once it holds a whole line: it is
          // empty for a moment after the writer truncates it.
          bool restarted_with_a_line = text.size() < before_text.size() && now.items + now.bad.size() > 0;
          return restarted_with_a_line || now.notes > before.notes;
        },
        10s))
        << "signal " << signals << " was not logged";
    max_size = std::max(max_size, text.size());
    ASSERT_LE(text.size(), kLimit + kRecordMax);
    ASSERT_TRUE(now.bad.empty()) << "malformed line: " << now.bad[0];
    ASSERT_TRUE(now.starts_with_item) << text.substr(0, 200);

    if (text.size() < before_text.size() || !text.starts_with(before_text.substr(0, 64))) {  // restarted
      ++restarts;
      // The last view of the full file was close to the limit, not above it.
      EXPECT_LE(before.counted - (restarts > 1 ? before.first_item : 0), kLimit);
      EXPECT_GE(before.counted, kLimit - 2048) << "restart " << restarts << " came early";
      // The new file holds only what was written since: a few records.
      EXPECT_LT(text.size(), 4096u);
      continue;
    }
    EXPECT_EQ(now.notes, before.notes + 1) << "one record per signal";
    // The record that crossed the limit opens a restarted file and is not
    // counted in it.
    size_t counted = now.counted - (restarts > 0 ? now.first_item : 0);
    ASSERT_LE(counted, kLimit) << "the file should have restarted";
  }
  ASSERT_EQ(restarts, 2) << "after " << signals << " signals, log size " << text.size();
  printf("[ log      ] %zu signals, largest file %zu bytes\n", signals, max_size);
  EXPECT_GT(max_size, kLimit - 2048);

  // Dumps of the status polls and records of every module that ran are in
  // the file, and the daemon is still connected and answering.
  ASSERT_TRUE(sb.wait_log("message(0x2200) buf(7bytes)", 30s)) << sb.log();
  ASSERT_TRUE(sb.wait_log("[ info][         wds_msg:", 5s));
  EXPECT_EQ(sb.state("status"), "3\n");
  LogCheck last = check_log(sb.log(), *pid);
  EXPECT_TRUE(last.bad.empty()) << last.bad.front();
}

}  // namespace
