// The daemon on a gateway whose platform does its part: the hotplug handler
// sends signal 38 when the modem comes back, and signal 38 is the way out of
// a call the modem keeps after an unanswered stop. Each test prints
// "[figure]" lines with its duration and its recovery time.
#include <cstdio>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

bool any_after(const std::vector<QmiRequest>& reqs, int64_t t_us) {
  return std::ranges::any_of(reqs, [&](const QmiRequest& r) { return r.t_us > t_us; });
}

bool logged(const std::vector<std::string>& lines, const std::string& text) {
  return std::ranges::any_of(lines, [&](const std::string& l) { return contains(l, text); });
}

// Waits for a call started after `since` to be published (its settings
// request, then status 3), and checks the files and the interface of a
// whole call. Returns the seconds from `since` to status 3.
double wait_fresh_call(const Sandbox& sb, int64_t since) {
  bool asked = sb.wait_until([&] { return any_after(sb.qmi_requests(kRuntimeSettings), since); }, 60s);
  EXPECT_TRUE(asked && sb.wait_state("status", "3\n", 10s)) << sb.log();
  double took = seconds_since(since);
  EXPECT_TRUE(any_after(sb.qmi_requests(kReset), since)) << "no bring-up after the event";
  const std::map<std::string, std::string> files = {{"ipaddr", "192.168.8.100\n"},
                                                    {"mask", "255.255.255.0\n"},
                                                    {"gateway", "192.168.8.1\n"},
                                                    {"dns", "nameserver 192.168.8.2\nnameserver 192.168.8.3\n"}};
  // The address files are written just after the status.
  sb.wait_until([&] { return std::ranges::all_of(files, [&](const auto& f) { return sb.state(f.first) == f.second; }); },
                5s);
  for (const auto& [name, content] : files) EXPECT_EQ(sb.state(name), content) << name;
  EXPECT_TRUE(contains(addresses(sb), "inet 192.168.8.100/24")) << addresses(sb);
  auto routes = sb.run({"ip", "-4", "route", "show"}).output;
  EXPECT_TRUE(contains(routes, "192.168.8.1 dev rmnet0")) << routes;
  EXPECT_FALSE(sb.daemon_exit().has_value());
  return took;
}

struct Unplug {
  const char* phase;
  std::vector<std::string> sim;     // the modem's behaviour from the start
  const char* once_up;              // simulator command once the call is up, or nullptr
  std::optional<uint16_t> pending;  // unplugged while this request waits, else once connected
  bool hotplug;
};

// Names the test after its row (ctest puts the value in the name).
void PrintTo(const Unplug& u, std::ostream* os) { *os << u.phase; }

class Unplugged : public ::testing::TestWithParam<Unplug> {};

TEST_P(Unplugged, ReplugEndsInAFreshCall) {
  // Claim: a modem unplugged and plugged back in any phase of a call (while
  // bring-up waits for the WDS reset, while the start waits, while
  // connected, while the stop of a dropped call waits) ends in a fresh call
  // with its files and routes, because the hotplug handler sends signal 38
  // on the replug. Without the handler the daemon keeps its dead descriptor
  // after the replug (status 3, a failing status poll, no reopen) until it
  // gets signal 38 by other means.
  const Unplug& u = GetParam();
  Figures fig;
  Sandbox sb({.dial = 3, .sim = u.sim, .hotplug = u.hotplug});
  sb.start();
  if (!u.pending || u.once_up) {
    ASSERT_TRUE(sb.wait_state("status", "3\n", kBringUpLimit + kConnectLimit)) << sb.log();
  }
  if (u.once_up) sb.sim(u.once_up);
  if (u.pending) {
    ASSERT_TRUE(sb.wait_qmi_request(*u.pending, kBringUpLimit + kPollPeriod)) << sb.log();
  }
  sb.sim("remove");
  if (u.pending) {
    ASSERT_TRUE(sb.wait_log("read msg error, errno = ENODEV", 10s)) << sb.log();
  }
  size_t opens = events(sb, "open gen=").size();
  int64_t t_back = monotonic_us();
  sb.sim("replug");
  if (u.hotplug) {
    EXPECT_TRUE(sb.wait_until([&] { return logged(sb.platform_log(), "hotplug add: signal 38 to"); }, 5s));
  } else {
    int failed = sb.count_log("wds_get_srv_state failed");
    ASSERT_TRUE(sb.wait_log("wds_get_srv_state failed", kPollPeriod + 6s, failed + 1)) << sb.log();
    EXPECT_EQ(sb.state("status"), "3\n");
    EXPECT_EQ(events(sb, "open gen=").size(), opens);
    EXPECT_TRUE(sb.platform_log().empty());
    t_back = monotonic_us();
    sb.signal(38);
  }
  double recovery = wait_fresh_call(sb, t_back);
  EXPECT_GT(events(sb, "open gen=").size(), opens);
  printf("[figure] unplugged while %s: %.2f s from %s to status 3\n", u.phase, recovery,
         u.hotplug ? "replug" : "signal 38");
}

INSTANTIATE_TEST_SUITE_P(
    Phases, Unplugged,
    ::testing::Values(Unplug{"BringUp", {"on reset silent times=1"}, nullptr, kReset, true},
                      Unplug{"Connecting", {"on start silent times=1"}, nullptr, kStartNetwork, true},
                      Unplug{"Connected", {}, nullptr, std::nullopt, true},
                      Unplug{"Disconnecting", {"on stop silent times=1"}, "drop", kStopNetwork, true},
                      Unplug{"ConnectedWithoutHotplug", {}, nullptr, std::nullopt, false}));

TEST(StuckCall, ACallLeftUpByAnUnansweredStopIsClearedBySignal38) {
  // Claim: when none of the three stop requests of a disconnect is answered,
  // the link is torn down while the modem keeps the call; every later start
  // is refused with error 26 "No Effect" until signal 38, whose WDS reset
  // clears the call, lets the next start through.
  Figures fig;
  Sandbox sb({.sim = {"on stop silent times=3"}});
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_log("wds_disconnect : disconnected 3 times failed", 60s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "6\n", 5s));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
  EXPECT_EQ(sb.sim_state()["call"], "2");  // still up at the modem

  sb.write_dial(3);
  const std::string refused = "g_qmi_error = 26, dscp : No Effect.";
  ASSERT_TRUE(sb.wait_log(refused, 30s, 2)) << sb.log();  // the start, and its retry after the pause
  EXPECT_EQ(sb.state("status"), "6\n");
  int64_t t_signal = monotonic_us();
  sb.signal(38);
  double recovery = wait_fresh_call(sb, t_signal);
  printf("[figure] call left up by an unanswered stop: %.2f s from signal 38 to status 3\n", recovery);
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
}

}  // namespace
