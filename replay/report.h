// SPDX-License-Identifier: ISC
// The replayed log beside the original, record by record, and whether they
// agree: the same requests, blocks read and records in the same order. Where
// they part, the first key that differs and what may explain it.
#pragma once
#include <cstdio>
#include <string>

#include "replay/conductor.h"
#include "replay/plan.h"

namespace replay {

// The plan as wds-replay --plan prints it: the notes, the profile, each
// action before the line of the original where it shows, and the script.
void print_plan(const Plan& plan, FILE* out);

// True when the two agree.
bool agree(const Plan& plan, const RunResult& run);

// Each entry once when both logs have it, marked '<' when only the
// original has it and '>' when only the replay does; numbered with its line
// in the original (the replay's in brackets for its own).
void print_side_by_side(const Plan& plan, const RunResult& run, FILE* out);

// "the two agree: ..." or "they part at ...: <why>".
std::string verdict(const Plan& plan, const RunResult& run);

}  // namespace replay
