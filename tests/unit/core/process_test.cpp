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
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Our children by their parent pid, read from /proc.
pid_t find_child_of(pid_t parent) {
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  pid_t found = -1;
  while (dirent* entry = readdir(proc)) {
    pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    auto close_paren = stat.rfind(')');
    if (close_paren == std::string::npos) continue;
    std::istringstream fields(stat.substr(close_paren + 2));
    char state;
    pid_t ppid;
    fields >> state >> ppid;
    if (ppid == parent && state != 'Z') found = pid;
  }
  closedir(proc);
  return found;
}

template <typename Pred>
bool wait_for(Pred pred, std::chrono::seconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return pred();
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
    mkdir("/var/log", 0755);
    mkdir("/var/wan", 0755);
    mkdir("/var/wan/rmnet0", 0755);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    char name[] = "wdsd";
    char* argv[] = {name, nullptr};
    fexecve(exe, argv, environ);
    _exit(104);
  }
  int status = -1;
  ASSERT_EQ(waitpid(launcher, &status, 0), launcher);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0) << "the launching parent returns at once";

  pid_t daemon = -1;
  ASSERT_TRUE(wait_for([&] { return (daemon = find_child_of(getpid())) > 0; }, std::chrono::seconds(10)));
  const std::string root = "/proc/" + std::to_string(daemon) + "/root";

  // The pid file is written after the handlers are installed.
  ASSERT_TRUE(wait_for([&] { return access((root + "/var/wan/rmnet0/pid").c_str(), F_OK) == 0; },
                       std::chrono::seconds(20)));
  EXPECT_EQ(read_file(root + "/var/wan/rmnet0/pid"), std::to_string(daemon));
  const std::string log = read_file(root + "/var/log/wds.log");
  std::smatch first;
  ASSERT_TRUE(std::regex_search(log, first, std::regex(R"(^\[ info\]\[            main:( {0,3}\d+):pid=( *\d+)\] wds state : init\.\.\.\n)")))
      << log;
  EXPECT_EQ(first[1].length(), 4);
  EXPECT_EQ(std::stoi(first[2]), daemon);

  ASSERT_EQ(kill(daemon, SIGTERM), 0);
  ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
