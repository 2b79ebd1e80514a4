#!/usr/bin/env bash
# System calls per request of cmp-ipp-printer (front end and library together)
# for keep-alive Get-Printer-Attributes (requested-attributes "all") from
# bench/gpa_load, counted with strace -f -c over a few seconds of load.
#
#   bench/syscalls_per_request.sh [BUILD_DIR] [--connections N] [--seconds S]
#
# BUILD_DIR (default build-release) must hold cmp-ipp-printer and gpa_load.
# Prints one line per system call seen at least once per 100 requests:
# calls per request and failed calls per request, then the total. strace slows
# every call down, so the request rate under it means nothing; the counts do.
# A benchmark, not a test: CTest never runs it.
set -euo pipefail

build="build-release"
conns=1
secs=3
while [ $# -gt 0 ]; do
  case $1 in
    --connections) conns=$2; shift 2 ;;
    --seconds) secs=$2; shift 2 ;;
    -h|--help) awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "$0"; exit 0 ;;
    -*) echo "syscalls_per_request: unknown option $1" >&2; exit 2 ;;
    *) build=$1; shift ;;
  esac
done
if ! command -v strace >/dev/null; then echo "syscalls_per_request: needs strace (apt-get install strace)" >&2; exit 2; fi
printer=$build/apps/main/cmp-ipp-printer
gpa_load=$build/bench/gpa_load
for f in "$printer" "$gpa_load"; do
  if [ ! -x "$f" ]; then echo "syscalls_per_request: $f is missing; build first" >&2; exit 2; fi
done

tmp=$(mktemp -d /tmp/syscalls-XXXXXX)
printer_pid=""
strace_pid=""
cleanup() {
  local pid
  for pid in "$strace_pid" "$printer_pid"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill -INT "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

mkdir -m 700 "$tmp/spool" "$tmp/sock"
port=$("$gpa_load" --free-port)
"$printer" --port "$port" --spool "$tmp/spool" --socket-dir "$tmp/sock" >"$tmp/out" 2>"$tmp/err" &
printer_pid=$!
for _ in $(seq 100); do
  if grep -q "Printer URI" "$tmp/out" || ! kill -0 "$printer_pid" 2>/dev/null; then break; fi
  sleep 0.1
done
if ! grep -q "Printer URI" "$tmp/out"; then echo "syscalls_per_request: the printer did not start" >&2; exit 1; fi

# Connections and tasks started before the count: only the requests are counted.
"$gpa_load" --port "$port" --connections "$conns" --seconds 0.5 >/dev/null
strace -f -c -o "$tmp/strace.txt" -p "$printer_pid" 2>/dev/null &
strace_pid=$!
sleep 1
out=$("$gpa_load" --port "$port" --connections "$conns" --seconds "$secs" --warmup-ms 0)
sleep 0.3
kill -INT "$strace_pid"
wait "$strace_pid" 2>/dev/null || true
strace_pid=""
requests=$(sed -n 's/.*requests=\([0-9]*\).*/\1/p' <<<"$out")
if [ -z "$requests" ] || [ "$requests" -eq 0 ]; then echo "syscalls_per_request: no request completed" >&2; exit 1; fi

echo "$requests requests on $conns connection(s); per request:"
# strace -c rows: % time, seconds, usecs/call, calls, [errors,] syscall.
awk -v r="$requests" '
  $1 ~ /^[0-9.]+$/ && NF >= 5 && $NF != "total" {
    calls = $4; errors = (NF == 6) ? $5 : 0
    if (calls / r >= 0.01) printf "  %-16s %6.2f  (failed %.2f)\n", $NF, calls / r, errors / r
  }
  $NF == "total" { printf "  %-16s %6.2f\n", "total", $(NF - 2) / r }' "$tmp/strace.txt"
