#!/usr/bin/env bash
# Side-by-side benchmark of cmp-ipp-printer against ippeveprinter (Debian
# cups-ipp-utils), both on loopback, measured alternately; prints the medians
# as one table: work | ours | peer | ratio (ours / peer).
#
#   bench/peer_bench.sh [BUILD_DIR] [--reps N] [--seconds S] [--printer PATH] [--no-peer]
#
# BUILD_DIR (default build-release) must hold a build of everything; this
# script builds nothing. --printer runs another cmp-ipp-printer binary (an
# older build, say) with this build's helper programs. A benchmark, not a test:
# CTest never runs it.
#
# Measured, each repetition a few seconds (--seconds), N repetitions (--reps):
#   GPA     Get-Printer-Attributes, requested-attributes "all", IPP/2.0, HTTP/1.1
#           keep-alive, at 1, 4 and 32 connections (bench/gpa_load): req/s,
#           latency p50/p99, server CPU per request (utime+stime of the server
#           process over the run / requests); every reply checked
#   GET /   the web page over keep-alive: CPU per page and per page byte
#   codec   decode + encode per corpus message (bench_msg), ours against the
#           libcups cases when bench_msg has them
#   socket  the library's Unix-socket records alone (bench/relay_rtt): GPA-all
#           round trips per second on one connection, against a raw echo of
#           the same record and body sizes
#   memory  VmRSS idle and with 32 open keep-alive connections
#
# ippeveprinter needs DNS-SD: with avahi-daemon installed and run as root, the
# script starts the system D-Bus and avahi-daemon when they are not running
# (and stops them at the end); otherwise it says why and measures ours alone.
set -euo pipefail

build="build-release"
reps=3
secs=3
printer=""
want_peer=1

usage() {
  awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "$0"
}

while [ $# -gt 0 ]; do
  case $1 in
    --reps) reps=$2; shift 2 ;;
    --seconds) secs=$2; shift 2 ;;
    --printer) printer=$2; shift 2 ;;
    --no-peer) want_peer=0; shift ;;
    -h|--help) usage; exit 0 ;;
    -*) echo "peer_bench: unknown option $1" >&2; usage >&2; exit 2 ;;
    *) build=$1; shift ;;
  esac
done
if ! [[ $reps =~ ^[1-9][0-9]*$ ]] || ! [[ $secs =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
  echo "peer_bench: --reps takes a whole number, --seconds a number" >&2
  exit 2
fi

gpa_load=$build/bench/gpa_load
relay_rtt=$build/bench/relay_rtt
bench_msg=$build/bench/bench_msg
printer=${printer:-$build/apps/main/cmp-ipp-printer}
for f in "$gpa_load" "$relay_rtt" "$bench_msg" "$printer"; do
  if [ ! -x "$f" ]; then
    echo "peer_bench: $f is missing. Build first:" >&2
    echo "  cmake -S . -B $build -DCMAKE_BUILD_TYPE=Release && cmake --build $build" >&2
    exit 2
  fi
done

tmp=$(mktemp -d /tmp/peer-bench-XXXXXX)
ours_pid=""
peer_pid=""
hold_pid=""
started_dbus=""
started_avahi=0

cleanup() {
  local pid
  for pid in "$hold_pid" "$ours_pid" "$peer_pid"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill -TERM "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  if [ "$started_avahi" = 1 ]; then avahi-daemon -k 2>/dev/null || true; fi
  if [ -n "$started_dbus" ]; then
    kill -TERM "$started_dbus" 2>/dev/null || true
    rm -f /run/dbus/pid /run/dbus/system_bus_socket
  fi
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

note() { echo "peer_bench: $*" >&2; }

rss_kb() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

# Waits until something accepts TCP connections on the port (10 s at most).
wait_port() {
  local port=$1 pid=$2
  for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || return 1
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  return 1
}

# ---- start the servers ------------------------------------------------------------

mkdir -p "$tmp/eve" "$tmp/res"
mkdir -m 700 "$tmp/spool" "$tmp/sock"
ours_port=$("$gpa_load" --free-port)
"$printer" --port "$ours_port" --spool "$tmp/spool" --socket-dir "$tmp/sock" >"$tmp/ours.out" 2>"$tmp/ours.err" &
ours_pid=$!
# It prints its URI once the front end and the library's listener are up.
for _ in $(seq 100); do
  if grep -q "Printer URI" "$tmp/ours.out" || ! kill -0 "$ours_pid" 2>/dev/null; then break; fi
  sleep 0.1
done
if ! grep -q "Printer URI" "$tmp/ours.out"; then
  note "cmp-ipp-printer did not start:"; cat "$tmp/ours.err" >&2; exit 1
fi
ours_socket=$tmp/sock/zyn_ipp_server
ours_idle_rss=$(rss_kb "$ours_pid")

peer_why=""
start_peer() {
  local eve=/usr/sbin/ippeveprinter
  if [ "$want_peer" = 0 ]; then peer_why="not asked for (--no-peer)"; return 1; fi
  if [ ! -x "$eve" ]; then peer_why="$eve is not installed (Debian package cups-ipp-utils)"; return 1; fi
  # ippeveprinter refuses to start without DNS-SD: D-Bus and avahi-daemon.
  if ! avahi-daemon --check 2>/dev/null; then
    if ! command -v avahi-daemon >/dev/null || ! command -v dbus-daemon >/dev/null; then
      peer_why="ippeveprinter needs avahi-daemon and dbus (apt-get install avahi-daemon dbus)"; return 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
      peer_why="ippeveprinter needs avahi-daemon running; starting it needs root"; return 1
    fi
    local bus_pid
    bus_pid=$(cat /run/dbus/pid 2>/dev/null || true)
    if [ -z "$bus_pid" ] || ! kill -0 "$bus_pid" 2>/dev/null; then
      # A bus that went away leaves its pid file, which stops a new one from starting.
      rm -f /run/dbus/pid
      mkdir -p /run/dbus
      started_dbus=$(dbus-daemon --system --fork --print-pid 2>"$tmp/dbus.err" | head -n1) || true
      if [ -z "$started_dbus" ]; then peer_why="the system D-Bus did not start: $(cat "$tmp/dbus.err")"; return 1; fi
    fi
    if ! avahi-daemon -D 2>"$tmp/avahi.err"; then
      peer_why="avahi-daemon did not start: $(cat "$tmp/avahi.err")"; return 1
    fi
    started_avahi=1
    sleep 0.5
  fi
  peer_port=$("$gpa_load" --free-port)
  # "localhost": with a numeric host name it fails to set up its IPv6 listener.
  "$eve" -p "$peer_port" -d "$tmp/eve" -n localhost "Peer Bench" >"$tmp/peer.log" 2>&1 &
  peer_pid=$!
  if ! wait_port "$peer_port" "$peer_pid"; then
    peer_why="ippeveprinter did not start: $(tail -n 3 "$tmp/peer.log" | tr '\n' ' ')"
    peer_pid=""
    return 1
  fi
  return 0
}
have_peer=0
if start_peer; then
  have_peer=1
  peer_idle_rss=$(rss_kb "$peer_pid")
else
  note "measuring ours alone: $peer_why"
fi

# ---- memory with 32 open connections ---------------------------------------------

held_rss() {
  local port=$1 pid=$2 flag=$tmp/held.$1 rss
  rm -f "$flag"
  "$gpa_load" --port "$port" --connections 32 --hold-file "$flag" --seconds 3 >/dev/null &
  hold_pid=$!
  for _ in $(seq 100); do if [ -e "$flag" ]; then break; fi; sleep 0.05; done
  rss=$(rss_kb "$pid")
  wait "$hold_pid" || true
  hold_pid=""
  if [ -e "$flag" ]; then echo "$rss"; else echo "n/a"; fi
}
ours_held_rss=$(held_rss "$ours_port" "$ours_pid")
if [ "$have_peer" = 1 ]; then peer_held_rss=$(held_rss "$peer_port" "$peer_pid"); fi

# ---- throughput runs --------------------------------------------------------------

# res/<work>.<server>.<key>: one value per repetition.
record() {
  local work=$1 server=$2 line=$3 kv
  for kv in $line; do echo "${kv#*=}" >>"$tmp/res/$work.$server.${kv%%=*}"; done
}

run_load() {
  local work=$1 server=$2 port=$3 pid=$4; shift 4
  local out extra=()
  # The peer's replies are counted when broken rather than ending the comparison;
  # ours must all be right.
  if [ "$server" = peer ]; then extra=(--count-broken); fi
  if ! out=$("$gpa_load" --port "$port" --pid "$pid" --seconds "$secs" "${extra[@]}" "$@" 2>"$tmp/load.err"); then
    note "$work against $server failed: $(cat "$tmp/load.err")"
    exit 1
  fi
  if [ -s "$tmp/load.err" ]; then note "$work against $server: $(cat "$tmp/load.err")"; fi
  record "$work" "$server" "$out"
}

works=(gpa1 gpa4 gpa32 page)
work_args() {
  case $1 in
    gpa1) echo "--connections 1" ;;
    gpa4) echo "--connections 4" ;;
    gpa32) echo "--connections 32" ;;
    page) echo "--connections 1 --get /" ;;
  esac
}

for rep in $(seq "$reps"); do
  note "repetition $rep of $reps"
  for work in "${works[@]}"; do
    # Alternate which server goes first, so drift in the machine's load evens out.
    order=(ours peer)
    if [ $((rep % 2)) -eq 0 ]; then order=(peer ours); fi
    for server in "${order[@]}"; do
      # shellcheck disable=SC2046  # the arguments are meant to split
      if [ "$server" = ours ]; then
        run_load "$work" ours "$ours_port" "$ours_pid" $(work_args "$work")
      elif [ "$have_peer" = 1 ]; then
        run_load "$work" peer "$peer_port" "$peer_pid" $(work_args "$work")
      fi
    done
  done
  if out=$("$relay_rtt" --socket "$ours_socket" --seconds "$secs" --pid "$ours_pid" 2>"$tmp/rtt.err"); then
    record socket ours "$out"
  else
    note "socket path failed: $(cat "$tmp/rtt.err")"; exit 1
  fi
done

# ---- decode + encode ---------------------------------------------------------------

codec_csv=$tmp/codec.csv
all_benchmarks=$("$bench_msg" --benchmark_list_tests=true 2>/dev/null || true)
cups_benchmarks=$(grep -i 'cups' <<<"$all_benchmarks" || true)
# Ours: one decode-and-encode case over the corpus when bench_msg has it, else
# the request decoding and encoding cases together.
ours_both=$(grep -vi 'cups' <<<"$all_benchmarks" | grep -Ei 'decodeencode|decode_encode|roundtrip' | head -n1 || true)
# The libcups side: one read-and-write case, or a read case and a write case.
peer_both=$(grep -Ei 'readwrite|read_write|roundtrip|round_trip|decodeencode' <<<"$cups_benchmarks" | head -n1 || true)
peer_read=$(grep -Ei 'read|decode' <<<"$cups_benchmarks" | head -n1 || true)
peer_write=$(grep -Ei 'write|encode' <<<"$cups_benchmarks" | head -n1 || true)
names=()
if [ -n "$ours_both" ]; then names+=("$ours_both"); else names+=(BM_DecodeRequests BM_EncodeRequests); fi
for n in "$peer_both" "$peer_read" "$peer_write"; do if [ -n "$n" ]; then names+=("$n"); fi; done
filter="^($(printf '%s\n' "${names[@]}" | sort -u | paste -sd'|'))\$"
# The results go to a file: bench_msg may print its own console table.
"$bench_msg" --benchmark_filter="$filter" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
  --benchmark_out="$codec_csv" --benchmark_out_format=csv >/dev/null 2>&1 || true
# name -> microseconds per item (1e6 / items_per_second): the median row, or
# the only row when there was one repetition.
per_item() {
  awk -F, -v name="$1" '
    /^name,/ { for (i = 1; i <= NF; i++) if ($i == "items_per_second") col = i; next }
    !col || $col <= 0 { next }
    $1 == "\"" name "_median\"" { median = 1e6 / $col }
    $1 == "\"" name "\"" { single = 1e6 / $col }
    END { if (median != "") printf "%.2f", median; else if (single != "") printf "%.2f", single }' "$codec_csv"
}
sum_items() {
  local a b
  a=$(per_item "$1"); b=$(per_item "$2")
  if [ -n "$a" ] && [ -n "$b" ]; then awk -v a="$a" -v b="$b" 'BEGIN { printf "%.2f", a + b }'; fi
}
if [ -n "$ours_both" ]; then
  ours_codec=$(per_item "$ours_both"); ours_codec_names=$ours_both
else
  ours_codec=$(sum_items BM_DecodeRequests BM_EncodeRequests); ours_codec_names="BM_DecodeRequests + BM_EncodeRequests"
fi
peer_codec=""
peer_codec_names=""
if [ -n "$peer_both" ]; then
  peer_codec=$(per_item "$peer_both"); peer_codec_names=$peer_both
elif [ -n "$peer_read" ] && [ -n "$peer_write" ]; then
  peer_codec=$(sum_items "$peer_read" "$peer_write"); peer_codec_names="$peer_read + $peer_write"
fi

# ---- the table ---------------------------------------------------------------------

median() {
  local f=$1
  [ -s "$f" ] || { echo ""; return; }
  sort -g "$f" | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
m() { median "$tmp/res/$1.$2.$3"; }
fmt() { if [ -n "$1" ]; then printf "%.${2:-0}f" "$1"; else printf "n/a"; fi; }
ratio() { if [ -n "$1" ] && [ -n "$2" ] && awk -v b="$2" 'BEGIN { exit !(b > 0) }'; then
            awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; else printf "n/a"; fi; }
row() { printf "| %-44s | %-16s | %-16s | %-9s |\n" "$1" "$2" "$3" "$4"; }

echo
echo "Medians of $reps repetitions of ${secs} s; ratio = ours / peer (peer: ippeveprinter$([ "$have_peer" = 1 ] || echo ", not measured: $peer_why"))."
row "work" "ours" "peer" "ratio"
row "--------------------------------------------" "----------------" "----------------" "---------"
for c in 1 4 32; do
  w=gpa$c
  row "GPA all, $c conn: req/s" "$(fmt "$(m $w ours rps)")" "$(fmt "$(m $w peer rps)")" \
    "$(ratio "$(m $w ours rps)" "$(m $w peer rps)")"
  row "GPA all, $c conn: latency p50 / p99 (us)" "$(fmt "$(m $w ours p50_us)") / $(fmt "$(m $w ours p99_us)")" \
    "$(fmt "$(m $w peer p50_us)") / $(fmt "$(m $w peer p99_us)")" \
    "$(ratio "$(m $w ours p50_us)" "$(m $w peer p50_us)") / $(ratio "$(m $w ours p99_us)" "$(m $w peer p99_us)")"
  # A server that serves a few connections while the others wait shows short
  # latencies for the few; the fewest and most requests per connection show it.
  row "GPA all, $c conn: requests per conn, min / max" "$(fmt "$(m $w ours conn_min_req)") / $(fmt "$(m $w ours conn_max_req)")" \
    "$(fmt "$(m $w peer conn_min_req)") / $(fmt "$(m $w peer conn_max_req)")" ""
  row "GPA all, $c conn: server CPU per request (us)" "$(fmt "$(m $w ours cpu_us_per_req)" 1)" \
    "$(fmt "$(m $w peer cpu_us_per_req)" 1)" "$(ratio "$(m $w ours cpu_us_per_req)" "$(m $w peer cpu_us_per_req)")"
  if [ "$have_peer" = 1 ] && [ -s "$tmp/res/$w.peer.broken" ]; then
    broken=$(awk '{ s += $1 } END { print s }' "$tmp/res/$w.peer.broken")
    if [ "$broken" != 0 ]; then row "GPA all, $c conn: broken replies (all reps)" "0" "$broken" ""; fi
  fi
done
row "GPA all: reply bytes" "$(fmt "$(m gpa1 ours body_bytes)")" "$(fmt "$(m gpa1 peer body_bytes)")" ""
ours_page_cpu=$(m page ours cpu_us_per_req); peer_page_cpu=$(m page peer cpu_us_per_req)
ours_page_bytes=$(m page ours body_bytes); peer_page_bytes=$(m page peer body_bytes)
per_byte() {
  if [ -n "$1" ] && [ -n "$2" ]; then awk -v c="$1" -v b="$2" 'BEGIN { printf "%.1f", c * 1000 / b }'; fi
}
ours_ns_byte=$(per_byte "$ours_page_cpu" "$ours_page_bytes")
peer_ns_byte=$(per_byte "$peer_page_cpu" "$peer_page_bytes")
row "GET / page: CPU per page (us)" "$(fmt "$ours_page_cpu" 1)" "$(fmt "$peer_page_cpu" 1)" \
  "$(ratio "$ours_page_cpu" "$peer_page_cpu")"
row "GET / page: CPU per page byte (ns)" "$(fmt "$ours_ns_byte" 1)" "$(fmt "$peer_ns_byte" 1)" \
  "$(ratio "$ours_ns_byte" "$peer_ns_byte")"
row "GET / page: bytes" "$(fmt "$ours_page_bytes")" "$(fmt "$peer_page_bytes")" ""
row "GET / page: pages/s, 1 conn" "$(fmt "$(m page ours rps)")" "$(fmt "$(m page peer rps)")" \
  "$(ratio "$(m page ours rps)" "$(m page peer rps)")"
row "decode + encode per corpus message (us)" "$(fmt "$ours_codec" 2)" \
  "$(if [ -n "$peer_codec" ]; then fmt "$peer_codec" 2; else echo "n/a"; fi)" "$(ratio "$ours_codec" "$peer_codec")"
row "socket records, GPA all: round trips/s" "$(fmt "$(m socket ours library_rtps)")" \
  "echo $(fmt "$(m socket ours echo_rtps)")" "$(ratio "$(m socket ours library_rtps)" "$(m socket ours echo_rtps)")"
row "socket records: library CPU per round trip (us)" "$(fmt "$(m socket ours library_cpu_us)" 1)" "" ""
row "RSS idle (kB)" "$ours_idle_rss" "${peer_idle_rss:-n/a}" "$(ratio "$ours_idle_rss" "${peer_idle_rss:-}")"
row "RSS with 32 keep-alive connections (kB)" "$ours_held_rss" "${peer_held_rss:-n/a}" \
  "$(ratio "$ours_held_rss" "${peer_held_rss:-}")"
per_conn() { awk -v h="$1" -v i="$2" 'BEGIN { if (h ~ /^[0-9]+$/ && i ~ /^[0-9]+$/) printf "%.0f", (h - i) / 32; else printf "n/a" }'; }
row "RSS per open connection (kB)" "$(per_conn "$ours_held_rss" "$ours_idle_rss")" \
  "$(per_conn "${peer_held_rss:-}" "${peer_idle_rss:-}")" ""
echo
if [ -z "$peer_codec" ]; then
  echo "decode + encode: ours $ours_codec_names; bench_msg has no libcups cases (yet)."
else
  echo "decode + encode: ours $ours_codec_names, libcups $peer_codec_names."
fi
echo "socket records: request record + $(fmt "$(m socket ours request_body)") body bytes, reply record +" \
  "$(fmt "$(m socket ours reply_body)") body bytes; peer column: a raw echo of the same sizes over a Unix socket."
