// SPDX-License-Identifier: ISC
// The device log in words: what each bytes record of the simulator says,
// for the demo and for people reading the log. Each WDS message is named
// with its fields by the shared decoder, each AT line is given as text once
// it is whole, each packet of the interface by protocol and addresses.
#pragma once
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

class WireNarrator {
 public:
  enum class Dialect { kWds, kAt };
  explicit WireNarrator(Dialect dialect) : dialect_(dialect) {}

  // The lines "<kind> <rx|tx> <words>" or "ip <words>" that follow a
  // bytes record of kind rx, tx or net; none for other kinds and for AT
  // bytes that end no line yet.
  std::vector<std::string> narrate(std::string_view kind, std::string_view bytes);

 private:
  std::vector<std::string> at_lines(std::string& pending, std::string_view direction, std::string_view bytes);

  const Dialect dialect_;
  std::mutex mu_;
  std::string at_rx_, at_tx_;  // AT text not yet ended by CR or LF
};

}  // namespace sim
