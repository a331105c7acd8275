// Status, dial and pid files under /var/wan/<ifname>/ (private tmpfs /var).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <string>

#include "core/core.h"
#include "log/internal.h"
#include "log/log.h"
#include "private_var.h"

namespace {

const std::string kWan = "/var/wan/rmnet0/";

// The log's records without their variable prefix.
std::string log_records() {
  const std::regex prefix(R"(\[ *main: *\d+:pid= *\d+\] )");
  return std::regex_replace(read_text_file("/var/log/wds.log"), prefix, "|");
}

class ControlFiles : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    wan_reset();
    wds_core_reset();
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
    log_reset();
    ASSERT_GE(log_open(), 0);
  }
  void TearDown() override { log_close(); }
};

TEST_F(ControlFiles, DialFileVariants) {
  const std::pair<const char*, int> cases[] = {
      {"3\n", 3}, {"  4", 4}, {"2", 2}, {"", 0}, {"abc", 0}, {"-1", -1}, {"1\r\n", 1},
      {"12345678", 1234567},  // one line of at most 7 characters
      {"1234567", 1234567}, {"\n3", 0}, {" \t\n 3", 0}, {"-0012\n9", -12}, {"+2", 2}, {"0x4", 0},
  };
  for (const auto& [content, expected] : cases) {
    SCOPED_TRACE(content);
    write_text_file(kWan + "dial", content);
    EXPECT_EQ(wds_dial_read(), expected);
  }
  remove((kWan + "dial").c_str());
  EXPECT_EQ(wds_dial_read(), 0);
}

TEST_F(ControlFiles, WritersLeaveExactContent) {
  write_text_file(kWan + "dial", "2\n");
  wds_dial_take_request();
  EXPECT_EQ(read_text_file(kWan + "dial"), "0");
  for (int code : {WDS_STATUS_READY, WDS_STATUS_CONNECTED, WDS_STATUS_DISCONNECTED}) {
    EXPECT_EQ(wds_status_write(code), 0);
    EXPECT_EQ(read_text_file(kWan + "status"), std::to_string(code) + "\n");
  }
  write_text_file(kWan + "ipaddr", "192.168.100.100\n");
  EXPECT_EQ(WriteToFile((kWan + "ipaddr").c_str(), ""), 0);
  EXPECT_EQ(read_text_file(kWan + "ipaddr"), "\n");

  write_text_file(kWan + "pid", "1234567890\n");
  ASSERT_EQ(wds_pid_file_create(), 0);
  EXPECT_STREQ(g_acPidpath, "/var/wan/rmnet0/pid");
  EXPECT_EQ(read_text_file(kWan + "pid"), std::to_string(getpid()));
  wds_pid_file_remove();
  EXPECT_FALSE(file_exists(kWan + "pid"));
  EXPECT_EQ(read_text_file("/var/log/wds.log"), "");
}

TEST_F(ControlFiles, MissingDirectoryIsLoggedOrIgnored) {
  EXPECT_EQ(WriteToFile("/var/wan/nowhere/status", "3"), -1);
  snprintf(g_acIfname, sizeof g_acIfname, "nowhere");
  EXPECT_EQ(wds_status_write(3), 0);
  wds_dial_take_request();
  EXPECT_EQ(wds_pid_file_create(), -1);
  const std::string failed = "[error]|WriteToFile open file[/var/wan/nowhere/status] fail. errno = 2 <" +
                             std::string(strerror(ENOENT)) + "> \n";
  EXPECT_EQ(log_records(), failed + failed + "[ info]|open pid file failed.\n");
}

// Created as fopen creates them (0666 less the umask). A link planted at the
// path is refused and reported like any failed open, its target untouched.
TEST_F(ControlFiles, WritersCreateAsFopenAndNeverWriteThroughALink) {
  const auto write_all = [] {
    wds_status_write(3);
    wds_pid_file_create();
    wds_dial_take_request();
  };
  const mode_t saved_umask = umask(0);
  write_all();
  umask(saved_umask);
  write_text_file("/var/wan/target", "kept");
  for (const char* file : {"status", "pid", "dial"}) {
    SCOPED_TRACE(file);
    struct stat st = {};
    ASSERT_EQ(lstat((kWan + file).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, S_IFREG | 0666u);
    remove((kWan + file).c_str());
    ASSERT_EQ(symlink("/var/wan/target", (kWan + file).c_str()), 0);
  }
  write_all();
  EXPECT_EQ(read_text_file("/var/wan/target"), "kept");
  EXPECT_EQ(log_records(), "[error]|WriteToFile open file[/var/wan/rmnet0/status] fail. errno = " +
                               std::to_string(ELOOP) + " <" + strerror(ELOOP) + "> \n[ info]|open pid file failed.\n");
}

}  // namespace
