// SPDX-License-Identifier: ISC
// NDIS mode end to end: the daemon dials with AT^NDISDUP built from the dial
// profile, polls AT^DHCP? until the modem has an address, publishes it in
// dotted order, hangs up on request, and is not thrown off by echoes,
// unsolicited reports or answers that arrive in pieces.
#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

constexpr char kHangUp[] = "AT^NDISDUP=1,0";
constexpr char kDhcpQuery[] = "AT^DHCP?";

// The AT command lines the daemon wrote that are exactly `text`.
std::vector<Record> lines_equal(const Sandbox& sb, const std::string& text) {
  auto lines = events(sb, "at line ");
  std::erase_if(lines, [&](const Record& l) { return l.data != "at line " + sim::escape(text); });
  return lines;
}

TEST(Ndis, QuotedProfileCallPollsDhcpHangsUpAndRedialsPastEchoesReportsAndSplitAnswers) {
  // Claim: a chip file "1\n" selects NDIS mode on rmnet_tarvek0, where the
  // tty carries nothing but AT command lines (no client identifier, no WDS
  // message), each ended by a carriage return alone; the profile's values go
  // into the dial command quoted and unchanged (a double quote included),
  // with the auth, and the MSS follows its mru. An echoing modem is told
  // ATE0 before each dial. The first DHCP query follows the dial at once and
  // the next ones come 5 s apart; ten without an address, with a pause after
  // the tenth, end in a hang-up, and up to 5 s later the daemon dials again.
  // With unsolicited reports before, inside and after answers, the DHCP
  // reply still yields the address, the modem's hexadecimal c0a80001
  // published as 192.168.0.1 in the files, on the interface and in the
  // route (its reply line in /var/log/dhcp_result). Dial 1 sends
  // AT^NDISDUP=1,0 within a tick and tears the call down; nothing is dialled
  // while the file holds 1. With echo on again and every answer in blocks of
  // three bytes (line ends, the ^DHCP prefix and the final OK cut apart),
  // dial 3 brings the next call up within 12 s, with one query.
  const std::string dial = "AT^NDISDUP=1,1,\"internet\",\"a\"b\",\"p w\",1";
  Sandbox sb({.chip = "1\n",
              .profile = "setapn = internet\nusername = a\"b\npassword = p w\nauth = 1\nmru = 1400\n",
              .dial = 3,
              // Reports around the first answer (the one to ATE0) and left in
              // the ring for the dial's.
              .sim = {"set dhcp-wait=1000 echo=on", "interleave at=before ^RSSI: 17",
                      "interleave at=middle ^BOOT: 20952548,0,0,0,72", "interleave at=after ^MODE: 5,4"}});
  sb.start();
  ASSERT_TRUE(sb.wait_until([&] { return lines_equal(sb, kDhcpQuery).size() == 10; }, 90s)) << sb.log();
  // The answer to the next query, the redial's, written out: a report
  // between the reply line and OK, another after it.
  sb.sim("on dhcp times=1 raw=\\r\\n^RSSI:\\x209\\r\\n\\r\\n"
         "^DHCP:\\x20c0a80001,fffffc00,c0a803fe,c0a803fe,08080404,01000002,150000000,50000000\\r\\n"
         "\\r\\n^SRVST:\\x202\\r\\n\\r\\nOK\\r\\n\\r\\n^RSSI:\\x2010\\r\\n");
  ASSERT_TRUE(sb.wait_until([&] { return lines_equal(sb, kHangUp).size() == 1; }, 10s)) << sb.log();
  auto polls = lines_equal(sb, kDhcpQuery);
  auto hangup = lines_equal(sb, kHangUp)[0];
  ASSERT_EQ(polls.size(), 10u);
  EXPECT_TRUE(took(lines_equal(sb, dial).at(0).t_us, polls[0].t_us, 0, 2));
  for (size_t i = 1; i < polls.size(); ++i) EXPECT_TRUE(took(polls[i - 1].t_us, polls[i].t_us, 5, 6.5)) << i;
  EXPECT_TRUE(took(polls[9].t_us, hangup.t_us, 5, 6.5));
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 0);
  EXPECT_NE(sb.read("status"), "3\n");

  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  auto dials = lines_equal(sb, dial);
  polls = lines_equal(sb, kDhcpQuery);
  ASSERT_EQ(dials.size(), 2u);
  ASSERT_EQ(polls.size(), 11u);
  EXPECT_TRUE(took(hangup.t_us, dials[1].t_us, 0, 6));  // a tick may cut the 5-s sleep short
  EXPECT_TRUE(took(dials[1].t_us, polls[10].t_us, 0, 2));
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 1);
  const Settings first = {"192.168.0.1", "255.255.252.0", "192.168.3.254", "nameserver 8.8.4.4\nnameserver 1.0.0.2\n", 22};
  EXPECT_TRUE(link_is(sb, true, first));
  EXPECT_TRUE(contains(sb.read("/var/log/dhcp_result").value_or(""),
                       "^DHCP: c0a80001,fffffc00,c0a803fe,c0a803fe,08080404,01000002"));
  EXPECT_EQ(sb.read("pppc_tcp_mss"), "1320\n");
  EXPECT_EQ(sb.sim_state()["dialled"], "1");
  std::string stream;  // every byte the daemon wrote to the modem
  for (const auto& r : sb.device_log()) stream += r.kind == "rx" ? r.data : "";
  for (char ch : stream) EXPECT_TRUE(ch == '\r' || (ch >= 0x20 && ch < 0x7f)) << to_hex(stream);
  for (const auto& l : events(sb, "at line ")) EXPECT_TRUE(l.data.starts_with("at line AT")) << l.data;
  EXPECT_TRUE(events(sb, "ioctl 0xc0017804").empty());
  EXPECT_FALSE(sb.read("/var/wan/rmnet0/status").has_value());

  sb.sim("urc ^RSSI: 21");
  sb.sim("urc ^MODE: 5,4");
  sb.sim("urc ^DSFLOWRPT: 0000001a,00000000,00000000,0000000000000000,0000000000000000,0003e800,0003e800");
  int64_t asked = monotonic_us();
  sb.write_dial(1);
  ASSERT_TRUE(sb.wait_until([&] { return lines_equal(sb, kHangUp).size() == 2; }, 20s)) << sb.log();
  EXPECT_TRUE(took(asked, lines_equal(sb, kHangUp)[1].t_us, 0, 5));  // the main loop wakes every 4-second tick
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  EXPECT_TRUE(link_is(sb, false, first));
  EXPECT_EQ(sb.sim_state()["dialled"], "0");
  ASSERT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));  // up, then down
  // Two status-poll periods without another dial.
  EXPECT_FALSE(sb.wait_until([&] { return lines_equal(sb, dial).size() > 2; }, 25s));
  EXPECT_EQ(sb.read("status"), "6\n");

  // As after a modem restart: echo on, the echo of ATE0 directly followed
  // by its answer, every answer in pieces.
  sb.sim("urc ^RSSI: 22");
  sb.sim("set echo=on split-every=3 dhcp-wait=0 addr=100.64.7.1 mask=255.255.255.252 gw=100.64.7.2");
  asked = monotonic_us();
  sb.write_dial(3);
  ASSERT_TRUE(sb.wait_state("status", "3\n", 40s)) << sb.log();
  EXPECT_LT(seconds_since(asked), 12.0);
  EXPECT_TRUE(link_is(sb, true, {"100.64.7.1", "255.255.255.252", "100.64.7.2", Settings{}.dns, 30}));
  EXPECT_EQ(lines_equal(sb, kDhcpQuery).size(), 12u);
  EXPECT_EQ(lines_equal(sb, kHangUp).size(), 2u);
  auto echo_off = lines_equal(sb, "ATE0");
  dials = lines_equal(sb, dial);
  ASSERT_EQ(echo_off.size(), 3u);
  ASSERT_EQ(dials.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_LT(echo_off[i].t_us, dials[i].t_us) << "ATE0 goes before dial " << i + 1;
  size_t small = 0;  // the reads really were small
  for (const auto& r : sb.device_log()) small += r.kind == "tx" && r.data.size() <= 3;
  EXPECT_GT(small, 20u);
}

TEST(Ndis, ADhcpReplyFilePlantedAsALinkIsNeitherWrittenNorReadThroughIt) {
  // Claim: the daemon writes the DHCP reply to /var/log/dhcp_result and
  // reads it back without following a link planted at that path. Linked to
  // a file someone else wrote, the daemon neither changes that file nor
  // configures or publishes its address, gateway and DNS servers; linked to
  // no file, it creates none. Either way each poll fails as one whose reply
  // file cannot be opened, and the first poll after the link is gone brings
  // the call up with the modem's own settings.
  Sandbox sb({.chip = "1\n", .dial = 3, .start_daemon = false});
  sb.start();
  const std::string planted = "^DHCP: 0a000002,ffffff00,0a000001,0a000001,06060606,06060606,0,0\r\n";
  sb.write("/var/log/planted", planted);
  sb.run("ln -s /var/log/planted /var/log/dhcp_result");
  sb.start_daemon();
  // n more queries, or a call up (which must not come).
  auto polled = [&](size_t n) {
    const size_t asked = lines_equal(sb, kDhcpQuery).size() + n;
    return sb.wait_until([&] { return lines_equal(sb, kDhcpQuery).size() >= asked || sb.read("status") == "3\n"; }, 60s);
  };
  ASSERT_TRUE(polled(2)) << sb.log();
  EXPECT_NE(sb.read("status"), "3\n") << "up with the planted settings: " << sb.read("ipaddr").value_or("");
  EXPECT_EQ(sb.read("/var/log/planted"), planted);
  sb.run("ln -sfn /var/log/nowhere /var/log/dhcp_result");
  ASSERT_TRUE(polled(2)) << sb.log();
  EXPECT_NE(sb.read("status"), "3\n");
  EXPECT_FALSE(sb.read("/var/log/nowhere").has_value());
  EXPECT_EQ(sb.count_log("_ndis_connect : connect successful"), 0);
  EXPECT_FALSE(contains(addresses(sb), "10.0.0.2"));

  sb.run("rm /var/log/dhcp_result");
  ASSERT_TRUE(sb.wait_state("status", "3\n", 90s)) << sb.log();
  EXPECT_TRUE(link_is(sb, true, Settings{}));
  EXPECT_EQ(sb.read("/var/log/planted"), planted);
  EXPECT_FALSE(contains(routes(sb) + addresses(sb), "10.0.0.")) << routes(sb);
}

}  // namespace
