// NDIS mode end to end: the daemon dials with AT^NDISDUP built from the dial
// profile, polls AT^DHCP? until the modem has an address, publishes it in
// dotted order, hangs up on request, and is not thrown off by echoes,
// unsolicited reports or answers that arrive in pieces.
#include <cstring>
#include <memory>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

constexpr char kDefaultDial[] = "AT^NDISDUP=1,1,\"internet\",\"user1\",\"pass1\",2";
constexpr char kHangUp[] = "AT^NDISDUP=1,0";
constexpr char kDhcpQuery[] = "AT^DHCP?";

// Every byte the daemon wrote to the modem, in order.
std::string written_stream(const Sandbox& sb) {
  std::string stream;
  for (const auto& r : sb.device_log())
    if (r.kind == "rx") stream += r.data;
  return stream;
}

std::vector<AtLine> lines_equal(const Sandbox& sb, const std::string& text) {
  auto lines = sb.at_lines();
  std::erase_if(lines, [&](const AtLine& l) { return l.text != text; });
  return lines;
}

size_t count_lines(const Sandbox& sb, const std::string& text) { return lines_equal(sb, text).size(); }

SandboxOptions ndis(std::optional<int> dial = 3) { return {.chip = "1\n", .dial = dial}; }

TEST(Ndis, DialCommandCarriesTheProfileQuotedWithItsAuthentication) {
  // Claim: a chip file "1\n" selects NDIS mode on rmnet_tarvek0, where the
  // tty carries nothing but AT text (no client identifier, no WDS message);
  // the call is dialled once with AT^NDISDUP=1,1,"APN","user","password" and
  // the auth (1 or 2 only), empty values as bare commas, quotes unescaped,
  // ended by a carriage return alone; the MSS follows the profile's mru.
  struct Case {
    std::optional<std::string> profile;
    const char* dial;
    std::optional<std::string> mss;
  } cases[] = {
      {std::nullopt, kDefaultDial, "1420\n"},
      {"setapn = internet\nauth = 0\nidletime = 60\nmru = 1500\n", "AT^NDISDUP=1,1,\"internet\",,", "1420\n"},
      {"username = a\"b\npassword = p w\nauth = 1\nmru = 1400\n", "AT^NDISDUP=1,1,,\"a\"b\",\"p w\",1", "1320\n"},
      {"setapn = apn.example\nusername = u\npassword = p\nauth = 3\n", "AT^NDISDUP=1,1,\"apn.example\",\"u\",\"p\"",
       std::nullopt},
  };
  // Side by side, each in its own sandbox.
  std::vector<std::unique_ptr<Sandbox>> boxes;
  for (const auto& c : cases) {
    SandboxOptions o = ndis();
    o.profile = c.profile;
    boxes.push_back(std::make_unique<Sandbox>(o));
    boxes.back()->start();
  }
  for (size_t i = 0; i < boxes.size(); ++i) {
    const Sandbox& sb = *boxes[i];
    const Case& c = cases[i];
    SCOPED_TRACE(c.dial);
    ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
    std::string stream = written_stream(sb);
    EXPECT_EQ(count_lines(sb, c.dial), 1u) << stream;
    size_t at = stream.find(std::string(c.dial) + "\r");
    ASSERT_NE(at, std::string::npos) << stream;
    EXPECT_NE(stream.substr(at + strlen(c.dial) + 1, 1), "\n");  // no line feed after the carriage return
    EXPECT_TRUE(!c.mss || sb.state("pppc_tcp_mss") == c.mss) << sb.state("pppc_tcp_mss").value_or("none");
    EXPECT_EQ(sb.sim_state()["dialled"], "1");
    EXPECT_TRUE(events(sb, "ioctl 0xc0017804").empty());
    for (char ch : stream) EXPECT_TRUE(ch == '\r' || ch == '\n' || (ch >= 0x20 && ch < 0x7f)) << to_hex(stream);
    for (const auto& l : sb.at_lines()) EXPECT_TRUE(l.text.starts_with("AT")) << l.text;
    EXPECT_FALSE(sb.read("/var/wan/rmnet0/status").has_value());
  }
}

TEST(Ndis, DhcpIsPolledEveryFiveSecondsAndTenEmptyAnswersEndInAHangUpAndARedial) {
  // Claim: the first DHCP query follows the dial at once and the next ones
  // come 5 s apart; ten queries without an address, with a pause after the
  // tenth, end in a hang-up; up to 5 s later the daemon dials again, and that
  // call, whose third query has the address, comes up.
  SandboxOptions o = ndis();
  o.sim = {"set dhcp-wait=1000"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kHangUp) == 1; }, 90s)) << sb.log();
  sb.sim("set dhcp-wait=2");
  auto polls = lines_equal(sb, kDhcpQuery);
  auto hangup = lines_equal(sb, kHangUp)[0];
  ASSERT_EQ(polls.size(), 10u);
  EXPECT_LT(polls[0].t_us - lines_equal(sb, kDefaultDial).at(0).t_us, 2'000'000);
  EXPECT_GE(hangup.t_us - polls[9].t_us, 5'000'000);
  EXPECT_LT(hangup.t_us - polls[9].t_us, 6'500'000);
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 0);
  EXPECT_NE(sb.state("status"), "3\n");

  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  auto dials = lines_equal(sb, kDefaultDial);
  ASSERT_EQ(dials.size(), 2u);
  // After a failed connect the daemon sleeps up to 5 s (a tick may cut the
  // sleep short) and dials again.
  EXPECT_GT(dials[1].t_us, hangup.t_us);
  EXPECT_LT(dials[1].t_us - hangup.t_us, 6'000'000);
  polls = lines_equal(sb, kDhcpQuery);
  ASSERT_EQ(polls.size(), 13u);
  EXPECT_LT(dials[1].t_us, polls[10].t_us);
  EXPECT_LT(polls[10].t_us - dials[1].t_us, 2'000'000);
  for (size_t i = 1; i < polls.size(); ++i) {
    if (i == 10) continue;  // the redial's first query
    EXPECT_GE(polls[i].t_us - polls[i - 1].t_us, 5'000'000) << "poll " << i;
    EXPECT_LT(polls[i].t_us - polls[i - 1].t_us, 6'500'000) << "poll " << i;
  }
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 1);
  EXPECT_EQ(count_lines(sb, kHangUp), 1u);
  EXPECT_EQ(sb.state("ipaddr"), "192.168.8.100\n");
}

TEST(Ndis, CallPublishesDottedAddressesHangsUpOnRequestIdlesAndRedialsPastReports) {
  // Claim: the modem's hexadecimal c0a80001 is 192.168.0.1 in ipaddr, on the
  // interface and in the route, every address first octet first; dial 1
  // sends AT^NDISDUP=1,0 within a tick and publishes status 6 with the
  // addresses emptied, and nothing is dialled while the file holds 1;
  // unsolicited reports that arrive while no command is pending do not spoil
  // the answers of the hang-up or of the next call.
  SandboxOptions o = ndis();
  o.sim = {"set addr=192.168.0.1 mask=255.255.252.0 gw=192.168.3.254 dns1=8.8.4.4 dns2=1.0.0.2"};
  Sandbox sb(o);
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  auto result = sb.read("/var/log/dhcp_result");
  ASSERT_TRUE(result.has_value());
  EXPECT_TRUE(contains(*result, "^DHCP: c0a80001,fffffc00,c0a803fe,c0a803fe,08080404,01000002")) << *result;
  EXPECT_EQ(sb.state("ipaddr"), "192.168.0.1\n");
  EXPECT_EQ(sb.state("mask"), "255.255.252.0\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.3.254\n");
  EXPECT_EQ(sb.state("dns"), "nameserver 8.8.4.4\nnameserver 1.0.0.2\n");
  EXPECT_TRUE(contains(addresses(sb), "inet 192.168.0.1/22")) << addresses(sb);
  auto route = sb.run({"ip", "-4", "route", "show", "dev", "rmnet_tarvek0"});
  EXPECT_TRUE(contains(route.output, "192.168.3.254 scope link")) << route.output;

  sb.sim("urc ^RSSI: 21");
  sb.sim("urc ^MODE: 5,4");
  sb.sim("urc ^DSFLOWRPT: 0000001a,00000000,00000000,0000000000000000,0000000000000000,0003e800,0003e800");
  sb.sim("set addr=100.64.7.1 mask=255.255.255.252 gw=100.64.7.2");
  int64_t asked = monotonic_us();
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kHangUp) == 1; }, 20s)) << sb.log();
  EXPECT_LT(lines_equal(sb, kHangUp)[0].t_us - asked, 5'000'000);  // the main loop wakes every 4-second tick
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "\n");
  EXPECT_EQ(sb.state("mask"), "\n");
  EXPECT_EQ(sb.state("gateway"), "192.168.3.254\n");  // teardown leaves it
  EXPECT_EQ(sb.sim_state()["dialled"], "0");
  EXPECT_FALSE(contains(addresses(sb), "192.168.0.1")) << addresses(sb);
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));  // up, then down
  // Two status-poll periods without a second dial.
  EXPECT_FALSE(sb.wait_until([&] { return count_lines(sb, kDefaultDial) > 1; }, 25s));
  EXPECT_EQ(sb.state("status"), "6\n");

  sb.sim("urc ^RSSI: 22");
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_until([&] { return count_lines(sb, kDefaultDial) == 2; }, 20s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", 30s)) << sb.log();
  EXPECT_EQ(sb.state("ipaddr"), "100.64.7.1\n");
  EXPECT_EQ(sb.state("mask"), "255.255.255.252\n");
  EXPECT_EQ(count_lines(sb, kDhcpQuery), 2u);  // one per call
  EXPECT_EQ(count_lines(sb, kHangUp), 1u);
}

TEST(Ndis, EchoesInterleavedReportsAndAnswersSplitAcrossReadsDoNotConfuseTheDialogue) {
  // Claim: an echoing modem is told ATE0 before each dial, so its echo never
  // joins a final OK to a reply line; with unsolicited reports before,
  // inside and after answers, the DHCP reply still yields the address; with
  // echo on again and every answer in blocks of three bytes (line ends, the
  // ^DHCP prefix and the final OK cut apart) the next call still comes up.
  Figures fig;
  Sandbox sb(ndis(std::nullopt));
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "0\n", 40s) && sb.wait_log("wds state : ready", 20s)) << sb.log();
  // Call number `nth` comes up with these settings; the request is taken at
  // the next 3-second poll of the dial file and the first DHCP query already
  // has the address: one dial and one query per call, nothing was mistaken
  // for a failure.
  auto call_comes_up = [&](size_t nth, const char* ip, const char* mask, const char* gw) {
    int64_t asked = monotonic_us();
    sb.write_dial(3);
    ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
    fig.connect_latency(seconds_since(asked));
    EXPECT_LT(fig.last_latency(), 12.0);
    EXPECT_EQ(sb.state("ipaddr"), std::string(ip) + "\n");
    EXPECT_EQ(sb.state("mask"), std::string(mask) + "\n");
    EXPECT_EQ(sb.state("gateway"), std::string(gw) + "\n");
    EXPECT_EQ(count_lines(sb, kDefaultDial), nth);
    EXPECT_EQ(count_lines(sb, kDhcpQuery), nth);
  };

  sb.sim("set echo=on addr=10.20.30.40 mask=255.255.255.0 gw=10.20.30.1");
  // Reports around the first answer (the one to ATE0) and left in the ring
  // for the dial's.
  sb.sim("interleave at=before ^RSSI: 17");
  sb.sim("interleave at=middle ^BOOT: 20952548,0,0,0,72");
  sb.sim("interleave at=after ^MODE: 5,4");
  // The DHCP answer, written out: a report between the reply line and OK,
  // another after it.
  sb.sim("on dhcp times=1 raw=\\r\\n^RSSI:\\s9\\r\\n\\r\\n"
         "^DHCP:\\s0a141e28,ffffff00,0a141e01,0a141e01,0a141e02,0a141e03,150000000,50000000\\r\\n"
         "\\r\\n^SRVST:\\s2\\r\\n\\r\\nOK\\r\\n\\r\\n^RSSI:\\s10\\r\\n");
  call_comes_up(1, "10.20.30.40", "255.255.255.0", "10.20.30.1");
  EXPECT_EQ(sb.state("dns"), "nameserver 10.20.30.2\nnameserver 10.20.30.3\n");

  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_state("status", "6\n", 20s)) << sb.log();
  // As after a modem restart: echo on, the echo of ATE0 directly followed
  // by its answer.
  sb.sim("set echo=on split-every=3 addr=172.16.5.9 mask=255.255.0.0 gw=172.16.0.1");
  call_comes_up(2, "172.16.5.9", "255.255.0.0", "172.16.0.1");
  auto echo_off = lines_equal(sb, "ATE0"), dials = lines_equal(sb, kDefaultDial);
  ASSERT_EQ(echo_off.size(), 2u);
  for (size_t i = 0; i < 2; ++i) EXPECT_LT(echo_off[i].t_us, dials[i].t_us) << "ATE0 goes before dial " << i + 1;
  size_t small = 0;  // the reads really were small
  for (const auto& r : sb.device_log()) small += r.kind == "tx" && r.data.size() <= 3;
  EXPECT_GT(small, 20u);
}

}  // namespace
