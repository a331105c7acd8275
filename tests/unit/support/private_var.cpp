#include "private_var.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

static bool failed(std::string* why, const char* what) {
  *why = std::string(what) + ": " + strerror(errno);
  return false;
}

bool enter_private_var(std::string* why) {
  if (unshare(CLONE_NEWNS) != 0) return failed(why, "unshare(CLONE_NEWNS)");
  // Nothing mounted from here on may reach the host.
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed(why, "make / private");
  if (mount("wds-test-var", "/var", "tmpfs", 0, "size=16m,mode=0755") != 0) return failed(why, "tmpfs on /var");
  for (const char* dir : {"/var/log", "/var/wan", "/var/wan/rmnet0", "/var/wan/rmnet_tarvek0"}) mkdir(dir, 0755);
  return true;
}

void reset_private_var(const char* ifname) {
  std::error_code ec;
  for (const std::string& dir : {std::string("/var/log"), std::string("/var/wan/") + ifname}) {
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir, ec);
  }
}

std::string read_text_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_text_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
