// SPDX-License-Identifier: ISC
// The modem's side of the WDS dialect on the tty: a bare service message
// (no multiplexing header) whose every multi-byte integer is big-endian,
// TLV lengths and addresses included.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "decode/decode.h"

namespace sim::qmi {

inline constexpr uint8_t kCtlRequest = 0x00;
inline constexpr uint8_t kCtlResponse = 0x02;
inline constexpr uint8_t kCtlIndication = 0x04;
inline constexpr size_t kHeaderSize = wdsdecode::kHeaderSize;

inline constexpr uint16_t kMsgReset = 0x0000;
inline constexpr uint16_t kMsgAbort = 0x0002;
inline constexpr uint16_t kMsgStartNetwork = 0x0020;
inline constexpr uint16_t kMsgStopNetwork = 0x0021;
inline constexpr uint16_t kMsgPacketStatus = 0x0022;
inline constexpr uint16_t kMsgRuntimeSettings = 0x002D;

inline constexpr uint8_t kTlvResult = 0x02;

// Packet service status values carried by 0x0022.
inline constexpr uint8_t kStatusDisconnected = 1;
inline constexpr uint8_t kStatusConnected = 2;
inline constexpr uint8_t kStatusSuspended = 3;
inline constexpr uint8_t kStatusAuthenticating = 4;

inline constexpr uint16_t kErrNoEffect = 26;
inline constexpr uint16_t kErrInvalidHandle = 9;
inline constexpr uint16_t kErrOutOfCall = 15;
inline constexpr uint16_t kErrMalformed = 1;
inline constexpr uint16_t kErrNotSupported = 94;

// Messages are taken apart by the shared decoder; the model builds its
// answers from the same records.
using Tlv = wdsdecode::Tlv;
using Message = wdsdecode::Message;

std::string be16(uint16_t v);
std::string be32(uint32_t v);

std::string encode_tlv(uint8_t type, std::string_view value);
// Header + TLVs with mlen computed from the TLVs.
std::string encode(const Message& m);
std::string result_tlv(uint16_t result, uint16_t error);

const char* message_name(uint16_t id);
// "start", "0x0020", "32" -> 0x0020.
std::optional<uint16_t> parse_message_name(std::string_view name);

}  // namespace sim::qmi
