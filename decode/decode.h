// SPDX-License-Identifier: ISC
// Host-side decoder of the WDS wire and of the daemon's log, shared by the
// modem simulator, the demo (through the simulator's records) and the
// wds-decode tool. Messages on the tty are bare WDS service messages with
// every multi-byte field most significant byte first:
//   ctl_flag u8 | txId u16 | msg_type u16 | mlen u16 | mlen bytes of TLVs
// and each TLV is  type u8 | length u16 | value.
// Nothing here trusts a length: whatever the bytes, the decoder names what
// it can and says where the bytes stopped making sense.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "decode/log_reader.h"

namespace wdsdecode {

inline constexpr size_t kHeaderSize = 7;
inline constexpr size_t kTlvHeaderSize = 3;

struct Tlv {
  uint8_t type = 0;
  std::string value;
};

struct Message {
  uint8_t ctl = 0;
  uint16_t tx = 0;
  uint16_t id = 0;
  std::vector<Tlv> tlvs;

  const Tlv* find(uint8_t type) const;
};

enum class Framing {
  kWhole,        // 7 + mlen bytes, TLVs tiling the TLV area exactly
  kShortHeader,  // fewer than 7 bytes: nothing taken apart
  kShortBody,    // mlen runs past the bytes: the TLVs that are there
  kBadTlv,       // a TLV runs past the TLV area: the TLVs before it
};

// Takes one message from the front of `bytes`. Fills `out` as far as the
// bytes allow, whatever the result; `consumed` is 7 + mlen for a whole
// message or one with a bad TLV, else every byte there is.
Framing take_message(std::string_view bytes, Message* out, size_t* consumed);

// The WDS messages the daemon uses, by name: "start network" in
// descriptions, "start" as one word in the simulator's commands and the
// replay's scripts (a word may also be the id, "0x0020"). Nothing for an
// unknown id or word.
const char* message_name(uint16_t id);
const char* message_word(uint16_t id);
std::optional<uint16_t> message_by_word(std::string_view word);

// One line naming the message and each TLV with its field, e.g.
//   request tx=1 start network (0x0020): technology preference=1 (3GPP), ...
// The password is masked.
std::string describe(const Message& m);
// One line per message of a block as written to or read from the tty; a
// block cut short or holding garbage ends with what could be read of it.
std::vector<std::string> describe_block(std::string_view bytes);

// Turns a wds.log, or the simulator's device log, into text a person reads:
// every record as it is, each hex dump of the log replaced by its messages
// ("  WDS " and the line of describe()), each rx/tx record of a device log
// shown as its messages or, for AT traffic, as escaped text. A dump cut by
// the end of the input or by a line that does not belong to it is decoded
// as far as it goes. Lines go to `out` without their newline.
class LogDecoder {
 public:
  using Sink = std::function<void(std::string_view line)>;
  explicit LogDecoder(Sink out);
  // One line of input, without its newline.
  void line(std::string_view text);
  // End of input: a dump still open is decoded as far as it went.
  void finish();

 private:
  void item(const LogItem& item);
  bool device_record(std::string_view text);

  Sink out_;
  LogReader reader_;
};

// The whole of `text` through a LogDecoder, lines joined with newlines.
std::string decode_log(std::string_view text);

}  // namespace wdsdecode
