// SPDX-License-Identifier: ISC
// A log as the replay compares it: each record without its process id and
// source line (and an error's wording, which is the C library's), each dump
// as the messages it holds, and which of them count for the agreement: the
// requests, the blocks read and the records, but not the ticks a wait was
// interrupted by, nor a repeat of "connected" (one per wake-up).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "decode/log_reader.h"

namespace replay {

struct Entry {
  enum class What { kRecord, kWrite, kRead };
  What what = What::kRecord;
  size_t line_no = 0;  // in its log
  int pid = 0;         // of the records; dumps carry the last record's
  std::string text;    // records: as written after the prefix
  std::string bytes;   // dumps
  uint16_t msg = 0;    // dumps: the first message's id
  std::vector<std::string> shown;  // one line per message, or the record
  std::string key;     // what is compared; empty: not compared
};

// `tx_aside`: transaction ids are left out of the comparison (a log cut at
// its bound, whose daemon had sent requests before the cut).
std::vector<Entry> entries_of(const std::vector<wdsdecode::LogItem>& items, bool tx_aside);

// The keys of `entries`, in order, and for each the index of its entry.
struct Keys {
  std::vector<std::string> keys;
  std::vector<size_t> entry;
};
Keys keys_of(const std::vector<Entry>& entries);

bool is_state(const Entry& e, const char* name);  // "wds state : <name>"
bool is_record(const Entry& e, const char* prefix);

}  // namespace replay
