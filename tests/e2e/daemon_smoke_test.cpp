// The installed daemon in the sandbox: it starts, logs its first state,
// answers SIGTERM with exit status 0, brings a simulated call up, and leaves
// nothing behind on the host. Its log and state files are read through the
// harness.
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/stat.h>

#include "tests/e2e/harness.h"
#include "tests/e2e/scenario_support.h"

namespace {

using namespace wds::e2e;


TEST(DaemonSmoke, StartsLogsItsFirstStateAndExitsZeroOnSigterm) {
  Sandbox sb;  // QMI mode, no dial file: the daemon comes up and waits
  sb.start();
  ASSERT_TRUE(sb.wait_log("wds state : init...", 30s)) << sb.daemon_output();
  // Bring-up ends with the WDS reset answered and status 0 published.
  ASSERT_TRUE(sb.wait_state("status", "0\n", 30s)) << sb.log();
  ASSERT_TRUE(sb.wait_log("wds state : ready", 30s)) << sb.log();
  auto resets = sb.qmi_requests(kReset);
  ASSERT_GE(resets.size(), 1u);
  EXPECT_EQ(to_hex(resets[0].bytes.substr(0, 1) + resets[0].bytes.substr(3)), "0000000000");  // request, id 0, mlen 0
  EXPECT_EQ(resets[0].bytes.size(), 7u);
  EXPECT_NE(resets[0].tx, 0);

  auto pid = sb.daemon_pid();
  ASSERT_TRUE(pid.has_value());
  EXPECT_EQ(sb.state("pid"), std::to_string(*pid));

  sb.signal(SIGTERM);
  auto exit = sb.wait_daemon_exit(30s);
  ASSERT_TRUE(exit.has_value()) << sb.log();
  EXPECT_EQ(*exit, "exit 0");
  EXPECT_FALSE(sb.state("pid").has_value());
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());  // no call was up

  // The same sandbox runs the daemon again: a second bring-up, reset and all.
  sb.start_daemon();
  ASSERT_TRUE(sb.wait_log("wds state : ready", 30s, 2)) << sb.log();
  EXPECT_EQ(sb.qmi_requests(kReset).size(), resets.size() + 1);
  auto second = sb.daemon_pid();
  ASSERT_TRUE(second.has_value());
  EXPECT_NE(*second, *pid);
  sb.signal(SIGTERM);
  EXPECT_EQ(sb.wait_until([&] { return sb.daemon_exit().has_value(); }, 30s), true);
  EXPECT_EQ(sb.daemon_exit(), "exit 0");
}

TEST(DaemonSmoke, NdisModeUsesTheAtPortOnItsOwnInterface) {
  SandboxOptions o;
  o.chip = Chip::kNdis;
  Sandbox sb(o);
  sb.start();
  EXPECT_EQ(sb.ifname(), "rmnet_tarvek0");
  ASSERT_TRUE(sb.wait_state("status", "0\n", 40s)) << sb.log() << sb.daemon_output();
  // No WDS traffic in NDIS mode.
  EXPECT_TRUE(sb.qmi_requests(kReset).empty());
  sb.signal(SIGTERM);
  EXPECT_EQ(sb.wait_daemon_exit(30s), "exit 0");
}

TEST(DaemonSmoke, CallComesUpThroughTheSimulatorAndEndsOnSigterm) {
  SandboxOptions o;
  o.dial = 3;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
  EXPECT_EQ(sb.state("mask"), "255.255.255.0\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.8.1\n");
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s));
  EXPECT_EQ(sb.bus().at(0).sender, "qmi");
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "rmnet0"});
  EXPECT_NE(addr.output.find("inet 192.168.8.100/24"), std::string::npos) << addr.output;
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_EQ(starts[0].mlen + 7u, starts[0].bytes.size());
  EXPECT_EQ(sb.sim_state()["call"], "2");

  sb.signal(SIGTERM);
  ASSERT_EQ(sb.wait_daemon_exit(40s), "exit 0") << sb.log();
  // The call was stopped with the handle the simulator gave out.
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_GE(stops.size(), 1u);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(7)), "0100041a2b3c4d");
  EXPECT_EQ(sb.sim_state()["call"], "1");
  EXPECT_EQ(sb.state("status"), "6\n");
}

TEST(DaemonSmoke, KillingTheSandboxWithALiveCallLeavesNothingOnTheHost) {
  struct stat before {};
  bool var_wan = stat("/var/wan", &before) == 0;
  SandboxOptions o;
  o.dial = 3;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  pid_t init = sb.init_pid();
  sb.kill_hard();
  EXPECT_NE(kill(init, 0), 0);
  EXPECT_EQ(if_nametoindex("rmnet0"), 0u);
  struct stat after {};
  EXPECT_EQ(stat("/var/wan", &after) == 0, var_wan);
  EXPECT_NE(access("/var/log/wds.log", F_OK), 0);
  EXPECT_NE(access("/dev/qmitty0", F_OK), 0);
}

}  // namespace
