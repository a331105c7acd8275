# SPDX-License-Identifier: ISC
# The figures of an outage rehearsal, from what each gateway's sandbox
# recorded (all times on the host's monotonic clock, in µs):
#   GW/device.log  the simulator's record: "ev ctl ..." for each command it
#                  took ("on start fail=ERR" then "drop": the outage
#                  begins; "on start clear": it ends), "ev wds request
#                  start|stop" for each request of the daemon, "wds tx
#                  response ... start network ...: result=N" for each answer
#                  (0: the call is up at the network), and "ev ctl mark
#                  ..." where the measurement ends (the records after it,
#                  the fleet's shutdown, are left out)
#   GW/bus.log     each link-changed message (0x11601) "cms" received: the
#                  daemon sends one right after it writes status 3, and one
#                  after status 6, so they alternate from the first, an up
#
#   awk -v csv=FILE -v per_gateway=FILE -v plotvars=FILE -f outage_figures.awk \
#       GW/device.log GW/bus.log ...      (each gateway's device.log first)
#
# Prints the figures as text. csv gets one row per second, counted from the
# first drop: start requests, gateways with status 3 and calls up at the
# network at the end of that second. per_gateway gets each gateway's own
# figures; plotvars the outage's end for the plot. Exits 1 when there is
# nothing to measure: no gateway went through the outage, or none sent a
# start request during it.

function floor_of(x) { return x == int(x) || x > 0 ? int(x) : int(x) - 1 }
function ceil_of(x) { return x == int(x) || x < 0 ? int(x) : int(x) + 1 }
function secs(us) { return us / 1000000 }

# In-place heapsort of a[1..n], ascending: a few thousand start times at most.
function sift(a, start, end,    root, child, t) {
  root = start
  while ((child = 2 * root) <= end) {
    if (child < end && a[child] < a[child + 1]) child++
    if (a[root] >= a[child]) return
    t = a[root]; a[root] = a[child]; a[child] = t
    root = child
  }
}
function sort_numbers(a, n,    i, t) {
  for (i = int(n / 2); i >= 1; i--) sift(a, i, n)
  for (i = n; i > 1; i--) {
    t = a[1]; a[1] = a[i]; a[i] = t
    sift(a, 1, i - 1)
  }
}

# Nearest rank: the smallest value with at least p % of the values at or
# below it. a[1..n] sorted.
function percentile(a, n, p) { return a[ceil_of(p * n / 100) < 1 ? 1 : ceil_of(p * n / 100)] }

function spread(a, n, unit) {
  sort_numbers(a, n)
  return sprintf("p50 %.2f, p90 %.2f, max %.2f %s (min %.2f)", percentile(a, n, 50), percentile(a, n, 90), a[n], unit, a[1])
}

function seen(t) {
  if (t_first == "" || t < t_first) t_first = t
  if (t_last == "" || t > t_last) t_last = t
}

FNR == 1 {
  gw = FILENAME
  sub(/\/[^\/]*$/, "", gw)
  if (!(gw in known)) {
    known[gw] = 1
    gws[++n_gw] = gw
  }
  on_bus = FILENAME ~ /bus\.log$/
}

on_bus {
  if ($3 == "0x11601" && (!(gw in end_t) || $1 <= end_t[gw])) {
    links[gw]++
    link_t[gw, links[gw]] = $1
    seen($1)
  }
  next
}

gw in end_t { next }

{ seen($2) }

$3 == "ev" && $4 == "ctl" && $5 == "mark" {
  end_t[gw] = $2
  next
}

$3 == "ev" && $4 == "ctl" && $5 == "on" && $6 == "start" {
  if ($7 ~ /^fail=/ && !(gw in refuse_t)) refuse_t[gw] = $2
  if ($7 == "clear" && (gw in refuse_t) && !(gw in clear_t)) clear_t[gw] = $2
  next
}

$3 == "ev" && $4 == "ctl" && $5 == "drop" && !(gw in drop_t) {
  drop_t[gw] = $2
  if (call_up[gw]) {
    call_up[gw] = 0
    calls[gw]++
    call_t[gw, calls[gw]] = $2
    call_d[gw, calls[gw]] = -1
  }
  next
}

$3 == "ev" && $4 == "wds" && $5 == "request" && $6 == "start" {
  starts[gw]++
  start_t[gw, starts[gw]] = $2
  next
}

$3 == "ev" && $4 == "wds" && $5 == "request" && $6 == "stop" && (gw in drop_t) && !(gw in stop_t) {
  stop_t[gw] = $2
  next
}

$3 == "wds" && $4 == "tx" && index($0, " start network (0x0020): result=0 ") && !call_up[gw] {
  call_up[gw] = 1
  calls[gw]++
  call_t[gw, calls[gw]] = $2
  call_d[gw, calls[gw]] = 1
}

END {
  for (i = 1; i <= n_gw; i++) {
    g = gws[i]
    if ((g in drop_t) && (g in clear_t)) {
      out[++n_out] = g
      if (t0 == "" || drop_t[g] < t0) t0 = drop_t[g]
      if (t_end == "" || clear_t[g] < t_end) t_end = clear_t[g]
      if (t_begun == "" || drop_t[g] > t_begun) t_begun = drop_t[g]
      if (t_ended == "" || clear_t[g] > t_ended) t_ended = clear_t[g]
    }
  }
  if (n_out == 0) {
    print "outage: no gateway went through an outage: nothing to measure" > "/dev/stderr"
    exit 1
  }

  # Each gateway's own outage: from its drop to its recovery; the daemon
  # has seen the drop when it stops the call, and starts it again through
  # every refusal until a link comes up after the recovery.
  n_seen = n_back = n_accepted = n_setup = n_refused = n_gaps = 0
  all_retrying = ""
  sum_outage = 0
  if (per_gateway != "") print "gateway,drop_seen_s,refused_starts,start_accepted_s,status3_again_s" > per_gateway
  for (i = 1; i <= n_out; i++) {
    g = out[i]
    sum_outage += clear_t[g] - drop_t[g]
    saw = ""
    if (g in stop_t) {
      saw = secs(stop_t[g] - drop_t[g])
      seen_after[++n_seen] = saw
    }
    refused = 0
    prev = ""
    first_retry = ""
    for (k = 1; k <= starts[g]; k++) {
      t = start_t[g, k]
      if (t < refuse_t[g] || t >= clear_t[g]) continue
      refused++
      refused_t[++n_refused] = t
      if (t > drop_t[g] && first_retry == "") first_retry = t
      if (prev != "") gaps[++n_gaps] = secs(t - prev)
      prev = t
    }
    if (first_retry == "") all_retrying = "never"
    else if (all_retrying != "never" && (all_retrying == "" || first_retry > all_retrying)) all_retrying = first_retry
    accepted = ""
    for (k = 1; k <= calls[g]; k++) {
      if (call_d[g, k] > 0 && call_t[g, k] >= clear_t[g]) {
        accepted = secs(call_t[g, k] - clear_t[g])
        accepted_after[++n_accepted] = accepted
        break
      }
    }
    back = ""
    for (k = 1; k <= links[g]; k += 2) {
      if (link_t[g, k] >= clear_t[g]) {
        back = secs(link_t[g, k] - clear_t[g])
        back_after[++n_back] = back
        if (accepted != "") setup[++n_setup] = back - accepted
        break
      }
    }
    if (per_gateway != "") {
      sub(/.*\//, "", g)
      printf "%s,%s,%d,%s,%s\n", g, saw == "" ? "" : sprintf("%.3f", saw), refused,
        accepted == "" ? "" : sprintf("%.3f", accepted), back == "" ? "" : sprintf("%.3f", back) > per_gateway
    }
  }
  if (n_refused == 0) {
    print "outage: no start request during the outage: nothing to measure" > "/dev/stderr"
    exit 1
  }

  outage_s = secs(sum_outage / n_out)
  printf "gateways through the outage: %d; the drop reached their simulators within %.2f s, the recovery within %.2f s\n",
    n_out, secs(t_begun - t0), secs(t_ended - t_end)
  if (n_seen) printf "drop seen by the daemon (its stop request), after the drop: %s; %d of %d\n",
    spread(seen_after, n_seen, "s"), n_seen, n_out
  else print "drop seen by the daemon: by none"

  sort_numbers(refused_t, n_refused)
  peak = 0
  j = 1
  for (i = 1; i <= n_refused; i++) {
    while (j <= n_refused && refused_t[j] < refused_t[i] + 1000000) j++
    if (j - i > peak) peak = j - i
  }
  printf "start requests during the outage: %d in %.1f s (a gateway's outage, mean), %.2f/s mean, peak %d in a 1-s window\n",
    n_refused, outage_s, n_refused / outage_s, peak
  if (all_retrying != "never" && all_retrying < t_end) {
    steady = 0
    for (i = 1; i <= n_refused; i++) if (refused_t[i] >= all_retrying && refused_t[i] < t_end) steady++
    printf "  once every gateway was retrying (%.1f s after the first drop): %.2f/s over %.1f s (N/4 = %.2f)\n",
      secs(all_retrying - t0), steady / secs(t_end - all_retrying), secs(t_end - all_retrying), n_out / 4
  } else {
    print "  not every gateway was retrying before the first recovery"
  }
  if (n_gaps) printf "retry interval of a gateway: %s\n", spread(gaps, n_gaps, "s")
  if (n_back) printf "status 3 again after the recovery: %s; %d of %d back\n",
    spread(back_after, n_back, "s"), n_back, n_out
  else printf "status 3 again after the recovery: none of %d back\n", n_out
  if (n_accepted) printf "  the retry's start accepted after the recovery: %s\n", spread(accepted_after, n_accepted, "s")
  if (n_setup) printf "  from the accepted start to status 3 (link set up): %s\n", spread(setup, n_setup, "s")

  # One row per second from the first record on: what happened in it, and
  # the state at its end.
  b_first = floor_of(secs(t_first - t0))
  b_last = floor_of(secs(t_last - t0))
  for (i = 1; i <= n_gw; i++) {
    g = gws[i]
    for (k = 1; k <= starts[g]; k++) started[floor_of(secs(start_t[g, k] - t0))]++
    for (k = 1; k <= links[g]; k++) status3[floor_of(secs(link_t[g, k] - t0))] += k % 2 ? 1 : -1
    for (k = 1; k <= calls[g]; k++) up[floor_of(secs(call_t[g, k] - t0))] += call_d[g, k]
  }
  if (csv != "") {
    print "second,start_requests,status3,calls_up" > csv
    now3 = now_up = 0
    for (b = b_first; b <= b_last; b++) {
      now3 += status3[b]
      now_up += up[b]
      printf "%d,%d,%d,%d\n", b, started[b], now3, now_up > csv
    }
  }
  if (plotvars != "") printf "outage_end = %.3f\ngateways = %d\n", secs(t_end - t0), n_gw > plotvars
}
