// SPDX-License-Identifier: ISC
#include "sim/control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>

#include "sim/runtime.h"

namespace sim {

namespace {

sockaddr_un unix_address(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) throw std::runtime_error("socket path too long: " + path);
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return addr;
}

constexpr size_t kMaxCommand = 64 * 1024;

}  // namespace

ControlServer::ControlServer(std::string path, Handler handler)
    : path_(std::move(path)), handler_(std::move(handler)) {}

ControlServer::~ControlServer() { stop(); }

void ControlServer::start() {
  sockaddr_un addr = unix_address(path_);
  unlink(path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("socket failed");
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listen_fd_, 16) != 0)
    throw std::runtime_error("cannot listen on " + path_ + ": " + strerror(errno));
  if (pipe2(wake_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  thread_ = std::thread([this] { loop(); });
}

void ControlServer::stop() {
  if (!thread_.joinable()) return;
  char b = 0;
  ssize_t n = write(wake_[1], &b, 1);
  (void)n;
  thread_.join();
  close(listen_fd_);
  close(wake_[0]);
  close(wake_[1]);
  unlink(path_.c_str());
}

void ControlServer::loop() {
  block_main_signals();
  std::map<int, std::string> clients;  // fd -> bytes not yet a whole line
  for (;;) {
    std::vector<pollfd> fds = {{wake_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
    for (const auto& [fd, buf] : clients) fds.push_back({fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents) break;
    if (fds[1].revents & POLLIN) {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) clients[fd];
    }
    for (size_t i = 2; i < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      int fd = fds[i].fd;
      char buf[4096];
      ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) {
        close(fd);
        clients.erase(fd);
        continue;
      }
      std::string& pending = clients[fd];
      pending.append(buf, static_cast<size_t>(n));
      size_t nl;
      bool closed = false;
      while ((nl = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::string reply = handler_(line) + "\n";
        size_t off = 0;
        while (off < reply.size()) {
          ssize_t w = write(fd, reply.data() + off, reply.size() - off);
          if (w <= 0) {
            closed = true;
            break;
          }
          off += static_cast<size_t>(w);
        }
        if (closed) break;
      }
      if (closed || pending.size() > kMaxCommand) {
        close(fd);
        clients.erase(fd);
      }
    }
  }
  for (const auto& [fd, buf] : clients) close(fd);
}

std::string control_request(const std::string& path, const std::string& line, int timeout_ms) {
  sockaddr_un addr = unix_address(path);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int err = errno;
    close(fd);
    throw std::runtime_error("cannot connect to " + path + ": " + strerror(err));
  }
  std::string out = line + "\n";
  size_t off = 0;
  while (off < out.size()) {
    ssize_t w = write(fd, out.data() + off, out.size() - off);
    if (w <= 0) {
      close(fd);
      throw std::runtime_error("write to " + path + " failed");
    }
    off += static_cast<size_t>(w);
  }
  std::string reply;
  int64_t deadline = monotonic_us() + int64_t{timeout_ms} * 1000;
  for (;;) {
    size_t nl = reply.find('\n');
    if (nl != std::string::npos) {
      reply.resize(nl);
      break;
    }
    int64_t left_ms = (deadline - monotonic_us()) / 1000;
    pollfd p{fd, POLLIN, 0};
    if (left_ms <= 0 || poll(&p, 1, static_cast<int>(left_ms)) == 0) {
      close(fd);
      throw std::runtime_error("no answer from " + path + " to '" + line + "'");
    }
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      throw std::runtime_error("connection to " + path + " closed");
    }
    reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return reply;
}

}  // namespace sim
