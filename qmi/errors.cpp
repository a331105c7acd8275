// SPDX-License-Identifier: ISC
// Texts of QMI error codes and call-end reasons, for the log only.
#include <array>
#include <cstddef>

#include "qmi/qmi.h"

namespace {

constexpr uint16_t kQmiErrorCount = 38;
constexpr uint16_t kCallEndReasonCount = 9;
constexpr char kUnsupportedErrorCode[] = "UNSUPPORTED ERROR CODE";

// Indexed by the error code of the result TLV.
constexpr std::array<const char*, kQmiErrorCount> kQmiErrorTexts = {
    "None",
    "Malformed Message",
    "No Memmory",
    "Internal",
    "Aborted",
    "Client IDs Exausted",
    "Unabortable Transaction",
    "Invalid Client ID",
    "No Thresholds",
    "Invalid Handle",
    "Invalid Profile",
    "Invalid Pin ID",
    "Incorrect Pin",
    "No Network Found",
    "Call failed",
    "Out Of Call",
    "Not Provisioned",
    "Missing Arguement",
    kUnsupportedErrorCode,
    "Arguement Too Long",
    kUnsupportedErrorCode,
    kUnsupportedErrorCode,
    "Invalid Transaction ID",
    "Device In Use",
    "OP Network Unsupported",
    "OP Device Unsupported",
    "No Effect",
    "No Free Profile",
    "Invalid PDP Type",
    "Invalid Technology Preference",
    "Invalid Profile Type",
    "Invalid Service Type",
    "Invalid Register Action",
    "Invalid PS Attach Action",
    "Authentication Failed",
    "Pin Blocked",
    "Pin Permanently Blocked",
    "Sim Not Initialized",
};

// Indexed by the reason value of the status indication's TLV 0x10.
constexpr std::array<const char*, kCallEndReasonCount> kCallEndReasonTexts = {
    "Reason unspecified",
    "Client ended the call",
    "Phone has no service",
    "Call has ended abnormally",
    "Receive release from BS - no reason given",
    "Access attempt already in progress. SD2.0 only",
    "Access failure for reason other than above",
    "Call reject because of redirection or handoff",
    "NULL",
};

// A short initializer list would leave null rows behind.
template <size_t N>
constexpr bool every_row_set(const std::array<const char*, N>& table) {
  for (const char* text : table) {
    if (text == nullptr) return false;
  }
  return true;
}
static_assert(every_row_set(kQmiErrorTexts) && every_row_set(kCallEndReasonTexts));

}  // namespace

const char* qmi_error_text(uint16_t code) {
  return code < kQmiErrorTexts.size() ? kQmiErrorTexts[code] : "Unknown Error.";
}

const char* call_end_reason_text(uint16_t reason) {
  return reason < kCallEndReasonTexts.size() ? kCallEndReasonTexts[reason] : "Unknown reason.";
}
