// NDIS operations: the exact command lines on a raw pty, and the DHCP and
// IPv6 capability fetches through their result files.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "at_modem.h"
#include "private_var.h"

namespace {

wan_profile_t profile(const char* apn, const char* user, const char* password, uint32_t auth) {
  wan_profile_t p;
  memset(&p, 0, sizeof p);
  snprintf(p.apn, sizeof p.apn, "%s", apn);
  snprintf(p.username, sizeof p.username, "%s", user);
  snprintf(p.password, sizeof p.password, "%s", password);
  p.auth = auth;
  return p;
}

class AtNdis : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet_tarvek0");
    fresh_channel();
  }
};

TEST_F(AtNdis, CommandLinesAreExact) {
  static const wan_profile_t apn_only = profile("internet", "", "", 0);
  static const wan_profile_t full_pap = profile("internet", "user", "secret", 1);
  static const wan_profile_t full_chap = profile("internet", "user", "secret", 2);
  static const wan_profile_t auth_3 = profile("internet", "user", "secret", 3);
  static const wan_profile_t no_apn = profile("", "user", "", 2);
  static const wan_profile_t quotes = profile("in\"ter,net", "a\"b", "p'q\"", 0);
  static const wan_profile_t longest = profile(std::string(64, 'a').c_str(), std::string(64, 'u').c_str(),
                                               std::string(64, 'p').c_str(), 1);
  int err = 0;
  struct Case {
    const char* name;
    std::function<int()> run;
    std::string command;
  } cases[] = {
      {"dial with APN only", [] { return ndis_at_connect(&apn_only); }, "AT^NDISDUP=1,1,\"internet\",,\r"},
      {"dial with auth 1", [] { return ndis_at_connect(&full_pap); },
       "AT^NDISDUP=1,1,\"internet\",\"user\",\"secret\",1\r"},
      {"dial with auth 2", [] { return ndis_at_connect(&full_chap); },
       "AT^NDISDUP=1,1,\"internet\",\"user\",\"secret\",2\r"},
      {"dial with auth 3 adds no field", [] { return ndis_at_connect(&auth_3); },
       "AT^NDISDUP=1,1,\"internet\",\"user\",\"secret\"\r"},
      {"dial without APN", [] { return ndis_at_connect(&no_apn); }, "AT^NDISDUP=1,1,,\"user\",,2\r"},
      {"quotes pass unchanged", [] { return ndis_at_connect(&quotes); },
       "AT^NDISDUP=1,1,\"in\"ter,net\",\"a\"b\",\"p'q\"\"\r"},
      {"longest profile values", [] { return ndis_at_connect(&longest); },
       "AT^NDISDUP=1,1,\"" + std::string(64, 'a') + "\",\"" + std::string(64, 'u') + "\",\"" +
           std::string(64, 'p') + "\",1\r"},
      {"hang-up", [] { return ndis_at_disconnect(); }, "AT^NDISDUP=1,0\r"},
      {"hang-up by mode", [&err] { return ndis_dup_request(7, nullptr, &err); }, "AT^NDISDUP=1,0\r"},
      {"add with all three", [&err] { return ndis_add_request("a", "b", "c", &err); },
       "AT^NDISADD=0,\"a\",\"b\",\"c\"\r"},
      {"add with empty and missing", [&err] { return ndis_add_request(nullptr, "", "", &err); },
       "AT^NDISADD=0,,\r"},
      {"CME errors on", [&err] { return at_enable_cme_errors(&err); }, "AT+CMEE=1\r"},
      {"echo off", [&err] { return at_echo_off(&err); }, "ATE0\r"},
      {"reports on", [&err] { return at_set_curc(&err, 5); }, "at^curc=01\r"},
      {"reports off", [&err] { return at_set_curc(&err, 0); }, "at^curc=00\r"},
      {"DHCP query", [&err] { return at_query_dhcp(&err); }, "AT^DHCP?\r"},
      {"IPv6 capability query", [&err] { return at_query_ipv6cap(&err); }, "AT^IPV6CAP?\r"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PtyModem modem;
    modem.send("\r\nOK\r\n");
    err = -1;
    EXPECT_EQ(c.run(), 0);
    EXPECT_EQ(modem.command(), c.command);
  }
}

TEST_F(AtNdis, DialFailures) {
  SeqModem modem;
  int err = 5;
  EXPECT_EQ(ndis_dup_request(1, nullptr, &err), -1);
  EXPECT_EQ(err, 5);
  EXPECT_EQ(ndis_at_connect(nullptr), -1);
  EXPECT_EQ(ndis_dup_request(0, nullptr, nullptr), -1);
  EXPECT_EQ(ndis_add_request("a", "b", nullptr, &err), -1);
  EXPECT_EQ(modem.written(), "");

  const wan_profile_t p = profile("internet", "", "", 0);
  modem.send_now("\r\n+CME ERROR: 30\r\n");
  EXPECT_EQ(ndis_dup_request(1, &p, &err), -1);
  EXPECT_EQ(err, 0);  // the modem answered
  modem.send_now("\r\n^NDISDUP: 1,1\r\nNO CARRIER\r\n");
  EXPECT_EQ(ndis_at_connect(&p), -1);
  modem.send_now("\r\n^NDISDUP: 1,1\r\nOK\r\n");
  EXPECT_EQ(ndis_at_connect(&p), 0);

  modem.hang_up();
  err = 0;
  EXPECT_EQ(ndis_dup_request(0, nullptr, &err), -1);
  EXPECT_EQ(err, 19);
}

TEST_F(AtNdis, SettingsCommandsWaitTheirOwnTimeOut) {
  struct Case {
    const char* name;
    int (*run)();
    int ticks;
  } cases[] = {
      {"CME errors", [] { int e; return at_enable_cme_errors(&e); }, 3},
      {"echo off", [] { int e; return at_echo_off(&e); }, 3},
      {"reports", [] { int e; return at_set_curc(&e, 1); }, 30},
      {"hang-up", [] { return ndis_at_disconnect(); }, 30},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (int late = 0; late <= 1; ++late) {
      fresh_channel();
      SeqModem modem;
      TickDriver tick(1000, modem.peer(), c.ticks + late);
      EXPECT_EQ(c.run(), late ? -1 : 0);
    }
  }
}

constexpr char kDhcpLine[] =
    "^DHCP: c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000";

link_settings_t sentinel_record() {
  link_settings_t r;
  memset(&r, 0, sizeof r);
  snprintf(r.username, sizeof r.username, "keep");
  r.auth_pref = 9;
  r.ipv4_addr = r.subnet_mask = r.gateway = r.primary_dns = r.secondary_dns = 0xdeadbeef;
  return r;
}

TEST_F(AtNdis, DhcpFetchStoresHostOrderWords) {
  SeqModem modem;
  modem.send_now(std::string("\r\n") + kDhcpLine + "\r\n\r\nOK\r\n");
  link_settings_t r = sentinel_record();
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), 0);
  EXPECT_EQ(modem.written(), "AT^DHCP?\r");
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), kDhcpLine);
  EXPECT_EQ(r.ipv4_addr, 0xc0a80001u);
  EXPECT_EQ(r.subnet_mask, 0xffffff00u);
  EXPECT_EQ(r.gateway, 0xc0a800feu);
  EXPECT_EQ(r.primary_dns, 0x08080808u);
  EXPECT_EQ(r.secondary_dns, 0x08080404u);
  EXPECT_STREQ(r.username, "keep");
  EXPECT_EQ(r.auth_pref, 9);
}

TEST_F(AtNdis, DhcpReplies) {
  struct Case {
    const char* name;
    std::string modem;
    int ret;
    uint32_t addr, mask, gate, dns1, dns2;
  } cases[] = {
      {"echoed command stands in front", std::string("AT^DHCP?\r\r\n") + kDhcpLine + "\r\nOK\r\n", 0, 0xc0a80001,
       0xffffff00, 0xc0a800fe, 0x08080808, 0x08080404},
      {"no primary DNS keeps the words before it", "\r\n^DHCP: 0a000001,ff000000,0a0000fe,0a0000fe\r\nOK\r\n", -1,
       0x0a000001, 0xff000000, 0x0a0000fe, 0xdeadbeef, 0xdeadbeef},
      {"empty netmask", "\r\n^DHCP: 0a000001,,0a0000fe,0a0000fe,01010101,02020202\r\nOK\r\n", -1, 0x0a000001,
       0xdeadbeef, 0xdeadbeef, 0xdeadbeef, 0xdeadbeef},
      {"non-hex character gives 0", "\r\n^DHCP: c0a8zz01,FFFFFF00,c0a8-0fe,x,0808 808,08080404\r\nOK\r\n", 0, 0,
       0xffffff00, 0, 0, 0x08080404},
      {"value cut to 9 digits", "\r\n^DHCP: 123456789a,1,2,3,4,5\r\nOK\r\n", 0, 0x23456789, 1, 2, 4, 5},
      {"no reply line", "\r\nOK\r\n", -1, 0xdeadbeef, 0xdeadbeef, 0xdeadbeef, 0xdeadbeef, 0xdeadbeef},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh_channel();
    SeqModem modem;
    modem.send_now(c.modem);
    link_settings_t r = sentinel_record();
    EXPECT_EQ(ndis_get_dhcp_result(&r, 1), c.ret);
    EXPECT_EQ(r.ipv4_addr, c.addr);
    EXPECT_EQ(r.subnet_mask, c.mask);
    EXPECT_EQ(r.gateway, c.gate);
    EXPECT_EQ(r.primary_dns, c.dns1);
    EXPECT_EQ(r.secondary_dns, c.dns2);
  }
}

TEST_F(AtNdis, DhcpTextIsCutAt255BytesByThePassThroughTheFile) {
  // The reply line is padded in the unused DHCP-server value so that the last
  // digit of the secondary DNS is its 255th or 256th byte.
  for (size_t total : {255u, 256u}) {
    SCOPED_TRACE("reply of " + std::to_string(total) + " bytes");
    const std::string head = "^DHCP: c0a80001,ffffff00,c0a800fe,";
    const std::string tail = ",08080808,08080404";
    const std::string line = head + std::string(total - head.size() - tail.size(), '0') + tail;
    ASSERT_EQ(line.size(), total);
    fresh_channel();
    SeqModem modem;
    modem.feed({"\r\n" + line + "\r\nOK\r\n"});
    link_settings_t r = sentinel_record();
    EXPECT_EQ(ndis_get_dhcp_result(&r, 1), 0);
    EXPECT_EQ(read_text_file("/var/log/dhcp_result"), line);
    EXPECT_EQ(r.primary_dns, 0x08080808u);
    EXPECT_EQ(r.secondary_dns, total == 255 ? 0x08080404u : 0x00808040u);
  }
}

TEST_F(AtNdis, DhcpModeTwoAndFailuresKeepTheFile) {
  SeqModem modem;
  link_settings_t r = sentinel_record();
  EXPECT_EQ(ndis_get_dhcp_result(&r, 2), 0);
  EXPECT_EQ(r.ipv4_addr, 0xdeadbeefu);
  EXPECT_EQ(modem.written(), "");
  EXPECT_EQ(ndis_get_dhcp_result(nullptr, 1), -1);

  write_text_file("/var/log/dhcp_result", "earlier");
  modem.send_now("\r\n^DHCP: 1,2,3,4,5,6\r\nERROR\r\n");
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), -1);
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), "earlier");
  EXPECT_EQ(r.ipv4_addr, 0xdeadbeefu);

  // An OK with no reply line leaves an empty file, which cannot be read.
  modem.send_now("\r\nOK\r\n");
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), -1);
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), "");
}

TEST_F(AtNdis, Ipv6CapabilityFetch) {
  struct Case {
    const char* modem;
    int ret;
    int capability;
  } cases[] = {
      {"\r\n^IPV6CAP: 7\r\nOK\r\n", 0, 7},
      {"\r\n^IPV6CAP:1\r\nOK\r\n", 0, 1},
      {"\r\n^IPV6CAP: 2\r\nOK\r\n", -1, 0},
      {"\r\n^IPV6CAP: 3\r\nOK\r\n", -1, 0},
      {"\r\n^IPV6CAP: 7\r\nERROR\r\n", -1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.modem);
    fresh_channel();
    SeqModem modem;
    modem.send_now(c.modem);
    int capability = 99;
    EXPECT_EQ(ndis_get_ipv6cap(&capability), c.ret);
    EXPECT_EQ(capability, c.capability);
    EXPECT_EQ(modem.written(), "AT^IPV6CAP?\r");
  }
  EXPECT_EQ(ndis_get_ipv6cap(nullptr), -1);
}

}  // namespace
