// QMI mode with a tty that refuses writes during a call: the refused status
// poll is an error record carrying errno and the text the daemon's own C
// library gives it (glibc and musl word EIO differently), and the call
// outlives the fault.
#include <cerrno>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

TEST(WriteRefused, TheErrorRecordCarriesTheCLibrarysTextAndTheCallSurvives) {
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  const std::string record = "tty busy or tty down. errno = 5 <" + sb.daemon_strerror(EIO) + "> \n";
  sb.sim("set write-error=5");
  ASSERT_TRUE(sb.wait_log(record, kPollPeriod + 6s)) << sb.log();
  EXPECT_TRUE(sb.wait_log("qmi_event_msm_state_query: wds_get_srv_state failed", 5s)) << sb.log();
  EXPECT_EQ(sb.state("status"), "3\n");
  sb.sim("set write-error=off");
  const size_t polls = sb.qmi_requests(kPacketStatus).size();
  EXPECT_TRUE(sb.wait_qmi_request(kPacketStatus, kPollPeriod + 6s, polls + 1)) << sb.log();
  EXPECT_EQ(sb.state("status"), "3\n");
  EXPECT_FALSE(sb.daemon_exit().has_value());
}

}  // namespace
