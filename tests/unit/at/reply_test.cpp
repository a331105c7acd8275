// Reply texts: the platform parser's field list, the DHCP and IPv6 capability
// parsers, hexadecimal words and the small result files.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "at/at.h"
#include "platform/platform.h"
#include "private_var.h"

namespace {

struct Field {
  std::string name;
  std::string value;  // "(none)" when the field has no value
  bool operator==(const Field&) const = default;
};

std::vector<Field> parse_fields(const char* prefix, const char* text, int selector, int* ret) {
  at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);  // must be overwritten
  *ret = at_cmd_parse(&head, prefix, text, selector, 0);
  std::vector<Field> out;
  for (at_cmd_field* f = head; f != nullptr; f = f->next) {
    out.push_back({f->name, f->value != nullptr ? f->value : "(none)"});
  }
  free_at_cmd(head);
  return out;
}

TEST(AtCmdParse, NamesTheValuesOfTheLineCarryingThePrefix) {
  const std::vector<Field> all = {{"clip", "c0a80001"}, {"netmask", "ffffff00"}, {"gate", "c0a800fe"},
                                  {"dhcp", "c0a800fe"}, {"pDNS", "08080808"},    {"sDNS", "08080404"},
                                  {"max_rx_data", "100000000"}, {"max_tx_data", "50000000"}};
  struct Case {
    const char* name;
    const char* text;
    std::vector<Field> fields;
  } cases[] = {
      {"reply line", "^DHCP: c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000", all},
      {"among other lines",
       "AT^DHCP?\r\r\n+CSQ: 1\r\n^DHCP:c0a80001, ffffff00 ,c0a800fe,c0a800fe,08080808,08080404,100000000,"
       "50000000\r\nOK\r\n",
       all},
      {"echo in front without separator",
       "AT^DHCP?^DHCP: c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000", all},
      {"extra values ignored",
       "^DHCP: c0a80001,ffffff00,c0a800fe,c0a800fe,08080808,08080404,100000000,50000000,9,9", all},
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
    EXPECT_EQ(parse_fields("^DHCP", c.text, 9, &ret), c.fields);
    EXPECT_EQ(ret, c.fields.empty() ? -1 : static_cast<int>(c.fields.size()));
  }
}

TEST(AtCmdParse, UnknownSelectorFlagsOrMissingArgumentsGiveAnEmptyList) {
  const char* line = "^DHCP: 1,2,3,4,5,6,7,8";
  int ret = 0;
  EXPECT_TRUE(parse_fields("^DHCP", line, 8, &ret).empty());
  EXPECT_EQ(ret, -1);
  EXPECT_TRUE(parse_fields("", line, 9, &ret).empty());
  at_cmd_field* head = reinterpret_cast<at_cmd_field*>(0x1);
  EXPECT_EQ(at_cmd_parse(&head, "^DHCP", line, 9, 1), -1);
  EXPECT_EQ(head, nullptr);
  head = reinterpret_cast<at_cmd_field*>(0x1);
  EXPECT_EQ(at_cmd_parse(&head, nullptr, line, 9, 0), -1);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(at_cmd_parse(&head, "^DHCP", nullptr, 9, 0), -1);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(at_cmd_parse(nullptr, "^DHCP", line, 9, 0), -1);
  free_at_cmd(nullptr);
}

TEST(HexToU32, DigitsOfBothCasesModulo2To32) {
  struct Case {
    const char* text;
    uint32_t value;
  } cases[] = {
      {"c0a80001", 0xc0a80001}, {"C0A80001", 0xc0a80001}, {"0", 0},          {"f", 15},
      {"ffffffff", 0xffffffff}, {"100000000", 0},         {"123456789", 0x23456789},
      {"", 0},                  {"g", 0},                 {"12 3", 0},       {"0x10", 0},
      {"-1", 0},                {"aF9", 0xaf9},           {"c0a80001\n", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(hex_to_u32(c.text), c.value);
  }
  EXPECT_EQ(hex_to_u32(nullptr), 0u);
}

TEST(ParseDhcpReply, StoresFiveWordsInOrderAndStopsAtTheFirstMissing) {
  struct Case {
    const char* name;
    const char* text;
    int ret;
    uint32_t addr, mask, gate, dns1, dns2;
  } cases[] = {
      {"all", "^DHCP: 1,2,3,4,5,6,100000000,50000000", 0, 1, 2, 3, 5, 6},
      {"dhcp server not needed", "^DHCP: 1,2,3,,5,6", 0, 1, 2, 3, 5, 6},
      {"no secondary DNS", "^DHCP: 1,2,3,4,5", -1, 1, 2, 3, 5, 7},
      {"no gateway", "^DHCP: 1,2,,4,5,6", -1, 1, 2, 7, 7, 7},
      {"no address", "^DHCP: ,2,3,4,5,6", -1, 7, 7, 7, 7, 7},
      {"unparsable", "garbage", -1, 7, 7, 7, 7, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    link_settings_t r;
    memset(&r, 0, sizeof r);
    r.ipv4_addr = r.subnet_mask = r.gateway = r.primary_dns = r.secondary_dns = 7;
    EXPECT_EQ(parse_dhcp_reply(c.text, &r), c.ret);
    EXPECT_EQ(r.ipv4_addr, c.addr);
    EXPECT_EQ(r.subnet_mask, c.mask);
    EXPECT_EQ(r.gateway, c.gate);
    EXPECT_EQ(r.primary_dns, c.dns1);
    EXPECT_EQ(r.secondary_dns, c.dns2);
  }
  link_settings_t r;
  EXPECT_EQ(parse_dhcp_reply(nullptr, &r), -1);
  EXPECT_EQ(parse_dhcp_reply("^DHCP: 1,2,3,4,5,6", nullptr), -1);
}

TEST(ParseIpv6capReply, OneOrSevenAfterTheFirstColon) {
  struct Case {
    const char* text;
    int ret;
    int capability;
  } cases[] = {
      {"^IPV6CAP: 7", 0, 7},
      {"^IPV6CAP: 1\r\nrest", 0, 1},
      {"^IPV6CAP:  7\n", 0, 7},
      {"^IPV6CAP: 2", -1, 99},
      {"^IPV6CAP: 3", -1, 99},
      {"^IPV6CAP: 0", -1, 99},
      {"^IPV6CAP: x", -1, 99},
      {"^IPV6CAP:", -1, 99},
      {"^IPV6CAP 7", -1, 99},
      {"^IPV6CAP: \r7", -1, 99},
      {"IPV6CAP: 7", -1, 99},
      {"x:7 ^IPV6CAP", 0, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    int capability = 99;
    EXPECT_EQ(parse_ipv6cap_reply(c.text, &capability), c.ret);
    EXPECT_EQ(capability, c.capability);
  }
}

TEST(ResultFiles, SmallFileReadKeepsAtMost255Bytes) {
  reset_private_var("rmnet_tarvek0");
  struct Case {
    size_t size;
    int ret;
    size_t kept;
  } cases[] = {{0, -1, 0}, {1, 0, 1}, {254, 0, 254}, {255, 0, 255}, {256, 0, 255}, {1000, 0, 255}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    std::string text;
    for (size_t i = 0; i < c.size; ++i) text.push_back(static_cast<char>('a' + i % 26));
    write_text_file("/var/log/small", text);
    char buffer[256];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(read_small_file("/var/log/small", buffer), c.ret);
    EXPECT_EQ(std::string(buffer), text.substr(0, c.kept));
  }
  char buffer[256] = "x";
  EXPECT_EQ(read_small_file("/var/log/none", buffer), -1);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(read_small_file(nullptr, buffer), -1);
  EXPECT_EQ(read_small_file("/var/log/small", nullptr), -1);
}

TEST(ResultFiles, VarLogFileIsRewrittenWhole) {
  reset_private_var("rmnet_tarvek0");
  write_var_log_file("result", "%s-%d", "first text that is long", 1);
  EXPECT_EQ(read_text_file("/var/log/result"), "first text that is long-1");
  write_var_log_file("result", "%s", "short");
  EXPECT_EQ(read_text_file("/var/log/result"), "short");
  write_var_log_file("no/such/dir", "%s", "x");  // silently not written
  EXPECT_FALSE(file_exists("/var/log/no/such/dir"));
}

}  // namespace
