// QMI mode against a modem that stays silent for a whole start-network
// limit (120 ticks of 4 s): about eight and a half minutes of real time,
// scheduled first in the suite. Prints "[figure]" lines with its duration
// and connect latency.
#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

TEST(QmiSlow, StartNetworkUnansweredForItsWholeLimitIsAbortedAndRetried) {
  // Claim: a start-network request left unanswered ends after 120 to 121
  // ticks (480-484 s) with "read msg timeout, msg_type = 32", is followed by
  // an abort naming its transaction id, and the call is dialled again.
  Figures fig;
  Sandbox sb({.sim = {"on start silent times=1"}});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 40s)) << sb.log();
  ASSERT_TRUE(sb.wait_log("wds state : ready", 40s)) << sb.log();
  int64_t t_dial = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_qmi_request(kStartNetwork, 20s)) << sb.log();
  auto start = sb.qmi_requests(kStartNetwork).at(0);

  // Nothing else goes to the modem while the start is awaited.
  ASSERT_FALSE(sb.wait_qmi_request(kAbort, 470s)) << "abort before the limit\n" << sb.log();
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);
  EXPECT_EQ(sb.count_log("read msg timeout"), 0);
  ASSERT_TRUE(sb.wait_qmi_request(kAbort, 30s)) << sb.log();
  auto abort = sb.qmi_requests(kAbort).at(0);
  double waited = seconds_between(start.t_us, abort.t_us);
  printf("[figure] start-network limit: abort after %.1f s\n", waited);
  EXPECT_GE(waited, 479.5);
  EXPECT_LE(waited, 485.5);
  EXPECT_TRUE(sb.wait_log("read msg timeout, msg_type = 32", 5s)) << sb.log();

  // The abort: a request with the next transaction id, message 0x0002,
  // mlen 5, TLV 0x01 of 2 bytes holding the start's transaction id.
  char want[32];
  snprintf(want, sizeof want, "00%04x00020005010002%04x", abort.tx, start.tx);
  EXPECT_EQ(to_hex(abort.bytes), want);
  EXPECT_EQ(abort.tx, static_cast<uint16_t>(start.tx + 1));

  // The abort was answered, so the attempt failed cleanly: no stop request,
  // and after the pause a new start brings the call up.
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  fig.connect_latency(seconds_since(t_dial));
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_GT(starts[1].t_us, abort.t_us);
  EXPECT_LE(seconds_between(abort.t_us, starts[1].t_us), 6.0);
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
}

}  // namespace
