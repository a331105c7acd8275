// SPDX-License-Identifier: ISC
// Whole QMI calls, driven the way the gateway's management side drives them:
// a dial request in the dial file, the daemon against the simulated modem,
// and what the rest of the gateway sees (state files, interface, routes,
// bus), from the dial to the end of the call and what follows it.
#include <cerrno>
#include <functional>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

struct Ending {
  const char* name;
  SandboxOptions options;
  int dial;
  Settings call;
  std::function<void(const Sandbox&)> end;
  bool first_poll_fails;   // the poll after the end fails, and changes nothing
  double min_s, max_s;     // from the end to the stop request
  int polls;               // status polls in that time, -1 for any
  const char* dial_after;  // nullptr: redialled; else idle, and the dial file holds this
};

TEST(QmiCalls, EachEndOfACallIsSeenTornDownAndRedialledOnlyWhenAsked) {
  // Claim: a dial request (3 or 2) brings a call up within 10 s, after one
  // client-identifier ioctl and one reset, with a start request whose
  // transaction id follows the reset's; the network's settings are
  // published and installed, 0x11601 goes to the bus. A drop the network
  // does not announce is seen at the next status poll; an announced drop
  // makes that poll fail (nothing changes) and the one after it see the call
  // gone; dial 1 stops the call within about a tick. Each ends in a stop
  // with the modem's handle, "disconnected successful" and the teardown;
  // with dial 3 the call is redialled with the same start request, with
  // dial 2 (whose file then holds "0") or 1 nothing more is sent. Without a
  // chip file the daemon works in QMI mode on rmnet0. A refused write
  // during the call does not end it. (The start request's bytes from a
  // profile are the unit tests'.)
  const Settings network = {"10.20.30.40", "255.255.0.0", "10.20.0.1",
                            "nameserver 10.20.0.2\nnameserver 10.20.0.3\n", 16};
  const Ending endings[] = {
      {"silent drop, stay connected",
       {.sim = {"set addr=10.20.30.40 mask=255.255.0.0 gw=10.20.0.1 dns1=10.20.0.2 dns2=10.20.0.3"}}, 3, network,
       [](const Sandbox& sb) {
         sb.sim("on start delay=4000 times=1");  // so that the teardown can be seen before the redial
         sb.sim("set call=1");
       },
       false, 0, 16.5, 1, nullptr},
      {"announced drop, connect once", {}, 2, {}, [](const Sandbox& sb) { sb.sim("drop"); }, true, 12, 28.5, 2, "0"},
      {"disconnect request, no chip file", {.chip = std::nullopt}, 3, {}, [](const Sandbox& sb) { sb.write_dial(1); },
       false, 0, 6.5, -1, "1\n"},
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
    EXPECT_EQ(sb.read("pppc_tcp_mss"), "1420\n");
    EXPECT_EQ(sb.read("dial"), e.dial == 2 ? "0" : std::to_string(e.dial) + "\n");
    EXPECT_EQ(sb.sim_state()["call"], "2");
    EXPECT_EQ(events(sb, "ioctl 0xc0017804").size(), 1u);
    auto resets = sb.qmi_requests(kReset), starts = sb.qmi_requests(kStartNetwork);
    ASSERT_EQ(resets.size(), 1u);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].tx, static_cast<uint16_t>(resets[0].tx + 1));
    ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s));
    EXPECT_EQ(sb.bus(), std::vector{kLinkChanged});
    EXPECT_TRUE(sb.qmi_requests(kStopNetwork).empty());
    // A write the tty refuses fails that status poll with an error record in
    // the daemon's own C library's words; the call outlives it.
    sb.sim("set write-error=5");
    ASSERT_TRUE(sb.wait_log("tty busy or tty down. errno = 5 <" + sb.daemon_strerror(EIO) + "> \n", kPollPeriod + 6s));
    EXPECT_TRUE(sb.wait_log(kPollFailed, 5s) && sb.read("status") == "3\n") << sb.log();
    sb.sim("set write-error=off");
    EXPECT_TRUE(sb.wait_qmi_request(kPacketStatus, kPollPeriod + 6s, sb.qmi_requests(kPacketStatus).size() + 1));

    int64_t t_end = monotonic_us();
    e.end(sb);
    ASSERT_TRUE(!e.first_poll_fails || (sb.wait_log(kPollFailed, kPollPeriod + 6s) && sb.read("status") == "3\n"))
        << sb.log();
    ASSERT_TRUE(sb.wait_qmi_request(kStopNetwork, 2 * kPollPeriod + 10s)) << sb.log();
    auto stop = sb.qmi_requests(kStopNetwork)[0];
    EXPECT_TRUE(took(t_end, stop.t_us, e.min_s, e.max_s));
    EXPECT_TRUE(e.polls < 0 || count_between(sb.qmi_requests(kPacketStatus), t_end, stop.t_us) == size_t(e.polls));
    EXPECT_NE(stop.tx, 0);
    EXPECT_EQ(hex_without_tx(stop), "00002100070100041a2b3c4d");  // the simulator's handle
    ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
    EXPECT_TRUE(link_is(sb, false, e.call));
    EXPECT_TRUE(sb.wait_log("wds_disconnect : disconnected successful", 5s)) << sb.log();
    EXPECT_EQ(sb.count_log("g_connection_status_rsp:1"), e.polls > 0 ? 1 : 0);
    EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));

    if (!e.dial_after) {
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
