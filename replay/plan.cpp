// SPDX-License-Identifier: ISC
// The log is read once, in order, with a small model of the daemon beside
// it: which process writes, whether a bring-up reached ready, whether a call
// is up and why it ended, what the dial file must hold. Where the daemon
// could only have acted because the outside asked (a dial request, a
// signal), an action is put at that point.
#include "replay/plan.h"

#include <algorithm>

#include "decode/decode.h"
#include "decode/format.h"
#include "decode/notation.h"
#include "qmi/qmi.h"

namespace replay {

namespace {

constexpr char kInterrupted[] = "read msg : get signal, continue";
constexpr char kNdisConnected[] = "_ndis_connect : connect successful";
constexpr char kIdleOut[] = "qmi_event_demand_idle_handle : idletime:[";
constexpr char kManualConnect[] = "wds_manual_connect_handle : connected or connecting";
constexpr char kDefaultProfile[] = "username = user1\npassword = pass1\nauth = 2\nsetapn = internet\n";
constexpr int kDialDisconnect = 1, kDialOnce = 2, kDialAlways = 3, kDialDemand = 4;
constexpr int kSignalManualConnect = 37, kSignalReinit = 38, kSignalTerm = 15;

// Where the comparison starts: the first bring-up record, or, in a log
// that has none left, its first request.
size_t start_of(const std::vector<Entry>& entries, bool* from_request) {
  for (size_t i = 0; i < entries.size(); ++i)
    if (is_state(entries[i], "init...")) return i;
  *from_request = true;
  for (size_t i = 0; i < entries.size(); ++i)
    if (entries[i].what == Entry::What::kWrite) return i;
  return entries.size();
}

// The dial profile the start request was built from.
std::string profile_of(const wdsdecode::Message& start) {
  std::string p;
  auto text = [&](uint8_t type, const char* key) {
    if (const wdsdecode::Tlv* t = start.find(type)) p += std::string(key) + " = " + t->value + "\n";
  };
  text(0x17, "username");
  text(0x18, "password");
  if (const wdsdecode::Tlv* t = start.find(0x16); t && t->value.size() == 1)
    p += wdsdecode::format("auth = %u\n", static_cast<uint8_t>(t->value[0]));
  text(0x14, "setapn");
  if (const wdsdecode::Tlv* t = start.find(0x15); t && t->value.size() == 4) p += "setip = " + wdsdecode::dotted_quad(t->value) + "\n";
  return p;
}

class Planner {
 public:
  Planner(Plan* plan) : plan_(plan) {}

  void run() {
    const auto& e = plan_->original;
    for (size_t i = 0; i < e.size(); ++i) {
      index_ = i;
      key_ = key_at(i);
      switch (e[i].what) {
        case Entry::What::kRecord: record(e[i]); break;
        case Entry::What::kWrite: write(e[i]); break;
        case Entry::What::kRead: read(e[i]); break;
      }
    }
    end_attempt(true);
    plan_->profile += wdsdecode::format("idletime = %d\nmru = 1500\n", idletime_);
  }

 private:
  // The key index of entry i, or of the next key after it.
  size_t key_at(size_t i) const {
    const auto& k = plan_->keys.entry;
    return static_cast<size_t>(std::lower_bound(k.begin(), k.end(), i) - k.begin());
  }

  Action& act(Action::Kind kind, int value, size_t at_key, std::string why) {
    Action a;
    a.kind = kind;
    a.value = value;
    a.at_key = at_key;
    a.why = std::move(why);
    plan_->actions.push_back(std::move(a));
    return plan_->actions.back();
  }

  void record(const Entry& r) {
    const std::string& t = r.text;
    if (t == kInterrupted) {
      ++interrupts_;
      return;
    }
    if (pid_ != 0 && r.pid != pid_) new_process(r);
    if (pid_ == 0) pids_.push_back(r.pid);
    pid_ = r.pid;
    if (is_state(r, "init...")) {
      bring_up();
    } else if (is_state(r, "ready")) {
      ready_ = true;
      had_call_since_ready_ = false;
      if (!reset_since_init_) plan_->ndis = true;
    } else if (is_state(r, "connected")) {
      connected_record();
    } else if (t.starts_with(kNdisConnected)) {
      plan_->ndis = true;
      ndis_call();
    } else if (t.starts_with(kIdleOut)) {
      idletime_ = atoi(t.c_str() + sizeof kIdleOut - 1);
      demand_ = true;
      if (call_) call_->idle_out = true;
    } else if (t.starts_with(kManualConnect)) {
      act(Action::Kind::kSignal, kSignalManualConnect, key_, "signal 37 while connected");
      if (call_ && !call_->polled) ++call_->signal_wakes;
    } else if (r.text.starts_with("read msg error, errno = ENODEV")) {
      script_item("gone", "");
    } else if (r.text.starts_with("tty busy or tty down. errno = ")) {
      // The write just scripted failed with this errno.
      const int err = atoi(t.c_str() + 30);
      if (last_write_ != std::string::npos && err != 0 && !plan_->ndis)
        script_[last_write_] += wdsdecode::format(" refuse=%d", err);
    }
  }

  // Records of another process: the daemon was ended (by SIGTERM, when its
  // exit path shows no more) and started again.
  void new_process(const Entry& r) {
    if (!interleaved_ && std::ranges::count(pids_, r.pid) > 0) {
      interleaved_ = true;
      plan_->notes.push_back("the records of two processes interleave: two daemons shared the tty, and a replay runs one");
    }
    pids_.push_back(r.pid);
    if (!term_sent_) act(Action::Kind::kSignal, kSignalTerm, key_, "the next records are another process's");
    act(Action::Kind::kRestart, 0, key_, wdsdecode::format("process %d starts", r.pid));
    term_sent_ = false;
    end_attempt(false);
    ready_ = false;
  }

  void bring_up() {
    const auto& e = plan_->original;
    // Only signal 38 brings a daemon that was ready back to a bring-up. One
    // that still waits for a dial request sees it only once one comes.
    if (ready_) {
      act(Action::Kind::kSignal, kSignalReinit, key_, "re-initialisation (signal 38)");
      if (!had_call_since_ready_ && dial_file_ != kDialAlways && dial_file_ != kDialDemand) {
        act(Action::Kind::kDial, kDialAlways, key_, "a dial request the log does not show, taken after the signal");
        dial_file_ = kDialAlways;
      }
    }
    end_attempt(false);
    ready_ = false;
    reset_since_init_ = false;
    // A bring-up that ends in another without a record of its own failed
    // for a reason the log does not give: without a profile it fails the
    // same way, fastest.
    bool silent_failure = false;
    for (size_t j = index_ + 1; j < e.size(); ++j) {
      if (e[j].text == kInterrupted) continue;
      silent_failure = is_state(e[j], "init...") && e[j].pid == e[index_].pid;
      break;
    }
    if (silent_failure && !profile_removed_) {
      act(Action::Kind::kRemoveProfile, 0, key_ + 1, "a bring-up that failed before ready, the log does not say why");
      profile_removed_ = true;
    } else if (!silent_failure && profile_removed_) {
      act(Action::Kind::kRestoreProfile, 0, key_ + 1, "the next bring-up goes further");
      profile_removed_ = false;
    }
  }

  void connected_record() {
    if (!call_ || call_->up) {
      if (call_ && !call_->polled) ++call_->connected_records;
      return;
    }
    call_->up = true;
    call_->connected_records = 1;
  }

  void write(const Entry& w) {
    // The start request is dumped twice, and a write that a signal cut is
    // dumped again: the same bytes are one write.
    const auto& e = plan_->original;
    if (index_ > 0 && e[index_ - 1].what == Entry::What::kWrite && e[index_ - 1].bytes == w.bytes) return;
    if (plan_->ndis) {
      if (w.msg == kWdsPktSrvcStatus && call_ && call_->up) first_poll();
      return;
    }
    const char* word = wdsdecode::message_word(w.msg);
    interrupts_ = 0;
    script_.push_back(std::string("write ") + (word ? word : wdsdecode::format("0x%04x", w.msg)));
    last_write_ = script_.size() - 1;
    if (w.msg == kWdsReset) reset_since_init_ = true;
    if (w.msg == kWdsStartNetwork) start(w);
    if (w.msg == kWdsStopNetwork) stop();
    if (w.msg == kWdsPktSrvcStatus && call_ && call_->up) first_poll();
  }

  void read(const Entry& r) {
    if (plan_->ndis) return;
    script_item("read", notation::hex(r.bytes));
    wdsdecode::Message m;
    size_t used = 0;
    for (std::string_view b = r.bytes; !b.empty(); b.remove_prefix(used)) {
      wdsdecode::take_message(b, &m, &used);
      if (m.ctl == kQmiCtlResponse && m.id == kWdsPktSrvcStatus && call_ && call_->up) {
        const wdsdecode::Tlv* s = m.find(0x01);
        if (s && s->value.size() == 1 && s->value[0] != QMI_PKT_CONNECTED) call_->lost = true;
      }
    }
  }

  // A read or the tty's going away, after the reads a signal ended since
  // the last item.
  void script_item(const char* what, const std::string& bytes) {
    if (plan_->ndis) return;
    std::string line = what;
    if (interrupts_ > 0) line += wdsdecode::format(" after=%d", interrupts_);
    if (!bytes.empty()) line += " " + bytes;
    script_.push_back(line);
    interrupts_ = 0;
  }

  // A call attempt: the dial file must ask for one, unless it still does.
  void start(const Entry& w) {
    if (!profile_taken_) {
      wdsdecode::Message m;
      size_t used = 0;
      wdsdecode::take_message(w.bytes, &m, &used);
      plan_->profile = profile_of(m);
      profile_taken_ = true;
    }
    if (call_ && !call_->up) {
      call_->retried = true;  // the dial file still asked: it held 3
      return;
    }
    end_attempt(false);
    begin_attempt();
  }

  void ndis_call() {
    if (call_ && call_->up) {
      // The earlier call ended without a record: NDIS hang-ups leave none.
      act(Action::Kind::kDial, kDialDisconnect, key_, "an NDIS call ended (its hang-up is not logged)");
      dial_file_ = kDialDisconnect;
      end_attempt(false);
      begin_attempt();
      if (call_->timed) plan_->actions[call_->dial].after_hang_up = true;
    } else {
      begin_attempt();
    }
  }

  void begin_attempt() {
    call_ = Call{};
    if (demand_seen_later()) {
      // Traffic rising at two of the daemon's checks starts each call.
      if (dial_file_ != kDialDemand) act(Action::Kind::kDial, kDialDemand, key_, "dial on demand");
      dial_file_ = kDialDemand;
      act(Action::Kind::kTrafficOn, 0, key_, "traffic that starts a demand call");
      act(Action::Kind::kTrafficOff, 0, key_ + 1, "the call is starting");
      return;
    }
    if (dial_file_ == kDialAlways) {
      call_->dial = dial_action_;  // the file still asks
      return;
    }
    Action& a = act(Action::Kind::kDial, kDialAlways, key_, "a call started by the management side");
    a.read_at_ticks = had_call_since_ready_;
    dial_action_ = plan_->actions.size() - 1;
    call_->dial = dial_action_;
    call_->timed = true;
    dial_file_ = kDialAlways;
    had_call_since_ready_ = true;
  }

  void stop() {
    if (!call_ || !call_->up) return;  // the connect procedure's own stop
    if (!call_->lost && !call_->idle_out) {
      const bool exit_follows = process_ends_after(index_);
      if (exit_follows) {
        act(Action::Kind::kSignal, kSignalTerm, key_, "the daemon ended with its call up (SIGTERM)");
        term_sent_ = true;
      } else {
        act(Action::Kind::kDial, kDialDisconnect, key_, "a disconnect request");
        dial_file_ = kDialDisconnect;
      }
    }
    end_attempt(false);
  }

  // No more records of this process after the writes and reads of the
  // stop at `i`: the stop was its exit path's.
  bool process_ends_after(size_t i) const {
    const auto& e = plan_->original;
    for (size_t j = i + 1; j < e.size(); ++j) {
      if (e[j].what == Entry::What::kWrite && e[j].msg != kWdsStopNetwork) return false;
      if (e[j].what == Entry::What::kRecord && e[j].pid != e[i].pid) return true;
      if (is_state(e[j], "init...") || is_state(e[j], "connected")) return false;
    }
    return false;
  }

  // The status poll fixes where the call came up among the daemon's ticks:
  // polls go at every third tick, the count of wake-ups before the first
  // says which.
  void first_poll() {
    if (call_->polled) return;
    call_->polled = true;
    const int wakes = call_->connected_records - call_->signal_wakes;
    if (call_->timed && wakes >= 1 && wakes <= 3)
      plan_->actions[call_->dial].residue = (3 - wakes) % 3;
  }

  // The attempt ends: with the dial file at 3 a lost or failed call is
  // dialled again at once; one that is not was asked for once (2).
  void end_attempt(bool log_ends) {
    if (!call_) return;
    // A call that came up but was never polled: its polls are best as far
    // away as they can be.
    if (call_->up && call_->timed && !plan_->actions[call_->dial].residue)
      plan_->actions[call_->dial].residue = 0;
    // A call dialled again by itself already showed the file held 3.
    const bool ended_by_daemon = call_->lost || !call_->up;
    if (ended_by_daemon && call_->timed && !log_ends && !call_->retried && !retry_follows() && dial_file_ == kDialAlways &&
        !call_->idle_out) {
      plan_->actions[call_->dial].value = kDialOnce;
      dial_file_ = 0;
    }
    call_.reset();
  }

  // The next write of this process is a start, with no record of a
  // bring-up or of the outside before it.
  bool retry_follows() const {
    const auto& e = plan_->original;
    for (size_t j = index_ + 1; j < e.size(); ++j) {
      if (e[j].what == Entry::What::kWrite) {
        if (e[j].msg == kWdsStopNetwork || e[j].msg == kWdsAbort) continue;
        return e[j].msg == kWdsStartNetwork;
      }
      if (is_state(e[j], "init...") || e[j].text.starts_with(kManualConnect)) return false;
    }
    return false;
  }

  bool demand_seen_later() const {
    if (demand_) return true;
    for (size_t j = index_; j < plan_->original.size(); ++j)
      if (plan_->original[j].text.starts_with(kIdleOut)) return true;
    return false;
  }

  struct Call {
    size_t dial = std::string::npos;  // the action that asked for it
    bool timed = false;  // its start came with that action, not by itself
    bool up = false, lost = false, idle_out = false, polled = false, retried = false;
    int connected_records = 0, signal_wakes = 0;
  };

  Plan* plan_;
  size_t index_ = 0, key_ = 0;
  int pid_ = 0;
  int interrupts_ = 0;
  int idletime_ = 60;
  int dial_file_ = 0;
  size_t dial_action_ = std::string::npos;
  bool ready_ = false, reset_since_init_ = false, demand_ = false, interleaved_ = false;
  std::vector<int> pids_;
  bool had_call_since_ready_ = false;
  bool profile_removed_ = false, profile_taken_ = false, term_sent_ = false;
  size_t last_write_ = std::string::npos;
  std::optional<Call> call_;
  std::vector<std::string> script_;

 public:
  std::string script_text() const {
    std::string s;
    for (const auto& l : script_) s += l + "\n";
    return s;
  }
};

}  // namespace

Plan make_plan(const std::vector<wdsdecode::LogItem>& items, const PlanOptions& options) {
  Plan plan;
  auto all = entries_of(items, false);
  const size_t first = start_of(all, &plan.from_request);
  if (first < all.size()) plan.first_line = all[first].line_no;
  // A process's first request carries transaction id 1: any other means
  // requests were sent before the log's first line.
  for (size_t i = first; i < all.size(); ++i) {
    if (all[i].what != Entry::What::kWrite) continue;
    plan.tx_aside = all[i].bytes.size() < 3 || all[i].bytes[1] != 0 || all[i].bytes[2] != 1;
    break;
  }
  std::vector<wdsdecode::LogItem> from;
  for (const auto& item : items)
    if (item.line_no >= plan.first_line && plan.first_line != 0) from.push_back(item);
  plan.original = entries_of(from, plan.tx_aside);
  plan.keys = keys_of(plan.original);
  if (plan.from_request && !plan.original.empty()) {
    const uint16_t msg = plan.original.front().msg;
    plan.connected_before = msg == kWdsPktSrvcStatus || msg == kWdsStopNetwork;
  }

  Planner planner(&plan);
  planner.run();
  plan.script = planner.script_text();
  if (options.profile) plan.profile = *options.profile;
  if (plan.profile.empty() || plan.profile.starts_with("idletime")) {
    plan.notes.push_back("the dial profile: the log holds no start request, the default or --profile is used");
    plan.profile = kDefaultProfile + plan.profile;
  }
  std::stable_sort(plan.actions.begin(), plan.actions.end(),
                   [](const Action& a, const Action& b) { return a.at_key < b.at_key; });
  if (plan.ndis)
    plan.notes.push_back("NDIS mode: the log holds no AT command or answer, so the simulated modem answers with its "
                         "defaults: what the modem answered, the addresses, dials that failed and a drop by the "
                         "network cannot be replayed");
  if (plan.from_request)
    plan.notes.push_back(wdsdecode::format("the log was cut at its bound and holds no bring-up: the daemon is brought "
                                           "up%s first and replayed from its first request, at line %zu",
                                           plan.connected_before ? " and connected" : "", plan.first_line));
  if (plan.tx_aside) plan.notes.push_back("transaction ids are set aside: requests were sent before the log's first line");
  return plan;
}

}  // namespace replay
