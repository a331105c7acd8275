// Dial on demand (dial 4) in QMI mode: a placeholder address and routes
// catch outgoing traffic while no call is up; rising transmit counters on
// two checks start a call; a link without outgoing traffic for the profile's
// idle time is taken down and the placeholder comes back, ready for the
// next call.
#include <signal.h>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

// Somewhere behind the default route; the namespace has no way out, the
// packets end in the simulator's reader of the interface.
constexpr char kFarAway[] = "10.200.0.1";

// The demand link's bus payload: the interface name in 64 bytes.
const std::string kNamePayload = std::string("rmnet0") + std::string(58, '\0');

constexpr char kDefaultRoute[] = "default via 10.112.112.112 dev rmnet0";

uint64_t tx_bytes(const Sandbox& sb) {
  auto c = sb.net_dev();
  return c ? c->tx_bytes : 0;
}

std::string routes(const Sandbox& sb) { return sb.run({"ip", "-4", "route", "show"}).output; }

// After a teardown the default route follows 0x3d02 by a moment: "cms"
// adds it back when the message arrives.
void expect_placeholder_link(const Sandbox& sb) {
  EXPECT_TRUE(contains(addresses(sb), "inet 10.48.48.48/32")) << addresses(sb);
  EXPECT_TRUE(sb.wait_until([&] { return contains(routes(sb), kDefaultRoute); }, 10s)) << routes(sb);
  EXPECT_TRUE(contains(routes(sb), "10.112.112.112 dev rmnet0 scope link")) << routes(sb);
}

TEST(Demand, PlaceholderLinkCatchesTrafficThatStartsCallsAndIdleTimeEndsThem) {
  // Claim: dial 4 installs the placeholder link (10.48.48.48/32, host and
  // default routes via 10.112.112.112, 0x3d02 with the 64-byte name), one
  // rise of the transmit counter over three checks dials nothing, rises on
  // consecutive checks start the call, and with idletime 18 the second idle
  // event after the baseline ends it with the placeholder, its files and
  // 0x11601 then 0x3d02 back. Three times in a row: the call's address
  // takes the default route away with the placeholder, and the teardown
  // adds back only the host route, so each later call rests on "cms"
  // reinstalling the default route on 0x3d02.
  Figures fig;
  Sandbox sb({.profile = "username = user1\npassword = pass1\nauth = 2\nidletime = 18\nsetapn = internet\nmru = 1500\n",
              .dial = 4});
  sb.start();
  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 40s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 5s));
  auto bus = sb.bus();
  ASSERT_EQ(bus.size(), 1u);
  EXPECT_EQ(bus[0].sender, "qmi");
  EXPECT_EQ(bus[0].type, kDemandLinkReady);
  EXPECT_EQ(bus[0].len, 64u);
  EXPECT_EQ(bus[0].payload, kNamePayload);
  expect_placeholder_link(sb);
  EXPECT_FALSE(sb.state("ipaddr").has_value());  // the initial setup writes no address files

  // One packet follows the default route into the interface: one rise.
  uint64_t before = tx_bytes(sb);
  sb.udp(kFarAway, 9, 64, 1);
  ASSERT_TRUE(sb.wait_until([&] { return tx_bytes(sb) > before; }, 5s));
  EXPECT_FALSE(sb.wait_qmi_request(kStartNetwork, 38s)) << sb.log();
  EXPECT_EQ(sb.state("status"), "0\n");
  EXPECT_EQ(sb.count_log("wds state : connected"), 0);

  for (size_t call = 1; call <= 3; ++call) {
    SCOPED_TRACE("call " + std::to_string(call));
    // Keep traffic flowing, as an application behind the gateway would,
    // until the daemon dials.
    int64_t first_packet = monotonic_us();
    uint64_t tx_at_start = tx_bytes(sb);
    bool dialled = false;
    for (int i = 0; i < 60 && !dialled; ++i) {
      sb.udp(kFarAway, 9, 100, 1);
      dialled = sb.wait_qmi_request(kStartNetwork, 1s, call);
    }
    ASSERT_TRUE(dialled) << sb.log();
    EXPECT_GT(tx_bytes(sb), tx_at_start);
    ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
    int64_t up = monotonic_us();
    fig.connect_latency(seconds_between(first_packet, up));  // here: first packet to status 3
    // A baseline and two rises: the third demand check, 12 s apart, after the
    // first packet at the latest, then the dial itself.
    EXPECT_LT(up - first_packet, 45'000'000);
    EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
    EXPECT_TRUE(contains(addresses(sb), "inet 192.168.8.100/24")) << addresses(sb);
    EXPECT_FALSE(contains(routes(sb), kDefaultRoute)) << routes(sb);
    ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2 * call - 1));

    // Idle from here on.
    ASSERT_TRUE(sb.wait_state("status", "6\n", 60s)) << sb.log();
    int64_t down = monotonic_us();
    // Baseline at the first idle event, then 9 and 18: the third event after
    // the call came up, each 12 s apart.
    EXPECT_GE(down - up, 20'000'000);
    EXPECT_LE(down - up, 40'000'000);
    EXPECT_EQ(sb.count_log("qmi_event_demand_idle_handle : idletime:[18]out"), static_cast<int>(call));
    ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 5s, call));
    EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), call);

    ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 10s, call + 1)) << sb.log();
    EXPECT_EQ(sb.state("ipaddr"), "10.48.48.48\n");
    EXPECT_EQ(sb.state("mask"), "255.255.255.255\n");
    EXPECT_EQ(sb.state("gateway"), "10.112.112.112\n");
    expect_placeholder_link(sb);
    EXPECT_FALSE(contains(addresses(sb), "192.168.8.100"));
    EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), call);
  }
  std::vector<uint32_t> types;
  for (const auto& m : sb.bus()) types.push_back(m.type);
  std::vector<uint32_t> each_call = {kLinkChanged, kLinkChanged, kDemandLinkReady};
  std::vector<uint32_t> expected = {kDemandLinkReady};
  for (int i = 0; i < 3; ++i) expected.insert(expected.end(), each_call.begin(), each_call.end());
  EXPECT_EQ(types, expected);
  EXPECT_EQ(sb.bus().back().payload, kNamePayload);
  EXPECT_EQ(sb.platform_log().size(), 4u);  // cms's route, once per 0x3d02

  // The idle count on standard output (flushed when the daemon exits): 9,
  // then 18, which reached the idle time.
  sb.signal(SIGTERM);
  ASSERT_EQ(sb.wait_daemon_exit(30s), "exit 0") << sb.log();
  std::string out = sb.daemon_output();
  size_t nine = out.find("Current time account:[9] secends\n");
  size_t eighteen = out.find("Current time account:[18] secends\n");
  ASSERT_NE(nine, std::string::npos) << out;
  ASSERT_NE(eighteen, std::string::npos) << out;
  EXPECT_LT(nine, eighteen);
  EXPECT_EQ(out.find("Current time account:[27]"), std::string::npos);
  // No call was up, so none was stopped on the way out.
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
}

}  // namespace
