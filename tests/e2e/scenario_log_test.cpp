// SPDX-License-Identifier: ISC
// The daemon's log over a long, busy run: the file stays within its bound,
// starts over from empty when it is full, and holds nothing but well-formed
// records and message dumps. (The exact count at which it starts over, the
// layout of each record and dump, and one record per signal 37 while
// connected are the unit tests'.)
#include <regex>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

constexpr size_t kLimit = 65536;
constexpr size_t kRecordMax = 1024;  // the writer formats into this many bytes
constexpr int kManualConnect = 37;   // while connected: one record per signal

TEST(Log, StaysWithinItsBoundRestartsWhenFullAndHoldsOnlyRecordsAndDumps) {
  // Claim: over two restarts driven by a record per manual-connect signal,
  // the file never exceeds 65536 bytes plus one record and starts over only
  // when it is nearly full; every line is a record with the exact prefix
  // (module, line, this daemon's pid; error records end with errno and its
  // text), the empty line a text ending in two newlines leaves, or part of
  // a dump of the status polls.
  Sandbox sb({.dial = 3});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  char pid_field[16];
  snprintf(pid_field, sizeof pid_field, "%3d", sb.daemon_pid().value_or(0));
  const std::string prefix = R"(\]\[( {12}main| {9}wds_msg| {9}atrwapi):( {3}\d| {2}\d\d| \d{3}|\d{4}):pid=)" +
                             std::string(pid_field) + R"(\] )";
  const std::regex line(R"(\[ info)" + prefix + R"(.*|\[error)" + prefix + R"(.* errno = \d+ <.*> |)" +
                        R"(message\(0x[0-9a-f]{4}\) buf\(\d+bytes\)|\d{4}: ([0-9a-f]{2} ){1,8}(   ([0-9a-f]{2} ){1,8})?|)");
  auto well_formed = [&](const std::string& text) {
    auto lines = whole_lines(text);
    auto bad = std::ranges::find_if(lines, [&](const std::string& l) { return !std::regex_match(l, line); });
    return bad == lines.end() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << *bad;
  };
  std::string text = sb.log();
  size_t signals = 0;
  int restarts = 0;
  for (auto deadline = std::chrono::steady_clock::now() + 100s; restarts < 2 && std::chrono::steady_clock::now() < deadline;) {
    const size_t before = text.size();
    sb.signal(kManualConnect);
    ++signals;
    // The signal's record, or the file started over.
    ASSERT_TRUE(sb.wait_until([&] { return (text = sb.log()).size() != before; }, 10s)) << "signal " << signals;
    ASSERT_LE(text.size(), kLimit + kRecordMax);
    if (text.size() < before) {
      ++restarts;
      EXPECT_GE(before, kLimit - 2048) << "restart " << restarts << " came early";
      EXPECT_TRUE(sb.wait_until([&] { return contains(text = sb.log(), "\n"); }, 10s));
      EXPECT_LT(text.size(), 4096u);  // only what was written since
    }
    ASSERT_TRUE(well_formed(text));
  }
  ASSERT_EQ(restarts, 2) << "after " << signals << " signals, log size " << text.size();
  // Dumps of the status polls and records of every module that ran are in
  // the file, and the daemon is still connected and answering.
  ASSERT_TRUE(sb.wait_log("message(0x2200) buf(7bytes)", 30s)) << sb.log();
  ASSERT_TRUE(sb.wait_log("[ info][         wds_msg:", 5s));
  EXPECT_EQ(sb.read("status"), "3\n");
  EXPECT_TRUE(well_formed(sb.log()));
}

}  // namespace
