// SPDX-License-Identifier: ISC
// The log read in order as the daemon wrote it: each record and message
// moves a small model of bring-ups and calls on, and counts what the fault
// signatures look for.
#include "decode/diagnose.h"

#include <set>

#include "decode/decode.h"
#include "decode/format.h"
#include "qmi/qmi.h"

namespace wdsdecode {

namespace {

// The rows of the README's "Operating notes for integrators", by their
// first column.
constexpr char kRowUnplugged[] = "Modem unplugged and plugged back";
constexpr char kRowCallLeftUp[] =
    "A call left up at the modem: stop requests unanswered, SIGTERM while connecting, a start-network time-out";
constexpr char kRowSecondInstance[] = "A second daemon instance";
constexpr char kRowStartUnanswered[] = "A start request the modem never answers";

constexpr uint16_t kErrClientIdsExhausted = 5, kErrInvalidClientId = 7, kErrOutOfCall = 15, kErrNoEffect = 26;

struct Call {
  size_t line = 0;
  int pid = 0;  // of the process that started it
  std::string what;  // how it started
  bool up = false;
  std::string settings;  // address, mask, gateway once known
  std::string handle;
  bool lost = false;        // a poll or an indication said the call is gone
  std::string lost_how;
  std::string reason;       // the last call-end reason the modem gave
  bool idle_out = false;
};

struct Signature {
  Signature(const char* name_, const char* row_, size_t threshold_ = 1) : name(name_), row(row_), threshold(threshold_) {}
  const char* name;
  const char* row;
  size_t threshold;  // times seen before it counts as a fault
  size_t count = 0;
  size_t first_line = 0;
  std::string detail;
  void seen(size_t line, const std::string& what) {
    if (count++ == 0) {
      first_line = line;
      detail = what;
    }
  }
};

class Diagnosis {
 public:
  explicit Diagnosis(const std::vector<LogItem>& items) {
    for (const auto& i : items)
      if (i.kind == LogItem::Kind::kRecord) record_pids_.emplace_back(i.line_no, i.pid);
  }

  void item(const LogItem& item) {
    if (item.kind == LogItem::Kind::kRecord) record(item);
    if (item.kind == LogItem::Kind::kDump) dump(item);
  }

  std::string text() {
    end_call(0, "still up when the log ends", "the log ends before it came up");
    close_bring_up(0, "the log ends before it was ready");
    flush_repeats();
    if (tty_gone_line_ != 0)
      tty_gone_.seen(tty_gone_line_, "the tty went away (ENODEV) and no bring-up followed: the daemon keeps its dead "
                                     "descriptor");
    std::string out = "Timeline\n";
    for (const auto& l : timeline_) out += "  " + l + "\n";
    if (timeline_.empty()) out += "  (no bring-up or call in the log)\n";
    out += "Fault signatures\n";
    bool any = false;
    for (Signature* s : {&tty_gone_, &call_left_up_, &start_unanswered_, &client_id_, &two_daemons_, &retried_}) {
      if (s->count < s->threshold) continue;
      any = true;
      out += format("  * %s, at line %zu%s: %s\n", s->name, s->first_line,
                    s->count == 1 ? "" : s->count == 2 ? " and once more" : format(" and %zu times more", s->count - 1).c_str(), s->detail.c_str());
      out += format("    README, \"Operating notes for integrators\", row \"%s\"\n", s->row);
    }
    if (!any) out += "  (none)\n";
    return out;
  }

 private:
  void record(const LogItem& r) {
    process(r);
    const std::string& t = r.text;
    if (t.starts_with("wds state : init...")) {
      if (call_ && call_->pid != r.pid)
        end_call(r.line_no, format("process %d's bring-up, whose WDS reset ends the modem's call", r.pid), "");
      if (call_) end_call(r.line_no, "re-initialisation (signal 38): the link torn down, no stop sent", "");
      close_bring_up(r.line_no, "");
      ++bring_ups_;
      bring_up_line_ = r.line_no;
      bring_up_cause_.clear();
      tty_gone_line_ = 0;
    } else if (t.starts_with("wds state : ready")) {
      if (bring_up_line_ != 0) note(bring_up_line_, format("bring-up %zu: ready", bring_ups_));
      bring_up_line_ = 0;
      failed_in_row_ = 0;
    } else if (t.starts_with("get_curr_profile : open profile err.")) {
      bring_up_cause_ = "no dial profile";
    } else if (t.starts_with("wds state : connected")) {
      if (call_ && !call_->up) {
        call_->up = true;
        note(call_->line, format("call %zu: %s", calls_, call_->what.c_str()));
        std::string up = "    up";
        if (!call_->settings.empty()) up += ": " + call_->settings;
        if (!call_->handle.empty()) up += ", handle " + call_->handle;
        note(0, up);
      }
    } else if (t.starts_with("_ndis_connect : connect successful")) {
      end_call(r.line_no, "hung up (NDIS mode logs neither the hang-up nor its cause)", "");
      start_call(r.line_no, "NDIS dial (AT^NDISDUP)");
      call_->settings = "the address is not logged in NDIS mode";
    } else if (t.starts_with("read msg timeout, msg_type = ")) {
      timeout(r.line_no, t.substr(t.rfind(' ') + 1));
    } else if (t.starts_with("read msg error, errno = ENODEV") ||
               (r.error && t.starts_with("tty busy or tty down. errno = 19 "))) {
      if (tty_gone_line_ == 0) {
        tty_gone_line_ = r.line_no;
        note(r.line_no, "the tty is gone (ENODEV): reads and writes on it fail from here");
      }
      if (bring_up_line_ != 0) bring_up_cause_ = "the tty is gone";
    } else if (t.starts_with("wds_disconnect : disconnected 3 times failed")) {
      call_left_up_.seen(r.line_no, "three stop requests without an answer: the link was torn down while the modem "
                                    "may keep the call");
    } else if (t.starts_with("qmi_event_demand_idle_handle : idletime:")) {
      if (call_) call_->idle_out = true;
    }
  }

  // Which process wrote the record: a new one starts over; one that
  // comes back after another wrote shares the log with it.
  void process(const LogItem& r) {
    if (r.pid == pid_) return;
    if (pids_.contains(r.pid)) {
      if (two_daemons_.count == 0)
        two_daemons_.seen(r.line_no, format("records of processes %d and %d interleave: two daemons on one tty", pid_, r.pid));
    } else if (pid_ != 0 && writes_again_after(r.line_no, pid_)) {
      note(r.line_no, format("process %d starts while process %d still runs: from here the two mix", r.pid, pid_));
    } else if (pid_ != 0) {
      end_call(r.line_no, "the process ended", "the process ended");
      close_bring_up(r.line_no, "the process ended");
      note(r.line_no, format("process %d starts (process %d has ended)", r.pid, pid_));
    } else {
      note(r.line_no, format("process %d writes the log", r.pid));
    }
    pids_.insert(r.pid);
    pid_ = r.pid;
  }

  // Whether process `pid` has records after line `line`.
  bool writes_again_after(size_t line, int pid) const {
    for (const auto& [l, p] : record_pids_)
      if (l > line && p == pid) return true;
    return false;
  }

  void dump(const LogItem& d) {
    std::string_view bytes = d.bytes;
    while (!bytes.empty()) {
      Message m;
      size_t used = 0;
      const Framing framing = take_message(bytes, &m, &used);
      if (framing != Framing::kShortHeader) message(d, m);
      bytes.remove_prefix(used);
    }
  }

  void message(const LogItem& d, const Message& m) {
    if (!d.read && m.ctl == kQmiCtlRequest) {
      request(d, m);
    } else if (m.ctl == kQmiCtlResponse) {
      response(d.line_no, m);
    } else if (m.ctl == kQmiCtlIndication && m.id == kWdsPktSrvcStatus) {
      indication(m);
    }
  }

  void request(const LogItem& d, const Message& m) {
    // The start request is dumped twice, and a write is dumped again when
    // retried: the same bytes are one request.
    if (d.bytes == last_request_) return;
    last_request_ = d.bytes;
    if (m.id == kWdsStartNetwork) {
      std::string what = "start network";
      if (const Tlv* apn = m.find(0x14)) what += ", APN " + quoted(apn->value);
      if (const Tlv* user = m.find(0x17)) what += ", user " + quoted(user->value);
      start_call(d.line_no, what);
    } else if (m.id == kWdsStopNetwork && call_ && call_->up) {
      std::string how = call_->idle_out ? "idle time-out (dial on demand): stop sent"
                        : call_->lost  ? "network drop: " + call_->lost_how + ", stop sent"
                                       : "disconnect (dial request 1, or the daemon ending): stop sent";
      if (!call_->reason.empty()) how += "; the modem's call-end reason: " + call_->reason;
      end_call(d.line_no, how, "");
    }
  }

  void response(size_t line, const Message& m) {
    const Tlv* result = m.find(0x02);
    if (result == nullptr || result->value.size() != 4) return;
    const uint16_t failed = be16(result->value, 0), error = be16(result->value, 2);
    if (failed != 0 && (error == kErrClientIdsExhausted || error == kErrInvalidClientId))
      client_id_.seen(line, format("responses refused with error %u (%s): the tty's WDS client was lost or taken",
                                   error, qmi_error_text(error)));
    if (m.id == kWdsStartNetwork) {
      if (failed == 0) {
        no_effect_run_ = 0;
        if (const Tlv* h = m.find(0x01); h && h->value.size() == 4 && call_) call_->handle = format("0x%08x", be32(h->value, 0));
        return;
      }
      if (error == kErrNoEffect && ++no_effect_run_ == 2)
        call_left_up_.seen(line, "starts refused with error 26 (No Effect) again and again: the modem still holds a call "
                                 "the daemon has forgotten");
      end_call(line, "", format("refused: error %u (%s)", error, qmi_error_text(error)));
    } else if (m.id == kWdsRuntimeSettings && call_ && !call_->up) {
      if (failed != 0) {
        if (error == kErrOutOfCall)
          end_call(line, "", format("runtime settings refused: error %u (%s), the modem has no call", error,
                                    qmi_error_text(error)));
        return;
      }
      std::string s;
      if (const Tlv* a = m.find(0x1E); a && a->value.size() == 4) s = dotted_quad(a->value);
      if (const Tlv* k = m.find(0x21); k && k->value.size() == 4) s += "/" + dotted_quad(k->value);
      if (const Tlv* g = m.find(0x20); g && g->value.size() == 4) s += ", gateway " + dotted_quad(g->value);
      call_->settings = s.empty() ? "no address in the runtime settings" : s;
    } else if (m.id == kWdsPktSrvcStatus && failed == 0 && call_ && call_->up) {
      const Tlv* status = m.find(0x01);
      if (status && status->value.size() == 1 && status->value[0] != QMI_PKT_CONNECTED) {
        call_->lost = true;
        call_->lost_how = format("a status poll reported %u", static_cast<uint8_t>(status->value[0]));
      }
    }
  }

  void indication(const Message& m) {
    if (!call_) return;
    if (const Tlv* reason = m.find(0x10); reason && reason->value.size() == 2)
      call_->reason = format("%u (%s)", be16(reason->value, 0), call_end_reason_text(be16(reason->value, 0)));
  }

  void timeout(size_t line, std::string_view msg_type) {
    if (msg_type == "32") {
      start_unanswered_.seen(line, "a start-network request unanswered for its whole limit of 120 ticks (about 8 "
                                   "minutes), then aborted");
      end_call(line, "", "no answer to the start for 120 ticks: aborted");
    } else if (msg_type == "45" && call_ && !call_->up) {
      call_->settings = "runtime settings unanswered";
    } else if (msg_type == "0" && bring_up_line_ != 0) {
      bring_up_cause_ = "the WDS reset unanswered";
    }
  }

  void start_call(size_t line, const std::string& what) {
    end_call(line, "ended without a record of why", "no answer recorded");
    call_ = Call{};
    call_->line = line;
    call_->pid = pid_;
    call_->what = what;
    ++calls_;
  }

  // Ends the current call: `if_up` when it came up, `if_not` when it never
  // did (nothing is said when that text is empty).
  void end_call(size_t line, const std::string& if_up, const std::string& if_not) {
    if (!call_) return;
    if (call_->up) {
      if (!if_up.empty()) note(0, "    ended" + (line ? format(" at line %zu", line) : std::string()) + ": " + if_up);
    } else if (!if_not.empty()) {
      attempt("call", calls_, call_->line, call_->what + ": " + if_not);
    }
    call_.reset();
  }

  // Attempts that failed alike, one after the other, are one line.
  void attempt(const char* kind, size_t number, size_t line, const std::string& what) {
    if (what == repeat_what_ && kind == repeat_kind_) {
      ++repeat_count_;
      return;
    }
    flush_repeats();
    repeat_kind_ = kind;
    repeat_what_ = what;
    repeat_line_ = line;
    repeat_first_ = number;
    repeat_count_ = 1;
  }

  void flush_repeats() {
    if (repeat_count_ == 0) return;
    std::string head = repeat_count_ == 1 ? format("%s %zu", repeat_kind_, repeat_first_)
                                          : format("%ss %zu to %zu", repeat_kind_, repeat_first_,
                                                   repeat_first_ + repeat_count_ - 1);
    timeline_.push_back(format("line %zu: %s: %s", repeat_line_, head.c_str(), repeat_what_.c_str()));
    repeat_count_ = 0;
    repeat_what_.clear();
  }

  void close_bring_up(size_t line, const std::string& why) {
    if (bring_up_line_ == 0) return;
    std::string cause = bring_up_cause_.empty() ? why : bring_up_cause_;
    if (line != 0 && why.empty()) {
      // Another bring-up follows this one: it failed. Two in a row make
      // the signature; each further one counts.
      if (++failed_in_row_ == 1) first_failed_line_ = bring_up_line_;
      if (failed_in_row_ == 2) retried_.seen(first_failed_line_, "each failed before ready and was tried again");
      if (failed_in_row_ >= 2) retried_.count++;
      cause = bring_up_cause_.empty() ? "failed before ready (the log does not say why: the tty, the driver, the client id or the dial profile)"
                                      : "failed: " + bring_up_cause_;
    }
    if (!cause.empty()) attempt("bring-up", bring_ups_, bring_up_line_, cause);
  }

  void note(size_t line, const std::string& text) {
    flush_repeats();
    timeline_.push_back(line ? format("line %zu: ", line) + text : text);
  }

  std::vector<std::string> timeline_;
  std::optional<Call> call_;
  size_t calls_ = 0, bring_ups_ = 0;
  size_t bring_up_line_ = 0;
  std::string bring_up_cause_;
  std::string last_request_;
  size_t no_effect_run_ = 0;
  size_t tty_gone_line_ = 0;
  int pid_ = 0;
  std::set<int> pids_;
  std::vector<std::pair<size_t, int>> record_pids_;  // line and process of every record
  const char* repeat_kind_ = "";
  std::string repeat_what_;
  size_t repeat_line_ = 0, repeat_first_ = 0, repeat_count_ = 0;
  Signature tty_gone_{"the tty gone and no re-initialisation after it", kRowUnplugged};
  Signature call_left_up_{"a call left up at the modem", kRowCallLeftUp};
  Signature start_unanswered_{"start-network time-out", kRowStartUnanswered};
  Signature client_id_{"repeated client-id failures", kRowSecondInstance, 2};
  Signature two_daemons_{"two daemons writing one log", kRowSecondInstance};
  Signature retried_{"bring-ups retried without reaching ready", kRowUnplugged};
  size_t failed_in_row_ = 0, first_failed_line_ = 0;
};

}  // namespace

std::string diagnose(std::string_view log) {
  const auto items = read_log(log);
  Diagnosis d(items);
  for (const auto& item : items) d.item(item);
  return d.text();
}

std::vector<std::string> operating_note_rows() {
  return {kRowUnplugged, kRowCallLeftUp, kRowSecondInstance, kRowStartUnanswered};
}

}  // namespace wdsdecode
