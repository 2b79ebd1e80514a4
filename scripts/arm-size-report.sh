#!/usr/bin/env bash
# Size figures of an ARM build, for CI's log: reported, never checked.
#
#   scripts/arm-size-report.sh BUILD-DIR
#
# - text, data and bss of libcmp_ipp.so and cmp-ipp-service (the build type is
#   the build's own; CI's ARM build is MinSizeRel);
# - the resident memory (VmRSS) of cmp-ipp-service run under qemu-user, idle
#   and with 32 connections open (the library's limit), each served by a
#   connection task waiting for its request. The figure includes qemu itself
#   and its translated code, so it shows trends, not the memory a board needs.
set -euo pipefail

build=$1
service=$build/apps/service/cmp-ipp-service
sysroot=/usr/arm-linux-gnueabihf

echo "---- sizes (bytes)"
arm-linux-gnueabihf-size "$build/libcmp_ipp.so" "$service"

work=$(mktemp -d /tmp/cmp-ipp-size-XXXXXX)
pid=
holder=
cleanup() {
    local p
    for p in "$holder" "$pid"; do
        if [ -n "$p" ] && kill -0 "$p" 2>/dev/null; then kill -KILL "$p" 2>/dev/null || true; fi
    done
    rm -rf "$work"
}
trap cleanup EXIT

status_field() { awk -v f="$1:" '$1 == f { print $2 }' "/proc/$pid/status"; }

# Polls for up to a minute (emulated start-up is slow) until the command succeeds.
await() {
    for _ in $(seq 1 600); do
        if "$@"; then return 0; fi
        kill -0 "$pid" 2>/dev/null || { echo "arm-size-report: the service exited" >&2; cat "$work/err" >&2; return 1; }
        sleep 0.1
    done
    echo "arm-size-report: timed out waiting for: $*" >&2
    return 1
}

mkdir -p "$work/spool" "$work/sock"
qemu-arm -L "$sysroot" "$service" --spool "$work/spool" --socket-dir "$work/sock" >"$work/out" 2>"$work/err" &
pid=$!
await grep -q '^Printer URI:' "$work/out"
# Settled: the start-up probe connection has ended.
sleep 1
idle_rss=$(status_field VmRSS)
idle_threads=$(status_field Threads)

# 32 connections that send nothing: each keeps a connection task waiting for a
# request (up to 30 s) until they are closed.
perl -MIO::Socket::UNIX -e '
    my @held;
    for (1 .. 32) {
        push @held, IO::Socket::UNIX->new(Type => SOCK_STREAM(), Peer => $ARGV[0]) or die "connect: $!\n";
    }
    sleep 25;' "$work/sock/zyn_ipp_server" &
holder=$!
busy() { [ "$(status_field Threads)" -ge $((idle_threads + 32)) ]; }
await busy
sleep 1
busy_rss=$(status_field VmRSS)
busy_threads=$(status_field Threads)
kill "$holder" 2>/dev/null || true
wait "$holder" 2>/dev/null || true
holder=

kill -TERM "$pid"
wait "$pid"
pid=

echo "---- cmp-ipp-service under qemu-user (VmRSS, qemu included)"
printf 'idle:            %6s kB  (%s threads)\n' "$idle_rss" "$idle_threads"
printf '32 connections:  %6s kB  (%s threads)\n' "$busy_rss" "$busy_threads"
