// NDIS mode end to end: the daemon dials with AT^NDISDUP built from the dial
// profile, polls AT^DHCP? until the modem has an address, publishes it in
// dotted order, hangs up on request, and is not thrown off by echoes,
// unsolicited reports or answers that arrive in pieces.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"
#include "tests/e2e/scenario_support.h"

namespace {

using namespace wds::e2e;

constexpr char kDefaultDial[] = "AT^NDISDUP=1,1,\"internet\",\"user1\",\"pass1\",2";
constexpr char kHangUp[] = "AT^NDISDUP=1,0";
constexpr char kDhcpQuery[] = "AT^DHCP?";

struct TimedLine {
  int64_t t_us = 0;  // when the carriage return that ends it was written
  std::string text;
};

// Every byte the daemon wrote to the modem, in order.
std::string written_stream(const Sandbox& sb) {
  std::string stream;
  for (const auto& r : sb.device_log())
    if (r.kind == "rx") stream += r.data;
  return stream;
}

// The daemon's command lines with the time each was complete.
std::vector<TimedLine> timed_lines(const Sandbox& sb) {
  std::vector<TimedLine> lines;
  std::string pending;
  for (const auto& r : sb.device_log()) {
    if (r.kind != "rx") continue;
    for (char c : r.data) {
      if (c != '\r') {
        pending.push_back(c);
        continue;
      }
      if (!pending.empty()) lines.push_back({r.t_us, pending});
      pending.clear();
    }
  }
  return lines;
}

std::vector<TimedLine> lines_equal(const Sandbox& sb, const std::string& text) {
  std::vector<TimedLine> out;
  for (auto& l : timed_lines(sb))
    if (l.text == text) out.push_back(l);
  return out;
}

size_t count_lines(const Sandbox& sb, const std::string& text) { return lines_equal(sb, text).size(); }

SandboxOptions ndis(std::optional<int> dial = 3) {
  SandboxOptions o;
  o.chip = Chip::kNdis;
  o.dial = dial;
  return o;
}

// Brings the daemon to "bring-up done, waiting for a dial request".
void start_waiting(Sandbox& sb) {
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 40s)) << sb.log() << sb.daemon_output();
  ASSERT_TRUE(sb.wait_log("wds state : ready", 20s)) << sb.log();
}

double seconds(int64_t us) { return static_cast<double>(us) / 1e6; }

TEST(Ndis, DialCommandCarriesTheProfileQuotedWithItsAuthentication) {
  // The default profile (APN internet, user1/pass1, auth 2) is dialled as
  // AT^NDISDUP=1,1,"internet","user1","pass1",2 and a carriage return alone;
  // the call is up (status 3) a few seconds after the dial request.
  Sandbox sb(ndis(std::nullopt));
  start_waiting(sb);
  int64_t asked = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  int64_t up = monotonic_us();
  printf("[ latency  ] NDIS dial request -> status 3: %.2f s\n", seconds(up - asked));
  ::testing::Test::RecordProperty("connect_latency_ms", static_cast<int>((up - asked) / 1000));
  // The request is taken at the next 3-second poll of the dial file; the
  // first DHCP query already has the address.
  EXPECT_LT(up - asked, 12'000'000);

  std::string stream = written_stream(sb);
  std::string expected = std::string(kDefaultDial) + "\r";
  size_t at = stream.find(expected);
  ASSERT_NE(at, std::string::npos) << stream;
  EXPECT_NE(stream.substr(at + expected.size(), 1), "\n");  // no line feed after the carriage return
  EXPECT_EQ(count_lines(sb, kDefaultDial), 1u);
  EXPECT_EQ(sb.sim_state()["dialled"], "1");
}

TEST(Ndis, EmptyProfileValuesAreBareCommasAndAuthZeroAddsNothing) {
  // A profile with only the APN and auth 0 dials AT^NDISDUP=1,1,"internet",,
  SandboxOptions o = ndis();
  o.profile = "setapn = internet\nauth = 0\nidletime = 60\nmru = 1500\n";
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_at_line("AT^NDISDUP=1,1", 40s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
  auto dials = lines_equal(sb, "AT^NDISDUP=1,1,\"internet\",,");
  EXPECT_EQ(dials.size(), 1u) << written_stream(sb);
  EXPECT_NE(written_stream(sb).find("AT^NDISDUP=1,1,\"internet\",,\r"), std::string::npos);
}

TEST(Ndis, MissingApnIsABareCommaAndValuesGoUnescapedWithAuthOne) {
  // No APN, a user name holding a quote character, auth 1: the quote is sent
  // as it is and the authentication closes the command.
  SandboxOptions o = ndis();
  o.profile = "username = a\"b\npassword = p w\nauth = 1\nmru = 1400\n";
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  EXPECT_EQ(count_lines(sb, "AT^NDISDUP=1,1,,\"a\"b\",\"p w\",1"), 1u) << written_stream(sb);
  // The MSS follows the profile's mru.
  EXPECT_EQ(sb.state("pppc_tcp_mss"), "1320\n");
}

TEST(Ndis, AuthOutsideOneAndTwoAddsNoField) {
  // auth 3 is not a method the dial knows: the command ends after the password.
  SandboxOptions o = ndis();
  o.profile = "setapn = apn.example\nusername = u\npassword = p\nauth = 3\n";
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  EXPECT_EQ(count_lines(sb, "AT^NDISDUP=1,1,\"apn.example\",\"u\",\"p\""), 1u) << written_stream(sb);
}

TEST(Ndis, DhcpIsPolledEveryFiveSecondsUntilAnAddressComes) {
  // The modem has no address for the first three queries: the fourth, each
  // 5 s after the previous one, gives it, and the call comes up.
  SandboxOptions o = ndis();
  o.sim = {"set dhcp-wait=3"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
  auto polls = lines_equal(sb, kDhcpQuery);
  ASSERT_EQ(polls.size(), 4u);
  auto dial = lines_equal(sb, kDefaultDial);
  ASSERT_EQ(dial.size(), 1u);
  EXPECT_LT(dial[0].t_us, polls[0].t_us);
  EXPECT_LT(polls[0].t_us - dial[0].t_us, 2'000'000);  // the first query follows the dial at once
  for (size_t i = 1; i < polls.size(); ++i) {
    int64_t gap = polls[i].t_us - polls[i - 1].t_us;
    EXPECT_GE(gap, 5'000'000) << "poll " << i;
    EXPECT_LT(gap, 6'500'000) << "poll " << i;
  }
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 1);
  EXPECT_EQ(count_lines(sb, kHangUp), 0u);
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
}

TEST(Ndis, AddressesArePublishedInDottedOrderAndTheInterfaceConfigured) {
  // The modem's hexadecimal c0a80001 is 192.168.0.1 in ipaddr, on the
  // interface and in the route; every address keeps its first octet first.
  SandboxOptions o = ndis();
  o.sim = {"set addr=192.168.0.1 mask=255.255.252.0 gw=192.168.3.254 dns1=8.8.4.4 dns2=1.0.0.2"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  auto result = sb.read("/var/log/dhcp_result");
  ASSERT_TRUE(result.has_value());
  EXPECT_NE(result->find("^DHCP: c0a80001,fffffc00,c0a803fe,c0a803fe,08080404,01000002"), std::string::npos)
      << *result;

  EXPECT_EQ(sb.state("ipaddr"), "192.168.0.1\n");
  EXPECT_EQ(sb.state("mask"), "255.255.252.0\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.3.254\n");
  EXPECT_EQ(sb.state("dns"), "nameserver 8.8.4.4\nnameserver 1.0.0.2\n");
  EXPECT_EQ(sb.state("pppc_tcp_mss"), "1420\n");

  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "rmnet_tarvek0"});
  EXPECT_NE(addr.output.find("inet 192.168.0.1/22"), std::string::npos) << addr.output;
  auto route = sb.run({"ip", "-4", "route", "show", "dev", "rmnet_tarvek0"});
  EXPECT_NE(route.output.find("192.168.3.254 scope link"), std::string::npos) << route.output;

  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 10s));
  auto bus = sb.bus();
  ASSERT_EQ(bus.size(), 1u);
  EXPECT_EQ(bus[0].sender, "qmi");
  EXPECT_EQ(bus[0].len, 0u);
}

TEST(Ndis, DisconnectRequestHangsUpAndTheDaemonIdles) {
  // Dial 1 while connected sends AT^NDISDUP=1,0, publishes status 6 with the
  // addresses emptied, and no new call is dialled while the file holds 1.
  Sandbox sb(ndis());
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("ipaddr", "192.168.8.100\n", 5s));
  int64_t asked = monotonic_us();
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kHangUp) == 1; }, 20s)) << sb.log();
  // The main loop wakes at least every 4-second tick.
  EXPECT_LT(lines_equal(sb, kHangUp)[0].t_us - asked, 5'000'000);
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.8.1\n");  // teardown leaves it
  EXPECT_EQ(sb.sim_state()["dialled"], "0");
  auto addr = sb.run({"ip", "-o", "-4", "addr", "show", "rmnet_tarvek0"});
  EXPECT_EQ(addr.output.find("192.168.8.100"), std::string::npos) << addr.output;
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));  // up, then down

  // Two status-poll periods without a second dial.
  EXPECT_FALSE(sb.wait_until([&] { return count_lines(sb, kDefaultDial) > 1; }, 25s));
  EXPECT_EQ(sb.state("status"), "6\n");
  EXPECT_EQ(count_lines(sb, kHangUp), 1u);
}

TEST(Ndis, EchoedCommandsAndInterleavedReportsDoNotConfuseTheDialogue) {
  // With echo on and unsolicited reports before, inside and after each
  // answer, the dial is accepted and the DHCP reply still yields the address.
  Sandbox sb(ndis(std::nullopt));
  start_waiting(sb);
  sb.sim("set echo=on addr=10.20.30.40 mask=255.255.255.0 gw=10.20.30.1");
  // The dial's answer: reports around the final result.
  sb.sim("interleave at=before ^RSSI: 17");
  sb.sim("interleave at=middle ^BOOT: 20952548,0,0,0,72");
  sb.sim("interleave at=after ^MODE: 5,4");
  // The DHCP answer, written out: a report between the reply line and OK,
  // another after it.
  sb.sim("on dhcp times=1 raw=\\r\\n^RSSI:\\s9\\r\\n\\r\\n"
         "^DHCP:\\s0a141e28,ffffff00,0a141e01,0a141e01,0a141e02,0a141e03,150000000,50000000\\r\\n"
         "\\r\\n^SRVST:\\s2\\r\\n\\r\\nOK\\r\\n\\r\\n^RSSI:\\s10\\r\\n");
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "10.20.30.40\n");
  EXPECT_EQ(sb.state("gateway"), "10.20.30.1\n");
  EXPECT_EQ(sb.state("dns"), "nameserver 10.20.30.2\nnameserver 10.20.30.3\n");
  // One dial and one query were enough: nothing was mistaken for a failure.
  EXPECT_EQ(count_lines(sb, kDefaultDial), 1u);
  EXPECT_EQ(count_lines(sb, kDhcpQuery), 1u);
}

TEST(Ndis, AnswersSplitAcrossReadsAreAssembled) {
  // Every answer arrives in blocks of three bytes, so line ends, the ^DHCP
  // prefix and the final OK are cut apart: the call still comes up with the
  // modem's address.
  SandboxOptions o = ndis(std::nullopt);
  Sandbox sb(o);
  start_waiting(sb);
  sb.sim("set split-every=3 addr=172.16.5.9 mask=255.255.0.0 gw=172.16.0.1");
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "172.16.5.9\n");
  EXPECT_EQ(sb.state("mask"), "255.255.0.0\n");
  EXPECT_EQ(sb.state("gateway"), "172.16.0.1\n");
  EXPECT_EQ(count_lines(sb, kDhcpQuery), 1u);
  // The reads really were small.
  size_t small = 0;
  for (const auto& r : sb.device_log())
    if (r.kind == "tx" && r.data.size() <= 3) ++small;
  EXPECT_GT(small, 20u);
}

TEST(Ndis, ReportsArrivingBetweenCommandsDoNotSpoilTheNextAnswers) {
  // Unsolicited reports that arrive while no command is pending wait in the
  // stream; the hang-up and the next dial's DHCP answer are still read right.
  Sandbox sb(ndis());
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  sb.sim("urc ^RSSI: 21");
  sb.sim("urc ^MODE: 5,4");
  sb.sim("urc ^DSFLOWRPT: 0000001a,00000000,00000000,0000000000000000,0000000000000000,0003e800,0003e800");
  sb.sim("set addr=100.64.7.1 mask=255.255.255.252 gw=100.64.7.2");
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_state("status", "6\n", 20s)) << sb.log();
  sb.sim("urc ^RSSI: 22");
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kDefaultDial) == 2; }, 20s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "100.64.7.1\n");
  EXPECT_EQ(sb.state("mask"), "255.255.255.252\n");
  EXPECT_EQ(count_lines(sb, kDhcpQuery), 2u);  // one per call
  EXPECT_EQ(count_lines(sb, kHangUp), 1u);
}

TEST(Ndis, NoAddressAfterTenPollsHangsUpAndRedials) {
  // Ten queries without an address, 5 s apart with a pause after the tenth,
  // end in a hang-up; 5 s later the daemon dials again and that call, whose
  // first query has the address, comes up.
  SandboxOptions o = ndis();
  o.sim = {"set dhcp-wait=1000"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kHangUp) == 1; }, 90s)) << sb.log();
  sb.sim("set dhcp-wait=0");
  auto polls = lines_equal(sb, kDhcpQuery);
  auto hangup = lines_equal(sb, kHangUp)[0];
  ASSERT_EQ(polls.size(), 10u);
  for (size_t i = 1; i < polls.size(); ++i) EXPECT_GE(polls[i].t_us - polls[i - 1].t_us, 5'000'000) << i;
  EXPECT_GE(hangup.t_us - polls[9].t_us, 5'000'000);
  EXPECT_LT(hangup.t_us - polls[9].t_us, 6'500'000);
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 0);
  EXPECT_NE(sb.state("status"), "3\n");

  ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
  auto dials = lines_equal(sb, kDefaultDial);
  ASSERT_EQ(dials.size(), 2u);
  // After a failed connect the daemon sleeps up to 5 s (a tick may cut the
  // sleep short) and dials again.
  EXPECT_GT(dials[1].t_us, hangup.t_us);
  EXPECT_LT(dials[1].t_us - hangup.t_us, 6'000'000);
  EXPECT_EQ(count_lines(sb, kDhcpQuery), 11u);
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
}

}  // namespace
