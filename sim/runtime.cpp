// SPDX-License-Identifier: ISC
#include "sim/runtime.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "decode/format.h"
#include "sim/text.h"
#include "sim/wire_narrator.h"

namespace sim {

int64_t monotonic_us() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

Recorder::Recorder(const std::string& path) {
  if (!path.empty()) fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

Recorder::~Recorder() {
  if (fd_ >= 0) close(fd_);
}

void Recorder::bytes(const char* kind, std::string_view data) {
  std::vector<std::string> words;
  if (narrator_ && fd_ >= 0) words = narrator_->narrate(kind, data);
  std::lock_guard lock(mu_);
  line_locked(std::string(kind) + " " + wdsdecode::hex(data));
  for (const auto& w : words) line_locked(w);
}

void Recorder::event(std::string_view text) {
  std::lock_guard lock(mu_);
  line_locked("ev " + std::string(text));
}

void Recorder::line_locked(std::string_view text) {
  if (fd_ < 0) return;
  char head[64];
  int n = snprintf(head, sizeof head, "%llu %lld ", static_cast<unsigned long long>(++seq_),
                   static_cast<long long>(monotonic_us()));
  std::string out(head, static_cast<size_t>(n));
  out += text;
  out += '\n';
  // One write per line keeps lines whole for a concurrent reader.
  ssize_t done = write(fd_, out.data(), out.size());
  (void)done;
}

Scheduler::Scheduler() : thread_([this] { loop(); }) {}

Scheduler::~Scheduler() { stop(); }

void Scheduler::after(int ms, std::function<void()> fn) {
  std::lock_guard lock(mu_);
  jobs_.emplace(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms), std::move(fn));
  cv_.notify_all();
}

void Scheduler::stop() {
  {
    std::lock_guard lock(mu_);
    if (stopping_ && !thread_.joinable()) return;
    stopping_ = true;
    cv_.notify_all();
  }
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void Scheduler::loop() {
  block_main_signals();
  std::unique_lock lock(mu_);
  while (!stopping_) {
    if (jobs_.empty()) {
      cv_.wait(lock);
      continue;
    }
    auto due = jobs_.begin()->first;
    if (std::chrono::steady_clock::now() < due) {
      cv_.wait_until(lock, due);
      continue;
    }
    auto fn = std::move(jobs_.begin()->second);
    jobs_.erase(jobs_.begin());
    lock.unlock();
    fn();
    lock.lock();
  }
}

uint32_t need_uint(const std::string& key, const std::string& value, uint64_t max) {
  auto v = parse_uint(value, max);
  if (!v) throw CommandError(key + ": expected a number up to " + std::to_string(max));
  return static_cast<uint32_t>(*v);
}

uint32_t need_ipv4(const std::string& key, const std::string& value) {
  if (value == "0" || value == "none") return 0;
  auto v = parse_ipv4(value);
  if (!v) throw CommandError(key + ": expected a dotted IPv4 address");
  return *v;
}

bool set_call_address(CallAddresses& a, const std::string& key, const std::string& value) {
  uint32_t* field = key == "addr"   ? &a.addr
                    : key == "mask" ? &a.mask
                    : key == "gw"   ? &a.gw
                    : key == "dns1" ? &a.dns1
                    : key == "dns2" ? &a.dns2
                                    : nullptr;
  if (field == nullptr) return false;
  *field = need_ipv4(key, value);
  return true;
}

bool need_onoff(const std::string& key, const std::string& value) {
  if (value == "on" || value == "1") return true;
  if (value == "off" || value == "0") return false;
  throw CommandError(key + ": expected on or off");
}

void block_main_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGALRM);
  sigaddset(&set, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void emit_blocks(const ModemIo& io, std::mutex& mu, const uint64_t& epoch, std::vector<std::string> blocks,
                 int delay_ms) {
  if (blocks.empty()) return;
  if (delay_ms <= 0) {
    io.emit(std::move(blocks));
    return;
  }
  const uint64_t scheduled_in = epoch;
  io.later(delay_ms, [&io, &mu, &epoch, scheduled_in, blocks = std::move(blocks)]() mutable {
    std::lock_guard lock(mu);
    if (epoch == scheduled_in) io.emit(std::move(blocks));
  });
}

}  // namespace sim
