// Whole QMI calls, driven the way the gateway's management side drives them:
// a dial request in the dial file, the daemon against the simulated modem,
// and what the rest of the gateway sees (state files, interface, routes,
// bus). Each test prints "[figure]" lines with its duration and the connect
// latency (dial request written to status 3).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"
#include "tests/e2e/scenario_support.h"

namespace {

using namespace wds::e2e;


// The status poll runs every third 4-second tick; its answer follows at once.
constexpr auto kPollPeriod = 12s;
// Every wait below is a limit on a condition, generous for a loaded CI box.
constexpr auto kBringUpLimit = 40s;
constexpr auto kConnectLimit = 30s;



// Waits for bring-up to finish (status 0 published, daemon ready), writes the
// dial request and waits for status 3; records the latency.
::testing::AssertionResult dial_and_connect(const Sandbox& sb, int dial, Figures& fig) {
  auto connected = wds::e2e::dial_and_connect(sb, dial, fig, kBringUpLimit, kConnectLimit);
  if (!connected) return connected;
  // The dial file is reread every 3 s (a tick may cut that sleep short, but
  // the read comes before it), and the call itself takes well under a second.
  const double latency = fig.last_latency();
  if (latency > 10.0) return ::testing::AssertionFailure() << "connect took " << latency << " s\n" << sb.log();
  return ::testing::AssertionSuccess();
}

std::string tlv(uint8_t type, const std::string& value) {
  std::string out;
  out += static_cast<char>(type);
  out += static_cast<char>(value.size() >> 8);
  out += static_cast<char>(value.size() & 0xff);
  return out + value;
}

std::string be16(uint16_t v) { return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xff)}; }


// A profile with every field the start request carries set to a value of its
// own, so that each TLV is traceable to its key.
constexpr char kProfile[] =
    "dialnumber = *99***1#\n"
    "username = alice\n"
    "password = s3cr3t\n"
    "dial_mode = auto\n"
    "auth = 1\n"
    "idletime = 60\n"
    "setapn = apn.example.net\n"
    "setip = 10.11.12.13\n"
    "mru = 1460\n";

// The start-network TLV area for kProfile, spelled out from the profile's
// keys: technology 1, auth 1, username, password, APN, address preference.
std::string expected_start_tlvs() {
  return tlv(0x30, "\x01") + tlv(0x16, "\x01") + tlv(0x17, "alice") + tlv(0x18, "s3cr3t") +
         tlv(0x14, "apn.example.net") + tlv(0x15, std::string("\x0a\x0b\x0c\x0d", 4));
}

// Settings the simulated network hands out, none of them the simulator's
// defaults, so every published value is traceable to the network.
const std::vector<std::string> kNetworkSettings = {
    "set addr=10.20.30.40 mask=255.255.0.0 gw=10.20.0.1 dns1=10.20.0.2 dns2=10.20.0.3 handle=0x5EED1234",
};

TEST(QmiCalls, StayConnectedPublishesTheNetworksSettingsAndRedialsAfterADrop) {
  // Claim: with dial 3 the call comes up with the profile's start request byte
  // for byte and the network's settings published and installed; a drop by
  // the network is seen at the next status poll, torn down, and redialled.
  Figures fig;
  SandboxOptions o;
  o.profile = kProfile;
  o.sim = kNetworkSettings;
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));

  EXPECT_EQ(sb.state("ipaddr"), "10.20.30.40\n");
  EXPECT_EQ(sb.state("mask"), "255.255.0.0\n");
  EXPECT_EQ(sb.state("gateway"), "10.20.0.1\n");
  EXPECT_EQ(sb.state("dns"), "nameserver 10.20.0.2\nnameserver 10.20.0.3\n");
  EXPECT_EQ(sb.state("pppc_tcp_mss"), "1380\n");  // mru 1460 - 80
  EXPECT_EQ(sb.sim_state()["call"], "2");

  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "dev", "rmnet0"});
  EXPECT_TRUE(contains(addr.output, "inet 10.20.30.40/16")) << addr.output;
  auto route = sb.run({"ip", "-4", "route", "show", "10.20.0.1/32"});
  EXPECT_TRUE(contains(route.output, "10.20.0.1 dev rmnet0")) << route.output;

  // The start request: a request (flag 0), a fresh transaction id after the
  // reset's, message 0x0020, and the profile's TLVs in order.
  auto resets = sb.qmi_requests(kReset);
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 1u);
  ASSERT_GE(resets.size(), 1u);
  const std::string tlvs = expected_start_tlvs();
  std::string want = std::string(1, '\0') + be16(starts[0].tx) + be16(kStartNetwork) +
                     be16(static_cast<uint16_t>(tlvs.size())) + tlvs;
  EXPECT_EQ(to_hex(starts[0].bytes), to_hex(want));
  EXPECT_EQ(starts[0].bytes.size(), 7u + 8 + 8 + 9 + 18 + 7);
  EXPECT_EQ(starts[0].tx, static_cast<uint16_t>(resets.back().tx + 1));

  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s));
  auto msgs = sb.bus();
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_EQ(msgs[0].sender, "qmi");
  EXPECT_EQ(msgs[0].len, 0u);

  // The network ends the call and the modem's packet status changes, with no
  // indication reaching the daemon: only the status poll can tell. The
  // redial's start is held back 4 s by the network so that the torn-down
  // state can be looked at before the call returns.
  sb.sim("on start delay=4000 times=1");
  size_t polls_before = sb.qmi_requests(kPacketStatus).size();
  int64_t t_drop = monotonic_us();
  sb.sim("set call=1");
  ASSERT_TRUE(sb.wait_state("status", "6\n", kPollPeriod + 10s)) << sb.log();
  double noticed = seconds_since(t_drop);
  EXPECT_LE(noticed, 16.5) << "the drop was not seen at the next status poll";
  // Exactly one poll since the drop: the first one noticed it.
  auto polls = sb.qmi_requests(kPacketStatus);
  ASSERT_EQ(polls.size(), polls_before + 1);
  EXPECT_GE(polls.back().t_us, t_drop);
  EXPECT_TRUE(sb.wait_log("g_connection_status_rsp:1", 5s)) << sb.log();

  // Teardown: addresses emptied, the interface and the host route cleared,
  // gateway and dns left as the last call set them, the bus told.
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_EQ(sb.state("gateway"), "10.20.0.1\n");
  EXPECT_EQ(sb.state("dns"), "nameserver 10.20.0.2\nnameserver 10.20.0.3\n");
  EXPECT_TRUE(sb.wait_until(
      [&] {
        auto a = sb.run({"ip", "-o", "-4", "addr", "show", "dev", "rmnet0"});
        auto r = sb.run({"ip", "-4", "route", "show", "10.20.0.1/32"});
        return !contains(a.output, "10.20.30.40") && !contains(r.output, "10.20.0.1");
      },
      3s))
      << "address or host route still installed after teardown";
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 3s, 2));
  // The daemon ended its side of the call with the handle it was given.
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(3)), "002100070100045eed1234");

  // Redial: a second start, identical but for its transaction id, and the
  // call is published again.
  int64_t t_redial = monotonic_us();
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t_redial));
  starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_EQ(to_hex(starts[1].bytes.substr(3)), to_hex(starts[0].bytes.substr(3)));
  EXPECT_NE(starts[1].tx, starts[0].tx);
  EXPECT_GT(starts[1].t_us, stops[0].t_us);
  EXPECT_EQ(sb.state("ipaddr"), "10.20.30.40\n");
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 3));
}

TEST(QmiCalls, ConnectOnceTakesTheRequestAndDoesNotRedialAfterADrop) {
  // Claim: dial 2 makes one call, leaves exactly "0" in the dial file, and a
  // call dropped by the network is not redialled.
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 2, fig));
  EXPECT_EQ(sb.state("dial"), "0");
  ASSERT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);

  // The drop comes with its indication, which the tty hands over alone to
  // the next poll: that poll fails and the one after it sees the call gone.
  int64_t t_drop = monotonic_us();
  sb.sim("drop");
  ASSERT_TRUE(sb.wait_state("status", "6\n", 2 * kPollPeriod + 10s)) << sb.log();
  EXPECT_LE(seconds_since(t_drop), 28.5);
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  // Waiting for something not to happen: two status-poll periods plus a tick
  // is longer than any redial would take (the dial file is reread every tick).
  EXPECT_FALSE(sb.wait_qmi_request(kStartNetwork, 2 * kPollPeriod + 4s, 2))
      << "a connect-once call was redialled\n" << sb.log();
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(sb.state("dial"), "0");
  EXPECT_EQ(sb.sim_state()["call"], "1");
}

TEST(QmiCalls, DisconnectRequestStopsTheCallWithItsHandleAndIdles) {
  // Claim: writing 1 into the dial file while connected sends the stop request
  // with the handle the modem gave, within about one tick; the link is torn
  // down and the daemon then idles without dialling again.
  Figures fig;
  SandboxOptions o;
  o.sim = {"set handle=0xCAFEF00D"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  ASSERT_TRUE(sb.qmi_requests(kStopNetwork).empty());

  int64_t t_request = monotonic_us();
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 15s)) << sb.log();
  auto stops = sb.qmi_requests(kStopNetwork);
  // The main loop wakes on every 4-second tick; allow scheduling slack.
  EXPECT_LE(seconds_between(t_request, stops[0].t_us), 6.5);
  ASSERT_EQ(stops[0].bytes.size(), 14u);
  EXPECT_EQ(stops[0].ctl, 0);
  EXPECT_NE(stops[0].tx, 0);
  EXPECT_EQ(to_hex(stops[0].bytes.substr(3)), "00210007010004cafef00d");

  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_TRUE(sb.wait_log("wds_disconnect : disconnected successful", 5s)) << sb.log();
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "dev", "rmnet0"});
  EXPECT_FALSE(contains(addr.output, "192.168.8.100")) << addr.output;
  auto sim = sb.sim_state();
  EXPECT_EQ(sim["call"], "1");
  EXPECT_EQ(sim["handle"], "0x00000000");

  // Idle: no new call and no further stop for two poll periods and a tick.
  EXPECT_FALSE(sb.wait_until(
      [&] { return sb.qmi_requests(kStartNetwork).size() > 1 || sb.qmi_requests(kStopNetwork).size() > 1; },
      2 * kPollPeriod + 4s))
      << sb.log();
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(sb.state("dial"), "1\n");
}

}  // namespace
