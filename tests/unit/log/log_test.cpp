// The log writer: records and dumps on a vector file; the error suffix, the
// file's mode and the links it refuses, and a log that is closed or gone.
#include <fcntl.h>
#include <sys/stat.h>

#include "log/internal.h"
#include "log/log.h"
#include "tests/unit/support/unit.h"

namespace {

const std::string kLog = "/var/log/wds.log";

void fresh(const std::string& file) {
  log_reset();
  reset_var("rmnet0");
  if (file != "-") write_file(kLog, unescape(file));
  ASSERT_GE(log_open(), 0);
}

// log_bytes before | the file before | what is logged | the file after | log_bytes after
TEST(Log, RecordsAndDumps) {
  for (const Vector& v : vectors("log/log.vec")) {
    SCOPED_TRACE(v.where);
    fresh(v[1]);
    log_bytes = std::stoi(v[0]);
    const std::string what = v[2].substr(0, v[2].find(' ')), arg = v[2].substr(std::min(v[2].size(), what.size() + 1));
    if (what == "info") {
      info("%s", unescape(arg).c_str());
    } else {
      const std::string bytes = hex(arg.substr(arg.find(' ') + 1));
      dump_msg(reinterpret_cast<const unsigned char*>(bytes.data()), std::stoi(arg));
    }
    EXPECT_EQ(read_file(kLog), unescape(v[3]));
    EXPECT_EQ(log_bytes, std::stoi(v[4]));
    log_close();
  }
}

TEST(Log, ErrorRecordsCarryTheModuleTheLineThePidAndErrnoWithItsText) {
  fresh("-");
  errno = ENOENT;
  WDS_ERROR("wds_msg", "tty busy or tty down.");
  char want[256];
  snprintf(want, sizeof want, "[error][         wds_msg:%4d:pid=%3d] tty busy or tty down. errno = 2 <%s> \n",
           __LINE__ - 3, static_cast<int>(getpid()), strerror(ENOENT));
  EXPECT_EQ(read_file(kLog), want);
}

// The log holds credentials: created for root alone whatever the umask, not
// inherited by commands, never opened through a link, at start or at the limit.
TEST(Log, CreatedForRootAloneAndNeverThroughALink) {
  const mode_t saved_umask = umask(0);
  fresh("-");
  umask(saved_umask);
  struct stat st = {};
  ASSERT_EQ(lstat(kLog.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, S_IFREG | 0600u);
  EXPECT_EQ(fcntl(log_fd, F_GETFD), FD_CLOEXEC);

  write_file("/var/log/target", "kept");
  unlink(kLog.c_str());
  ASSERT_EQ(symlink("/var/log/target", kLog.c_str()), 0);
  log_bytes = 65536;
  info("crossing\n");
  EXPECT_EQ(log_fd, -1);
  EXPECT_EQ(log_open(), -1);
  EXPECT_EQ(read_file("/var/log/target"), "kept");
}

// Closed, it writes and counts nothing; a file removed under it loses the
// records until the limit makes it anew.
TEST(Log, ClosedOrRemoved) {
  fresh("old\n");
  log_close();
  info("dropped\n");
  dump_msg(reinterpret_cast<const unsigned char*>("abcdefgh"), 8);
  EXPECT_EQ(log_bytes, 0);
  ASSERT_GE(log_open(), 0);
  info("new\n");
  EXPECT_EQ(read_file(kLog), "old\nnew\n");
  unlink(kLog.c_str());
  info("lost\n");
  EXPECT_EQ(read_file(kLog), "(none)");
  log_bytes = 65536;
  info("back\n");
  EXPECT_EQ(read_file(kLog), "back\n");
}

}  // namespace
