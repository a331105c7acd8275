// SPDX-License-Identifier: ISC
#include "replay/report.h"

#include <algorithm>
#include <cstdint>

#include "decode/format.h"
#include "decode/log_reader.h"
#include "decode/notation.h"

namespace replay {

namespace {

using wdsdecode::format;

// What lines two entries up: the key, or for an entry that is not compared
// (an interrupted read), its text.
const std::string& align_key(const Entry& e) { return e.key.empty() ? e.shown.front() : e.key; }

void print_entry(FILE* out, const char* mark, const std::string& number, const Entry& e) {
  for (size_t i = 0; i < e.shown.size(); ++i)
    fprintf(out, "%7s %s %s\n", i == 0 ? number.c_str() : "", mark, e.shown[i].c_str());
}

size_t common_prefix(const Keys& a, const Keys& b) {
  size_t n = 0;
  while (n < a.keys.size() && n < b.keys.size() && a.keys[n] == b.keys[n]) ++n;
  return n;
}

std::string first_line(const Entry& e) { return e.shown.empty() ? "" : e.shown.front(); }

bool is_poll(const Entry& e) { return e.what == Entry::What::kWrite && e.msg == 0x0022; }

const char* action_name(Action::Kind kind) {
  switch (kind) {
    case Action::Kind::kDial: return "dial";
    case Action::Kind::kSignal: return "signal";
    case Action::Kind::kRestart: return "start the daemon again";
    case Action::Kind::kRemoveProfile: return "remove the dial profile";
    case Action::Kind::kRestoreProfile: return "put the dial profile back";
    case Action::Kind::kTrafficOn: return "traffic on";
    case Action::Kind::kTrafficOff: return "traffic off";
  }
  return "";
}

}  // namespace

void print_plan(const Plan& plan, FILE* out) {
  fprintf(out, "plan: %s mode, from line %zu%s\n", plan.ndis ? "NDIS" : "QMI", plan.first_line,
          plan.from_request ? (plan.connected_before ? ", after a call set up first" : ", after a bring-up first") : "");
  for (const auto& note : plan.notes) fprintf(out, "  note: %s\n", note.c_str());
  // The password shows as the decoder shows it: its length only.
  std::string profile;
  wdsdecode::each_line(plan.profile, [&profile](std::string_view line) {
    if (line.starts_with("password = ")) profile += format("password = (%zu bytes, masked)\n", line.size() - 11);
    else profile += std::string(line) + "\n";
  });
  fprintf(out, "  profile: \"%s\"\n", notation::escape(profile).c_str());
  for (const auto& a : plan.actions) {
    std::string where = a.at_key < plan.keys.entry.size()
                            ? format("before line %zu", plan.original[plan.keys.entry[a.at_key]].line_no)
                            : std::string("at the end");
    std::string what = action_name(a.kind);
    if (a.kind == Action::Kind::kDial || a.kind == Action::Kind::kSignal) what += format(" %d", a.value);
    if (a.residue)
      what += format(", read at a tick whose count is %d modulo 3, %s", *a.residue,
                     a.read_at_ticks ? "idle" : "in the bring-up's polls");
    if (a.after_hang_up) what += ", once the modem's call is down";
    fprintf(out, "  %s: %s (%s)\n", where.c_str(), what.c_str(), a.why.c_str());
  }
  if (!plan.script.empty()) fprintf(out, "script:\n%s", plan.script.c_str());
}

bool agree(const Plan& plan, const RunResult& run) {
  return common_prefix(plan.keys, run.keys) == plan.keys.keys.size();
}

void print_side_by_side(const Plan& plan, const RunResult& run, FILE* out) {
  const auto& a = plan.original;
  const auto& b = run.replayed;
  const size_t n = a.size(), m = b.size();
  // Longest common subsequence, lengths from the end.
  std::vector<uint32_t> len((n + 1) * (m + 1), 0);
  auto at = [&](size_t i, size_t j) -> uint32_t& { return len[i * (m + 1) + j]; };
  for (size_t i = n; i-- > 0;)
    for (size_t j = m; j-- > 0;)
      at(i, j) = align_key(a[i]) == align_key(b[j]) ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
  size_t i = 0, j = 0;
  while (i < n || j < m) {
    if (i < n && j < m && align_key(a[i]) == align_key(b[j])) {
      print_entry(out, "=", std::to_string(a[i].line_no), a[i]);
      ++i, ++j;
    } else if (i < n && (j == m || at(i + 1, j) >= at(i, j + 1))) {
      print_entry(out, "<", std::to_string(a[i].line_no), a[i]);
      ++i;
    } else {
      print_entry(out, ">", "(" + std::to_string(b[j].line_no) + ")", b[j]);
      ++j;
    }
  }
}

std::string verdict(const Plan& plan, const RunResult& run) {
  const size_t n = common_prefix(plan.keys, run.keys);
  if (n == plan.keys.keys.size()) {
    size_t writes = 0, reads = 0, records = 0;
    for (size_t k : plan.keys.entry) {
      const Entry& e = plan.original[k];
      ++(e.what == Entry::What::kWrite ? writes : e.what == Entry::What::kRead ? reads : records);
    }
    return format("the two agree: %zu requests, %zu blocks read and %zu records in the same order", writes, reads,
                  records);
  }
  const Entry& want = plan.original[plan.keys.entry[n]];
  std::string out = format("they part at line %zu of the original: it has \"%s\"", want.line_no, first_line(want).c_str());
  if (n >= run.keys.keys.size()) {
    out += format(", the replay has nothing more (%s)", run.ended.c_str());
  } else {
    const Entry& got = run.replayed[run.keys.entry[n]];
    out += format(" where the replay has \"%s\" (its line %zu)", first_line(got).c_str(), got.line_no);
    if (is_poll(want) != is_poll(got))
      out += ". A status poll falls elsewhere: polls go at every third tick of the daemon, and where its ticks fell "
             "against what the outside did the log does not hold";
    else if (want.what == Entry::What::kWrite && got.what == Entry::What::kWrite && want.msg == got.msg)
      out += ". The same request with other bytes: a value the log does not hold (the profile? see --profile)";
  }
  if (!run.script_note.empty()) out += ". The simulator: " + run.script_note;
  return out;
}

}  // namespace replay
