// SPDX-License-Identifier: ISC
// wds-sim: the modem simulator. Serves the modem's tty on a regular file
// through FUSE, speaks WDS (QMI mode) or AT (NDIS mode) on it, consumes the
// packets of the modem's network interface, and takes commands on a Unix
// socket in its exchange directory (DIR/sim.sock): one line per command, one
// line back, "ok ..." or "err <why>". Records go to DIR/device.log. With
// --uevent-fd N, "remove" and "replug" also write the line "remove" or "add"
// to descriptor N, as the kernel's hotplug events would reach the platform.
// The commands are those of the wds-sandbox(1) page; the tty's own here, the
// models' in wds_model.cpp and at_model.cpp.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sim/at_model.h"
#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"
#include "sim/tty_device.h"
#include "sim/tun_reader.h"
#include "sim/wire_narrator.h"
#include "sim/wds_model.h"
#include "wds_version.h"

namespace {

struct Options {
  std::string mode;
  std::string device = "/dev/qmitty0";
  std::string dir;
  bool no_tun = false;
  int ready_fd = -1;
  int uevent_fd = -1;
  std::vector<std::string> commands;
};

[[noreturn]] void usage(const char* why) {
  fprintf(stderr,
          "wds-sim: %s\n"
          "usage: wds-sim --mode qmi|ndis --dir DIR [--device PATH] [--no-tun]\n"
          "               [--ready-fd N] [--uevent-fd N] [--do 'COMMAND']...\n"
          "       wds-sim --version\n",
          why);
  exit(2);
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage(("missing value for " + a).c_str());
      return argv[++i];
    };
    if (a == "--version") {
      printf("wds-sim %s\n", WDS_VERSION);
      exit(0);
    }
    if (a == "--mode") o.mode = value();
    else if (a == "--device") o.device = value();
    else if (a == "--dir") o.dir = value();
    else if (a == "--no-tun") o.no_tun = true;
    else if (a == "--ready-fd") o.ready_fd = std::stoi(value());
    else if (a == "--uevent-fd") o.uevent_fd = std::stoi(value());
    else if (a == "--do") o.commands.push_back(value());
    else usage(("unknown option " + a).c_str());
  }
  if (o.mode != "qmi" && o.mode != "ndis") usage("--mode must be qmi or ndis");
  if (o.dir.empty()) usage("--dir is required");
  return o;
}

class Simulator {
 public:
  explicit Simulator(const Options& o)
      : opts_(o),
        narrator_(o.mode == "qmi" ? sim::WireNarrator::Dialect::kWds : sim::WireNarrator::Dialect::kAt),
        recorder_(o.dir + "/device.log"),
        device_(
            &recorder_, [this](std::string_view bytes, int err) { return model_->on_write(bytes, err); },
            [this] { model_->on_unplug(); }, [this] { model_->on_interrupted_read(); }),
        tun_(&recorder_),
        control_(o.dir + "/sim.sock", [this](const std::string& line) { return dispatch(line); }) {
    recorder_.narrate_with(&narrator_);
    sim::ModemIo io;
    io.emit = [this](std::vector<std::string> blocks) { device_.push(std::move(blocks)); };
    io.gone = [this] { device_.push_gone(); };
    io.later = [this](int ms, std::function<void()> fn) { scheduler_.after(ms, std::move(fn)); };
    io.recorder = &recorder_;
    if (o.mode == "qmi")
      model_ = std::make_unique<sim::WdsModel>(io);
    else
      model_ = std::make_unique<sim::AtModel>(io);
  }

  int run() {
    // Helper threads must not take the termination signals: the FUSE loop
    // has to see them to end.
    sigset_t set, old;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, &old);

    struct stat st;
    if (stat(opts_.device.c_str(), &st) != 0) {
      int fd = open(opts_.device.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
      if (fd >= 0) close(fd);
    }
    device_.mount(opts_.device);
    if (!opts_.no_tun) tun_.open(opts_.mode == "qmi" ? "rmnet0" : "rmnet_tarvek0");
    for (const auto& c : opts_.commands) {
      std::string reply = dispatch(c);
      if (!reply.starts_with("ok")) throw std::runtime_error("--do '" + c + "': " + reply);
    }
    control_.start();
    recorder_.event("ready mode=" + opts_.mode);
    if (opts_.ready_fd >= 0) {
      ssize_t n = write(opts_.ready_fd, "R", 1);
      (void)n;
      close(opts_.ready_fd);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    device_.run();
    control_.stop();
    tun_.close();
    scheduler_.stop();
    return 0;
  }

 private:
  std::string dispatch(const std::string& line) {
    auto words = sim::split_words(line);
    if (words.empty()) return "err empty command";
    // Queries are left out of the record: tests poll them in wait loops.
    if (words[0] != "get") recorder_.event("ctl " + line);
    try {
      const std::string& verb = words[0];
      if (verb == "mark") return "ok";
      if (verb == "get") return "ok mode=" + opts_.mode + " " + device_.describe() + " " + model_->describe() +
                                " " + tun_.describe();
      if (verb == "set") {
        if (words.size() < 2) return "err usage: set key=value...";
        for (size_t i = 1; i < words.size(); ++i) {
          auto [k, v] = sim::key_value(words[i]);
          if (words[i].find('=') == std::string::npos) return "err expected key=value: " + words[i];
          if (!device_.set(k, v) && !model_->set(k, v)) return "err unknown setting '" + k + "'";
        }
        return "ok";
      }
      if (words.size() == 1 && verb == "unplug") {
        device_.unplug();
        return "ok";
      }
      if (words.size() == 1 && verb == "remove") {
        device_.remove();
        uevent("remove");
        return "ok";
      }
      if (words.size() == 1 && verb == "replug") {
        device_.replug();
        uevent("add");
        return "ok";
      }
      if (auto reply = model_->command(words)) return *reply;
      return "err unknown command '" + line + "'";
    } catch (const std::exception& e) {
      return std::string("err ") + e.what();
    }
  }

  // What the kernel's hotplug events tell the platform: the modem went or
  // came back. Nobody listening is no reason to refuse the command.
  void uevent(const char* action) const {
    if (opts_.uevent_fd < 0) return;
    std::string line = std::string(action) + "\n";
    ssize_t n = write(opts_.uevent_fd, line.data(), line.size());
    (void)n;
  }

  // Declared so that destruction stops the control thread, the tun thread
  // and the timer thread before the device and the model they call go.
  Options opts_;
  sim::WireNarrator narrator_;
  sim::Recorder recorder_;
  std::unique_ptr<sim::Model> model_;
  sim::TtyDevice device_;
  sim::Scheduler scheduler_;
  sim::TunReader tun_;
  sim::ControlServer control_;
};

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  try {
    Simulator s(o);
    return s.run();
  } catch (const std::exception& e) {
    fprintf(stderr, "wds-sim: %s\n", e.what());
    return 1;
  }
}
