// Whole QMI calls, driven the way the gateway's management side drives them:
// a dial request in the dial file, the daemon against the simulated modem,
// and what the rest of the gateway sees (state files, interface, routes,
// bus), from the dial to the end of the call and what follows it.
#include <functional>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

struct Ending {
  const char* name;
  SandboxOptions options;
  int dial;
  Settings call;
  const char* mss;
  std::string start_hex;  // the start request without its transaction id, "" for any
  const char* handle;     // the modem's handle, as the stop request carries it
  std::function<void(const Sandbox&)> end;
  bool first_poll_fails;  // the poll after the end fails, and changes nothing
  double min_s, max_s;    // from the end to the stop request
  int polls;              // status polls in that time, -1 for any
  bool redial;            // else idle: the dial file then holds dial_after
  const char* dial_after;
};

TEST(QmiCalls, EachEndOfACallIsSeenTornDownAndRedialledOnlyWhenAsked) {
  // Claim: a dial request (3 or 2) brings a call up within 10 s with the
  // profile's start request byte for byte (its transaction id after the
  // reset's), one client-identifier ioctl and one reset; the network's
  // settings are published and installed, the MSS follows the profile's
  // mru, 0x11601 goes to the bus. A drop the network does not announce is
  // seen at the next status poll; an announced drop makes that poll fail
  // (nothing changes) and the one after it see the call gone; dial 1 stops
  // the call within about a tick. Each ends in a stop with the modem's
  // handle, "disconnected successful" and the teardown; with dial 3 the call
  // is redialled with the same start request, with dial 2 (whose file then
  // holds "0") or 1 nothing more is sent. Without a chip file the daemon
  // works in QMI mode on rmnet0.
  const Settings network = {"10.20.30.40", "255.255.0.0", "10.20.0.1",
                            "nameserver 10.20.0.2\nnameserver 10.20.0.3\n", 16};
  const Ending endings[] = {
      {"silent drop, stay connected",
       {.profile = "dialnumber = *99***1#\nusername = alice\npassword = s3cr3t\ndial_mode = auto\n"
                   "auth = 1\nidletime = 60\nsetapn = apn.example.net\nsetip = 10.11.12.13\nmru = 1460\n",
        .sim = {"set addr=10.20.30.40 mask=255.255.0.0 gw=10.20.0.1 dns1=10.20.0.2 dns2=10.20.0.3 handle=0x5EED1234"}},
       3, network, "1380\n",
       // Technology 1, auth 1, username, password, APN, address preference.
       "0000200032" "30000101" "16000101" "170005" + to_hex("alice") + "180006" + to_hex("s3cr3t") + "14000f" +
           to_hex("apn.example.net") + "1500040a0b0c0d",
       "5eed1234",
       [](const Sandbox& sb) {
         sb.sim("on start delay=4000 times=1");  // so that the teardown can be seen before the redial
         sb.sim("set call=1");
       },
       false, 0, 16.5, 1, true, nullptr},
      {"announced drop, connect once", {}, 2, {}, "1420\n", "", "1a2b3c4d",
       [](const Sandbox& sb) { sb.sim("drop"); }, true, 12, 28.5, 2, false, "0"},
      {"disconnect request, no chip file", {.chip = std::nullopt, .sim = {"set handle=0xCAFEF00D"}}, 3, {}, "1420\n",
       "", "cafef00d", [](const Sandbox& sb) { sb.write_dial(1); }, false, 0, 6.5, -1, false, "1\n"},
  };
  for (const auto& e : endings) {
    SCOPED_TRACE(e.name);
    Sandbox sb(e.options);
    sb.start();
    double latency = 0;
    ASSERT_TRUE(dial_and_connect(sb, e.dial, &latency));
    // The dial file is reread every 3 s and the call takes well under a second.
    EXPECT_LE(latency, 10.0);
    EXPECT_TRUE(link_is(sb, true, e.call));
    EXPECT_EQ(sb.read("pppc_tcp_mss"), e.mss);
    EXPECT_EQ(sb.read("dial"), e.dial == 2 ? "0" : std::to_string(e.dial) + "\n");
    EXPECT_EQ(sb.sim_state()["call"], "2");
    EXPECT_EQ(events(sb, "ioctl 0xc0017804").size(), 1u);
    auto resets = sb.qmi_requests(kReset), starts = sb.qmi_requests(kStartNetwork);
    ASSERT_EQ(resets.size(), 1u);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].tx, static_cast<uint16_t>(resets[0].tx + 1));
    EXPECT_TRUE(e.start_hex.empty() || hex_without_tx(starts[0]) == e.start_hex) << hex_without_tx(starts[0]);
    ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s));
    auto up = sb.bus();
    ASSERT_EQ(up.size(), 1u);
    EXPECT_EQ(up[0].sender, "qmi");
    EXPECT_EQ(up[0].len, 0u);
    EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());

    int64_t t_end = monotonic_us();
    e.end(sb);
    if (e.first_poll_fails) {
      ASSERT_TRUE(sb.wait_log(kPollFailed, kPollPeriod + 6s)) << sb.log();
      EXPECT_EQ(sb.read("status"), "3\n");
    }
    ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 2 * kPollPeriod + 10s)) << sb.log();
    auto stop = sb.qmi_requests(kStopNetwork)[0];
    EXPECT_GE(seconds_between(t_end, stop.t_us), e.min_s);
    EXPECT_LE(seconds_between(t_end, stop.t_us), e.max_s);
    EXPECT_TRUE(e.polls < 0 || count_between(sb.qmi_requests(kPacketStatus), t_end, stop.t_us) == size_t(e.polls));
    EXPECT_NE(stop.tx, 0);
    EXPECT_EQ(hex_without_tx(stop), std::string("0000210007010004") + e.handle);
    ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
    EXPECT_TRUE(link_is(sb, false, e.call));
    EXPECT_TRUE(sb.wait_log("wds_disconnect : disconnected successful", 5s)) << sb.log();
    EXPECT_EQ(sb.count_log("g_connection_status_rsp:1"), e.polls > 0 ? 1 : 0);
    EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));

    if (e.redial) {
      // A second start, identical but for its transaction id, after the stop.
      ASSERT_TRUE(sb.wait_state("status", "3\n", kConnectLimit)) << sb.log();
      starts = sb.qmi_requests(kStartNetwork);
      ASSERT_EQ(starts.size(), 2u);
      EXPECT_EQ(hex_without_tx(starts[1]), hex_without_tx(starts[0]));
      EXPECT_NE(starts[1].tx, starts[0].tx);
      EXPECT_GT(starts[1].t_us, stop.t_us);
      EXPECT_TRUE(link_is(sb, true, e.call));
      EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 3));
      continue;
    }
    // Waiting for something not to happen: two status-poll periods and a
    // tick are longer than any redial would take.
    EXPECT_FALSE(sb.wait_until(
        [&] { return sb.qmi_requests(kStartNetwork).size() > 1 || sb.qmi_requests(kStopNetwork).size() > 1; },
        2 * kPollPeriod + 4s))
        << sb.log();
    EXPECT_EQ(sb.read("status"), "6\n");
    EXPECT_EQ(sb.read("dial"), e.dial_after);
    auto modem = sb.sim_state();
    EXPECT_EQ(modem["call"], "1");
    EXPECT_EQ(modem["handle"], "0x00000000");
  }
}

}  // namespace
