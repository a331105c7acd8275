// SPDX-License-Identifier: ISC
// wds-sim: the modem simulator. Serves the modem's tty on a regular file
// through FUSE, speaks WDS (QMI mode) or AT (NDIS mode) on it, consumes the
// packets of the modem's network interface, and takes commands on a Unix
// socket in its exchange directory (DIR/sim.sock): one line per command, one
// line back, "ok ..." or "err <why>". Records go to DIR/device.log. With
// --uevent-fd N, "remove" and "replug" also write the line "remove" or "add"
// to descriptor N, as the kernel's hotplug events would reach the platform.
//
// Any mode:
//   ping | get                      state as key=value words
//   set KEY=VALUE...                device: client-id=0..255 tty=ok|enotty
//                                   coalesce=on|off (pack queued messages into
//                                   one read) hold=on|off (deliver nothing)
//                                   write-error=ERRNO|off tun-read=on|off;
//                                   model settings below
//   unplug [enodev|eof]             open handles die; new opens work
//   remove [enodev|enoent]          as unplug, and opens fail until replug
//   replug                          the modem is back
//   send HEX | send-text ESCAPED    raw bytes as one read block
//   tun open|close                  the interface appears / disappears
//   reset                           behaviours and settings to defaults
//   mark TEXT                       a line in the record
// QMI mode:
//   set addr= mask= gw= dns1= dns2= (dotted, 0 leaves the TLV out) user=
//       auth= handle= ind=same|separate|none ind-delay=MS ind-status=N
//       ind-reconf=N stop-ind=on|off stop-reason=N|none
//       second-start=refuse|accept call=N
//   on MSG TOKEN...                 MSG: reset abort start stop status runtime
//                                   or an id; TOKEN: ok silent fail=ERR
//                                   delay=MS truncate=N mlen=N badresult extra
//                                   other=MSG raw=HEX dup times=N
//   on MSG clear | on all clear
//   drop [reason=N] [status=N]      call ends, indication sent, polls say so
//   indicate [status=N] [reconf=N] [reason=N|none] [tx=N]
//   out-of-call                     runtime settings refused with error 15
// NDIS mode:
//   set addr= mask= gw= dns1= dns2= rx= tx= echo=on|off dhcp-wait=K
//       dhcp-none=error|zero ipv6cap=N ndisstat=on|off split=N,N...|off
//       split-every=N dialled=on|off
//   on CMD TOKEN...                 CMD: dial hangup dhcp ipv6cap e0 e1 cmee
//                                   curc at other; TOKEN: ok error cme=N
//                                   silent delay=MS raw=ESCAPED times=N
//   urc TEXT | interleave [at=before|middle|after] TEXT | drop
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
  std::string tun;
  bool no_tun = false;
  int ready_fd = -1;
  int uevent_fd = -1;
  std::vector<std::string> commands;
};

[[noreturn]] void usage(const char* why) {
  fprintf(stderr,
          "wds-sim: %s\n"
          "usage: wds-sim --mode qmi|ndis --dir DIR [--device PATH] [--tun NAME | --no-tun]\n"
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
    else if (a == "--tun") o.tun = value();
    else if (a == "--no-tun") o.no_tun = true;
    else if (a == "--ready-fd") o.ready_fd = std::stoi(value());
    else if (a == "--uevent-fd") o.uevent_fd = std::stoi(value());
    else if (a == "--do") o.commands.push_back(value());
    else usage(("unknown option " + a).c_str());
  }
  if (o.mode != "qmi" && o.mode != "ndis") usage("--mode must be qmi or ndis");
  if (o.dir.empty()) usage("--dir is required");
  if (o.tun.empty()) o.tun = o.mode == "qmi" ? "rmnet0" : "rmnet_tarvek0";
  return o;
}

class Simulator {
 public:
  explicit Simulator(const Options& o)
      : opts_(o),
        narrator_(o.mode == "qmi" ? sim::WireNarrator::Dialect::kWds : sim::WireNarrator::Dialect::kAt),
        recorder_(o.dir + "/device.log"),
        device_(
            &recorder_, [this](std::string_view bytes) { model_->on_write(bytes); },
            [this] { model_->on_unplug(); }),
        tun_(&recorder_),
        control_(o.dir + "/sim.sock", [this](const std::string& line) { return dispatch(line); }) {
    recorder_.narrate_with(&narrator_);
    sim::ModemIo io;
    io.emit = [this](std::vector<std::string> blocks) { device_.push(std::move(blocks)); };
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
    if (!opts_.no_tun) tun_.open(opts_.tun);
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
    if (words[0] != "get" && words[0] != "ping") recorder_.event("ctl " + line);
    try {
      const std::string& verb = words[0];
      if (verb == "ping") return "ok";
      if (verb == "mark") return "ok";
      if (verb == "get") return "ok mode=" + opts_.mode + " " + device_.describe() + " " + model_->describe() +
                                " " + tun_.describe();
      if (verb == "set") {
        if (words.size() < 2) return "err usage: set key=value...";
        for (size_t i = 1; i < words.size(); ++i) {
          auto [k, v] = sim::key_value(words[i]);
          if (v.empty() && words[i].find('=') == std::string::npos) return "err expected key=value: " + words[i];
          if (k == "tun-read") {
            tun_.set_reading(sim::need_onoff(k, v));
            continue;
          }
          if (!device_.set(k, v) && !model_->set(k, v)) return "err unknown setting '" + k + "'";
        }
        return "ok";
      }
      if (verb == "unplug") {
        bool eof = words.size() > 1 && words[1] == "eof";
        if (words.size() > 1 && words[1] != "eof" && words[1] != "enodev") return "err usage: unplug [enodev|eof]";
        device_.unplug(eof);
        return "ok";
      }
      if (verb == "remove") {
        int err = ENODEV;
        if (words.size() > 1) {
          if (words[1] == "enoent") err = ENOENT;
          else if (words[1] != "enodev") return "err usage: remove [enodev|enoent]";
        }
        device_.remove(err);
        uevent("remove");
        return "ok";
      }
      if (verb == "replug") {
        device_.replug();
        uevent("add");
        return "ok";
      }
      if (verb == "send") {
        std::string hex;
        for (size_t i = 1; i < words.size(); ++i) hex += words[i];
        auto bytes = sim::from_hex(hex);
        if (!bytes || bytes->empty()) return "err usage: send <hex bytes>";
        device_.push({*bytes});
        return "ok";
      }
      if (verb == "send-text") {
        std::string text;
        for (size_t i = 1; i < words.size(); ++i) text += (i > 1 ? " " : "") + words[i];
        auto bytes = sim::unescape(text);
        if (!bytes || bytes->empty()) return "err usage: send-text <escaped text>";
        device_.push({*bytes});
        return "ok";
      }
      if (verb == "tun") {
        if (words.size() == 2 && words[1] == "close") tun_.close();
        else if (words.size() == 2 && words[1] == "open") tun_.open(opts_.tun);
        else return "err usage: tun open|close";
        return "ok";
      }
      if (verb == "reset") {
        device_.reset();
        model_->reset();
        tun_.set_reading(true);
        return "ok";
      }
      if (auto reply = model_->command(words)) return *reply;
      return "err unknown command '" + verb + "'";
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
