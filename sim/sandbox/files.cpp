// SPDX-License-Identifier: ISC
#include "sim/sandbox/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "sim/runtime.h"

namespace sandbox {

std::string read_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot read " + path);
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  fclose(f);
  return out;
}

void write_file(const std::string& path, const std::string& text, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
  size_t off = 0;
  while (off < text.size()) {
    ssize_t w = write(fd, text.data() + off, text.size() - off);
    if (w <= 0) break;
    off += static_cast<size_t>(w);
  }
  close(fd);
}

void append_file(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  ssize_t w = write(fd, text.data(), text.size());
  (void)w;  // a lost record line is not worth failing the sandbox for
  close(fd);
}

void append_record(const std::string& path, const std::string& text) {
  append_file(path, std::to_string(sim::monotonic_us()) + " " + text + "\n");
}

void make_dir(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
    throw std::runtime_error("mkdir " + path + ": " + strerror(errno));
}

void check(int rc, const std::string& what) {
  if (rc != 0) throw std::runtime_error(what + ": " + strerror(errno));
}

int check_fd(int fd, const std::string& what) {
  check(fd < 0 ? -1 : 0, what);
  return fd;
}

int open_program(const std::string& path) {
  int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("open " + path + ": " + strerror(errno));
  return fd;
}

}  // namespace sandbox
