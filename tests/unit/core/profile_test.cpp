// The dial profile parser: key order, substring matching, cuts, numbers.
#include <gtest/gtest.h>

#include <string>

#include "core/core.h"
#include "log/log.h"
#include "private_var.h"

namespace {

const std::string kConfig = "/var/wan/rmnet0/config";

class Profile : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
    wan_profile = {};
  }
  int load(const std::string& text) {
    write_text_file(kConfig, text);
    wan_profile = {};
    return get_curr_profile();
  }
};

TEST_F(Profile, EveryKeyFillsItsField) {
  ASSERT_EQ(load("dialnumber = *99#\nusername = user1\npassword = secret\nsetapn = internet\n"
                 "setip = 192.168.8.100\nauth = 2\ndial_mode = auto\nidletime = 600\nmru = 1500\n"),
            0);
  EXPECT_STREQ(wan_profile.dialnumber, "*99#");
  EXPECT_STREQ(wan_profile.username, "user1");
  EXPECT_STREQ(wan_profile.password, "secret");
  EXPECT_STREQ(wan_profile.apn, "internet");
  EXPECT_STREQ(wan_profile.ip, "192.168.8.100");
  EXPECT_EQ(wan_profile.auth, 2u);
  EXPECT_STREQ(wan_profile.dial_mode, "auto");
  EXPECT_EQ(wan_profile.idletime, 600u);
  EXPECT_EQ(wan_profile.mru, 1500u);
  EXPECT_STREQ(g_acProfilepath, "/var/wan/rmnet0/config");
}

TEST_F(Profile, KeyOrderAndSubstringRules) {
  struct Case {
    std::string line;
    std::string username, apn, password;
    uint32_t auth;
  };
  const Case cases[] = {
      {"xxusername = bob", "bob", "", "", 0},                        // preceded by other text
      {"setapn = a username = bob", "bob", "", "", 0},               // username is tested first
      {"apn = internet", "", "", "", 0},                             // key is "setapn = "
      {"username=bob", "", "", "", 0},                               // blanks belong to the key
      {"username =  bob ", " bob ", "", "", 0},                      // value verbatim
      {"password = p auth = 1", "", "", "p auth = 1", 0},            // password before auth
      {"auth = 1 setapn = x", "", "", "", 1},                        // auth before setapn
      {"setapn = web\r", "", "web\r", "", 0},                        // CR stays
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ASSERT_EQ(load(c.line + "\n"), 0);
    EXPECT_EQ(wan_profile.username, c.username);
    EXPECT_EQ(wan_profile.apn, c.apn);
    EXPECT_EQ(wan_profile.password, c.password);
    EXPECT_EQ(wan_profile.auth, c.auth);
  }
}

TEST_F(Profile, ValuesAreCutToTheirFields) {
  const std::string long70(70, 'p');
  ASSERT_EQ(load("password = " + long70 + "\nsetip = 1234567890123456789\ndial_mode = 0123456789abcdefgh\n"
                 "username = " + std::string(64, 'u') + "\n"),
            0);
  EXPECT_EQ(std::string(wan_profile.password), long70.substr(0, 64));
  EXPECT_STREQ(wan_profile.ip, "123456789012345");
  EXPECT_STREQ(wan_profile.dial_mode, "0123456789abcde");
  EXPECT_EQ(std::string(wan_profile.username), std::string(64, 'u'));
}

TEST_F(Profile, NumbersThatAreNotNumbersAndMissingKeys) {
  ASSERT_EQ(load("auth = two\nmru = 1500abc\nidletime = -5\n"), 0);
  EXPECT_EQ(wan_profile.auth, 0u);
  EXPECT_EQ(wan_profile.mru, 1500u);
  EXPECT_EQ(wan_profile.idletime, static_cast<uint32_t>(-5));

  ASSERT_EQ(load("username = a\n"), 0);
  EXPECT_EQ(wan_profile.idletime, 0u);
  EXPECT_EQ(wan_profile.mru, 0u);
}

TEST_F(Profile, LastValueWinsAndCrLfFilesKeepTheCarriageReturn) {
  ASSERT_EQ(load("username = first\r\nusername = second\r\nmru = 1400\r\n"), 0);
  EXPECT_STREQ(wan_profile.username, "second\r");
  EXPECT_EQ(wan_profile.mru, 1400u);
}

TEST_F(Profile, LongLinesArriveInPiecesOf255) {
  // The key sits in the second 255-character piece of one long line.
  std::string line(255, 'x');
  line += "setapn = piece";
  ASSERT_EQ(load(line + "\n"), 0);
  EXPECT_STREQ(wan_profile.apn, "piece");
}

TEST_F(Profile, MissingProfileFailsSilently) {
  remove(kConfig.c_str());
  log_bytes = 0;
  ASSERT_GE(log_open(), 0);
  EXPECT_EQ(get_curr_profile(), -1);
  log_close();
  EXPECT_EQ(read_text_file("/var/log/wds.log"), "");
}

}  // namespace
