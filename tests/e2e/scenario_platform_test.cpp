// SPDX-License-Identifier: ISC
// The daemon on a gateway whose platform does its part: the hotplug handler
// sends signal 38 when the modem comes back, and signal 38 is the way out of
// a dead descriptor or a call the modem keeps after an unanswered stop.
// Each test prints "[figure]" lines with its recovery time.
#include <cstdio>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

struct Reinit {
  const char* phase;
  const char* chip;
  std::vector<std::string> sim;  // the modem's behaviour from the start
  const char* once_up;           // simulator command once the call is up, or nullptr
  const char* pending;           // the fault comes while this event's request waits, else once connected
  std::string fault;             // "remove" (then "replug") or "unplug" (the modem is back at once)
  bool hotplug;
};

// Names the test after its row (ctest puts the value in the name).
void PrintTo(const Reinit& r, std::ostream* os) { *os << r.phase; }

class Unplugged : public ::testing::TestWithParam<Reinit> {};

TEST_P(Unplugged, ReplugEndsInAFreshCall) {
  // Claim: a modem unplugged and plugged back in any phase of a call (while
  // bring-up waits for the WDS reset, while the start or the NDIS dial
  // waits, while connected, while the stop of a dropped call waits) ends in
  // a fresh call: the tty reopened, a new bring-up and call, their files and
  // routes, no stop request; the hotplug handler's signal 38 on the replug
  // does it. While connected nothing notices the modem gone (the polls fail,
  // status 3 stays); without the handler the daemon keeps its dead
  // descriptor after the replug as well, until it gets signal 38 by other
  // means. Only a bring-up recovers by itself, retrying 3 s later plus its
  // own 3 s. A call that was up is torn down first (status 6, then 0).
  const Reinit& r = GetParam();
  const bool ndis = r.chip[0] == '1', connected = !r.pending;
  Sandbox sb({.chip = r.chip, .dial = 3, .sim = r.sim, .hotplug = r.hotplug});
  sb.start();
  auto first_after = [&](const std::string& event, int64_t since) {
    auto e = events(sb, event);
    auto it = std::ranges::find_if(e, [&](const Record& x) { return x.t_us > since; });
    return it == e.end() ? 0 : it->t_us;
  };
  // A status poll fails, and nothing changes.
  auto unnoticed = [&] {
    int failed = sb.count_log(kPollFailed);
    return sb.wait_log(kPollFailed, kPollPeriod + 6s, failed + 1) && sb.read("status") == "3\n";
  };
  ASSERT_TRUE(!(connected || r.once_up) || sb.wait_state("status", "3\n", kBringUpLimit + kConnectLimit)) << sb.log();
  if (r.once_up) sb.sim(r.once_up);
  ASSERT_TRUE(!r.pending || sb.wait_until([&] { return !events(sb, r.pending).empty(); }, 60s)) << sb.log();
  const size_t opens = events(sb, "open gen=").size();
  sb.sim(r.fault);
  ASSERT_TRUE(!r.pending || ndis || sb.wait_log("read msg error, errno = ENODEV", 10s)) << sb.log();
  EXPECT_TRUE(!connected || unnoticed()) << sb.log();
  int64_t t = monotonic_us();
  if (r.fault == "remove") sb.sim("replug");
  if (r.hotplug) {
    auto told = [&] { auto l = sb.lines("platform.log"); return !l.empty() && contains(l.back(), "add: signal 38"); };
    EXPECT_TRUE(r.fault != "remove" || sb.wait_until(told, 5s));
  } else {
    EXPECT_TRUE(unnoticed()) << sb.log();
    EXPECT_EQ(events(sb, "open gen=").size(), opens);
    EXPECT_TRUE(sb.lines("platform.log").empty());
    t = monotonic_us();
    sb.signal(38);
  }
  if (connected) {
    ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
    EXPECT_TRUE(link_is(sb, false, {}));
    ASSERT_TRUE(sb.wait_state("status", "0\n", 30s)) << sb.log();
  }
  // The fresh call: these, in this order, after the event, then status 3.
  const std::vector<std::string> call = {"open gen=", ndis ? "at line AT^NDISDUP=1,1" : "wds request reset",
                                         ndis ? "at line AT^DHCP?" : "wds request runtime"};
  ASSERT_TRUE(sb.wait_until([&] { return first_after(call.back(), t) > 0; }, 60s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 10s)) << sb.log();
  printf("[figure] %s: %.2f s to status 3\n", r.phase, seconds_since(t));
  EXPECT_TRUE(r.fault != "unplug" || took(t, first_after(call[0], t), 5.5, 10));  // 3 s, then bring-up's own 3 s
  EXPECT_TRUE(first_after(call[0], t) < first_after(call[1], t) && first_after(call[1], t) < first_after(call[2], t));
  EXPECT_TRUE(link_is(sb, true, {}));
  EXPECT_EQ(count_between(sb.qmi_requests(kStopNetwork), first_after(call[0], t), monotonic_us()), 0u);
  EXPECT_TRUE(!connected || sb.wait_bus(kLinkChanged, 5s, 3));  // up, down, up
  EXPECT_FALSE(sb.daemon_exit().has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Phases, Unplugged,
    ::testing::Values(
        Reinit{"BringUp", "0\n", {"on reset silent times=1"}, nullptr, "wds request reset", "remove", true},
        Reinit{"Connecting", "0\n", {"on start silent times=1"}, nullptr, "wds request start", "remove", true},
        Reinit{"Connected", "0\n", {}, nullptr, nullptr, "remove", true},
        Reinit{"Disconnecting", "0\n", {"on stop silent times=1"}, "drop", "wds request stop", "remove", true},
        Reinit{"ConnectedWithoutHotplug", "0\n", {}, nullptr, nullptr, "remove", false},
        Reinit{"BringUpUnpluggedRecoversAlone", "0\n", {"on reset silent times=1"}, nullptr, "wds request reset", "unplug", true},
        Reinit{"NdisConnected", "1\n", {}, nullptr, nullptr, "remove", true},
        Reinit{"NdisDialling", "1\n", {"on dial silent times=1"}, nullptr, "at line AT^NDISDUP=1,1", "remove", true}));

TEST(StuckCall, ACallLeftUpByAnUnansweredStopIsClearedBySignal38) {
  // Claim: when none of the three stop requests of a disconnect is answered,
  // the link is torn down while the modem keeps the call; every later start
  // is refused with error 26 "No Effect" until signal 38, whose WDS reset
  // clears the call, lets the next start through.
  Sandbox sb({.sim = {"on stop silent times=3"}});
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3));
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_log("wds_disconnect : disconnected 3 times failed", 60s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "6\n", 5s));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
  EXPECT_EQ(sb.sim_state()["call"], "2");  // still up at the modem

  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_log("g_qmi_error = 26, dscp : No Effect.", 30s, 2)) << sb.log();  // the start, and its retry
  EXPECT_EQ(sb.read("status"), "6\n");
  int64_t t_signal = monotonic_us();
  sb.signal(38);
  ASSERT_TRUE(sb.wait_until([&] { return count_between(sb.qmi_requests(kReset), t_signal, monotonic_us()) > 0; }, 30s));
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  printf("[figure] call left up by an unanswered stop: %.2f s from signal 38 to status 3\n", seconds_since(t_signal));
  EXPECT_TRUE(link_is(sb, true, {}));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
  EXPECT_FALSE(sb.daemon_exit().has_value());
}

}  // namespace
