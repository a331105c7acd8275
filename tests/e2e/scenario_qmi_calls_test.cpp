// Whole QMI calls, driven the way the gateway's management side drives them:
// a dial request in the dial file, the daemon against the simulated modem,
// and what the rest of the gateway sees (state files, interface, routes,
// bus). Each test prints "[figure]" lines with its duration and the connect
// latency (dial request written to status 3).
#include <signal.h>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

std::string host_route(const Sandbox& sb, const std::string& to) {
  return sb.run({"ip", "-4", "route", "show", to + "/32"}).output;
}

TEST(QmiCalls, StayConnectedPublishesTheNetworksSettingsRedialsAfterADropAndEndsOnSigterm) {
  // Claim: with dial 3 the call comes up with the profile's start request byte
  // for byte and the network's settings published and installed; a drop by
  // the network is seen at the next status poll, torn down, and redialled;
  // SIGTERM then stops the call with its handle and the daemon exits 0.
  Figures fig;
  // Every field the start request carries set to a value of its own, so that
  // each TLV is traceable to its key; the network's settings are none of the
  // simulator's defaults.
  Sandbox sb({.profile = "dialnumber = *99***1#\nusername = alice\npassword = s3cr3t\ndial_mode = auto\n"
                         "auth = 1\nidletime = 60\nsetapn = apn.example.net\nsetip = 10.11.12.13\nmru = 1460\n",
              .sim = {"set addr=10.20.30.40 mask=255.255.0.0 gw=10.20.0.1 dns1=10.20.0.2 dns2=10.20.0.3 "
                      "handle=0x5EED1234"}});
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  // The dial file is reread every 3 s (a tick may cut that sleep short, but
  // the read comes before it), and the call itself takes well under a second.
  EXPECT_LE(fig.last_latency(), 10.0);

  const std::string dns = "nameserver 10.20.0.2\nnameserver 10.20.0.3\n";
  EXPECT_EQ(sb.state("ipaddr"), "10.20.30.40\n");
  EXPECT_EQ(sb.state("mask"), "255.255.0.0\n");
  EXPECT_EQ(sb.state("gateway"), "10.20.0.1\n");
  EXPECT_EQ(sb.state("dns"), dns);
  EXPECT_EQ(sb.state("pppc_tcp_mss"), "1380\n");  // mru 1460 - 80
  EXPECT_EQ(sb.sim_state()["call"], "2");
  EXPECT_TRUE(contains(addresses(sb), "inet 10.20.30.40/16")) << addresses(sb);
  EXPECT_TRUE(contains(host_route(sb, "10.20.0.1"), "10.20.0.1 dev rmnet0")) << host_route(sb, "10.20.0.1");

  // The start request: a request (flag 0) with the transaction id after the
  // reset's, message 0x0020, 50 bytes of TLVs in order: technology 1, auth 1,
  // username, password, APN, address preference.
  auto resets = sb.qmi_requests(kReset);
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 1u);
  ASSERT_GE(resets.size(), 1u);
  EXPECT_EQ(hex_without_tx(starts[0]), "0000200032" "30000101" "16000101" "170005" + to_hex("alice") + "180006" +
                                           to_hex("s3cr3t") + "14000f" + to_hex("apn.example.net") + "1500040a0b0c0d");
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
  EXPECT_LE(seconds_since(t_drop), 16.5) << "the drop was not seen at the next status poll";
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
  EXPECT_EQ(sb.state("dns"), dns);
  EXPECT_TRUE(sb.wait_until(
      [&] { return !contains(addresses(sb), "10.20.30.40") && !contains(host_route(sb, "10.20.0.1"), "10.20.0.1"); },
      3s))
      << "address or host route still installed after teardown";
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 3s, 2));
  // The daemon ended its side of the call with the handle it was given.
  auto stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(hex_without_tx(stops[0]), "00002100070100045eed1234");

  // Redial: a second start, identical but for its transaction id, and the
  // call is published again.
  int64_t t_redial = monotonic_us();
  ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
  fig.connect_latency(seconds_since(t_redial));
  starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_EQ(hex_without_tx(starts[1]), hex_without_tx(starts[0]));
  EXPECT_NE(starts[1].tx, starts[0].tx);
  EXPECT_GT(starts[1].t_us, stops[0].t_us);
  EXPECT_EQ(sb.state("ipaddr"), "10.20.30.40\n");
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 3));

  // SIGTERM: the call is stopped with its handle, the link torn down, the
  // pid file removed, and the exit status is 0.
  ASSERT_TRUE(sb.state("pid").has_value());
  sb.signal(SIGTERM);
  ASSERT_EQ(sb.wait_daemon_exit(40s), "exit 0") << sb.log();
  stops = sb.qmi_requests(kStopNetwork);
  ASSERT_EQ(stops.size(), 2u);
  EXPECT_EQ(hex_without_tx(stops[1]), "00002100070100045eed1234");
  EXPECT_EQ(sb.count_log("wds_disconnect : disconnected successful"), 2) << sb.log();
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_FALSE(sb.state("pid").has_value());
  EXPECT_FALSE(contains(addresses(sb), "10.20.30.40")) << addresses(sb);
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 4));
}

TEST(QmiCalls, ConnectOnceSeesAnAnnouncedDropAtTheSecondPollAndDoesNotRedial) {
  // Claim: dial 2 makes one call and leaves exactly "0" in the dial file; the
  // indication that announces a drop reaches the daemon alone at the next
  // poll, which therefore fails and changes nothing; the poll after it
  // reports the call gone, the link is torn down, and no call is redialled.
  Figures fig;
  Sandbox sb;
  sb.start();
  ASSERT_TRUE(dial_and_connect(sb, 2, fig));
  EXPECT_EQ(sb.state("dial"), "0");
  ASSERT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);

  int64_t t_drop = monotonic_us();
  sb.sim("drop");
  ASSERT_TRUE(sb.wait_log("qmi_event_msm_state_query: wds_get_srv_state failed", kPollPeriod + 6s)) << sb.log();
  EXPECT_EQ(sb.state("status"), "3\n");  // a failed poll changes nothing
  ASSERT_TRUE(sb.wait_state("status", "6\n", kPollPeriod + 6s)) << sb.log();
  double noticed = seconds_since(t_drop);
  EXPECT_GE(noticed, 12.0);
  EXPECT_LE(noticed, 2 * 12.0 + 4.5);
  EXPECT_EQ(count_between(sb.qmi_requests(kPacketStatus), t_drop, monotonic_us()), 2u);
  EXPECT_TRUE(sb.wait_log("g_connection_status_rsp:1", 5s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_TRUE(sb.wait_bus(kLinkChanged, 10s, 2)) << sb.log();
  // Waiting for something not to happen: two status-poll periods plus a tick
  // is longer than any redial would take (the dial file is reread every tick).
  EXPECT_FALSE(sb.wait_qmi_request(kStartNetwork, 2 * kPollPeriod + 4s, 2))
      << "a connect-once call was redialled\n" << sb.log();
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(sb.state("dial"), "0");
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
  EXPECT_EQ(sb.sim_state()["call"], "1");
}

TEST(QmiCalls, NoChipFileMeansQmiAndADisconnectRequestStopsTheCallAndIdles) {
  // Claim: without the chip file the daemon drives the modem by QMI on
  // rmnet0 (client identifier ioctl, WDS reset, start request); writing 1
  // into the dial file while connected sends the stop request with the
  // modem's handle within about one tick, the link is torn down and the
  // daemon then idles without dialling again.
  Figures fig;
  Sandbox sb({.chip = std::nullopt, .sim = {"set handle=0xCAFEF00D"}});
  sb.start();
  EXPECT_FALSE(sb.read("/proc/proc_user_datacardchip").has_value());
  ASSERT_TRUE(dial_and_connect(sb, 3, fig));
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
  EXPECT_EQ(sb.state("mask"), "255.255.255.0\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.8.1\n");
  EXPECT_TRUE(contains(addresses(sb), "inet 192.168.8.100/24")) << addresses(sb);
  EXPECT_EQ(events(sb, "ioctl 0xc0017804").size(), 1u);
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 1u);
  EXPECT_EQ(sb.qmi_requests(kStartNetwork).size(), 1u);
  ASSERT_TRUE(sb.qmi_requests(kStopNetwork).empty());

  int64_t t_request = monotonic_us();
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 15s)) << sb.log();
  auto stops = sb.qmi_requests(kStopNetwork);
  // The main loop wakes on every 4-second tick; allow scheduling slack.
  EXPECT_LE(seconds_between(t_request, stops[0].t_us), 6.5);
  EXPECT_NE(stops[0].tx, 0);
  EXPECT_EQ(hex_without_tx(stops[0]), "0000210007010004cafef00d");

  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_TRUE(sb.wait_log("wds_disconnect : disconnected successful", 5s)) << sb.log();
  EXPECT_FALSE(contains(addresses(sb), "192.168.8.100")) << addresses(sb);
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
