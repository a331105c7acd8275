// The log writer: record endings, the error suffix, the size bound and its
// truncating reopen, and the hex dump layout (private tmpfs /var/log).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "log/log.h"
#include "private_var.h"

namespace {

const std::string kLog = "/var/log/wds.log";

class Log : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    log_bytes = 0;
    ASSERT_GE(log_open(), 0);
  }
  void TearDown() override { log_close(); }
  std::string text() { return read_text_file(kLog); }
};

TEST_F(Log, EachRecordEndsWithTheNewlinesItsTextEndsWith) {
  struct Case {
    const char* text;
    const char* written;
    int counted;
  };
  const Case cases[] = {
      {"one\n", "one\n", 4},
      {"two", "two\n", 3},
      {"", "\n", 0},
      {"three\n\n", "three\n\n", 7},
      {"\n", "\n", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    log_close();
    reset_private_var("rmnet0");
    log_bytes = 0;
    ASSERT_GE(log_open(), 0);
    info("%s", c.text);
    EXPECT_EQ(text(), c.written);
    EXPECT_EQ(log_bytes, c.counted);
  }
}

TEST_F(Log, ErrorRecordsCarryErrnoAndItsText) {
  errno = ENOENT;
  WDS_ERROR("wds_msg", "tty busy or tty down.");
  const std::string expected_tail = "] tty busy or tty down. errno = 2 <No such file or directory> \n";
  const std::string log = text();
  EXPECT_EQ(log.substr(0, 29), "[error][         wds_msg:  " + std::to_string(__LINE__ - 3));
  ASSERT_GE(log.size(), expected_tail.size());
  EXPECT_EQ(log.substr(log.size() - expected_tail.size()), expected_tail);
}

TEST_F(Log, RecordPrefixFieldsAreRightAligned) {
  info("[ info][%16s:%4d:pid=%3d] %s\n", "atrwapi", 7, 12, "x");
  info("[ info][%16s:%4d:pid=%3d] %s\n", "a_module_name_longer_than_16", 12345, 123456, "y");
  EXPECT_EQ(text(),
            "[ info][         atrwapi:   7:pid= 12] x\n"
            "[ info][a_module_name_longer_than_16:12345:pid=123456] y\n");
}

TEST_F(Log, ExactlyTheLimitIsKeptAndTheNextByteTruncates) {
  const std::string chunk(1000, 'a');
  for (int i = 0; i < 65; ++i) info("%s", chunk.c_str());
  info("%s", std::string(536, 'b').c_str());
  EXPECT_EQ(log_bytes, 65536);
  EXPECT_EQ(text().size(), 65536u + 66u);  // one newline written per record

  info("crossing\n");
  EXPECT_EQ(log_bytes, 0);
  EXPECT_EQ(text(), "crossing\n");
  info("next");
  EXPECT_EQ(text(), "crossing\nnext\n");
  EXPECT_EQ(log_bytes, 4);
}

TEST_F(Log, AppendsToWhatTheFileHeldBeforeStart) {
  log_close();
  write_text_file(kLog, "old\n");
  log_bytes = 0;
  ASSERT_GE(log_open(), 0);
  info("new\n");
  EXPECT_EQ(text(), "old\nnew\n");
  EXPECT_EQ(log_bytes, 4);
}

TEST_F(Log, RemovedFileIsRecreatedAtTheNextTruncation) {
  remove(kLog.c_str());
  info("lost\n");
  EXPECT_FALSE(file_exists(kLog));
  log_bytes = 65536;
  info("back\n");
  EXPECT_EQ(text(), "back\n");
}

TEST_F(Log, NothingIsWrittenOrCountedWhileClosed) {
  log_close();
  info("dropped\n");
  dump_msg(reinterpret_cast<const unsigned char*>("abcdefgh"), 8);
  EXPECT_EQ(log_bytes, 0);
  EXPECT_EQ(text(), "");
}

TEST_F(Log, DumpOfTwentyBytes) {
  unsigned char msg[20];
  for (int i = 0; i < 20; ++i) msg[i] = static_cast<unsigned char>(i);
  msg[3] = 0x00;
  msg[4] = 0x22;
  dump_msg(msg, 20);
  EXPECT_EQ(text(),
            "message(0x2200) buf(20bytes)\n"
            "0000: 00 01 02 00 22 05 06 07    08 09 0a 0b 0c 0d 0e 0f \n"
            "0016: 10 11 12 13 \n");
  EXPECT_EQ(log_bytes, 3 * 20 + 7 * 2);
}

TEST_F(Log, DumpRowsAndAccounting) {
  unsigned char msg[41] = {0x00, 0x00, 0x01, 0x00, 0x20, 0x00, 0x22};
  dump_msg(msg, 41);
  const std::string log = text();
  EXPECT_EQ(log.substr(0, log.find('\n')), "message(0x2000) buf(41bytes)");
  EXPECT_NE(log.find("\n0032: 00 00 00 00 00 00 00 00    00 \n"), std::string::npos);
  // A full row is 57 characters.
  const auto row = log.find("0000: ");
  EXPECT_EQ(log.find('\n', row) - row, 57u);
  EXPECT_EQ(log_bytes, 3 * 41 + 7 * 3);
}

TEST_F(Log, DumpOfZeroBytesIsTheHeaderAlone) {
  unsigned char msg[8] = {0, 0, 0, 0x2d, 0x01};
  dump_msg(msg, 0);
  EXPECT_EQ(text(), "message(0x0000) buf(0bytes)\n");
  EXPECT_EQ(log_bytes, 7);
  log_close();
  reset_private_var("rmnet0");
  log_bytes = 0;
  ASSERT_GE(log_open(), 0);
  dump_msg(msg, 5);
  EXPECT_EQ(text().substr(0, text().find('\n')), "message(0x012d) buf(5bytes)");
}

TEST_F(Log, DumpPastTheLimitTruncatesFirst) {
  log_bytes = 65536 - 10;
  unsigned char msg[7] = {0, 0, 1, 0, 0x2d, 0, 0};
  dump_msg(msg, 7);
  EXPECT_EQ(log_bytes, 0);
  EXPECT_EQ(text(), "message(0x2d00) buf(7bytes)\n0000: 00 00 01 00 2d 00 00 \n");
}

TEST_F(Log, OverlongRecordIsCutTo1023Characters) {
  info("%s", std::string(2000, 'z').c_str());
  EXPECT_EQ(text(), std::string(1023, 'z') + "\n");
  EXPECT_EQ(log_bytes, 1023);
}

}  // namespace
