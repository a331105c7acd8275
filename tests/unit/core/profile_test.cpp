// The dial profile parser: key order, substring matching, cuts, numbers.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "core/core.h"
#include "log/internal.h"
#include "log/log.h"
#include "private_var.h"

namespace {

const std::string kConfig = "/var/wan/rmnet0/config";

// The loaded profile as "key=value;" for every field that is set.
std::string loaded() {
  const auto& p = wan_profile;
  auto number = [](uint32_t n) { return n ? std::to_string(n) : ""; };
  const std::pair<const char*, std::string> fields[] = {
      {"dialnumber", p.dialnumber}, {"username", p.username}, {"password", p.password},
      {"apn", p.apn},               {"ip", p.ip},             {"auth", number(p.auth)},
      {"dial_mode", p.dial_mode},   {"idletime", number(p.idletime)}, {"mru", number(p.mru)}};
  std::string out;
  for (const auto& [key, value] : fields) out += value.empty() ? "" : key + ("=" + value + ";");
  return out;
}

class Profile : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    wan_reset();
    wds_core_reset();
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
  }
};

TEST_F(Profile, EachLineFillsTheFieldOfTheFirstKeyItContains) {
  const std::string u64(64, 'u'), p64(64, 'p'), x255(255, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"dialnumber = *99#\nusername = user1\npassword = secret\nsetapn = internet\nsetip = 192.168.8.100\n"
       "auth = 2\ndial_mode = auto\nidletime = 600\nmru = 1500\n",
       "dialnumber=*99#;username=user1;password=secret;apn=internet;ip=192.168.8.100;auth=2;dial_mode=auto;"
       "idletime=600;mru=1500;"},
      {"xxusername = bob\n", "username=bob;"},                 // preceded by other text
      {"setapn = a username = bob\n", "username=bob;"},        // username is tested first
      {"password = p auth = 1\n", "password=p auth = 1;"},     // password before auth
      {"auth = 1 setapn = x\n", "auth=1;"},                    // auth before setapn
      {"apn = internet\nusername=bob\n", ""},                  // the key is "setapn = ", blanks included
      {"username =  bob \nsetapn = web\r\n", "username= bob ;apn=web\r;"},  // values verbatim, CR kept
      {"username = first\r\nusername = second\r\nmru = 1400\r\n", "username=second\r;mru=1400;"},
      {"password = " + p64 + "ppppp\nusername = " + u64 + "\n", "username=" + u64 + ";password=" + p64 + ";"},
      {"setip = 1234567890123456789\ndial_mode = 0123456789abcdefgh\n", "ip=123456789012345;dial_mode=0123456789abcde;"},
      {"auth = two\nmru = 1500abc\nidletime = -5\n", "idletime=4294967291;mru=1500;"},
      {x255 + "setapn = piece\n", "apn=piece;"},               // a long line arrives in pieces of 255
      {x255.substr(5) + "setapn = cut\n", ""},                 // a key cut by a piece boundary
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    write_text_file(kConfig, text);
    wan_profile = {};
    ASSERT_EQ(get_curr_profile(), 0);
    EXPECT_EQ(loaded(), expected);
  }
  EXPECT_STREQ(g_acProfilepath, "/var/wan/rmnet0/config");
}

TEST_F(Profile, MissingProfileFailsSilently) {
  log_reset();
  ASSERT_GE(log_open(), 0);
  EXPECT_EQ(get_curr_profile(), -1);
  log_close();
  EXPECT_EQ(read_text_file("/var/log/wds.log"), "");
}

}  // namespace
