// SPDX-License-Identifier: ISC
// The gateway's hotplug handler, inside the sandbox: when the modem
// re-appears it sends signal 38 to the daemon named by the daemon's pid file,
// so that the daemon starts over on the new device instead of keeping the
// dead one. The simulator reports the modem's removal and return as lines
// ("remove", "add") on a pipe, as the kernel's hotplug events; every event
// and what was done about it goes to platform.log, one line each:
//   <monotonic µs> hotplug remove
//   <monotonic µs> hotplug add: signal 38 to <pid>
//   <monotonic µs> hotplug add: no daemon to tell (<why>)
// Given an integrator's handler (--hotplug-script) it runs that instead, for
// every event, in the environment the kernel's event gives a hotplug handler
// (ACTION, DEVPATH, SUBSYSTEM, DEVNAME, MAJOR, MINOR, SEQNUM), and waits for
// it; its output goes to hotplug.out:
//   <monotonic µs> hotplug add: handler exit N
#include <string>

namespace sandbox {

class HotplugAgent {
 public:
  // Throws std::runtime_error when the pipe cannot be made.
  // `script`: the content of the integrator's handler, or empty for ours.
  HotplugAgent(const std::string& ifname, const std::string& script);
  ~HotplugAgent();
  HotplugAgent(const HotplugAgent&) = delete;
  HotplugAgent& operator=(const HotplugAgent&) = delete;

  // The pipe's write end, for the simulator; close_sim_end() once it runs.
  int sim_end() const { return sim_end_; }
  void close_sim_end();
  // Non-blocking; readable when events wait, -1 once the simulator has gone.
  int fd() const { return fd_; }
  // Handles every whole event line waiting; call when fd() is readable or
  // has hung up.
  void receive();

 private:
  void handle(const std::string& event);
  void run_script(const std::string& event);

  std::string pid_path_;
  int fd_ = -1;
  int sim_end_ = -1;
  std::string pending_;  // a line not yet whole
  bool script_ = false;
  unsigned seqnum_ = 0;
};

}  // namespace sandbox
