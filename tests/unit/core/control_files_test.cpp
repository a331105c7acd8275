// Status, dial and pid files under /var/wan/<ifname>/ (private tmpfs /var).
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "core/core.h"
#include "log/log.h"
#include "private_var.h"

namespace {

class ControlFiles : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
    log_bytes = 0;
    ASSERT_GE(log_open(), 0);
  }
  void TearDown() override { log_close(); }
};

TEST_F(ControlFiles, DialFileVariants) {
  struct Case {
    const char* content;
    int expected;
  };
  const Case cases[] = {
      {"3\n", 3}, {"  4", 4},       {"2", 2},      {"", 0},          {"abc", 0},
      {"-1", -1}, {"1\r\n", 1},     {"12345678", 1234567},  // one line of at most 7 characters
      {"\n3", 0}, {"+2", 2},        {"0x4", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    write_text_file("/var/wan/rmnet0/dial", c.content);
    EXPECT_EQ(wds_dial_read(), c.expected);
  }
  remove("/var/wan/rmnet0/dial");
  EXPECT_EQ(wds_dial_read(), 0);
}

TEST_F(ControlFiles, TakingAOneShotRequestLeavesExactlyZero) {
  write_text_file("/var/wan/rmnet0/dial", "2\n");
  wds_dial_take_request();
  EXPECT_EQ(read_text_file("/var/wan/rmnet0/dial"), "0");
  // Without the directory nothing is written and nothing is logged.
  snprintf(g_acIfname, sizeof g_acIfname, "missing0");
  wds_dial_take_request();
  EXPECT_EQ(read_text_file("/var/log/wds.log"), "");
}

TEST_F(ControlFiles, StatusFileHoldsTheCodeAndANewline) {
  for (int code : {WDS_STATUS_READY, WDS_STATUS_CONNECTED, WDS_STATUS_DISCONNECTED}) {
    EXPECT_EQ(wds_status_write(code), 0);
    EXPECT_EQ(read_text_file("/var/wan/rmnet0/status"), std::to_string(code) + "\n");
  }
}

TEST_F(ControlFiles, WriteToFileReplacesContentAndReportsAMissingDirectory) {
  write_text_file("/var/wan/rmnet0/ipaddr", "192.168.100.100\n");
  EXPECT_EQ(WriteToFile("/var/wan/rmnet0/ipaddr", ""), 0);
  EXPECT_EQ(read_text_file("/var/wan/rmnet0/ipaddr"), "\n");

  EXPECT_EQ(WriteToFile("/var/wan/nowhere/status", "3"), -1);
  EXPECT_EQ(read_text_file("/var/log/wds.log").substr(0, 7), "[error]");
  EXPECT_NE(read_text_file("/var/log/wds.log")
                .find("] WriteToFile open file[/var/wan/nowhere/status] fail. errno = 2 <No such file or directory> \n"),
            std::string::npos);
  // The status writer ignores the failure.
  snprintf(g_acIfname, sizeof g_acIfname, "nowhere");
  EXPECT_EQ(wds_status_write(3), 0);
}

TEST_F(ControlFiles, PidFileHoldsThePidWithoutNewlineAndIsRemovedAtExit) {
  ASSERT_EQ(wds_pid_file_create(), 0);
  EXPECT_STREQ(g_acPidpath, "/var/wan/rmnet0/pid");
  EXPECT_EQ(read_text_file("/var/wan/rmnet0/pid"), std::to_string(getpid()));
  wds_pid_file_remove();
  EXPECT_FALSE(file_exists("/var/wan/rmnet0/pid"));

  snprintf(g_acIfname, sizeof g_acIfname, "nowhere");
  EXPECT_EQ(wds_pid_file_create(), -1);
  EXPECT_NE(read_text_file("/var/log/wds.log").find("] open pid file failed.\n"), std::string::npos);
}

}  // namespace
