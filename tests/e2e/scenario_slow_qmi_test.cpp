// SPDX-License-Identifier: ISC
// QMI mode against a modem that stays silent for a whole start-network
// limit (120 ticks of 4 s): about eight and a half minutes of real time,
// scheduled first in the suite.
#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

TEST(QmiSlow, StartNetworkUnansweredForItsWholeLimitIsAbortedAndRetried) {
  // Claim: a start-network request left unanswered ends after 120 to 121
  // ticks (480-484 s) with "read msg timeout, msg_type = 32", nothing else
  // going to the modem meanwhile; it is followed by an abort with the next
  // transaction id naming the start's, and, the abort answered, no stop: a
  // new start after the pause brings the call up.
  Sandbox sb({.sim = {"on start silent times=1"}});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 40s) && sb.wait_log("wds state : ready", 40s)) << sb.log();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_qmi_request(kStartNetwork, 20s)) << sb.log();
  auto start = sb.qmi_requests(kStartNetwork).at(0);
  ASSERT_FALSE(sb.wait_until([&] { return sb.qmi_requests().back().t_us > start.t_us; }, 470s)) << sb.log();
  EXPECT_EQ(sb.count_log("read msg timeout"), 0);
  ASSERT_TRUE(sb.wait_qmi_request(kAbort, 30s)) << sb.log();
  auto abort = sb.qmi_requests(kAbort).at(0);
  EXPECT_TRUE(took(start.t_us, abort.t_us, 479.5, 485.5));
  EXPECT_TRUE(sb.wait_log("read msg timeout, msg_type = 32", 5s)) << sb.log();
  char want[32];
  snprintf(want, sizeof want, "00%04x00020005010002%04x", abort.tx, start.tx);
  EXPECT_EQ(to_hex(abort.data), want);
  EXPECT_EQ(abort.tx, static_cast<uint16_t>(start.tx + 1));

  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_TRUE(took(abort.t_us, starts[1].t_us, 0, 6));
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
}

}  // namespace
