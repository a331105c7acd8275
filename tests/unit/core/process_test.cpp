// The built daemon as a process, in its own mount and network namespaces
// with a tmpfs /var: it detaches, logs its first state with the record
// prefix, and exits with status 0 on SIGTERM.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "private_var.h"

namespace {

// A living child of `parent`, found by the parent pid in /proc/<pid>/stat.
pid_t find_child_of(pid_t parent) {
  DIR* proc = opendir("/proc");
  pid_t found = -1;
  while (dirent* entry = proc ? readdir(proc) : nullptr) {
    const std::string stat = read_text_file("/proc/" + std::string(entry->d_name) + "/stat");
    const auto paren = stat.rfind(')');
    char state = 'Z';
    pid_t ppid = 0;
    if (paren != std::string::npos) std::istringstream(stat.substr(paren + 2)) >> state >> ppid;
    if (ppid == parent && state != 'Z') found = atoi(entry->d_name);
  }
  if (proc) closedir(proc);
  return found;
}

TEST(Process, DetachesLogsItsFirstStateAndExitsZeroOnSigterm) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  pid_t launcher = fork();
  ASSERT_GE(launcher, 0);
  if (launcher == 0) {
    // Opened before the tmpfs goes over /var: the build may live below it.
    int exe = open(WDSD_PATH, O_RDONLY | O_CLOEXEC);
    if (exe < 0) _exit(100);
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) _exit(101);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(102);
    if (mount("wds-test", "/var", "tmpfs", 0, "size=8m") != 0) _exit(103);
    for (const char* dir : {"/var/log", "/var/wan", "/var/wan/rmnet0"}) mkdir(dir, 0755);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    char* argv[] = {const_cast<char*>("wdsd"), nullptr};
    fexecve(exe, argv, environ);
    _exit(104);
  }
  int status = -1;
  ASSERT_EQ(waitpid(launcher, &status, 0), launcher);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the launching parent returns at once";

  // The detached child was handed to us before its parent could be reaped.
  const pid_t daemon = find_child_of(getpid());
  ASSERT_GT(daemon, 0);
  const std::string root = "/proc/" + std::to_string(daemon) + "/root", pid_file = root + "/var/wan/rmnet0/pid";
  // The pid file is written after the handlers are installed.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!file_exists(pid_file) && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_TRUE(file_exists(pid_file));
  EXPECT_EQ(read_text_file(pid_file), std::to_string(daemon));
  const std::string log = read_text_file(root + "/var/log/wds.log");
  std::smatch first;
  ASSERT_TRUE(std::regex_search(log, first, std::regex(R"(^\[ info\]\[            main:( {0,3}\d+):pid=( *\d+)\] wds state : init\.\.\.\n)")))
      << log;
  EXPECT_EQ(first[1].length(), 4);
  EXPECT_EQ(std::stoi(first[2]), daemon);

  ASSERT_EQ(kill(daemon, SIGTERM), 0);
  ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
