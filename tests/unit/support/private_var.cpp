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

bool enter_private_var(std::string* why) {
  if (unshare(CLONE_NEWNS) != 0) {
    *why = std::string("unshare(CLONE_NEWNS): ") + strerror(errno);
    return false;
  }
  // Nothing mounted from here on may reach the host.
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = std::string("make / private: ") + strerror(errno);
    return false;
  }
  if (mount("wds-test-var", "/var", "tmpfs", 0, "size=16m,mode=0755") != 0) {
    *why = std::string("tmpfs on /var: ") + strerror(errno);
    return false;
  }
  for (const char* dir : {"/var/log", "/var/wan", "/var/wan/rmnet0", "/var/wan/rmnet_tarvek0"}) {
    mkdir(dir, 0755);
  }
  return true;
}

void reset_private_var(const char* ifname) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::remove_all("/var/log", ec);
  fs::create_directories("/var/log", ec);
  std::string wan = std::string("/var/wan/") + ifname;
  fs::remove_all(wan, ec);
  fs::create_directories(wan, ec);
}

std::string read_text_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_text_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
