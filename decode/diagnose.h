// SPDX-License-Identifier: ISC
// What a wds.log says happened: a timeline of bring-ups and calls (the
// start, the address, how each ended) and the fault signatures it shows,
// each pointing at its row of the README's operating notes for integrators.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace wdsdecode {

// The text wds-decode --diagnose prints, lines ended by newlines.
std::string diagnose(std::string_view log);

// The first column of every row of the operating notes a signature points
// at, as the README writes it.
std::vector<std::string> operating_note_rows();

}  // namespace wdsdecode
