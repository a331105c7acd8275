// The daemon's log over a long, busy run: the file stays within its bound,
// starts over from empty when it is full, and holds nothing but well-formed
// records and message dumps. (The exact count at which it starts over, and
// the layout of each record and dump, are the log writer's unit tests.)
#include <regex>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

constexpr size_t kLimit = 65536;
constexpr size_t kRecordMax = 1024;  // the writer formats into this many bytes
constexpr int kManualConnect = 37;   // while connected: one record per signal
constexpr char kManualNote[] = "] wds_manual_connect_handle : connected or connecting";

TEST(Log, StaysWithinItsBoundRestartsWhenFullAndHoldsOnlyRecordsAndDumps) {
  // Claim: over two restarts driven by a record per manual-connect signal,
  // the file never exceeds 65536 bytes plus one record, starts over only
  // when it is nearly full, with the record that did not fit; every line is
  // a record with the exact prefix (module, line, this daemon's pid; error
  // records end with errno and its text), the empty line a text ending in
  // two newlines leaves, or part of a dump of the status polls.
  Sandbox sb({.dial = 3});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  auto pid = sb.daemon_pid();
  ASSERT_TRUE(pid.has_value());
  char pid_field[8];
  snprintf(pid_field, sizeof pid_field, "%3d", *pid);
  const std::string prefix = R"(\]\[( {12}main| {9}wds_msg| {9}atrwapi):( {3}\d| {2}\d\d| \d{3}|\d{4}):pid=)" +
                             std::string(pid_field) + R"(\] )";
  const std::regex line(R"(\[ info)" + prefix + R"(.*|\[error)" + prefix + R"(.* errno = \d+ <.*> |)" +
                        R"(message\(0x[0-9a-f]{4}\) buf\(\d+bytes\)|\d{4}: ([0-9a-f]{2} ){1,8}(   ([0-9a-f]{2} ){1,8})?|)");
  auto well_formed = [&](const std::string& text) {
    for (const auto& l : whole_lines(text))
      if (!std::regex_match(l, line)) return ::testing::AssertionFailure() << "malformed line: " << l;
    return ::testing::AssertionSuccess();
  };
  std::string text = sb.log();
  size_t largest = text.size(), signals = 0;
  int restarts = 0;
  for (auto deadline = std::chrono::steady_clock::now() + 100s; restarts < 2 && std::chrono::steady_clock::now() < deadline;) {
    const std::string before = text;
    const size_t notes = static_cast<size_t>(sb.count_log(kManualNote));
    sb.signal(kManualConnect);
    ++signals;
    // This signal's record, or a file started over (judged once it holds a
    // whole line: it is empty for a moment after the writer truncates it).
    bool restarted = false;
    ASSERT_TRUE(sb.wait_until(
        [&] {
          text = sb.log();
          restarted = !text.starts_with(before);
          return restarted ? contains(text, "\n") : static_cast<size_t>(sb.count_log(kManualNote)) > notes;
        },
        10s))
        << "signal " << signals << " was not logged";
    largest = std::max(largest, text.size());
    ASSERT_LE(text.size(), kLimit + kRecordMax);
    ASSERT_TRUE(well_formed(text));
    if (restarted) {
      ++restarts;
      EXPECT_GE(before.size(), kLimit - 2048) << "restart " << restarts << " came early";
      EXPECT_LT(text.size(), 4096u);  // only what was written since
      EXPECT_TRUE(text.starts_with("[") || text.starts_with("message(")) << text.substr(0, 200);
    }
  }
  ASSERT_EQ(restarts, 2) << "after " << signals << " signals, log size " << text.size();
  printf("[ log      ] %zu signals, largest file %zu bytes\n", signals, largest);

  // Dumps of the status polls and records of every module that ran are in
  // the file, and the daemon is still connected and answering.
  ASSERT_TRUE(sb.wait_log("message(0x2200) buf(7bytes)", 30s)) << sb.log();
  ASSERT_TRUE(sb.wait_log("[ info][         wds_msg:", 5s));
  EXPECT_EQ(sb.read("status"), "3\n");
  EXPECT_TRUE(well_formed(sb.log()));
}

}  // namespace
