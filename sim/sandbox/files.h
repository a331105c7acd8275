// SPDX-License-Identifier: ISC
// Small file helpers for PID 1 and the host side. Those that throw raise
// std::runtime_error with the path and the reason.
#pragma once
#include <sys/types.h>

#include <string>

namespace sandbox {

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);
// Never throws: records are best effort.
void append_file(const std::string& path, const std::string& text);
// One record line, "<monotonic µs> text\n", as the exchange directory's logs
// have them. Never throws.
void append_record(const std::string& path, const std::string& text);
void make_dir(const std::string& path, mode_t mode = 0755);
// Throws with `what` and errno's text unless rc is 0.
void check(int rc, const std::string& what);
// The same for a call that returns a descriptor, which it passes on.
int check_fd(int fd, const std::string& what);
// A program to run later, whatever gets mounted over its directory.
int open_program(const std::string& path);

}  // namespace sandbox
