#!/usr/bin/env bash
# End-to-end checks of cmp-ipp-printer with real clients. Each run starts the
# program on a free port with a spool and socket directory of its own, and stops
# it with SIGTERM afterwards (a program that does not stop fails the run).
#
#   printer_e2e.sh PROGRAM ipptool TESTFILE [IPPTOOL-OPTIONS...]
#   printer_e2e.sh PROGRAM spool -C|-L     a document printed chunked or with
#                                          Content-Length lands byte-identical
#   printer_e2e.sh PROGRAM page            GET / returns the attribute page
set -u

program=$1
mode=$2
shift 2

work=$(mktemp -d /tmp/cmp-ipp-e2e-XXXXXX)
pid=
cleanup() {
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
        kill -KILL "$pid" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    echo "--- program output ---" >&2
    cat "$work/out" "$work/err" >&2 2>/dev/null
    exit 1
}

mkdir -p "$work/spool" "$work/sock"
"$program" --port 0 --spool "$work/spool" --socket-dir "$work/sock" --processing-ms 300 \
    >"$work/out" 2>"$work/err" &
pid=$!

uri=
for _ in $(seq 1 200); do
    uri=$(sed -n 's/^Printer URI: *//p' "$work/out")
    [ -n "$uri" ] && break
    kill -0 "$pid" 2>/dev/null || fail "the program exited before it was ready"
    sleep 0.05
done
[ -n "$uri" ] || fail "no printer URI announced"
hostport=${uri#ipp://}
hostport=${hostport%%/*}
port=${hostport##*:}

stop_program() {
    kill -TERM "$pid"
    for _ in $(seq 1 100); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.05
    done
    kill -0 "$pid" 2>/dev/null && fail "the program did not stop on SIGTERM"
    wait "$pid"
    local rc=$?
    pid=
    [ "$rc" -eq 0 ] || fail "the program exited with $rc"
    [ -z "$(ls -A "$work/sock")" ] || fail "the socket file was left behind"
}

status=0
case "$mode" in
ipptool)
    testfile=$1
    shift
    # A small document for the tests that print one.
    printf 'Hello from the end-to-end test.\n' >"$work/document.txt"
    ipptool -T 30 -t -f "$work/document.txt" "$@" "$uri" "$testfile" || status=1
    ;;
spool)
    framing=$1
    # Several megabytes of random bytes: many body blocks, none of them aligned.
    doc="$work/document.pdf"
    { printf '%%PDF-1.4\n'; head -c 5000011 /dev/urandom; } >"$doc"
    ipptool -T 30 -t "$framing" -f "$doc" "$uri" /usr/share/cups/ipptool/print-job.test || status=1
    spooled=$(ls "$work/spool")
    [ "$(echo "$spooled" | wc -l)" -eq 1 ] || fail "expected one spool file, found: $spooled"
    cmp "$doc" "$work/spool/$spooled" || fail "the spooled document differs from the one sent"
    ;;
page)
    curl -sS --max-time 10 -o "$work/page.html" -w '%{http_code} %{content_type}\n' \
        "http://127.0.0.1:$port/" >"$work/head" || fail "GET / failed"
    read -r code type <"$work/head"
    [ "$code" = 200 ] || fail "GET / gave HTTP $code"
    case "$type" in text/html*) ;; *) fail "GET / gave content type $type" ;; esac
    grep -q "printer-uri-supported" "$work/page.html" || fail "the page lists no printer-uri-supported"
    grep -q "$uri" "$work/page.html" || fail "the page does not show the printer URI"
    ;;
*)
    fail "unknown mode $mode"
    ;;
esac

stop_program
exit $status
