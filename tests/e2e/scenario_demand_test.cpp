// SPDX-License-Identifier: ISC
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
constexpr char kDefaultRoute[] = "default via 10.112.112.112 dev rmnet0";

// Bytes that went out through the interface, read there by the simulator.
uint64_t tun_bytes(const Sandbox& sb) { return std::stoull(sb.sim_state()["tun-bytes"]); }

TEST(Demand, PlaceholderLinkCatchesTrafficThatStartsCallsAndIdleTimeEndsThem) {
  // Claim: dial 4 installs the placeholder link (10.48.48.48/32, host and
  // default routes via 10.112.112.112, 0x3d02 with the interface's name in
  // 64 bytes) and writes no address file; one rise of the transmit counter
  // over three checks dials nothing, rises on consecutive checks start the
  // call, and with idletime 18 the idle events after the baseline (9, then
  // 18 on standard output) end it with a stop, the placeholder, its files
  // and 0x11601 then 0x3d02 back. Three times in a row: the call's address
  // takes the default route away with the placeholder, and the teardown
  // adds back only the host route, so each later call rests on "cms"
  // reinstalling the default route on 0x3d02. SIGTERM then stops nothing.
  const Settings placeholder = {"10.48.48.48", "255.255.255.255", "10.112.112.112", Settings{}.dns, 32};
  Sandbox sb({.profile = "username = user1\npassword = pass1\nauth = 2\nidletime = 18\nsetapn = internet\nmru = 1500\n",
              .dial = 4});
  sb.start();
  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 40s)) << sb.log();
  EXPECT_EQ(sb.read("status"), "0\n");
  EXPECT_EQ(sb.bus(), std::vector{kDemandLinkReady});
  EXPECT_TRUE(contains(addresses(sb), "inet 10.48.48.48/32")) << addresses(sb);
  EXPECT_TRUE(contains(routes(sb), kDefaultRoute) && contains(routes(sb), "10.112.112.112 dev rmnet0 scope link"));
  EXPECT_FALSE(sb.read("ipaddr").has_value());

  // One packet follows the default route into the interface: one rise.
  uint64_t before = tun_bytes(sb);
  sb.udp(kFarAway, 64);
  ASSERT_TRUE(sb.wait_until([&] { return tun_bytes(sb) > before; }, 5s));
  EXPECT_FALSE(sb.wait_qmi_request(kStartNetwork, 38s)) << sb.log();
  EXPECT_EQ(sb.read("status"), "0\n");
  EXPECT_EQ(sb.count_log("wds state : connected"), 0);

  std::vector bus = {kDemandLinkReady};
  for (size_t call = 1; call <= 3; ++call) {
    SCOPED_TRACE("call " + std::to_string(call));
    // Keep traffic flowing, as an application behind the gateway would,
    // until the daemon dials.
    int64_t first_packet = monotonic_us();
    bool dialled = false;
    for (int i = 0; i < 60 && !dialled; ++i) {
      sb.udp(kFarAway, 100);
      dialled = sb.wait_qmi_request(kStartNetwork, 1s, call);
    }
    ASSERT_TRUE(dialled) << sb.log();
    ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
    int64_t up = monotonic_us();
    // A baseline and two rises: the third demand check, 12 s apart, after the
    // first packet at the latest, then the dial itself.
    EXPECT_TRUE(took(first_packet, up, 0, 45));
    EXPECT_TRUE(link_is(sb, true, {}));
    EXPECT_FALSE(contains(routes(sb), kDefaultRoute)) << routes(sb);

    // Idle from here on: baseline at the first idle event, then 9 and 18,
    // the third event after the call came up, each 12 s apart.
    ASSERT_TRUE(sb.wait_state("status", "6\n", 60s)) << sb.log();
    EXPECT_TRUE(took(up, monotonic_us(), 20, 40));
    EXPECT_EQ(sb.count_log("qmi_event_demand_idle_handle : idletime:[18]out"), static_cast<int>(call));
    ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 5s, call));
    ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 10s, call + 1)) << sb.log();
    EXPECT_TRUE(link_is(sb, true, placeholder));
    EXPECT_TRUE(sb.wait_until([&] { return contains(routes(sb), kDefaultRoute); }, 10s)) << routes(sb);
    EXPECT_FALSE(contains(addresses(sb), "192.168.8.100"));
    EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), call);
    EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), call);
    bus.insert(bus.end(), {kLinkChanged, kLinkChanged, kDemandLinkReady});
  }
  EXPECT_EQ(sb.bus(), bus);
  EXPECT_EQ(sb.lines("platform.log").size(), 4u);  // cms's route, once per 0x3d02

  // The idle count on standard output is flushed when the daemon exits.
  sb.signal(SIGTERM);
  ASSERT_EQ(sb.wait_daemon_exit(30s), "exit 0") << sb.log();
  std::string out = sb.daemon_output();
  size_t nine = out.find("Current time account:[9] secends\n"), eighteen = out.find("Current time account:[18] secends\n");
  EXPECT_TRUE(nine < eighteen && eighteen != std::string::npos) << out;
  EXPECT_FALSE(contains(out, "Current time account:[27]"));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 3u);
}

}  // namespace
