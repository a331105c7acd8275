// The log writer: record endings, the error suffix, the size bound and its
// truncating reopen, and the hex dump layout (private tmpfs /var/log).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "log/internal.h"
#include "log/log.h"
#include "private_var.h"

namespace {

const std::string kLog = "/var/log/wds.log";

class Log : public testing::Test {
 protected:
  void SetUp() override { reopen_empty(); }
  void TearDown() override { log_close(); }
  void reopen_empty() {
    log_reset();
    reset_private_var("rmnet0");
    ASSERT_GE(log_open(), 0);
  }
  std::string text() { return read_text_file(kLog); }
};

TEST_F(Log, EachRecordEndsWithOneNewlineAndIsCutTo1023Characters) {
  struct Case { std::string record, written; int counted; };
  const Case cases[] = {{"one\n", "one\n", 4}, {"two", "two\n", 3}, {"", "\n", 0}, {"three\n\n", "three\n\n", 7},
                        {"\n", "\n", 1}, {std::string(2000, 'z'), std::string(1023, 'z') + "\n", 1023}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.record);
    reopen_empty();
    info("%s", c.record.c_str());
    EXPECT_EQ(text(), c.written);
    EXPECT_EQ(log_bytes, c.counted);
  }
}

TEST_F(Log, ErrorRecordsCarryErrnoAndItsText) {
  errno = ENOENT;
  WDS_ERROR("wds_msg", "tty busy or tty down.");
  const std::string line = std::to_string(__LINE__ - 1);
  EXPECT_EQ(std::regex_replace(text(), std::regex("pid= *" + std::to_string(getpid()) + "]"), "pid=P]"),
            "[error][         wds_msg:  " + line + ":pid=P] tty busy or tty down. errno = 2 <" + strerror(ENOENT) + "> \n");
}

TEST_F(Log, ExactlyTheLimitIsKeptAndTheNextByteTruncatesOrRecreates) {
  const std::string chunk(1000, 'a');
  for (int i = 0; i < 65; ++i) info("%s", chunk.c_str());
  info("%s", std::string(536, 'b').c_str());
  EXPECT_EQ(log_bytes, 65536);
  EXPECT_EQ(text().size(), 65536u + 66u);  // one newline written per record
  info("crossing\n");
  EXPECT_EQ(log_bytes, 0);
  info("next");
  EXPECT_EQ(text(), "crossing\nnext\n");
  EXPECT_EQ(log_bytes, 4);

  remove(kLog.c_str());
  info("lost\n");
  EXPECT_FALSE(file_exists(kLog));
  log_bytes = 65536;
  info("back\n");
  EXPECT_EQ(text(), "back\n");
}

TEST_F(Log, AppendsToWhatTheFileHeldAndWritesNothingWhileClosed) {
  log_close();
  write_text_file(kLog, "old\n");
  info("dropped\n");
  dump_msg(reinterpret_cast<const unsigned char*>("abcdefgh"), 8);
  EXPECT_EQ(log_bytes, 0);
  ASSERT_GE(log_open(), 0);
  info("new\n");
  EXPECT_EQ(text(), "old\nnew\n");
  EXPECT_EQ(log_bytes, 4);
}

// The log holds credentials: created for root alone whatever the umask, and
// never opened through a link planted at its path, at start or at the limit.
TEST_F(Log, CreatedForRootOnlyAndNeverThroughALink) {
  const mode_t saved_umask = umask(0);
  log_close();
  remove(kLog.c_str());
  ASSERT_GE(log_open(), 0);
  struct stat st = {};
  ASSERT_EQ(lstat(kLog.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, S_IFREG | 0600u);
  EXPECT_EQ(fcntl(log_fd, F_GETFD), FD_CLOEXEC);
  umask(saved_umask);

  const std::string target = "/var/log/target";
  write_text_file(target, "kept");
  remove(kLog.c_str());
  ASSERT_EQ(symlink(target.c_str(), kLog.c_str()), 0);
  log_bytes = 65536;
  info("crossing\n");
  EXPECT_EQ(log_fd, -1);
  EXPECT_EQ(log_open(), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(read_text_file(target), "kept");
}

TEST_F(Log, DumpLayoutHeaderAndAccounting) {
  struct Case { std::vector<unsigned char> msg; int len, bytes_before; std::string text; int bytes_after; };
  const Case cases[] = {
      {{0, 1, 2, 0, 0x22, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}, 20, 0,
       "message(0x2200) buf(20bytes)\n0000: 00 01 02 00 22 05 06 07    08 09 0a 0b 0c 0d 0e 0f \n0016: 10 11 12 13 \n",
       3 * 20 + 7 * 2},
      {{0, 0, 1, 0, 0x20, 0, 0x22}, 41, 0,
       "message(0x2000) buf(41bytes)\n"
       "0000: 00 00 01 00 20 00 22 00    00 00 00 00 00 00 00 00 \n"
       "0016: 00 00 00 00 00 00 00 00    00 00 00 00 00 00 00 00 \n"
       "0032: 00 00 00 00 00 00 00 00    00 \n",
       3 * 41 + 7 * 3},
      {{0, 0, 0, 0x2d, 0x01}, 0, 0, "message(0x0000) buf(0bytes)\n", 7},
      {{0, 0, 0, 0x2d, 0x01}, 4, 0, "message(0x002d) buf(4bytes)\n0000: 00 00 00 2d \n", 3 * 4 + 7},
      {{0, 0, 0, 0x2d, 0x01}, 5, 0, "message(0x012d) buf(5bytes)\n0000: 00 00 00 2d 01 \n", 3 * 5 + 7},
      {{0, 0, 1, 0, 0x2d, 0, 0}, 7, 65536 - 10, "message(0x2d00) buf(7bytes)\n0000: 00 00 01 00 2d 00 00 \n", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    reopen_empty();
    std::vector<unsigned char> msg = c.msg;
    msg.resize(std::max<size_t>(msg.size(), c.len));
    log_bytes = c.bytes_before;
    dump_msg(msg.data(), c.len);
    EXPECT_EQ(text(), c.text);
    EXPECT_EQ(log_bytes, c.bytes_after);
  }
}

}  // namespace
