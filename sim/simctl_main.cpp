// SPDX-License-Identifier: ISC
// wds-simctl: sends one command to a running sandbox's simulator or PID 1
// and prints the answer. Exit status 0 when the answer is "ok ...".
#include <cstdio>
#include <string>

#include "sim/control.h"
#include "wds_version.h"

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--version") {
    printf("wds-simctl %s\n", WDS_VERSION);
    return 0;
  }
  if (argc < 3) {
    fprintf(stderr,
            "usage: wds-simctl DIR [sim|init] COMMAND...\n"
            "       wds-simctl --version\n"
            "  DIR is the sandbox's exchange directory; commands go to the simulator\n"
            "  unless 'init' is given.\n");
    return 2;
  }
  std::string dir = argv[1];
  int first = 2;
  std::string socket = dir + "/sim.sock";
  if (std::string(argv[2]) == "init" || std::string(argv[2]) == "sim") {
    if (std::string(argv[2]) == "init") socket = dir + "/init.sock";
    first = 3;
  }
  std::string line;
  for (int i = first; i < argc; ++i) {
    if (i > first) line += ' ';
    line += argv[i];
  }
  try {
    std::string reply = sim::control_request(socket, line);
    printf("%s\n", reply.c_str());
    return reply.starts_with("ok") ? 0 : 1;
  } catch (const std::exception& e) {
    fprintf(stderr, "wds-simctl: %s\n", e.what());
    return 1;
  }
}
