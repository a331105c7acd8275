// SPDX-License-Identifier: ISC
#include "sim/sandbox/options.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "sim/sandbox/files.h"
#include "sim/text.h"
#include "wds_version.h"

namespace sandbox {

namespace {

constexpr char kDefaultProfile[] =
    "dialnumber = *99#\n"
    "username = user1\n"
    "password = pass1\n"
    "dial_mode = auto\n"
    "auth = 2\n"
    "idletime = 60\n"
    "setapn = internet\n"
    "mru = 1500\n";

[[noreturn]] void usage(const std::string& why) {
  fprintf(stderr,
          "wds-sandbox: %s\n"
          "usage: wds-sandbox --dir DIR [--daemon PATH] [--sim PATH]\n"
          "         [--mode qmi|ndis|none] [--chip TEXT] [--sim-mode qmi|ndis]\n"
          "         [--profile TEXT | --profile-file FILE | --no-profile] [--dial N]\n"
          "         [--sim-do 'COMMAND']... [--no-start] [--rw-root] [--no-tun]\n"
          "         [--no-hotplug | --hotplug-script FILE] [--no-cms-route]\n"
          "         [--supervisor PATH [--supervisor-arg ARG]...]\n"
          "       wds-sandbox --version\n"
          "TEXT arguments take C escapes (\\n, \\r, \\xHH).\n",
          why.c_str());
  exit(2);
}

std::string unescaped(const std::string& opt, const std::string& text) {
  auto v = sim::unescape(text);
  if (!v) usage("bad escape in " + opt);
  return *v;
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage("missing value for " + a);
      return argv[++i];
    };
    if (a == "--dir") o.dir = value();
    else if (a == "--daemon") o.daemon = value();
    else if (a == "--sim") o.sim = value();
    else if (a == "--mode") o.mode = value();
    else if (a == "--chip") o.chip = unescaped(a, value());
    else if (a == "--sim-mode") o.sim_mode = value();
    else if (a == "--profile") o.profile = unescaped(a, value());
    else if (a == "--profile-file") o.profile = read_file(value());
    else if (a == "--no-profile") o.no_profile = true;
    else if (a == "--dial") o.dial = unescaped(a, value());
    else if (a == "--sim-do") o.sim_commands.push_back(value());
    else if (a == "--no-start") o.start_daemon = false;
    else if (a == "--rw-root") o.ro_root = false;
    else if (a == "--no-tun") o.no_tun = true;
    else if (a == "--no-hotplug") o.hotplug = false;
    else if (a == "--no-cms-route") o.cms_route = false;
    else if (a == "--hotplug-script") o.hotplug_script = read_file(value());
    else if (a == "--supervisor") o.supervisor = value();
    else if (a == "--supervisor-arg") o.supervisor_args.push_back(value());
    else if (a == "--version") {
      printf("wds-sandbox %s\n", WDS_VERSION);
      exit(0);
    }
    else usage("unknown option " + a);
  }
  if (o.dir.empty()) usage("--dir is required");
  if (o.mode != "qmi" && o.mode != "ndis" && o.mode != "none") usage("--mode must be qmi, ndis or none");
  if (!o.chip) {
    if (o.mode == "qmi") o.chip = "0\n";
    if (o.mode == "ndis") o.chip = "1\n";
  }
  // The daemon picks NDIS mode from a chip file that starts with the digit 1.
  bool ndis = o.chip && !o.chip->empty() && (*o.chip)[0] == '1';
  if (o.sim_mode.empty()) o.sim_mode = ndis ? "ndis" : "qmi";
  if (o.sim_mode != "qmi" && o.sim_mode != "ndis") usage("--sim-mode must be qmi or ndis");
  o.ifname = o.sim_mode == "ndis" ? "rmnet_tarvek0" : "rmnet0";
  if (!o.profile && !o.no_profile) o.profile = kDefaultProfile;
  if (o.sim.empty()) {
    // By default the simulator sits next to this program.
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) usage("cannot find myself; give --sim");
    self[n] = 0;
    std::string s = self;
    o.sim = s.substr(0, s.rfind('/') + 1) + "wds-sim";
  }
  if (o.start_daemon && o.daemon.empty()) usage("--daemon is required unless --no-start");
  // All are started from / inside.
  for (std::string* path : {&o.daemon, &o.sim, &o.supervisor}) {
    if (path->empty()) continue;
    char* abs = realpath(path->c_str(), nullptr);
    if (!abs) usage("cannot find " + *path);
    *path = abs;
    free(abs);
  }
  return o;
}

}  // namespace sandbox
