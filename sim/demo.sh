#!/bin/bash
# SPDX-License-Identifier: ISC
# A narrated session: the unchanged wdsd in the sandbox, against the modem
# simulator, driven the way the gateway's management side drives it (the
# dial file, signals), with the daemon's own log lines, the modem dialogue,
# the bus messages and what the platform did interleaved as they happen.
#
#   sim/demo.sh BUILD_DIR [qmi|ndis|demand]
#
#   qmi     a call comes up, the network drops it and the daemon redials, a
#           disconnect request ends it, SIGTERM ends the daemon (default)
#   ndis    the same call dialled with AT commands, the address polled with
#           AT^DHCP?, hung up on request
#   demand  dial on demand: the placeholder link, a UDP packet from inside
#           the sandbox starts a call, the idle time-out ends it
#
# Builds nothing: BUILD_DIR must hold wdsd, sim/wds-sandbox, wds-simctl and
# decode/wds-decode.
# Needs root (the sandbox makes its own namespaces). Everything it starts is
# gone when it ends, also after Ctrl-C.
set -uo pipefail

usage() {
  echo "usage: sim/demo.sh BUILD_DIR [qmi|ndis|demand]" >&2
  exit 2
}
[ $# -ge 1 ] && [ $# -le 2 ] || usage
MODE=${2:-qmi}
case "$MODE" in qmi | ndis | demand) ;; *) usage ;; esac
BUILD=$(cd "$1" 2>/dev/null && pwd) || { echo "demo: no build directory $1" >&2; exit 2; }
DAEMON=$BUILD/wdsd
SANDBOX=$BUILD/sim/wds-sandbox
SIMCTL=$BUILD/sim/wds-simctl
DECODE=$BUILD/decode/wds-decode
for f in "$DAEMON" "$SANDBOX" "$SIMCTL" "$BUILD/sim/wds-sim" "$DECODE"; do
  [ -x "$f" ] || { echo "demo: $f is missing; build first (./x build)" >&2; exit 2; }
done
[ "$(id -u)" -eq 0 ] || { echo "demo: the sandbox needs root (namespaces, a tun device, FUSE)" >&2; exit 2; }

DIR=$(mktemp -d /tmp/wds-demo.XXXXXX)
RUNNER=""
INIT=""
ROOT=""
IF=rmnet0
[ "$MODE" = ndis ] && IF=rmnet_tarvek0
T0=$(date +%s%N)

# ---- output -----------------------------------------------------------------

if [ -t 1 ]; then B=$'\e[1m' D=$'\e[2m' N=$'\e[0m'; else B="" D="" N=""; fi

elapsed() { printf '%5.1fs' "$(( ($(date +%s%N) - T0) / 1000000 ))e-3"; }
say() { printf '%s[%s]%s %s\n' "$B" "$(elapsed)" "$N" "$*"; }
section() { printf '\n%s== %s%s\n' "$B" "$*" "$N"; }
note() { printf '         %s\n' "$*"; }
feed() { printf '  %s%-8s|%s %s\n' "$D" "$1" "$N" "$2"; }

# ---- the sandbox --------------------------------------------------------------

cleanup() {
  trap - EXIT INT TERM HUP
  if [ -n "$RUNNER" ] && kill -0 "$RUNNER" 2>/dev/null; then
    # Orderly: PID 1 ends every process inside and leaves.
    "$SIMCTL" "$DIR" init shutdown >/dev/null 2>&1 || kill -TERM "$RUNNER" 2>/dev/null
    for _ in $(seq 100); do kill -0 "$RUNNER" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$RUNNER" 2>/dev/null
    wait "$RUNNER" 2>/dev/null
  fi
  if [ -n "$INIT" ]; then
    for _ in $(seq 100); do kill -0 "$INIT" 2>/dev/null || break; sleep 0.1; done
  fi
  rm -rf "$DIR"
}
trap cleanup EXIT
trap 'echo; say "interrupted: shutting the sandbox down"; exit 130' INT TERM HUP

inside() { nsenter -t "$INIT" -m -n -p -u -i -- "$@"; }
wan() { cat "$ROOT/var/wan/$IF/$1" 2>/dev/null; }
sim() { "$SIMCTL" "$DIR" sim "$@" >/dev/null || { say "simulator refused: $*"; exit 1; }; }
init_cmd() { "$SIMCTL" "$DIR" init "$@" >/dev/null || { say "sandbox refused: $*"; exit 1; }; }
write_dial() { printf '%s\n' "$1" >"$ROOT/var/wan/$IF/dial"; }

start_sandbox() {
  setsid "$SANDBOX" --dir "$DIR" --daemon "$DAEMON" "$@" >"$DIR/sandbox.out" 2>&1 &
  RUNNER=$!
  for _ in $(seq 200); do
    [ -e "$DIR/ready" ] && break
    if [ -e "$DIR/failed" ] || ! kill -0 "$RUNNER" 2>/dev/null; then
      say "the sandbox did not start:"
      cat "$DIR/failed" "$DIR/sandbox.out" 2>/dev/null
      exit 1
    fi
    sleep 0.1
  done
  [ -e "$DIR/ready" ] || { say "the sandbox did not start in 20 s"; exit 1; }
  INIT=$(cat "$DIR/init.pid")
  ROOT=/proc/$INIT/root
}

# ---- what happens inside, shown as it comes -----------------------------------

LOG_OFF=0        # bytes of wds.log already shown
LAST_STATE=""    # last "wds state" line shown
LAST_POLL=""     # last status-poll result shown
WIRE_N=0         # device.log lines already taken
BUS_N=0          # bus.log lines already shown
WIRE=()          # the simulator's WDS message records not yet shown: "rx|tx TEXT"
PLATFORM_N=0     # platform.log lines already shown
PACKETS=0

# Records of module main, and the wds_msg and atrwapi records that say
# something about the call. Repeats of the connected state (one per 4-second
# tick) and of an unchanged status poll are left out.
show_record() {
  local line=$1 text module
  case "$line" in "[ info]["* | "[error]["*) ;; *) return ;; esac
  text=${line#*] }
  module=${line:8:16}
  module=${module##* }
  case "$module" in
    main)
      case "$text" in
        "wds state : "*)
          [ "$text" = "$LAST_STATE" ] && return
          LAST_STATE=$text ;;
        "qmi_event_msm_state_query"*)
          [ "$text" = "$LAST_POLL" ] && return
          LAST_POLL=$text ;;
        *) LAST_STATE="" ;;
      esac ;;
    wds_msg)
      case "$text" in
        *g_qmi_error* | *"reason ="* | *timeout* | *ENODEV* | *fail* | *errno*) ;;
        *) return ;;
      esac ;;
    atrwapi) ;;
    *) return ;;
  esac
  feed wds.log "$line"
}

# One WDS message as the simulator recorded it, "->" sent by the daemon,
# "<-" received. The status poll is left out: its result is in the log.
show_wds() {
  local dir=${1%% *} text=${1#* }
  case "$text" in "request "*"packet service status"* | "response "*"packet service status"*) return ;; esac
  if [ "$dir" = rx ]; then feed modem "-> WDS $text"; else feed modem "<- WDS $text"; fi
}

# The log names each message it dumped (through wds-decode) where it
# happened: the simulator's records up to that same message are shown
# there, so the modem lines keep the log's order. A message the log dumps
# twice (the start request) finds nothing left the second time.
show_wire_until() {
  local want=$1 i j
  for i in "${!WIRE[@]}"; do
    [ "${WIRE[i]#* }" = "$want" ] || continue
    for ((j = 0; j <= i; j++)); do show_wds "${WIRE[j]}"; done
    WIRE=("${WIRE[@]:i+1}")
    return
  done
}

show_wire_left() {
  local r
  for r in "${WIRE[@]}"; do show_wds "$r"; done
  WIRE=()
}

pump_log() {
  local f=$ROOT/var/log/wds.log size chunk last whole line
  size=$(stat -c %s "$f" 2>/dev/null) || return 0
  ((size < LOG_OFF)) && LOG_OFF=0 # the log restarted from empty
  ((size == LOG_OFF)) && return 0
  chunk=$(tail -c +$((LOG_OFF + 1)) "$f" | head -c $((size - LOG_OFF)); printf x)
  chunk=${chunk%x}
  [[ "$chunk" == *$'\n'* ]] || return 0
  # Up to the last whole record: a dump after it may still be growing.
  last=$(grep -n '^\[' <<<"${chunk%$'\n'*}" | tail -1 | cut -d: -f1)
  [ -n "$last" ] || return 0
  whole=$(head -n "$last" <<<"$chunk"; printf x)
  whole=${whole%x}
  LOG_OFF=$((LOG_OFF + ${#whole}))
  while IFS= read -r line; do
    case "$line" in
      "  WDS "*) show_wire_until "${line#  WDS }" ;;
      *) show_record "$line" ;;
    esac
  done < <(printf '%s' "$whole" | "$DECODE")
}

pump_wire() {
  local f=$DIR/device.log seq t kind data
  [ -r "$f" ] || return 0
  while read -r seq t kind data; do
    WIRE_N=$((WIRE_N + 1))
    case "$kind" in
      wds) WIRE+=("$data") ;;
      at)
        if [ "${data%% *}" = rx ]; then feed modem "-> ${data#* }"; else feed modem "<- ${data#* }"; fi ;;
      ip)
        PACKETS=$((PACKETS + 1))
        ((PACKETS == 1)) && feed network "${data#ip }, out of $IF" ;;
    esac
  done < <(tail -n +$((WIRE_N + 1)) "$f")
}

# Bytes from hex; the caller strips the final "x" that keeps trailing line ends.
unhex() { printf '%bx' "$(sed 's/../\\x&/g' <<<"$1")"; }

pump_bus() {
  local f=$DIR/bus.log t sender type len payload what
  [ -r "$f" ] || return 0
  while read -r t sender type len payload; do
    BUS_N=$((BUS_N + 1))
    case "$type" in
      0x11601) what="link changed, no payload" ;;
      0x3d02)
        local name="" i
        for ((i = 0; i < ${#payload}; i += 2)); do
          [ "${payload:i:2}" = 00 ] && break
          name+=${payload:i:2}
        done
        what=$(unhex "$name")
        what="demand link ready, payload $len bytes: \"${what%x}\" and zeros" ;;
      *) what="$len bytes" ;;
    esac
    feed bus "\"$sender\" -> \"cms\": $type ($what)"
  done < <(tail -n +$((BUS_N + 1)) "$f")
}

# What the gateway's platform did around the daemon: "cms" and the hotplug
# handler.
pump_platform() {
  local f=$DIR/platform.log t what
  [ -r "$f" ] || return 0
  while read -r t what; do
    PLATFORM_N=$((PLATFORM_N + 1))
    feed platform "$what"
  done < <(tail -n +$((PLATFORM_N + 1)) "$f")
}

pump() {
  pump_wire
  pump_log
  pump_bus
  pump_platform
}

# wait_for SECONDS WHAT COMMAND...: shows what happens until COMMAND holds.
wait_for() {
  local limit=$1 what=$2
  shift 2
  local deadline=$(($(date +%s) + limit))
  while :; do
    pump
    "$@" && { pump; return 0; }
    if (($(date +%s) >= deadline)); then
      say "gave up after ${limit} s waiting for $what"
      exit 1
    fi
    sleep 0.2
  done
}

status_is() { [ "$(wan status)" = "$1" ]; }
exited() { [ -s "$DIR/daemon.exit" ]; }
link_changes() { (($(grep -c ' 0x11601 ' "$DIR/bus.log" 2>/dev/null) >= $1)); }

show_files() {
  local name value
  for name in "$@"; do
    if [ -e "$ROOT/var/wan/$IF/$name" ]; then
      value=$(sed -e 's/$/\\n/' "$ROOT/var/wan/$IF/$name" | tr -d '\n')
      value=${value%\\n}
      [ -n "$(tail -c1 "$ROOT/var/wan/$IF/$name")" ] || value+='\n'
      printf '         /var/wan/%s/%-13s "%s"\n' "$IF" "$name" "$value"
    else
      printf '         /var/wan/%s/%-13s (none)\n' "$IF" "$name"
    fi
  done
}

show_interface() {
  note "\$ ip -4 addr show $IF; ip -4 route   (inside the sandbox)"
  local out
  out=$({ inside ip -4 -o addr show "$IF" | sed -e 's/ *\\.*$//' -e 's/^[0-9]*: //'; inside ip -4 route; })
  [ -n "$out" ] || out="(no IPv4 address, no routes)"
  sed 's/^/           /' <<<"$out"
}

stop_daemon() {
  section "SIGTERM: the daemon cleans up and exits"
  say "sending SIGTERM to wdsd (pid $(cat "$DIR/daemon.pid") inside the sandbox)"
  init_cmd kill TERM
  wait_for 30 "the daemon to exit" exited
  say "wdsd ended: $(cat "$DIR/daemon.exit")"
  if [ -e "$ROOT/var/wan/$IF/pid" ]; then note "pid file still there"; else note "pid file removed"; fi
}

PROFILE='username = user1\npassword = pass1\nauth = 2\nidletime = 60\nsetapn = internet\nmru = 1500\n'

# ---- the sessions -------------------------------------------------------------

intro() {
  section "wdsd demo: $1"
  note "The daemon runs unchanged in a sandbox of its own (mount, network and pid"
  note "namespaces) with the modem simulator behind /dev/qmitty0. Lines marked"
  note "wds.log are the daemon's own log records (hex dumps left out), modem is"
  note "what crossed the modem's tty, bus what the bus peer \"cms\" received,"
  note "platform what \"cms\" and the hotplug handler did about it."
}

run_qmi() {
  intro "QMI mode (binary WDS messages), stay connected"
  section "Bring-up"
  say "starting the sandbox: chip file \"0\" (QMI mode, interface rmnet0), profile"
  note "APN internet, user1/pass1, auth 2, mru 1500; no dial request yet"
  start_sandbox --mode qmi --profile "$PROFILE"
  wait_for 40 "bring-up" status_is 0
  say "bring-up done: status file \"0\", pid file \"$(wan pid)\", WDS service reset"

  section "Dial request 3: connect and stay connected"
  local asked=$(date +%s%N)
  say "writing \"3\" to /var/wan/rmnet0/dial"
  write_dial 3
  wait_for 60 "status 3" status_is 3
  say "connected $(( ($(date +%s%N) - asked) / 1000000 )) ms after the request (the dial file is read every 3 s)"
  show_files status ipaddr mask gateway dns pppc_tcp_mss
  show_interface

  section "The network drops the call"
  say "simulator: the call ends (packet service indication: disconnected)"
  sim drop reason=2
  note "the daemon reads the modem only while a request waits, and learns of the"
  note "loss from a status poll (every 12 s): it stops the call, tears the link"
  note "down (status 6, \"cms\" told) and, with dial 3, dials again"
  wait_for 40 "the teardown" link_changes 2
  say "link down: status 6 was published, the daemon dials again"
  wait_for 60 "the new call" link_changes 3
  wait_for 10 "status 3" status_is 3
  say "connected again"
  show_files status ipaddr

  section "Dial request 1: disconnect"
  say "writing \"1\" to /var/wan/rmnet0/dial"
  write_dial 1
  wait_for 30 "status 6" status_is 6
  say "disconnected: stop-network sent, addresses emptied, the daemon idles"
  show_files status ipaddr mask
  show_interface

  stop_daemon
}

run_ndis() {
  intro "NDIS mode (AT commands), stay connected"
  section "Bring-up"
  say "starting the sandbox: chip file \"1\" (NDIS mode, interface rmnet_tarvek0);"
  note "the simulated modem has no address for the first DHCP query"
  start_sandbox --mode ndis --profile "$PROFILE" --sim-do "set dhcp-wait=1 addr=192.168.0.1 mask=255.255.255.0 gw=192.168.0.254"
  wait_for 40 "bring-up" status_is 0
  say "bring-up done: AT port open, status file \"0\""

  section "Dial request 3: AT^NDISDUP, then AT^DHCP? until an address comes"
  local asked=$(date +%s%N)
  say "writing \"3\" to /var/wan/rmnet_tarvek0/dial"
  write_dial 3
  wait_for 60 "status 3" status_is 3
  say "connected $(( ($(date +%s%N) - asked) / 1000000 )) ms after the request (DHCP is polled 5 s apart)"
  note "the modem's c0a80001 is published first octet first, as 192.168.0.1:"
  show_files status ipaddr mask gateway dns pppc_tcp_mss
  show_interface

  note "(the 12-second status poll still asks the QMI channel, which NDIS mode"
  note "leaves closed: it fails and is only logged)"

  section "Dial request 1: hang up"
  say "writing \"1\" to /var/wan/rmnet_tarvek0/dial"
  write_dial 1
  wait_for 30 "status 6" status_is 6
  say "hung up: status 6, addresses emptied"
  show_files status ipaddr mask
  show_interface

  stop_daemon
}

run_demand() {
  intro "dial on demand (QMI mode), idle time 18"
  section "Bring-up with dial request 4"
  say "starting the sandbox: QMI mode, dial file \"4\", profile idletime 18"
  start_sandbox --mode qmi --profile "${PROFILE/idletime = 60/idletime = 18}" --dial '4\n'
  wait_for 40 "the placeholder link" grep -qs 0x3d02 "$DIR/bus.log"
  say "no call yet: a placeholder address and a default route catch outgoing traffic"
  show_interface

  section "Traffic from inside the sandbox starts a call"
  note "the daemon checks the transmit counter of rmnet0 every 12 s; two rises"
  note "after its baseline raise the demand flag"
  local first=$(date +%s%N) next=0
  say "sending a UDP packet to 10.200.0.1:9 every 2 s (it follows the default route)"
  called() {
    if (($(date +%s) >= next)); then init_cmd udp 10.200.0.1 9 100 1; next=$(($(date +%s) + 2)); fi
    status_is 3
  }
  wait_for 70 "the demand call" called
  say "connected $(( ($(date +%s%N) - first) / 1000000 )) ms after the first packet ($PACKETS packets went out)"
  show_files status ipaddr mask gateway
  show_interface

  section "No traffic: the idle time-out ends the call"
  note "each 12 s idle check adds 9 to the idle count; at 18 the link drops"
  wait_for 60 "the idle time-out" status_is 6
  wait_for 10 "the placeholder files" bash -c "[ \"\$(cat '$ROOT/var/wan/$IF/ipaddr')\" = 10.48.48.48 ]"
  say "idle time-out: stop-network sent, status 6, the placeholder is back"
  show_files status ipaddr mask gateway
  show_interface

  stop_daemon
}

case "$MODE" in
  qmi) run_qmi ;;
  ndis) run_ndis ;;
  demand) run_demand ;;
esac
pump
show_wire_left
section "done in $(elapsed | tr -d ' '); the sandbox is shut down and removed"
