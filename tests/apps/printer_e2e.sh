#!/usr/bin/env bash
# End-to-end checks of cmp-ipp-printer with real clients. Each run starts the
# program on a free port with a spool and socket directory of its own, and stops
# it with SIGTERM afterwards (a program that does not stop fails the run).
#
#   printer_e2e.sh PROGRAM ipptool TESTFILE [IPPTOOL-OPTIONS...]
#   printer_e2e.sh PROGRAM spool -C|-L     a document printed chunked or with
#                                          Content-Length lands byte-identical
#   printer_e2e.sh PROGRAM page            GET / returns the attribute page
#   printer_e2e.sh PROGRAM icons           every printer-icons URI gives a PNG
#   printer_e2e.sh PROGRAM everywhere      ipp-everywhere.test (with ipp-2.0 and
#                                          ipp-1.1) on stand-in documents
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
icons)
    icons=$(ipptool -T 30 -tv "$uri" /usr/share/cups/ipptool/get-printer-attributes.test |
        sed -n 's/^ *printer-icons ([^)]*) = //p')
    [ -n "$icons" ] || fail "no printer-icons"
    for icon in ${icons//,/ }; do
        code=$(curl -sS --max-time 10 -o "$work/icon.png" -w '%{http_code} %{content_type}' "$icon") ||
            fail "GET $icon failed"
        [ "$code" = "200 image/png" ] || fail "GET $icon gave $code"
        [ "$(head -c 8 "$work/icon.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] ||
            fail "$icon is not a PNG"
    done
    ;;
everywhere)
    # The test files look for their documents beside themselves. Content does not
    # matter to the printer, only that each file is there and of its kind.
    dir=/usr/share/cups/ipptool
    cp "$dir/ipp-everywhere.test" "$dir/ipp-2.0.test" "$dir/ipp-1.1.test" "$work/"
    for f in $(sed -n 's/^[[:space:]]*FILE[[:space:]]*\([^$][^[:space:]]*\).*/\1/p' "$work"/*.test | sort -u); do
        mkdir -p "$work/$(dirname "$f")"
        case "$f" in
        *.pdf) printf '%%PDF-1.4\n1 0 obj<<>>endobj\ntrailer<<>>\n%%%%EOF\n' ;;
        *.ps) printf '%%!PS-Adobe-3.0\nshowpage\n' ;;
        *.jpg) printf '\377\330\377\340\000\020JFIF\000\001\001\000\000\001\000\001\000\000\377\331' ;;
        *.pwg) printf 'RaS2'; head -c 1796 /dev/zero ;;
        *) printf 'stand-in\n' ;;
        esac >"$work/$f"
    done
    (cd "$work" && ipptool -T 30 -t -V 2.0 -f document-a4.pdf "$uri" ipp-everywhere.test) >"$work/report" ||
        status=1
    grep -q 'Summary: .* 0 failed' "$work/report" || status=1
    # What the printer offers must really be tried, not skipped for want of it.
    for name in 'PostScript' 'Standard Sheet' '2-Up' 'job-hold-until' 'Release-Job' \
        '@ 150dpi, cmyk-8, gzip' '@ 600dpi, srgb-16, deflate'; do
        grep -F "$name" "$work/report" | grep -q '\[PASS\]' || { echo "not passed: $name"; status=1; }
    done
    [ $status -eq 0 ] || cat "$work/report"
    ;;
*)
    fail "unknown mode $mode"
    ;;
esac

stop_program
exit $status
