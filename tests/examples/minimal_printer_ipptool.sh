#!/usr/bin/env bash
# The example printer behind the real front end, driven by ipptool over HTTP: a
# Get-Printer-Attributes, and a Print-Job whose document the printer counts.
#   minimal_printer_ipptool.sh MINIMAL_PRINTER CMP_IPP_FRONTEND
# Exits 77 (a skip for CTest) without ipptool.
set -u
printer=$1
frontend=$2
command -v ipptool >/dev/null || { echo "ipptool not found"; exit 77; }

work=$(mktemp -d /tmp/minimal-ipptool-XXXXXX)
mkdir -m 700 "$work/sock"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*"
    for f in "$work"/*.out "$work"/*.err "$work/report"; do [ -f "$f" ] && { echo "--- $f"; cat "$f"; }; done
    exit 1
}

# Polls a sed expression over a file until it prints something (10 s at most).
await() {
    local file=$1 expr=$2 i got
    for i in $(seq 200); do
        got=$(sed -n "$expr" "$file" 2>/dev/null | head -n 1)
        [ -n "$got" ] && { echo "$got"; return 0; }
        sleep 0.05
    done
    return 1
}

"$frontend" --port 0 --socket-dir "$work/sock" >/dev/null 2>"$work/frontend.err" &
pids+=($!)
port=$(await "$work/frontend.err" 's/.* port \([0-9]*\) (.*), relaying to .*/\1/p') || fail "the front end did not start"

GEN_UNIX_PATH="$work/sock/" "$printer" >"$work/printer.out" 2>"$work/printer.err" &
printer_pid=$!
pids+=($printer_pid)
await "$work/printer.out" '/running/p' >/dev/null || fail "the printer did not start"

head -c 100000 /dev/urandom >"$work/document.bin"
cat >"$work/minimal.test" <<'EOF'
{
    NAME "Get-Printer-Attributes"
    OPERATION Get-Printer-Attributes
    GROUP operation-attributes-tag
    ATTR charset attributes-charset utf-8
    ATTR naturalLanguage attributes-natural-language en
    ATTR uri printer-uri $uri
    STATUS successful-ok
    EXPECT attributes-charset OF-TYPE charset WITH-VALUE utf-8
    EXPECT printer-name OF-TYPE name WITH-VALUE "Minimal Printer"
    EXPECT operations-supported OF-TYPE enum WITH-VALUE 2
    EXPECT printer-state OF-TYPE enum WITH-VALUE 3
}
{
    NAME "Print-Job"
    OPERATION Print-Job
    GROUP operation-attributes-tag
    ATTR charset attributes-charset utf-8
    ATTR naturalLanguage attributes-natural-language en
    ATTR uri printer-uri $uri
    ATTR name requesting-user-name $user
    ATTR mimeMediaType document-format application/octet-stream
    FILE $filename
    STATUS successful-ok
    EXPECT job-id OF-TYPE integer WITH-VALUE >0
    EXPECT job-state OF-TYPE enum WITH-VALUE 9
}
EOF
ipptool -T 30 -t -f "$work/document.bin" "ipp://localhost:$port/ipp/print" "$work/minimal.test" >"$work/report" 2>&1 ||
    fail "ipptool reported failures"
grep -q 'Summary: .* 0 failed' "$work/report" || grep -q '<key>Successful</key>' "$work/report" ||
    fail "no ipptool summary"

kill -TERM "$printer_pid"
wait "$printer_pid"
status=$?
[ "$status" -eq 0 ] || fail "the printer exited with $status"
grep -q 'minimal_printer: 1 job(s), 100000 byte(s)' "$work/printer.out" || fail "document bytes not counted"
echo "PASS"
