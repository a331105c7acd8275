// SPDX-License-Identifier: ISC
// Plumbing shared by the simulator's parts: the event record, the timer
// thread, and what a modem model is given to answer with.
#pragma once
#include <chrono>
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sim {

// A command the simulator cannot carry out; the control socket answers
// "err <what>".
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

int64_t monotonic_us();

class WireNarrator;

// Append-only record of what crossed the device, one line per item:
//   <seq> <monotonic µs> rx <hex>     bytes of one write by the client
//   <seq> <monotonic µs> tx <hex>     bytes handed over by one read
//   <seq> <monotonic µs> net <hex>    the first 128 bytes of a packet
//   <seq> <monotonic µs> ev <words>   device and model events
// and, with a narrator, right after the bytes they come from:
//   <seq> <monotonic µs> wds rx|tx <message>   one per WDS message, named
//                                              with its fields
//   <seq> <monotonic µs> at rx|tx <line>       one per whole AT line
//   <seq> <monotonic µs> ip <packet>           protocol, addresses, length
// Lines are written whole, so a reader never sees half a line once it
// stops at the last newline.
class Recorder {
 public:
  explicit Recorder(const std::string& path);  // "" records nothing
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  // Set before anything is recorded; the narrator outlives the recorder's use.
  void narrate_with(WireNarrator* narrator) { narrator_ = narrator; }
  void bytes(const char* kind, std::string_view data);
  void event(std::string_view text);

 private:
  void line_locked(std::string_view text);
  std::mutex mu_;
  int fd_ = -1;
  uint64_t seq_ = 0;
  WireNarrator* narrator_ = nullptr;
};

// One thread that runs callbacks when their time comes. Callbacks run
// without the scheduler's lock held, so they may schedule more.
class Scheduler {
 public:
  Scheduler();
  ~Scheduler();
  void after(int ms, std::function<void()> fn);
  void stop();

 private:
  void loop();
  std::mutex mu_;
  std::condition_variable cv_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> jobs_;
  bool stopping_ = false;
  std::thread thread_;
};

// What a model uses to answer: `emit` queues read blocks on the device (each
// string is delivered by one read), `gone` makes the tty go away once the
// blocks queued so far are read, `later` runs a function after a delay.
struct ModemIo {
  std::function<void(std::vector<std::string>)> emit;
  std::function<void()> gone;
  std::function<void(int, std::function<void()>)> later;
  Recorder* recorder = nullptr;
};

// Queues the blocks now, or after delay_ms unless the model forgot its
// pending answers meanwhile (an unplug moves its epoch on, under mu). The
// model owns mu and epoch and outlives its scheduled answers.
void emit_blocks(const ModemIo& io, std::mutex& mu, const uint64_t& epoch, std::vector<std::string> blocks,
                 int delay_ms);

class Model {
 public:
  virtual ~Model() = default;
  // One write of the client, whole, and the errno the device fails it with
  // (0: none). Returns the errno the write fails with, or 0.
  virtual int on_write(std::string_view bytes, int device_errno) = 0;
  // A read of the client waiting on the device was ended by a signal.
  virtual void on_interrupted_read() {}
  // A control command addressed to the model; nullopt when not its own.
  // Throws CommandError on bad arguments.
  virtual std::optional<std::string> command(const std::vector<std::string>& words) = 0;
  // One "key=value" setting; false when the key is not the model's.
  virtual bool set(const std::string& key, const std::string& value) = 0;
  // "key=value ..." describing the model's state, for "get".
  virtual std::string describe() = 0;
  // The device went away: calls end, pending answers are forgotten.
  virtual void on_unplug() = 0;
};

// Helpers for settings parsing; throw CommandError.
uint32_t need_uint(const std::string& key, const std::string& value, uint64_t max);
uint32_t need_ipv4(const std::string& key, const std::string& value);
bool need_onoff(const std::string& key, const std::string& value);

// The call's IPv4 settings that both modem models hand out, as numbers:
// 192.168.8.100 is 0xC0A80864; 0 means not given.
struct CallAddresses {
  uint32_t addr = 0xC0A80864;
  uint32_t mask = 0xFFFFFF00;
  uint32_t gw = 0xC0A80801;
  uint32_t dns1 = 0xC0A80802;
  uint32_t dns2 = 0xC0A80803;
};
// Sets the one named by "addr", "mask", "gw", "dns1" or "dns2"; false for
// any other key.
bool set_call_address(CallAddresses& a, const std::string& key, const std::string& value);

// "on all clear", "on <key> clear" or "on <key> <tokens>...": carries out
// the clears and returns the key when a rule for it follows. `parse_key`
// gives the key of a name or throws CommandError.
template <class Key, class Rule, class ParseKey>
std::optional<Key> rule_target(const std::vector<std::string>& words, std::map<Key, std::deque<Rule>>& rules,
                               ParseKey parse_key, const char* usage) {
  if (words.size() < 3) throw CommandError(usage);
  if (words[1] == "all") {
    if (words[2] != "clear") throw CommandError("usage: on all clear");
    rules.clear();
    return std::nullopt;
  }
  Key key = parse_key(words[1]);
  if (words[2] != "clear") return key;
  rules.erase(key);
  return std::nullopt;
}

// A standing rule (times < 0) replaces the standing one; counted rules
// queue up in front of it and run out first.
template <class Rule>
void add_rule(std::deque<Rule>& q, const Rule& rule) {
  if (rule.times < 0) {
    std::erase_if(q, [](const Rule& r) { return r.times < 0; });
    q.push_back(rule);
  } else {
    q.insert(std::find_if(q.begin(), q.end(), [](const Rule& r) { return r.times < 0; }), rule);
  }
}

// Blocks the signals that must reach only the main thread (termination
// signals and SIGALRM) in the calling thread.
void block_main_signals();

}  // namespace sim
