// SPDX-License-Identifier: ISC
// The run is watched through the replayed log, read every few
// milliseconds: its keys are matched against the original's, and an action
// of the plan is done once everything before its point has matched. Where
// a dial request must reach the daemon at a given tick (so that its status
// polls fall where the original's did), the daemon's ticks are followed
// from the log: its 4-second timer starts just before the bring-up's WDS
// reset, and every status poll is sent at a tick whose count is a multiple
// of 3.
#include "replay/conductor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "decode/format.h"
#include "decode/notation.h"
#include "qmi/qmi.h"
#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"

namespace replay {

namespace {

using wdsdecode::format;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kTick = 4 * kSecond;
constexpr int64_t kPollEvery = 10000;            // µs between looks at the log
constexpr int64_t kFailedBringUpPause = 3 * kSecond;
constexpr int64_t kStallBase = 40 * kSecond;     // no new key for this long: stalled
constexpr int64_t kStallPerInterrupt = 4500000;  // and a tick more for each the original waited
constexpr int64_t kGraceAfterParting = 3 * kSecond;
constexpr int64_t kTrafficEvery = kSecond;
constexpr char kScriptInside[] = "/run/sandbox/replay.script";

std::optional<std::string> slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string{std::istreambuf_iterator<char>(in), {}};
}

// The complete items of a log still being written: no dump whose rows may
// still come, nothing after the last newline.
std::vector<wdsdecode::LogItem> whole_items(std::string_view text, bool finished) {
  std::vector<wdsdecode::LogItem> items;
  wdsdecode::LogReader reader([&items](const wdsdecode::LogItem& i) { items.push_back(i); });
  if (!finished) text = text.substr(0, text.rfind('\n') == std::string_view::npos ? 0 : text.rfind('\n') + 1);
  wdsdecode::each_line(text, [&reader](std::string_view line) { reader.line(line); });
  if (finished) reader.finish();
  return items;
}

// The daemon's tick, as far as the replayed log shows it.
class Ticks {
 public:
  void process_started() {
    running_ = false;
    count_ = 0;
  }
  void bring_up_started(int64_t t, bool last_failed) {
    if (running_) count_ = count_at_start_ + std::max<int64_t>(0, (t - (last_failed ? kFailedBringUpPause : 0) - start_) / kTick);
    running_ = false;
  }
  void timer_started(int64_t t) {
    if (running_) return;
    running_ = true;
    start_ = t;
    count_at_start_ = count_;
  }
  // A status poll goes right after a tick whose count is a multiple of 3.
  void polled(int64_t t) {
    if (!running_) return;
    const int64_t k = (t - start_ + kTick / 2) / kTick;
    if (k < 1 || std::llabs(t - start_ - k * kTick) > 300000) return;
    start_ = t - k * kTick;
    count_at_start_ = (3 - k % 3) % 3;
  }
  bool known() const { return running_; }
  // The time of the k-th tick of this timer and the count it brings.
  int64_t at(int64_t k) const { return start_ + k * kTick; }
  int64_t count(int64_t k) const { return count_at_start_ + k; }

 private:
  bool running_ = false;
  int64_t start_ = 0, count_at_start_ = 0, count_ = 0;
};

class Conductor {
 public:
  Conductor(const Plan& plan, const RunOptions& o) : plan_(plan), o_(o) {}

  RunResult run() {
    const int64_t t0 = sim::monotonic_us();
    start_sandbox();
    RunResult r;
    try {
      r.ended = follow(t0);
    } catch (const std::exception& e) {
      r.ended = std::string("the run broke off: ") + e.what();
    }
    r.seconds = static_cast<double>(sim::monotonic_us() - t0) / 1e6;
    stop_sandbox();
    auto final_items = whole_items(committed_ + current_, true);
    auto all = entries_of(final_items, plan_.tx_aside);
    if (first_compared_ <= all.size()) r.replayed.assign(all.begin() + static_cast<long>(first_compared_), all.end());
    r.keys = keys_of(r.replayed);
    r.done = std::move(done_);
    r.script_note = script_note();
    return r;
  }

 private:
  std::string exchange(const std::string& name) const { return o_.dir + "/" + name; }
  std::string inside(const std::string& path) const { return "/proc/" + std::to_string(init_pid_) + "/root" + path; }
  std::string wan(const std::string& name) const {
    return inside("/var/wan/" + std::string(plan_.ndis ? "rmnet_tarvek0" : "rmnet0") + "/" + name);
  }
  std::string control(const std::string& socket, const std::string& command) const {
    std::string reply = sim::control_request(exchange(socket), command);
    if (!reply.starts_with("ok")) throw std::runtime_error(socket + " refused '" + command + "': " + reply);
    return reply;
  }

  void start_sandbox() {
    std::filesystem::create_directories(o_.dir);
    std::ofstream(exchange("replay.script"), std::ios::binary) << plan_.script;
    std::vector<std::string> args = {o_.sandbox, "--dir", o_.dir, "--daemon", o_.daemon, "--mode",
                                     plan_.ndis ? "ndis" : "qmi", "--profile", notation::escape(plan_.profile),
                                     "--no-hotplug"};
    prefix_done_ = !plan_.connected_before;
    if (prefix_done_ && !plan_.ndis) args.insert(args.end(), {"--sim-do", std::string("script ") + kScriptInside});
    // A call to reach before the script takes over.
    if (plan_.connected_before) args.insert(args.end(), {"--dial", "3\\n"});
    runner_ = fork();
    if (runner_ < 0) throw std::runtime_error("fork failed");
    if (runner_ == 0) {
      int out = open(exchange("sandbox.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (out >= 0) {
        dup2(out, 1);
        dup2(out, 2);
      }
      setsid();  // a Ctrl-C at the terminal reaches us, and we end the sandbox
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    const int64_t deadline = sim::monotonic_us() + 30 * kSecond;
    while (!std::filesystem::exists(exchange("ready"))) {
      if (waitpid(runner_, nullptr, WNOHANG) == runner_ || sim::monotonic_us() > deadline) {
        runner_ = -1;
        throw std::runtime_error("the sandbox did not start: " + slurp(exchange("sandbox.out")).value_or(""));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    init_pid_ = std::stoi(slurp(exchange("init.pid")).value_or("0"));
  }

  void stop_sandbox() {
    if (runner_ <= 0) return;
    try {
      control("init.sock", "shutdown");
    } catch (...) {
      kill(runner_, SIGTERM);
    }
    for (int i = 0; i < 1500 && waitpid(runner_, nullptr, WNOHANG) != runner_; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (kill(runner_, 0) == 0) {
      kill(runner_, SIGKILL);
      waitpid(runner_, nullptr, 0);
    }
    runner_ = -1;
  }

  // Reads the replayed log; the daemon empties it at its bound, and what it
  // held before is kept.
  bool read_log() {
    auto text = slurp(inside("/var/log/wds.log"));
    if (!text || *text == current_) return false;
    if (text->size() < current_.size() || text->compare(0, current_.size(), current_) != 0) committed_ += current_;
    current_ = std::move(*text);
    return true;
  }

  void update(int64_t now) {
    auto all = entries_of(whole_items(committed_ + current_, false), plan_.tx_aside);
    for (size_t i = entries_.size(); i < all.size(); ++i) observe(all[i], now);
    entries_ = std::move(all);
    if (!prefix_done_ && is_state_seen_connected()) {
      if (!plan_.ndis) control("sim.sock", std::string("script ") + kScriptInside);
      prefix_done_ = true;
      first_compared_ = entries_.size();
      done_.push_back(format("%6.1f s  the call is up: the script takes over", seconds(now)));
    }
    if (prefix_done_ && !first_found_) {
      // A replay from the first request compares from the daemon's first
      // write once the script plays.
      if (!plan_.from_request) {
        first_found_ = true;
      } else {
        for (size_t i = first_compared_; i < entries_.size() && !first_found_; ++i)
          if (entries_[i].what == Entry::What::kWrite) first_compared_ = i, first_found_ = true;
      }
    }
    if (!first_found_) return;
    std::vector<Entry> compared(entries_.begin() + static_cast<long>(first_compared_), entries_.end());
    keys_ = keys_of(compared);
  }

  bool is_state_seen_connected() const {
    for (const auto& e : entries_)
      if (is_state(e, "connected")) return true;
    return false;
  }

  // Follows the daemon's timer through what it writes.
  void observe(const Entry& e, int64_t now) {
    if (is_state(e, "init...")) {
      ticks_.bring_up_started(now, bring_up_open_);
      bring_up_open_ = true;
    } else if (is_state(e, "ready")) {
      bring_up_open_ = false;
      if (plan_.ndis) ticks_.timer_started(now);
    } else if (e.what == Entry::What::kWrite && e.msg == kWdsReset) {
      ticks_.timer_started(now);
    } else if (e.what == Entry::What::kWrite && e.msg == kWdsPktSrvcStatus) {
      ticks_.polled(now);
    }
  }

  size_t matched() const {
    size_t n = 0;
    while (n < keys_.keys.size() && n < plan_.keys.keys.size() && keys_.keys[n] == plan_.keys.keys[n]) ++n;
    return n;
  }

  // The longest the original may have waited between key n-1 and key n.
  int64_t stall_limit(size_t n) const {
    if (n == 0 || n >= plan_.keys.entry.size()) return kStallBase;
    int64_t interrupts = 0;
    for (size_t i = plan_.keys.entry[n - 1]; i < plan_.keys.entry[n]; ++i)
      interrupts += plan_.original[i].text == "read msg : get signal, continue";
    return kStallBase + interrupts * kStallPerInterrupt;
  }

  std::string follow(int64_t t0) {
    size_t last_matched = SIZE_MAX;
    int64_t progress_at = sim::monotonic_us(), parted_at = 0;
    for (;;) {
      const int64_t now = sim::monotonic_us();
      if (read_log()) update(now);
      const size_t m = first_found_ ? matched() : 0;
      if (m != last_matched) {
        last_matched = m;
        progress_at = now;
      }
      if (first_found_ && m == plan_.keys.keys.size()) {
        // Records that follow the last key (a wait's ticks) come within a tick.
        if (done_at_ == 0) done_at_ = now;
        if (now - done_at_ > kSecond) return "the replay went as far as the original";
      } else if (first_found_ && keys_.keys.size() > m) {
        if (parted_at == 0) parted_at = now;
        if (now - parted_at > kGraceAfterParting) return "the replay parted from the original";
      }
      if (now - progress_at > stall_limit(m))
        return format("the replayed daemon wrote nothing expected for %.0f s", static_cast<double>(now - progress_at) / 1e6);
      if (o_.limit_s > 0 && now - t0 > static_cast<int64_t>(o_.limit_s * 1e6)) return "the run reached its time limit";
      while (next_action_ < plan_.actions.size() && plan_.actions[next_action_].at_key <= m && act(plan_.actions[next_action_], now))
        ++next_action_;
      if (traffic_ && now >= next_packet_) {
        // Refused while no route leads out: the daemon has not set its link up yet.
        sim::control_request(exchange("init.sock"), "udp 10.200.0.1 9 100");
        next_packet_ = now + kTrafficEvery;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(kPollEvery));
    }
  }

  double seconds(int64_t now) const { return static_cast<double>(now - started_) / 1e6; }

  // Does the action, or says false when its moment has not come yet.
  bool act(const Action& a, int64_t now) {
    std::string what;
    switch (a.kind) {
      case Action::Kind::kDial:
        if (!dial_due(a, now)) return false;
        write_file(wan("dial"), std::to_string(a.value) + "\n");
        what = format("dial %d", a.value);
        break;
      case Action::Kind::kSignal: {
        // A daemon that has already ended cannot take it; the logs then part.
        const std::string reply = sim::control_request(exchange("init.sock"), format("kill %d", a.value));
        what = format("signal %d", a.value) + (reply.starts_with("ok") ? "" : " (" + reply + ")");
        break;
      }
      case Action::Kind::kRestart:
        if (!std::filesystem::exists(exchange("daemon.exit"))) return false;
        control("init.sock", "start");
        ticks_.process_started();
        bring_up_open_ = false;
        what = "the daemon started again";
        break;
      case Action::Kind::kRemoveProfile:
        std::filesystem::remove(wan("config"));
        what = "the dial profile removed";
        break;
      case Action::Kind::kRestoreProfile:
        write_file(wan("config"), plan_.profile);
        what = "the dial profile back";
        break;
      case Action::Kind::kTrafficOn:
        traffic_ = true;
        next_packet_ = now;
        what = "traffic out of the interface";
        break;
      case Action::Kind::kTrafficOff:
        traffic_ = false;
        what = "no more traffic";
        break;
    }
    done_.push_back(format("%6.1f s  %s (%s)", seconds(now), what.c_str(), a.why.c_str()));
    return true;
  }

  // A dial request that starts a call goes when the daemon will read it at
  // a tick of the count the plan wants.
  bool dial_due(const Action& a, int64_t now) {
    if (a.after_hang_up && sim_state("dialled") != "0") return false;
    if (!a.residue || !ticks_.known()) return true;
    if (dial_at_ == 0) {
      // In its bring-up's polls the daemon reads the file at each tick k
      // and 3 s after it (still count k); idle, at each tick.
      for (int64_t k = 0;; ++k) {
        const int64_t write_at = a.read_at_ticks ? ticks_.at(k) - 2 * kSecond : ticks_.at(k) + kSecond / 2;
        if (write_at >= now + 50000 && ticks_.count(k) % 3 == *a.residue) {
          dial_at_ = write_at;
          break;
        }
      }
    }
    if (now < dial_at_) return false;
    dial_at_ = 0;
    return true;
  }

  std::string sim_state(const std::string& key) const {
    for (const auto& w : sim::split_words(control("sim.sock", "get")))
      if (auto [k, v] = sim::key_value(w); k == key) return v;
    return "";
  }

  static void write_file(const std::string& path, const std::string& text) {
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << text)) throw std::runtime_error("cannot write " + path);
  }

  // The simulator's own words on its script, from its record.
  std::string script_note() const {
    auto log = slurp(exchange("device.log")).value_or("");
    for (const auto& line : sim::split(log, '\n')) {
      const size_t at = line.find(" ev script ");
      if (at != std::string::npos) return line.substr(at + 4);
    }
    return "";
  }

  const Plan& plan_;
  const RunOptions& o_;
  pid_t runner_ = -1;
  int init_pid_ = 0;
  int64_t started_ = sim::monotonic_us();
  std::string committed_, current_;
  std::vector<Entry> entries_;
  Keys keys_;
  size_t first_compared_ = 0;
  bool first_found_ = false, prefix_done_ = false;
  size_t next_action_ = 0;
  int64_t dial_at_ = 0, done_at_ = 0, next_packet_ = 0;
  bool traffic_ = false, bring_up_open_ = false;
  Ticks ticks_;
  std::vector<std::string> done_;
};

}  // namespace

RunResult run_replay(const Plan& plan, const RunOptions& options) { return Conductor(plan, options).run(); }

}  // namespace replay
