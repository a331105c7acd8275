// NDIS operations: the exact command lines and their time-outs, the DHCP and
// IPv6 capability fetches through their result files, and the reply parsers.
#include <array>
#include <functional>
#include <utility>

#include "at_modem.h"
#include "platform/platform.h"

namespace {

struct AtNdis : AtChannel {};

using Words = std::array<uint32_t, 5>;  // address, netmask, gateway, primary and secondary DNS
Words words(const link_settings_t& r) {
  return {r.ipv4_addr, r.subnet_mask, r.gateway, r.primary_dns, r.secondary_dns};
}

wan_profile_t profile(const std::string& apn, const std::string& user, const std::string& password, uint32_t auth) {
  wan_profile_t p = {};
  snprintf(p.apn, sizeof p.apn, "%s", apn.c_str());
  snprintf(p.username, sizeof p.username, "%s", user.c_str());
  snprintf(p.password, sizeof p.password, "%s", password.c_str());
  p.auth = auth;
  return p;
}

// Each command once answered at its last allowed tick and once a tick late.
TEST_F(AtNdis, CommandLinesAndTheirTimeOuts) {
  const std::string a64(64, 'a'), u64(64, 'u'), p64(64, 'p');
  int err = 0;
  auto dial = [](const std::string& apn, const std::string& user, const std::string& password, uint32_t auth) {
    return [p = profile(apn, user, password, auth)] { return ndis_at_connect(&p); };
  };
  const struct {
    const char* name;
    std::function<int()> run;
    std::string command;
    int ticks = 30;
  } cases[] = {
      {"dial with APN only", dial("internet", "", "", 0), "AT^NDISDUP=1,1,\"internet\",,\r"},
      {"dial with auth 1", dial("internet", "user", "pw", 1), "AT^NDISDUP=1,1,\"internet\",\"user\",\"pw\",1\r"},
      {"dial with auth 2", dial("internet", "user", "pw", 2), "AT^NDISDUP=1,1,\"internet\",\"user\",\"pw\",2\r"},
      {"dial with auth 3", dial("internet", "user", "pw", 3), "AT^NDISDUP=1,1,\"internet\",\"user\",\"pw\"\r"},
      {"dial without APN", dial("", "user", "", 2), "AT^NDISDUP=1,1,,\"user\",,2\r"},
      {"quotes pass unchanged", dial("in\"ter,net", "a\"b", "p'q\"", 0),
       "AT^NDISDUP=1,1,\"in\"ter,net\",\"a\"b\",\"p'q\"\"\r"},
      {"longest profile values", dial(a64, u64, p64, 1),
       "AT^NDISDUP=1,1,\"" + a64 + "\",\"" + u64 + "\",\"" + p64 + "\",1\r"},
      {"hang-up", [] { return ndis_at_disconnect(); }, "AT^NDISDUP=1,0\r"},
      {"hang-up by mode", [&err] { return ndis_dup_request(7, nullptr, &err); }, "AT^NDISDUP=1,0\r"},
      {"add with three", [&err] { return ndis_add_request("a", "b", "c", &err); }, "AT^NDISADD=0,\"a\",\"b\",\"c\"\r"},
      {"add with empty and missing", [&err] { return ndis_add_request(nullptr, "", "", &err); }, "AT^NDISADD=0,,\r"},
      {"CME errors on", [&err] { return at_enable_cme_errors(&err); }, "AT+CMEE=1\r", 3},
      {"echo off", [&err] { return at_echo_off(&err); }, "ATE0\r", 3},
      {"reports on", [&err] { return at_set_curc(&err, 5); }, "at^curc=01\r"},
      {"reports off", [&err] { return at_set_curc(&err, 0); }, "at^curc=00\r"},
      {"DHCP query", [&err] { return at_query_dhcp(&err); }, "AT^DHCP?\r"},
      {"IPv6 capability query", [&err] { return at_query_ipv6cap(&err); }, "AT^IPV6CAP?\r"},
  };
  for (const auto& c : cases) {
    for (int answer_at : {c.ticks, c.ticks + 1}) {
      SCOPED_TRACE(std::string(c.name) + ", answered at tick " + std::to_string(answer_at));
      fresh_channel();
      SeqModem modem;
      TickDriver tick(answer_at, modem.peer, 1000);
      EXPECT_EQ(c.run(), answer_at == c.ticks ? 0 : -1);
      EXPECT_EQ(modem.written(), c.command);
    }
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
  shutdown(modem.peer, SHUT_WR);
  EXPECT_EQ(ndis_dup_request(0, nullptr, &err), -1);
  EXPECT_EQ(err, 19);
}

TEST_F(AtNdis, DhcpFetchStoresHostOrderWordsAndKeepsTheFileOnFailure) {
  const std::string line = "^DHCP: c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000";
  SeqModem modem;
  link_settings_t r = {};
  snprintf(r.username, sizeof r.username, "keep");
  EXPECT_EQ(ndis_get_dhcp_result(&r, 2), 0);  // mode 2 sends and stores nothing
  EXPECT_EQ(ndis_get_dhcp_result(nullptr, 1), -1);
  EXPECT_EQ(words(r), Words{});
  EXPECT_EQ(modem.written(), "");

  modem.send_now("\r\n" + line + "\r\n\r\nOK\r\n");
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), 0);
  EXPECT_EQ(modem.written(), "AT^DHCP?\r");
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), line);
  EXPECT_EQ(words(r), (Words{0xc0a80001, 0xffffff00, 0xc0a800fe, 0x08080808, 0x08080404}));
  EXPECT_STREQ(r.username, "keep");

  r = {};
  modem.send_now("\r\n^DHCP: 1,2,3,4,5,6\r\nERROR\r\n");
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), -1);
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), line);
  modem.send_now("\r\nOK\r\n");  // no reply line: an empty file, which cannot be read
  EXPECT_EQ(ndis_get_dhcp_result(&r, 1), -1);
  EXPECT_EQ(read_text_file("/var/log/dhcp_result"), "");
  EXPECT_EQ(words(r), Words{});
  // The text is parsed as read back from the file, cut at 255 bytes: padding in
  // the unused DHCP-server value puts the last digit at byte 255 or 256.
  const std::string head = "^DHCP: 1,2,3,", tail = ",4,08080404";
  for (size_t total : {255u, 256u}) {
    SCOPED_TRACE(total);
    const std::string padded = head + std::string(total - head.size() - tail.size(), '0') + tail;
    modem.send_now("\r\n" + padded + "\r\nOK\r\n");
    EXPECT_EQ(ndis_get_dhcp_result(&r, 1), 0);
    EXPECT_EQ(read_text_file("/var/log/dhcp_result"), padded);
    EXPECT_EQ(words(r), (Words{1, 2, 3, 4, total == 255 ? 0x08080404u : 0x00808040u}));
  }
}

TEST_F(AtNdis, Ipv6CapabilityFetch) {
  SeqModem modem;
  const struct {
    const char* modem;
    int ret, capability;
  } cases[] = {{"\r\n^IPV6CAP:1\r\nOK\r\n", 0, 1}, {"\r\n^IPV6CAP: 2\r\nOK\r\n", -1, 0},
               {"\r\n^IPV6CAP: 7\r\nERROR\r\n", -1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.modem);
    modem.send_now(c.modem);
    int capability = 99;
    EXPECT_EQ(ndis_get_ipv6cap(&capability), c.ret);
    EXPECT_EQ(capability, c.capability);
    EXPECT_EQ(modem.written(), "AT^IPV6CAP?\r");
  }
  EXPECT_EQ(ndis_get_ipv6cap(nullptr), -1);
}

using Fields = std::vector<std::pair<std::string, std::string>>;  // "(none)" for a missing value

Fields parse_fields(const std::string& text, int* ret) {
  at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);  // must be overwritten
  *ret = at_cmd_parse(&head, "^DHCP", text.c_str(), 9, 0);
  Fields out;
  for (at_cmd_field* f = head; f != nullptr; f = f->next) out.emplace_back(f->name, f->value ? f->value : "(none)");
  free_at_cmd(head);
  return out;
}

TEST(AtCmdParse, NamesTheValuesOfTheLineCarryingThePrefix) {
  const std::string values = "c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000";
  const Fields all = {{"clip", "c0a80001"},    {"netmask", "ffffff00"},        {"gate", "c0a800fe"},
                      {"dhcp", "c0a800fe"},    {"pDNS", "08080808"},           {"sDNS", "08080404"},
                      {"max_rx_data", "100000000"}, {"max_tx_data", "50000000"}};
  const struct {
    const char* name;
    std::string text;
    Fields fields;
  } cases[] = {
      {"reply line", "^DHCP: " + values, all},
      {"among other lines, blanks trimmed",
       "AT^DHCP?\r\r\n+CSQ: 1\r\n^DHCP:c0a80001, ffffff00 ," + values.substr(18) + "\r\nOK\r\n", all},
      {"echo in front without separator", "AT^DHCP?^DHCP: " + values, all},
      {"extra values ignored", "^DHCP: " + values + ",9,9", all},
      {"fewer values", "^DHCP : 1,2,3", {{"clip", "1"}, {"netmask", "2"}, {"gate", "3"}}},
      {"empty values have none", "^DHCP: ,2,\r\n3", {{"clip", "(none)"}, {"netmask", "2"}, {"gate", "(none)"}}},
      {"nothing after the colon", "^DHCP:", {{"clip", "(none)"}}},
      {"prefix without colon", "^DHCP? 1,2,3", {}},
      {"no prefix", "+CSQ: 1,2", {}},
      {"empty text", "", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    int ret = 0;
    EXPECT_EQ(parse_fields(c.text, &ret), c.fields);
    EXPECT_EQ(ret, c.fields.empty() ? -1 : static_cast<int>(c.fields.size()));
  }
}

TEST(AtCmdParse, UnknownSelectorFlagsOrMissingArgumentsGiveAnEmptyList) {
  const char* line = "^DHCP: 1,2,3,4,5,6,7,8";
  const struct {
    const char* prefix;
    const char* text;
    int selector, flags;
  } cases[] = {
      {"^DHCP", line, 8, 0}, {"^DHCP", line, 9, 1}, {"", line, 9, 0}, {nullptr, line, 9, 0}, {"^DHCP", nullptr, 9, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);
    EXPECT_EQ(at_cmd_parse(&head, c.prefix, c.text, c.selector, c.flags), -1);
    EXPECT_EQ(head, nullptr);
  }
  EXPECT_EQ(at_cmd_parse(nullptr, "^DHCP", line, 9, 0), -1);
  free_at_cmd(nullptr);
}

TEST(HexToU32, DigitsOfBothCasesModulo2To32) {
  const struct {
    const char* text;
    uint32_t value;
  } cases[] = {{"c0a80001", 0xc0a80001}, {"C0A80001", 0xc0a80001}, {"aF9", 0xaf9}, {"0", 0}, {"f", 15},
               {"ffffffff", 0xffffffff}, {"100000000", 0}, {"123456789", 0x23456789}, {"", 0}, {"g", 0},
               {"12 3", 0}, {"0x10", 0}, {"-1", 0}, {"c0a80001\n", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(hex_to_u32(c.text), c.value);
  }
  EXPECT_EQ(hex_to_u32(nullptr), 0u);
}

TEST(ParseDhcpReply, StoresFiveWordsInOrderAndStopsAtTheFirstMissing) {
  const struct {
    const char* name;
    const char* text;
    int ret;
    Words words;
  } cases[] = {
      {"all", "^DHCP: 1,2,3,4,5,6,100000000,50000000", 0, {1, 2, 3, 5, 6}},
      {"dhcp server not needed", "^DHCP: 1,2,3,,5,6", 0, {1, 2, 3, 5, 6}},
      {"values cut to 9 digits", "^DHCP: 123456789a,1,2,3,4,5", 0, {0x23456789, 1, 2, 4, 5}},
      {"no secondary DNS", "^DHCP: 1,2,3,4,5", -1, {1, 2, 3, 5, 7}},
      {"no primary DNS", "^DHCP: 1,2,3,4", -1, {1, 2, 3, 7, 7}},
      {"no gateway", "^DHCP: 1,2,,4,5,6", -1, {1, 2, 7, 7, 7}},
      {"no netmask", "^DHCP: 1,,3,4,5,6", -1, {1, 7, 7, 7, 7}},
      {"no address", "^DHCP: ,2,3,4,5,6", -1, {7, 7, 7, 7, 7}},
      {"unparsable", "garbage", -1, {7, 7, 7, 7, 7}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    link_settings_t r = {};
    r.ipv4_addr = r.subnet_mask = r.gateway = r.primary_dns = r.secondary_dns = 7;
    EXPECT_EQ(parse_dhcp_reply(c.text, &r), c.ret);
    EXPECT_EQ(words(r), c.words);
  }
  link_settings_t r;
  EXPECT_EQ(parse_dhcp_reply(nullptr, &r), -1);
  EXPECT_EQ(parse_dhcp_reply("^DHCP: 1,2,3,4,5,6", nullptr), -1);
}

TEST(ParseIpv6capReply, OneOrSevenAfterTheFirstColon) {
  const struct {
    const char* text;
    int ret, capability;
  } cases[] = {
      {"^IPV6CAP: 7", 0, 7},   {"^IPV6CAP: 1\r\nrest", 0, 1}, {"^IPV6CAP:  7\n", 0, 7}, {"x:7 ^IPV6CAP", 0, 7},
      {"^IPV6CAP: 2", -1, 99}, {"^IPV6CAP: 3", -1, 99},       {"^IPV6CAP: 0", -1, 99},   {"^IPV6CAP: x", -1, 99},
      {"^IPV6CAP:", -1, 99},   {"^IPV6CAP 7", -1, 99},        {"^IPV6CAP: \r7", -1, 99}, {"IPV6CAP: 7", -1, 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    int capability = 99;
    EXPECT_EQ(parse_ipv6cap_reply(c.text, &capability), c.ret);
    EXPECT_EQ(capability, c.capability);
  }
}

// Each file written is shorter than the one before, so a rewrite must cut it.
TEST_F(AtNdis, ResultFilesAreRewrittenWholeAndReadBackUpTo255Bytes) {
  for (const size_t size : {1000, 256, 255, 254, 1, 0}) {
    SCOPED_TRACE(size);
    const std::string text = pattern(size);
    write_var_log_file("small", "%.*s", static_cast<int>(size), text.c_str());
    char buffer[256];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(read_small_file("/var/log/small", buffer), size == 0 ? -1 : 0);  // an empty file is no result
    EXPECT_EQ(std::string(buffer), text.substr(0, 255));
  }
  write_var_log_file("no/such/dir", "%s", "x");  // silently not written
  EXPECT_FALSE(file_exists("/var/log/no/such/dir"));
  write_text_file("/var/log/target", "kept");
  ASSERT_EQ(symlink("/var/log/target", "/var/log/dhcp_result"), 0);
  write_var_log_file("dhcp_result", "%s", "x");  // nor through a planted link
  EXPECT_EQ(read_text_file("/var/log/target"), "kept");
  char buffer[256] = "x";
  EXPECT_EQ(read_small_file("/var/log/none", buffer), -1);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(read_small_file(nullptr, buffer), -1);
  EXPECT_EQ(read_small_file("/var/log/small", nullptr), -1);
}

}  // namespace
