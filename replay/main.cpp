// SPDX-License-Identifier: ISC
// wds-replay [--plan] [--daemon PATH] [--profile TEXT | --profile-file FILE]
//            [--keep DIR] [--limit SECONDS] LOG | --version
// Replays a wds.log against the simulated modem: the unchanged daemon runs
// in a sandbox, the simulator answers it from the log, the dial requests and
// signals the log implies are given where it shows them. Prints the replayed
// log beside the original and whether they agree: exit status 0 when they
// do, 1 when they part, 2 when the replay could not be run. With --plan,
// prints what the replay would do and runs nothing.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "decode/log_reader.h"
#include "decode/notation.h"
#include "replay/conductor.h"
#include "replay/plan.h"
#include "replay/report.h"
#include "wds_version.h"

namespace {

[[noreturn]] void usage(const std::string& why) {
  fprintf(stderr,
          "wds-replay: %s\n"
          "usage: wds-replay [--plan] [--daemon PATH] [--profile TEXT | --profile-file FILE]\n"
          "                  [--keep DIR] [--limit SECONDS] LOG\n"
          "       wds-replay --version\n",
          why.c_str());
  exit(2);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) usage("cannot read " + path);
  return std::string{std::istreambuf_iterator<char>(in), {}};
}

// wds-sandbox beside this program; wdsd where an installation puts it, or
// where a build does.
std::string beside_me(const std::string& relative) {
  std::error_code ec;
  auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return (self.parent_path() / relative).lexically_normal().string();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--version") == 0) {
    printf("wds-replay %s\n", WDS_VERSION);
    return 0;
  }
  replay::PlanOptions plan_options;
  replay::RunOptions run;
  std::string log_path, keep;
  bool plan_only = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage("missing value for " + a);
      return argv[++i];
    };
    if (a == "--plan") {
      plan_only = true;
    } else if (a == "--daemon") {
      run.daemon = value();
    } else if (a == "--profile") {
      auto text = notation::unescape(value());
      if (!text) usage("bad escape in --profile");
      plan_options.profile = *text;
    } else if (a == "--profile-file") {
      plan_options.profile = read_file(value());
    } else if (a == "--keep") {
      keep = value();
    } else if (a == "--limit") {
      run.limit_s = atof(value().c_str());
    } else if (!a.starts_with("-") && log_path.empty()) {
      log_path = a;
    } else {
      usage("unexpected " + a);
    }
  }
  if (log_path.empty()) usage("no log given");
  const auto plan = replay::make_plan(wdsdecode::read_log(read_file(log_path)), plan_options);
  if (plan_only) {
    replay::print_plan(plan, stdout);
    return 0;
  }
  if (geteuid() != 0) usage("the sandbox needs root");
  run.sandbox = beside_me("wds-sandbox");
  for (const char* guess : {"../sbin/wdsd", "../wdsd"})
    if (run.daemon.empty() && access(beside_me(guess).c_str(), X_OK) == 0) run.daemon = beside_me(guess);
  if (run.daemon.empty()) usage("no wdsd found: give --daemon");

  printf("wds-replay: %s: %s mode, %zu records and dumps from line %zu\n", log_path.c_str(), plan.ndis ? "NDIS" : "QMI",
         plan.original.size(), plan.first_line);
  for (const auto& note : plan.notes) printf("  note: %s\n", note.c_str());
  if (plan.keys.keys.empty()) {
    printf("wds-replay: nothing to replay: no bring-up and no request in the log\n");
    return 2;
  }

  char tmpl[] = "/tmp/wds-replay.XXXXXX";
  run.dir = keep.empty() ? (mkdtemp(tmpl) ? tmpl : "") : keep;
  if (run.dir.empty()) usage("no directory for the sandbox");
  replay::RunResult result;
  try {
    result = replay::run_replay(plan, run);
  } catch (const std::exception& e) {
    fprintf(stderr, "wds-replay: %s\n", e.what());
    return 2;
  }
  if (keep.empty()) std::filesystem::remove_all(run.dir);

  printf("replayed in %.1f s: %s\n", result.seconds, result.ended.c_str());
  for (const auto& d : result.done) printf("  %s\n", d.c_str());
  printf("   line   original and replay ('=' both, '<' the original only, '>' the replay only)\n");
  replay::print_side_by_side(plan, result, stdout);
  const bool same = replay::agree(plan, result);
  printf("wds-replay: %s\n", replay::verdict(plan, result).c_str());
  return same ? 0 : 1;
}
