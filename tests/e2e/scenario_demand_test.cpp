// Dial on demand (dial 4) in QMI mode: a placeholder address and routes
// catch outgoing traffic while no call is up; rising transmit counters on
// two checks start a call; a link without outgoing traffic for the profile's
// idle time is taken down and the placeholder comes back.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"
#include "tests/e2e/scenario_support.h"

namespace {

using namespace wds::e2e;

// Somewhere behind the default route; the namespace has no way out, the
// packets end in the simulator's reader of the interface.
constexpr char kFarAway[] = "10.200.0.1";

SandboxOptions demand(int idletime) {
  SandboxOptions o;
  o.dial = 4;
  o.profile = "username = user1\npassword = pass1\nauth = 2\nidletime = " + std::to_string(idletime) +
              "\nsetapn = internet\nmru = 1500\n";
  return o;
}

std::string interface_name_payload() {
  std::string p = "rmnet0";
  p.resize(64, '\0');
  return p;
}

uint64_t tx_bytes(const Sandbox& sb) {
  auto c = sb.net_dev("rmnet0");
  return c ? c->tx_bytes : 0;
}

void expect_placeholder_link(const Sandbox& sb) {
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "rmnet0"});
  EXPECT_NE(addr.output.find("inet 10.48.48.48/32"), std::string::npos) << addr.output;
  auto routes = sb.run({"ip", "-4", "route", "show"});
  EXPECT_NE(routes.output.find("10.112.112.112 dev rmnet0"), std::string::npos) << routes.output;
}

TEST(Demand, PlaceholderLinkIsInstalledAndNothingIsDialledWithoutRisingTraffic) {
  // With dial 4 the interface gets 10.48.48.48/32, a host route to
  // 10.112.112.112 and the default route through it, "cms" hears 0x3d02 with
  // the 64-byte interface name, and no call is made over three demand checks
  // while the transmit counter rises only once.
  Sandbox sb(demand(60));
  sb.start();
  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 40s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 5s));
  auto bus = sb.bus();
  ASSERT_EQ(bus.size(), 1u);
  EXPECT_EQ(bus[0].sender, "qmi");
  EXPECT_EQ(bus[0].type, kDemandLinkReady);
  EXPECT_EQ(bus[0].len, 64u);
  EXPECT_EQ(bus[0].payload, interface_name_payload());

  ASSERT_TRUE(sb.wait_until(
      [&] {
        auto r = sb.run({"ip", "-4", "route", "show"});
        return r.output.find("default via 10.112.112.112 dev rmnet0") != std::string::npos;
      },
      10s))
      << sb.run({"ip", "-4", "route", "show"}).output;
  expect_placeholder_link(sb);
  // The initial setup writes no address files.
  EXPECT_FALSE(sb.state("ipaddr").has_value());

  // One packet follows the default route into the interface: one rise.
  uint64_t before = tx_bytes(sb);
  sb.udp(kFarAway, 9, 64, 1);
  ASSERT_TRUE(sb.wait_until([&] { return tx_bytes(sb) > before; }, 5s));
  EXPECT_FALSE(sb.wait_qmi_request(kStartNetwork, 38s)) << sb.log();
  EXPECT_EQ(sb.state("status"), "0\n");
  EXPECT_EQ(sb.count_log("wds state : connected"), 0);
}

TEST(Demand, TrafficStartsACallAndIdleTimeEndsItWithThePlaceholderBack) {
  // Packets towards the placeholder route on consecutive checks raise the
  // demand flag and the call comes up with the modem's address; with
  // idletime 18 and no outgoing traffic the link is dropped at the second
  // idle event after the baseline, and the placeholder link, its files and
  // 0x11601 then 0x3d02 on the bus come back.
  Sandbox sb(demand(18));
  sb.start();
  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 40s)) << sb.log();

  // Keep traffic flowing, as an application behind the gateway would,
  // until the daemon dials.
  int64_t first_packet = monotonic_us();
  uint64_t tx_at_start = tx_bytes(sb);
  bool dialled = false;
  for (int i = 0; i < 60 && !dialled; ++i) {
    sb.udp(kFarAway, 9, 100, 1);
    dialled = sb.wait_qmi_request(kStartNetwork, 1s);
  }
  ASSERT_TRUE(dialled) << sb.log();
  EXPECT_GT(tx_bytes(sb), tx_at_start);
  ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
  int64_t up = monotonic_us();
  printf("[ latency  ] demand: first packet -> status 3: %.2f s\n", static_cast<double>(up - first_packet) / 1e6);
  ::testing::Test::RecordProperty("connect_latency_ms", static_cast<int>((up - first_packet) / 1000));
  // A baseline and two rises: the third demand check, 12 s apart, after the
  // first packet at the latest, then the dial itself.
  EXPECT_LT(up - first_packet, 45'000'000);
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "rmnet0"});
  EXPECT_NE(addr.output.find("inet 192.168.8.100/24"), std::string::npos) << addr.output;
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s));

  // Idle from here on.
  ASSERT_TRUE(sb.wait_state("status", "6\n", 60s)) << sb.log();
  int64_t down = monotonic_us();
  // Baseline at the first idle event, then 9 and 18: the third event after
  // the call came up, each 12 s apart.
  EXPECT_GE(down - up, 20'000'000);
  EXPECT_LE(down - up, 40'000'000);
  EXPECT_EQ(sb.count_log("qmi_event_demand_idle_handle : idletime:[18]out"), 1);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 5s));
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);

  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 10s, 2)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "10.48.48.48\n");
  EXPECT_EQ(sb.state("mask"), "255.255.255.255\n");
  EXPECT_EQ(sb.state("gateway"), "10.112.112.112\n");
  std::vector<uint32_t> types;
  for (const auto& m : sb.bus()) types.push_back(m.type);
  EXPECT_EQ(types, (std::vector<uint32_t>{kDemandLinkReady, kLinkChanged, kLinkChanged, kDemandLinkReady}));
  EXPECT_EQ(sb.bus().back().payload, interface_name_payload());
  expect_placeholder_link(sb);
  EXPECT_EQ(sb.run({"ip", "-o", "-4", "addr", "show", "rmnet0"}).output.find("192.168.8.100"), std::string::npos);
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);

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
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
}

}  // namespace
