#include "link_sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/platform.h"

namespace {

constexpr char kStubScript[] =
    "#!/bin/sh\n"
    "{ printf '%s' \"${0##*/}\"; for a in \"$@\"; do printf ' [%s]' \"$a\"; done; echo; }"
    " >> /var/stub-bin/commands\n";

std::string fail(const char* what) { return std::string(what) + ": " + strerror(errno); }

}  // namespace

// The command runner as the link module reaches it: the line is recorded
// exactly, then run for real.
extern "C" int __real__Z22ZUN_UTIL_ExecCmdNoHangPKc(const char* cmd);
extern "C" int __wrap__Z22ZUN_UTIL_ExecCmdNoHangPKc(const char* cmd) {
  recorded_commands().push_back(cmd == nullptr ? "(null)" : cmd);
  return __real__Z22ZUN_UTIL_ExecCmdNoHangPKc(cmd);
}

std::vector<std::string>& recorded_commands() {
  static std::vector<std::string> commands;
  return commands;
}

bool enter_link_sandbox(std::string* why) {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
    *why = fail("unshare(CLONE_NEWNS | CLONE_NEWNET)");
    return false;
  }
  // Nothing mounted from here on may reach the host.
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    *why = fail("make / private");
    return false;
  }
  if (mount("wds-link-var", "/var", "tmpfs", 0, "size=8m,mode=0755") != 0) {
    *why = fail("tmpfs on /var");
    return false;
  }
  for (const char* dir : {"/var/log", "/var/wan", kWanDir, kStubDir}) mkdir(dir, 0755);
  for (const char* name : {"ifconfig", "route"}) {
    std::string path = std::string(kStubDir) + "/" + name;
    write_text_file(path, kStubScript);
    chmod(path.c_str(), 0755);
  }
  const char* old_path = getenv("PATH");
  std::string path = std::string(kStubDir) + ":" + (old_path != nullptr ? old_path : "/usr/bin:/bin");
  setenv("PATH", path.c_str(), 1);
  return true;
}

void reset_link_sandbox() {
  std::error_code ec;
  std::filesystem::remove_all(kWanDir, ec);
  std::filesystem::create_directories(kWanDir, ec);
  unlink(kStubRecord);
  recorded_commands().clear();
  cms_received();
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

std::vector<std::string> stub_record_lines() {
  std::vector<std::string> lines;
  std::istringstream in(read_text_file(kStubRecord));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

int stdout_redirect_begin(const char* path) {
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, STDOUT_FILENO);
  close(fd);
  return saved;
}

void stdout_redirect_end(int saved) {
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
}

int cms_peer_fd() {
  static int fd = -1;
  if (fd >= 0) return fd;
  fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  // Abstract name, like every bus peer: a leading NUL, no terminator.
  const std::string name = std::string(kZunMsgAddrPrefix) + "cms";
  memcpy(addr.sun_path + 1, name.data(), name.size());
  socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    perror("bind cms peer");
    close(fd);
    fd = -1;
  }
  return fd;
}

std::vector<bus_message> cms_received() {
  std::vector<bus_message> messages;
  int fd = cms_peer_fd();
  if (fd < 0) return messages;
  unsigned char buf[sizeof(zun_msg_header) + kZunMsgMaxPayload + 1];
  for (;;) {
    ssize_t got = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (got < 0) break;
    bus_message message = {};
    message.datagram_size = static_cast<size_t>(got);
    if (static_cast<size_t>(got) >= sizeof(zun_msg_header)) {
      zun_msg_header header;
      memcpy(&header, buf, sizeof header);
      message.sender.assign(header.sender, strnlen(header.sender, sizeof header.sender));
      message.type = header.type;
      message.len = header.len;
      message.payload.assign(reinterpret_cast<char*>(buf) + sizeof header, static_cast<size_t>(got) - sizeof header);
    }
    messages.push_back(message);
  }
  return messages;
}

bool proc_overlay_begin() {
  if (mount("wds-link-proc", "/proc", "tmpfs", 0, "size=1m,mode=0755") != 0) return false;
  return mkdir("/proc/net", 0755) == 0;
}

void proc_overlay_end() { umount2("/proc", MNT_DETACH); }

void write_proc_net_dev(const std::string& text) { write_text_file("/proc/net/dev", text); }
