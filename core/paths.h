// Every fixed path of the daemon, in one place.
#pragma once

namespace wds_paths {
inline constexpr char kLogFile[] = "/var/log/wds.log";
inline constexpr char kQmiTty[] = "/dev/qmitty0";
inline constexpr char kDatacardChip[] = "/proc/proc_user_datacardchip";
inline constexpr char kProcNetDev[] = "/proc/net/dev";
inline constexpr char kVarLogDir[] = "/var/log";
inline constexpr char kVarLogFileFmt[] = "/var/log/%s";
inline constexpr char kDhcpResult[] = "/var/log/dhcp_result";
inline constexpr char kIpv6Cap[] = "/var/log/ipv6cap";

// Per-interface control directory, /var/wan/<ifname>/.
inline constexpr char kWanConfigFmt[] = "/var/wan/%s/config";
inline constexpr char kWanDialFmt[] = "/var/wan/%s/dial";
inline constexpr char kWanStatusFmt[] = "/var/wan/%s/status";
inline constexpr char kWanPidFmt[] = "/var/wan/%s/pid";
inline constexpr char kWanFileFmt[] = "/var/wan/%s/%s";
inline constexpr char kWanTcpMssFmt[] = "/var/wan/%s/pppc_tcp_mss";
}  // namespace wds_paths
