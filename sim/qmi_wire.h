// SPDX-License-Identifier: ISC
// The modem's side of the WDS dialect on the tty: a bare service message
// (no multiplexing header) whose every multi-byte integer is big-endian,
// TLV lengths and addresses included. Control flags and message ids are the
// daemon's own (qmi/qmi.h); messages are taken apart by the shared decoder.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "decode/decode.h"
#include "qmi/qmi.h"

namespace sim::qmi {

inline constexpr size_t kHeaderSize = wdsdecode::kHeaderSize;
inline constexpr uint8_t kTlvResult = 0x02;

inline constexpr uint8_t kStatusDisconnected = QMI_PKT_DISCONNECTED;
inline constexpr uint8_t kStatusConnected = QMI_PKT_CONNECTED;

inline constexpr uint16_t kErrInvalidHandle = 9;
inline constexpr uint16_t kErrOutOfCall = 15;
inline constexpr uint16_t kErrNoEffect = 26;
inline constexpr uint16_t kErrNotSupported = 94;

using Tlv = wdsdecode::Tlv;
using Message = wdsdecode::Message;

std::string be16(uint16_t v);
std::string be32(uint32_t v);

std::string encode_tlv(uint8_t type, std::string_view value);
// Header + TLVs with mlen computed from the TLVs.
std::string encode(const Message& m);

}  // namespace sim::qmi
