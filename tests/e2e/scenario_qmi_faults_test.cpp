// QMI mode when the network or the modem misbehaves: refusals, missing or
// late answers, a tty that goes away, a missing profile, the two mode
// choices, and the signals the gateway sends. Each test prints "[figure]"
// lines with its duration and its connect latencies.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"
#include "tests/e2e/scenario_support.h"

namespace {

using namespace wds::e2e;


constexpr auto kPollPeriod = 12s;
constexpr auto kBringUpLimit = 40s;
constexpr auto kConnectLimit = 40s;
// The simulator's default handle, as the stop request carries it.
constexpr char kDefaultHandleTlv[] = "0100041a2b3c4d";



// Waits for a finished bring-up, writes the dial request, and waits for the
// call; records the latency from the request to status 3.
::testing::AssertionResult dial_and_connect(const Sandbox& sb, int dial, Figures& fig,
                                            Millis limit = kConnectLimit) {
  return wds::e2e::dial_and_connect(sb, dial, fig, kBringUpLimit, limit);
}

// Requests of one kind sent between two instants.
size_t count_between(const std::vector<QmiRequest>& reqs, int64_t from_us, int64_t to_us) {
  size_t n = 0;
  for (const auto& r : reqs)
    if (r.t_us >= from_us && r.t_us <= to_us) ++n;
  return n;
}

// Simulator events (device log "ev" records) that start with `prefix`.
std::vector<DeviceRecord> events(const Sandbox& sb, const std::string& prefix) {
  std::vector<DeviceRecord> out;
  for (auto& r : sb.device_log())
    if (r.kind == "ev" && r.data.starts_with(prefix)) out.push_back(std::move(r));
  return out;
}


// When the 5-second pause after a failed connect ends. It is a plain sleep,
// which the next 4-second tick cuts short. Bring-up starts the tick just
// before it sends the WDS reset, so the ticks fall at t_reset + 4k.
int64_t pause_end_us(int64_t t_reset_us, int64_t t_fail_us) {
  constexpr int64_t kTickUs = 4'000'000;
  constexpr int64_t kPauseUs = 5'000'000;
  constexpr int64_t kMarginUs = 50'000;  // a tick right at the failure has already passed
  int64_t since = t_fail_us + kMarginUs - t_reset_us;
  int64_t next_tick = t_reset_us + (since / kTickUs + 1) * kTickUs;
  return std::min(next_tick, t_fail_us + kPauseUs);
}

// After a failed attempt that ended with a stop, the call comes up: the
// stop's own indication is left unread and may cost the next start one more
// round, so only the order is fixed: a later start, and no second stop.
void expect_redial_after_the_stop(const Sandbox& sb, Figures& fig, int64_t t_dial, const QmiRequest& stop) {
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t_dial));
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_GE(starts.size(), 2u);
  EXPECT_GT(starts[1].t_us, stop.t_us);
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
}

// ---------------------------------------------------------------- refusals

TEST(QmiFaults, StartRefusedIsLoggedWithItsTextAndRetriedAfterThePause) {
  // Claim: a start-network request refused with error 14 is logged with the
  // error's text, no stop request follows, and the call is dialled again
  // after the 5-second pause (which the next tick may end early).
  Figures fig;
  SandboxOptions o;
  o.sim = {"on start fail=14 times=1"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  EXPECT_EQ(sb.count_log("g_qmi_error = 14, dscp : Call failed."), 1) << sb.log();
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  // The retry comes when the pause ends: 5 s after the refusal, or at the
  // next tick if that is sooner.
  double gap = seconds_between(starts[0].t_us, starts[1].t_us);
  double late = seconds_between(pause_end_us(sb.qmi_requests(kReset).at(0).t_us, starts[0].t_us), starts[1].t_us);
  EXPECT_GE(late, -0.1) << "retried before the pause ended";
  EXPECT_LE(late, 0.8) << "retried long after the pause ended";
  EXPECT_LE(gap, 5.8);
  printf("[figure] start refused: gap between the two start requests %.2f s\n", gap);
  EXPECT_EQ(to_hex(starts[1].bytes.substr(3)), to_hex(starts[0].bytes.substr(3)));
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
  // Nothing was asked of a refused call.
  EXPECT_EQ(count_between(sb.qmi_requests(kRuntimeSettings), starts[0].t_us, starts[1].t_us), 0u);
}

TEST(QmiFaults, ConnectedIndicationThatNeverComesStopsTheCallAndRetries) {
  // Claim: when the start is accepted but no connected indication follows
  // within 3 ticks, the daemon stops the call with its handle, asks for no
  // settings, and dials again after the pause.
  Figures fig;
  SandboxOptions o;
  o.sim = {"set ind=none"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_log("wds state : ready", kBringUpLimit)) << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 40s)) << sb.log();
  sb.sim("set ind=separate");  // the next call is announced as usual
  auto starts = sb.qmi_requests(kStartNetwork);
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(starts.size(), 1u);
  // The indication wait ends at the fourth tick after it began: 12 to 16 s.
  double waited = seconds_between(starts[0].t_us, stops[0].t_us);
  EXPECT_GE(waited, 11.5);
  EXPECT_LE(waited, 17.0);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(3, 4)), "00210007");
  EXPECT_EQ(to_hex(stops[0].bytes.substr(7)), kDefaultHandleTlv);
  EXPECT_TRUE(sb.wait_log("read msg timeout, msg_type = 34", 5s)) << sb.log();
  EXPECT_TRUE(sb.qmi_requests(kRuntimeSettings).empty());

  expect_redial_after_the_stop(sb, fig, t0, stops[0]);
}

TEST(QmiFaults, IndicationAskingForReconfigurationStopsTheCallAtOnce) {
  // Claim: a connected indication that requires reconfiguration does not
  // count: the call is stopped right away, without a settings request.
  Figures fig;
  SandboxOptions o;
  o.sim = {"set ind-reconf=1"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_log("wds state : ready", kBringUpLimit)) << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 20s)) << sb.log();
  sb.sim("set ind-reconf=0");
  auto starts = sb.qmi_requests(kStartNetwork);
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_LE(seconds_between(starts[0].t_us, stops[0].t_us), 2.0);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(7)), kDefaultHandleTlv);
  EXPECT_TRUE(sb.qmi_requests(kRuntimeSettings).empty());
  expect_redial_after_the_stop(sb, fig, t0, stops[0]);
}

TEST(QmiFaults, SettingsWithoutAnAddressThreeTimesStopTheCall) {
  // Claim: runtime settings that carry no IPv4 address count as failed
  // tries; after the third (each followed by a 1-second pause) the call is
  // stopped, and the next dial that gets an address comes up.
  Figures fig;
  SandboxOptions o;
  o.sim = {"set addr=0"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_log("wds state : ready", kBringUpLimit)) << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 30s)) << sb.log();
  sb.sim("set addr=192.168.8.100");
  auto start = sb.qmi_requests(kStartNetwork).at(0);
  auto stop = sb.qmi_requests(kStopNetwork).at(0);
  auto runtime = sb.qmi_requests(kRuntimeSettings);
  ASSERT_EQ(count_between(runtime, start.t_us, stop.t_us), 3u) << sb.log();
  for (size_t i = 1; i < 3; ++i) {
    double gap = seconds_between(runtime[i - 1].t_us, runtime[i].t_us);
    EXPECT_GE(gap, 0.95) << "try " << i;
    EXPECT_LE(gap, 2.5) << "try " << i;
  }
  double last = seconds_between(runtime[2].t_us, stop.t_us);
  EXPECT_GE(last, 0.95);  // the pause after the third try comes first
  EXPECT_LE(last, 2.5);
  EXPECT_EQ(to_hex(stop.bytes.substr(7)), kDefaultHandleTlv);
  EXPECT_EQ(sb.state("status"), "0\n");  // never published as connected
  EXPECT_EQ(sb.state("ipaddr"), std::nullopt);

  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t0));
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
  EXPECT_EQ(sb.qmi_requests(kRuntimeSettings).size(), 4u);
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
}

TEST(QmiFaults, OutOfCallAnswerToSettingsGivesUpWithoutAStopRequest) {
  // Claim: runtime settings refused with error 15 (out of call) end the
  // attempt with no stop request; the next dial starts afresh.
  Figures fig;
  SandboxOptions o;
  o.sim = {"on runtime fail=15 times=1", "set second-start=accept"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  EXPECT_EQ(sb.count_log("g_qmi_error = 15, dscp : Out Of Call."), 1) << sb.log();
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
  auto starts = sb.qmi_requests(kStartNetwork);
  auto runtime = sb.qmi_requests(kRuntimeSettings);
  ASSERT_EQ(starts.size(), 2u);
  // One try only: the modem said there is no call, so no retry of the
  // settings within the first attempt.
  EXPECT_EQ(count_between(runtime, starts[0].t_us, starts[1].t_us), 1u);
  double late = seconds_between(pause_end_us(sb.qmi_requests(kReset).at(0).t_us, runtime[0].t_us), starts[1].t_us);
  EXPECT_GE(late, -0.1) << "dialled again before the pause ended";
  EXPECT_LE(late, 0.8);
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
}

TEST(QmiFaults, SilentSettingsRequestTimesOutAfterThreeTicksAndIsRetried) {
  // Claim: a runtime-settings request the modem never answers ends after
  // 12 to 16 s ("read msg timeout, msg_type = 45"), and the next try, 1 s
  // later, still brings the call up.
  Figures fig;
  SandboxOptions o;
  o.sim = {"on runtime silent times=1"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  EXPECT_EQ(sb.count_log("read msg timeout, msg_type = 45"), 1) << sb.log();
  auto runtime = sb.qmi_requests(kRuntimeSettings);
  ASSERT_EQ(runtime.size(), 2u);
  double gap = seconds_between(runtime[0].t_us, runtime[1].t_us);
  EXPECT_GE(gap, 12.9);  // at least 3 ticks and the 1-second pause
  EXPECT_LE(gap, 17.8);  // at most 4 ticks and the pause
  printf("[figure] silent settings request: retry after %.2f s\n", gap);
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);
}

TEST(QmiFaults, DropAnnouncedByAnIndicationIsSeenAtTheSecondPoll) {
  // Claim: the indication that announces a drop reaches the daemon alone at
  // the next poll, which therefore fails and changes nothing; the poll after
  // it reports the call gone, and the call is redialled.
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  int64_t t_drop = monotonic_us();
  sb.sim("drop");
  ASSERT_TRUE(sb.wait_log("qmi_event_msm_state_query: wds_get_srv_state failed", kPollPeriod + 6s)) << sb.log();
  EXPECT_EQ(sb.state("status"), "3\n");  // a failed poll changes nothing
  ASSERT_TRUE(sb.wait_log("g_connection_status_rsp:1", kPollPeriod + 6s)) << sb.log();
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s, 2)) << sb.log();
  double noticed = seconds_since(t_drop);
  EXPECT_GE(noticed, 12.0);
  EXPECT_LE(noticed, 2 * 12.0 + 4.5);
  auto polls = sb.qmi_requests(kPacketStatus);
  EXPECT_EQ(count_between(polls, t_drop, monotonic_us()), 2u);
  int64_t t_redial = monotonic_us();
  ASSERT_TRUE(sb.wait_qmi_request(kStartNetwork, kConnectLimit, 2)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t_redial));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
}

// ------------------------------------------------------------ the tty gone

TEST(QmiFaults, TtyRemovedAtBringUpResetsTheDatacardAndComesBackAfterReplug) {
  // Claim: with the tty gone at bring-up, five failed opens are followed by
  // the datacard reset commands in order; bring-up is retried without status
  // or WDS traffic, and the daemon comes up and dials once the tty is back.
  Figures fig;
  SandboxOptions o;
  o.sim = {"remove"};
  o.dial = 3;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_until([&] { return sb.atcmd_calls().size() >= 3; }, 40s)) << sb.log();
  auto calls = sb.atcmd_calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0], "cfun set 4");
  EXPECT_EQ(calls[1], "cfun set 7");
  EXPECT_EQ(calls[2], "cfun set 6");
  EXPECT_EQ(events(sb, "open refused ENODEV").size(), 5u);
  ASSERT_TRUE(sb.wait_log("wds state : init...", 20s, 2)) << sb.log();
  EXPECT_FALSE(sb.state("status").has_value());
  EXPECT_TRUE(sb.qmi_requests().empty());
  EXPECT_FALSE(sb.daemon_exit().has_value());

  int64_t t_replug = monotonic_us();
  sb.sim("replug");
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  fig.connect_latency(seconds_since(t_replug));  // here: replug to status 3
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 1u);
  // The reset commands go out once per failed bring-up, never more often.
  EXPECT_EQ(sb.atcmd_calls().size() % 3, 0u);
}

TEST(QmiFaults, TtyUnpluggedWhileTheResetIsAwaitedFailsBringUpWhichIsRetried) {
  // Claim: a tty that fails with ENODEV while bring-up waits for the WDS
  // reset ends that bring-up; the next one, 3 s later plus its own 3-s start,
  // opens the tty again and succeeds.
  Figures fig;
  SandboxOptions o;
  o.sim = {"on reset silent times=1"};
  o.dial = 3;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_qmi_request(kReset, kBringUpLimit)) << sb.log();
  sb.sim("unplug");
  ASSERT_TRUE(sb.wait_log("read msg error, errno = ENODEV", 10s)) << sb.log();
  ASSERT_TRUE(sb.wait_qmi_request(kReset, 20s, 2)) << sb.log();
  auto resets = sb.qmi_requests(kReset);
  double gap = seconds_between(resets[0].t_us, resets[1].t_us);
  EXPECT_GE(gap, 5.9);  // the 3000 ms pause and the 3-s start of bring-up
  EXPECT_LE(gap, 10.0);
  EXPECT_EQ(sb.count_log("wds state : init..."), 2);
  EXPECT_EQ(events(sb, "open gen=").size(), 2u);
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  EXPECT_FALSE(sb.daemon_exit().has_value());
}

TEST(QmiFaults, TtyRemovedDuringACallSurvivesAndComesBackAfterReplugAndReinit) {
  // Claim: with the tty gone during a call the status polls fail and change
  // nothing; the daemon keeps running. Asked to re-initialise (signal 38) it
  // tears the link down without a stop request, retries bring-up (datacard
  // reset included) until the tty is back, then dials again.
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  sb.sim("remove");
  ASSERT_TRUE(sb.wait_log("qmi_event_msm_state_query: wds_get_srv_state failed", 2 * kPollPeriod + 6s, 2))
      << sb.log();
  EXPECT_EQ(sb.state("status"), "3\n");
  EXPECT_FALSE(sb.daemon_exit().has_value());

  sb.signal(38);
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  ASSERT_TRUE(sb.wait_until([&] { return sb.atcmd_calls().size() >= 3; }, 40s)) << sb.log();
  EXPECT_EQ(sb.atcmd_calls().at(0), "cfun set 4");
  int64_t t_replug = monotonic_us();
  sb.sim("replug");
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  fig.connect_latency(seconds_since(t_replug));  // replug to status 3
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 2u);
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 2u);
}

// ------------------------------------------------------ mode and profile

TEST(QmiFaults, NoChipFileMeansQmiModeOnRmnet0) {
  // Claim: without the datacard chip file the daemon drives the modem by
  // QMI on rmnet0: client identifier ioctl, WDS reset, start request.
  Figures fig;
  SandboxOptions o;
  o.chip = Chip::kNone;
  Sandbox sb(o);
  sb.start();
  EXPECT_FALSE(sb.read("/proc/proc_user_datacardchip").has_value());
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  EXPECT_EQ(sb.ifname(), "rmnet0");
  EXPECT_EQ(sb.read("/var/wan/rmnet0/status"), "3\n");
  EXPECT_EQ(events(sb, "ioctl 0xc0017804").size(), 1u);
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 1u);
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "dev", "rmnet0"});
  EXPECT_TRUE(contains(addr.output, "inet 192.168.8.100/24")) << addr.output;
}

TEST(QmiFaults, ChipFileOneSelectsNdisModeWithoutAnyWdsTraffic) {
  // Claim: a chip file "1\n" selects NDIS mode on rmnet_tarvek0: the tty is
  // used as the AT port, no client identifier is asked and no WDS message is
  // written; the call is dialled with AT commands.
  Figures fig;
  SandboxOptions o;
  o.chip_text = "1\n";
  Sandbox sb(o);
  sb.start();
  EXPECT_EQ(sb.ifname(), "rmnet_tarvek0");
  ASSERT_TRUE(sb.wait_state("status", "0\n", kBringUpLimit)) << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_at_line("AT^NDISDUP", 20s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 90s)) << sb.log();
  fig.connect_latency(seconds_since(t0));
  EXPECT_TRUE(events(sb, "ioctl 0xc0017804").empty());
  // Everything written to the tty is AT text.
  for (const auto& r : sb.device_log()) {
    if (r.kind != "rx") continue;
    EXPECT_TRUE(r.data.starts_with("AT") || r.data.starts_with("\r") || r.data.starts_with("\n"))
        << to_hex(r.data);
    for (char c : r.data) EXPECT_TRUE(c == '\r' || c == '\n' || (c >= 0x20 && c < 0x7f)) << to_hex(r.data);
  }
  EXPECT_FALSE(sb.read("/var/wan/rmnet0/status").has_value());
}

TEST(QmiFaults, MissingProfileRetriesBringUpWithoutPublishingStatus) {
  // Claim: without a dial profile every bring-up fails after opening the
  // tty and is retried after the 3000 ms pause (each attempt also starts
  // with its 3-s sleep); no status is published and no WDS message is sent.
  // Once the profile exists the next bring-up succeeds and the call comes up.
  Figures fig;
  SandboxOptions o;
  o.no_profile = true;
  o.dial = 3;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_until([&] { return events(sb, "open gen=").size() >= 3; }, 40s)) << sb.log();
  auto opens = events(sb, "open gen=");
  for (size_t i = 1; i < opens.size(); ++i) {
    double gap = seconds_between(opens[i - 1].t_us, opens[i].t_us);
    printf("[figure] missing profile: bring-up attempt %zu after %.2f s\n", i + 1, gap);
    EXPECT_GE(gap, 5.9);
    EXPECT_LE(gap, 8.0);
  }
  EXPECT_GE(sb.count_log("wds state : init..."), 3);
  EXPECT_EQ(sb.count_log("wds state : ready"), 0);
  EXPECT_FALSE(sb.state("status").has_value());
  EXPECT_TRUE(sb.qmi_requests().empty());

  int64_t t0 = monotonic_us();
  sb.write_profile(
      "username = user1\npassword = pass1\nauth = 2\nsetapn = internet\nmru = 1500\n");
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t0));  // profile written to status 3
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 1u);
}

// ---------------------------------------------------------------- signals

TEST(QmiFaults, Signal38WhileConnectedReinitialisesWithoutAStopRequest) {
  // Claim: signal 38 during a call tears the link down (status 6) without a
  // stop request, runs bring-up again (status 0, a new WDS reset) and dials
  // the call again.
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s, 1));
  int64_t t_signal = monotonic_us();
  sb.signal(38);
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  ASSERT_TRUE(sb.wait_state("status", "0\n", 20s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t_signal));  // signal to status 3
  auto resets = sb.qmi_requests(kReset);
  ASSERT_EQ(resets.size(), 2u);
  EXPECT_GT(resets[1].t_us, t_signal);
  EXPECT_EQ(sb.count_log("wds state : init..."), 2);
  EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_GT(starts[1].t_us, resets[1].t_us);
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 3));  // up, down, up
  EXPECT_EQ(events(sb, "open gen=").size(), 2u);  // the tty was reopened
}

TEST(QmiFaults, SigtermWhileConnectedStopsTheCallAndExitsZero) {
  // Claim: SIGTERM during a call sends the stop request with the call's
  // handle, tears the link down, removes the pid file and exits with 0.
  Figures fig;
  SandboxOptions o;
  o.sim = {"set handle=0x0BADCAFE"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  ASSERT_TRUE(sb.state("pid").has_value());
  sb.signal(SIGTERM);
  auto exit = sb.wait_daemon_exit(40s);
  ASSERT_TRUE(exit.has_value()) << sb.log();
  EXPECT_EQ(*exit, "exit 0");
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(3)), "002100070100040badcafe");
  EXPECT_TRUE(contains(sb.log(), "wds_disconnect : disconnected successful")) << sb.log();
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_FALSE(sb.state("pid").has_value());
  EXPECT_EQ(sb.sim_state()["call"], "1");
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "dev", "rmnet0"});
  EXPECT_FALSE(contains(addr.output, "192.168.8.100")) << addr.output;
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));
}

}  // namespace
