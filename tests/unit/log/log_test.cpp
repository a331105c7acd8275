// SPDX-License-Identifier: ISC
// The log writer on a vector file: records, dumps, the size bound, a log
// closed or gone; and the file's mode.
#include <fcntl.h>
#include <sys/stat.h>

#include "log/internal.h"
#include "log/log.h"
#include "tests/unit/support/unit.h"

namespace {

const std::string kLog = "/var/log/wds.log";

// The log file before: "" for none.
void fresh(const std::string& file) {
  log_reset();
  ASSERT_EQ(log_fd, -1);
  reset_var("rmnet0");
  if (!file.empty()) write_file(kLog, unescape(file));
  free_fd0();  // the log on descriptor 0
  ASSERT_GE(log_open(), 0);
  fill_fd0();
}

void act(const std::string& action) {
  const std::string name = action.substr(0, action.find(' ')), arg = action.substr(std::min(action.size(), name.size() + 1));
  if (name == "info") info("%s", unescape(arg).c_str());
  if (name == "dump") {
    const std::string bytes = hex(arg.substr(arg.find(' ') + 1));
    dump_msg(reinterpret_cast<const unsigned char*>(bytes.data()), std::stoi(arg));
  }
  if (name == "close") log_close();
  if (name == "open") log_open();
  if (name == "remove") unlink(kLog.c_str());
  if (name == "link" && symlink(arg.c_str(), kLog.c_str()) != 0) ADD_FAILURE() << "no link";
}

VECTOR_TESTS("Log", "log/log.vec", [](const Row& row) {
  fresh(row["file"]);
  write_file("/var/log/target", "kept");
  log_bytes = std::stoi(row["log_bytes"]);
  for (const std::string& action : split(row["actions"], "; ")) act(action);
  EXPECT_EQ(read_file(kLog), unescape(row["file_after"]));
  EXPECT_EQ(log_bytes, std::stoi(row["log_bytes_after"]));
  EXPECT_EQ(log_fd >= 0, row["open"] != "closed");
  EXPECT_EQ(read_file("/var/log/target"), "kept");
  log_close();
});

// The log holds credentials: root's alone whatever the umask, also a log an
// older build left readable by all, and not inherited by the commands the
// daemon runs.
TEST(Log, CreatedForRootAlone) {
  for (const bool left_by_older_build : {false, true}) {
    const mode_t saved_umask = umask(0);
    log_reset();
    reset_var("rmnet0");
    if (left_by_older_build) {
      write_file(kLog, "old\n");
      chmod(kLog.c_str(), 0644);
    }
    free_fd0();  // the log on descriptor 0
    ASSERT_GE(log_open(), 0);
    fill_fd0();
    umask(saved_umask);
    struct stat st = {};
    ASSERT_EQ(lstat(kLog.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, S_IFREG | 0600u) << left_by_older_build;
    EXPECT_EQ(fcntl(log_fd, F_GETFD), FD_CLOEXEC);
    log_reset();
    EXPECT_EQ(log_fd, -1);
  }
}

}  // namespace
