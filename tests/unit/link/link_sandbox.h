// Test sandbox for the link module: the program runs in its own mount and
// network namespaces, with a tmpfs /var, stub `ifconfig` and `route` first on
// PATH, and a "cms" bus peer that exists only in this network namespace.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

inline constexpr char kStubDir[] = "/var/stub-bin";
// One line per stub run: the program name, then each argument in brackets.
inline constexpr char kStubRecord[] = "/var/stub-bin/commands";
inline constexpr char kWanDir[] = "/var/wan/rmnet0";

// Enters the namespaces and prepares them. Call before any thread starts.
bool enter_link_sandbox(std::string* why);

// Command lines handed to the command runner, byte for byte, in order.
std::vector<std::string>& recorded_commands();

// Empties /var/wan/rmnet0/, the stub record and the recorded command lines.
void reset_link_sandbox();

std::string read_text_file(const std::string& path);
void write_text_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);
std::vector<std::string> stub_record_lines();

// Everything the code under `fn` prints to standard output.
template <typename Fn>
std::string capture_stdout(Fn fn);
int stdout_redirect_begin(const char* path);
void stdout_redirect_end(int saved);

struct bus_message {
  std::string sender;
  uint32_t type;
  uint32_t len;
  std::string payload;
  size_t datagram_size;
};
// The "cms" peer: bound on first use, drained by reset_link_sandbox.
int cms_peer_fd();
std::vector<bus_message> cms_received();

// A tmpfs over /proc, so that /proc/net/dev can be any text; removed again
// by proc_overlay_end (the real procfs lies underneath).
bool proc_overlay_begin();
void proc_overlay_end();
void write_proc_net_dev(const std::string& text);

template <typename Fn>
std::string capture_stdout(Fn fn) {
  const char* path = "/var/stub-bin/stdout";
  int saved = stdout_redirect_begin(path);
  fn();
  stdout_redirect_end(saved);
  return read_text_file(path);
}
