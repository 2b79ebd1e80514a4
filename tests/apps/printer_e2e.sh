#!/usr/bin/env bash
# End-to-end checks of cmp-ipp-printer with real clients. Each run starts the
# program on a free port with a spool, socket and state directory of its own,
# and stops it with SIGTERM afterwards (a program that does not stop fails the run).
#
#   printer_e2e.sh PROGRAM ipptool TESTFILE [IPPTOOL-OPTIONS...]
#   printer_e2e.sh PROGRAM spool -C|-L     a document printed chunked or with
#                                          Content-Length lands byte-identical
#   printer_e2e.sh PROGRAM page            GET / gives the status page, GET
#                                          /attributes the attribute page, over
#                                          http and https
#   printer_e2e.sh PROGRAM icons           every printer-icons URI gives a PNG
#   printer_e2e.sh PROGRAM everywhere [ipps]  ipp-everywhere.test (with ipp-2.0
#                                          and ipp-1.1) on stand-in documents, on
#                                          the ipp:// URI or the ipps:// one
#   printer_e2e.sh PROGRAM ipps TESTFILE   ipptool TESTFILE on the ipps:// URI
#   printer_e2e.sh PROGRAM tls-only        --tls-only: ipps:// serves, plain HTTP
#                                          gets a reason, not a page
#   printer_e2e.sh PROGRAM state           the self-signed certificate: made once,
#                                          private, reused, valid for localhost
#   printer_e2e.sh PROGRAM auth            --auth-file: job operations need the
#                                          right password (401 otherwise), queries
#                                          do not; the user owns the job
#   printer_e2e.sh PROGRAM browser         headless Chromium renders the status
#                                          page (screenshot and DOM kept in
#                                          $CMP_IPP_ARTIFACTS)
#   printer_e2e.sh PROGRAM dnssd           avahi-browse finds the printer with its
#                                          TXT keys; a second one of the same name
#                                          is renamed; a stopped one disappears
#   printer_e2e.sh PROGRAM no-avahi        without D-Bus and Avahi the printer says
#                                          so and serves
#
# Exit 77 (a skip for CTest) with the reason when a tool or the rights a mode
# needs are missing. The dnssd mode starts the system D-Bus and avahi-daemon
# when none runs and it is root, and stops only what it started.
set -u

program=$1
mode=$2
shift 2

work=$(mktemp -d /tmp/cmp-ipp-e2e-XXXXXX)
pid=
pid2=
started_dbus=
started_avahi=
cleanup() {
    local p
    for p in "$pid" "$pid2"; do
        if [ -n "$p" ] && kill -0 "$p" 2>/dev/null; then
            kill -KILL "$p" 2>/dev/null
        fi
    done
    # Children of this script: waited for, so that none is left a zombie.
    if [ -n "$started_avahi" ]; then
        kill -TERM "$started_avahi" 2>/dev/null
        wait "$started_avahi" 2>/dev/null
    fi
    if [ -n "$started_dbus" ]; then
        kill -TERM "$started_dbus" 2>/dev/null
        wait "$started_dbus" 2>/dev/null
        rm -f /run/dbus/pid /run/dbus/system_bus_socket
    fi
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    echo "--- program output ---" >&2
    cat "$work"/*.out "$work"/*.err "$work/out" "$work/err" >&2 2>/dev/null
    exit 1
}

skip() {
    echo "SKIP: $*"
    exit 77
}

# The system D-Bus and avahi-daemon, started when none runs (as root only).
ensure_avahi() {
    command -v avahi-browse >/dev/null || skip "avahi-browse is not installed (Debian package avahi-utils)"
    if avahi-daemon --check 2>/dev/null; then return 0; fi
    command -v avahi-daemon >/dev/null || skip "no avahi-daemon runs and none is installed (avahi-daemon)"
    command -v dbus-daemon >/dev/null || skip "no avahi-daemon runs and there is no dbus-daemon to start it on"
    [ "$(id -u)" -eq 0 ] || skip "no avahi-daemon runs, and starting one (and the system D-Bus) needs root"
    local bus_pid
    bus_pid=$(cat /run/dbus/pid 2>/dev/null)
    if [ -z "$bus_pid" ] || ! kill -0 "$bus_pid" 2>/dev/null; then
        # A bus that went away leaves its pid file, which stops a new one from starting.
        rm -f /run/dbus/pid /run/dbus/system_bus_socket
        mkdir -p /run/dbus
        # In the foreground, as children of this script: stopped and reaped by it.
        dbus-daemon --system --nofork 2>"$work/dbus.err" &
        started_dbus=$!
        for _ in $(seq 1 50); do
            [ -S /run/dbus/system_bus_socket ] && break
            sleep 0.1
        done
        [ -S /run/dbus/system_bus_socket ] || skip "the system D-Bus did not start: $(cat "$work/dbus.err")"
    fi
    # --no-chroot: no helper process of its own that could outlive it.
    avahi-daemon --no-chroot 2>"$work/avahi.err" &
    started_avahi=$!
    for _ in $(seq 1 50); do
        avahi-daemon --check 2>/dev/null && return 0
        kill -0 "$started_avahi" 2>/dev/null || break
        sleep 0.1
    done
    skip "avahi-daemon did not come up: $(cat "$work/avahi.err")"
}

# Starts the program and waits for its URIs; sets started (its pid), uri,
# secure_uri and port. The run named "main" has $work/spool, $work/sock,
# $work/out and $work/err; another NAME has spool-NAME, sock-NAME, NAME.out and
# NAME.err. Further arguments go to the program.
start_program() {
    local name=$1 spool sock out err
    shift
    if [ "$name" = main ]; then
        spool=$work/spool sock=$work/sock out=$work/out err=$work/err
    else
        spool=$work/spool-$name sock=$work/sock-$name out=$work/$name.out err=$work/$name.err
    fi
    mkdir -p "$spool" "$sock"
    "$program" --port 0 --spool "$spool" --socket-dir "$sock" --state-dir "$work/state" --processing-ms 300 \
        "$@" >"$out" 2>"$err" &
    started=$!
    uri=
    for _ in $(seq 1 200); do
        uri=$(sed -n 's/^Printer URI: *//p' "$out")
        [ -n "$uri" ] && break
        kill -0 "$started" 2>/dev/null || fail "the program exited before it was ready"
        sleep 0.05
    done
    [ -n "$uri" ] || fail "no printer URI announced"
    secure_uri=$(sed -n 's/^Secure URI: *//p' "$out")
    local hostport=${uri#*://}
    hostport=${hostport%%/*}
    port=${hostport##*:}
}

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

# The services avahi-browse resolves for a type, one line each: "name;port;txt",
# the name's escapes as the characters they stand for.
browse() {
    avahi-browse -rtp "$1" 2>/dev/null | awk -F';' '$1 == "=" { print $4 ";" $9 ";" $10 }' |
        sed 's/\\032/ /g; s/\\035/#/g' | sort -u
}

# Waits (15 s at most) until browse $1 has a line for the name $2.
wait_browse() {
    local until=$((SECONDS + 15))
    while [ "$SECONDS" -lt "$until" ]; do
        browse "$1" >"$work/browse"
        grep -qF "$2;" "$work/browse" && return 0
        sleep 0.25
    done
    return 1
}

# Every job, finished or not, with its owner.
all_jobs() {
    cat >"$work/all-jobs.test" <<'END'
{
    NAME "Get all jobs"
    OPERATION Get-Jobs
    GROUP operation-attributes-tag
    ATTR charset attributes-charset utf-8
    ATTR naturalLanguage attributes-natural-language en
    ATTR uri printer-uri $uri
    ATTR keyword which-jobs all
    ATTR keyword requested-attributes job-id,job-state,job-name,job-originating-user-name
    STATUS successful-ok
}
END
    ipptool -T 30 -tv "$uri" "$work/all-jobs.test"
}

# One IPP attribute in wire form (names and values shorter than 256 bytes).
byte() { printf "\\$(printf '%03o' "$1")"; }
ipp_attr() {
    byte "$1"
    byte 0
    byte "${#2}"
    printf '%s' "$2"
    byte 0
    byte "${#3}"
    printf '%s' "$3"
}

# What a mode needs before the printer starts. Only the DNS-SD modes announce.
args=(--no-dnssd)
case "$mode" in
tls-only) args+=(--tls-only) ;;
auth)
    printf 'wonderland\n' | "$program" --hash-password >"$work/hash" || fail "--hash-password failed"
    printf '# end-to-end test users\nalice:%s\n' "$(cat "$work/hash")" >"$work/users"
    chmod 600 "$work/users"
    args+=(--auth-file "$work/users")
    ;;
browser)
    browser=$(command -v chromium || command -v chromium-browser) ||
        skip "headless Chromium is not installed (Debian package chromium)"
    ;;
dnssd)
    ensure_avahi
    name="E2E-Printer-$$"
    args=(--name "$name")
    ;;
no-avahi)
    # A bus address where there is none: as on a machine without D-Bus.
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/no-such-bus"
    args=()
    ;;
esac
start_program main "${args[@]}"
pid=$started

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
    for scheme in http https; do
        curl -sSk --max-time 10 -o "$work/page.html" -w '%{http_code} %{content_type}\n' \
            "$scheme://localhost:$port/" >"$work/head" || fail "GET / failed ($scheme)"
        read -r code type <"$work/head"
        [ "$code" = 200 ] || fail "GET / gave HTTP $code ($scheme)"
        case "$type" in text/html*) ;; *) fail "GET / gave content type $type" ;; esac
        grep -q 'id="printer-state">Idle</p>' "$work/page.html" || fail "the status page does not say Idle"
        grep -q '<a href="/attributes">' "$work/page.html" || fail "the status page has no link to the attributes"
        grep -qF "$uri" "$work/page.html" || fail "the status page does not show the printer URI"
        # The attribute page, as the library's diagnostic page has it.
        curl -sSk --max-time 10 -o "$work/attributes.html" "$scheme://localhost:$port/attributes" ||
            fail "GET /attributes failed ($scheme)"
        grep -q "printer-uri-supported" "$work/attributes.html" || fail "the attribute page lists no printer-uri-supported"
        grep -qF "$uri" "$work/attributes.html" || fail "the attribute page does not show the printer URI"
        code=$(curl -sSk --max-time 10 -o /dev/null -w '%{http_code}' "$scheme://localhost:$port/jobs/1")
        [ "$code" = 404 ] || fail "GET /jobs/1 without a job gave $code"
    done
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
    target=$uri
    if [ "${1:-}" = ipps ]; then
        [ -n "$secure_uri" ] || fail "no ipps:// URI announced"
        target=$secure_uri
    fi
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
    (cd "$work" && ipptool -T 30 -t -V 2.0 -f document-a4.pdf "$target" ipp-everywhere.test) >"$work/report" ||
        status=1
    grep -q 'Summary: .* 0 failed' "$work/report" || status=1
    # What the printer offers must really be tried, not skipped for want of it.
    for name in 'PostScript' 'Standard Sheet' '2-Up' 'job-hold-until' 'Release-Job' \
        '@ 150dpi, cmyk-8, gzip' '@ 600dpi, srgb-16, deflate'; do
        grep -F "$name" "$work/report" | grep -q '\[PASS\]' || { echo "not passed: $name"; status=1; }
    done
    [ $status -eq 0 ] || cat "$work/report"
    ;;
ipps)
    testfile=$1
    shift
    [ -n "$secure_uri" ] || fail "no ipps:// URI announced"
    case "$secure_uri" in ipps://*) ;; *) fail "the secure URI is $secure_uri" ;; esac
    printf 'Hello over TLS.\n' >"$work/document.txt"
    ipptool -T 30 -t -f "$work/document.txt" "$@" "$secure_uri" "$testfile" || status=1
    ;;
tls-only)
    case "$uri" in ipps://*) ;; *) fail "--tls-only announced $uri" ;; esac
    [ -z "$secure_uri" ] || fail "--tls-only announced a second URI"
    grep -q "^Web page: *https://" "$work/out" || fail "--tls-only announced a plain web page"
    ipptool -T 30 -t "$uri" /usr/share/cups/ipptool/get-printer-attributes.test || status=1
    code=$(curl -sS --max-time 10 -o "$work/plain" -w '%{http_code}' "http://localhost:$port/")
    [ "$code" = 400 ] || fail "plain HTTP gave $code"
    grep -q "HTTPS" "$work/plain" || fail "plain HTTP got no reason: $(cat "$work/plain")"
    ;;
state)
    dir=$work/state
    grep -q "made a self-signed TLS certificate" "$work/err" || fail "no certificate made at the first start"
    [ "$(stat -c %a "$dir")" = 700 ] || fail "state directory mode $(stat -c %a "$dir")"
    for f in localhost.crt localhost.key; do
        [ "$(stat -c %a "$dir/$f")" = 600 ] || fail "$f mode $(stat -c %a "$dir/$f")"
    done
    # The certificate served is the one kept, and it is good for localhost.
    curl -sS --max-time 10 --cacert "$dir/localhost.crt" -o /dev/null "https://localhost:$port/" ||
        fail "https://localhost does not verify against the kept certificate"
    before=$(cksum <"$dir/localhost.crt")
    stop_program
    start_program main
    pid=$started
    grep -q "made a self-signed" "$work/err" && fail "a second start made a new certificate"
    [ "$(cksum <"$dir/localhost.crt")" = "$before" ] || fail "the certificate changed"
    curl -sS --max-time 10 --cacert "$dir/localhost.crt" -o /dev/null "https://localhost:$port/" ||
        fail "the second start serves another certificate"
    ;;
auth)
    ipptool -T 30 -tv "$uri" /usr/share/cups/ipptool/get-printer-attributes.test >"$work/gpa" ||
        fail "Get-Printer-Attributes needs no password, but failed"
    grep -q "uri-authentication-supported (1setOf keyword) = basic,basic" "$work/gpa" ||
        fail "uri-authentication-supported: $(grep uri-authentication "$work/gpa")"
    # A Print-Job by hand over TLS, by a client that calls itself mallory.
    {
        printf '\002\000\000\002\000\000\000\001\001'
        ipp_attr 71 attributes-charset utf-8
        ipp_attr 72 attributes-natural-language en
        ipp_attr 69 printer-uri "$secure_uri"
        ipp_attr 66 requesting-user-name mallory
        printf '\003Hello from curl.\n'
    } >"$work/print-job.ipp"
    post() {
        curl -sSk --max-time 20 -o "$work/reply" -D "$work/headers" -w '%{http_code}' \
            -H 'Content-Type: application/ipp' --data-binary @"$work/print-job.ipp" "$@" \
            "https://localhost:$port/ipp/print"
    }
    code=$(post) || fail "POST without credentials failed"
    [ "$code" = 401 ] || fail "Print-Job without credentials gave $code"
    grep -qi '^WWW-Authenticate: Basic realm="Reference Printer"' "$work/headers" ||
        fail "no Basic challenge: $(cat "$work/headers")"
    code=$(post -u alice:wrong) || fail "POST with a wrong password failed"
    [ "$code" = 401 ] || fail "Print-Job with a wrong password gave $code"
    code=$(post -u alice:wonderland) || fail "POST with the password failed"
    [ "$code" = 200 ] || fail "Print-Job with the password gave $code"
    [ "$(od -An -tx1 -j2 -N2 "$work/reply" | tr -d ' \n')" = 0000 ] || fail "Print-Job was not successful-ok"
    # ipptool with the user in the URI, as a print dialog would ask for it.
    printf 'Hello from ipptool.\n' >"$work/document.txt"
    ipptool -T 30 -t -f "$work/document.txt" "${secure_uri/:\/\//://alice:wonderland@}" \
        /usr/share/cups/ipptool/print-job.test </dev/null || fail "ipptool with the password did not print"
    all_jobs >"$work/jobs" || fail "Get-Jobs needs no password, but failed"
    owners=$(sed -n 's/^ *job-originating-user-name ([^)]*) = //p' "$work/jobs" | sort | uniq -c | tr -s ' ')
    [ "$owners" = " 2 alice" ] || fail "the two jobs are owned by \"$owners\", not by the authenticated alice"
    ;;
browser)
    # A finished job, and a held one whose name needs escaping.
    cat >"$work/jobs.test" <<'END'
{
    NAME "Print-Job"
    OPERATION Print-Job
    GROUP operation-attributes-tag
    ATTR charset attributes-charset utf-8
    ATTR naturalLanguage attributes-natural-language en
    ATTR uri printer-uri $uri
    ATTR name requesting-user-name pat
    ATTR name job-name "Quarterly report"
    ATTR mimeMediaType document-format text/plain
    FILE $filename
    STATUS successful-ok
}
{
    NAME "Create-Job, held"
    OPERATION Create-Job
    GROUP operation-attributes-tag
    ATTR charset attributes-charset utf-8
    ATTR naturalLanguage attributes-natural-language en
    ATTR uri printer-uri $uri
    ATTR name requesting-user-name sam
    ATTR name job-name "<b>Held</b> & waiting"
    GROUP job-attributes-tag
    ATTR keyword job-hold-until indefinite
    STATUS successful-ok
}
END
    printf 'Hello from the browser test.\n' >"$work/document.txt"
    ipptool -T 30 -t -f "$work/document.txt" "$uri" "$work/jobs.test" || fail "the jobs were not made"
    # Until the first job is printed.
    for _ in $(seq 1 100); do
        curl -sS --max-time 5 "http://localhost:$port/" | grep -q 'id="printer-state">Idle' && break
        sleep 0.1
    done
    artifacts=${CMP_IPP_ARTIFACTS:-$work/artifacts}
    mkdir -p "$artifacts"
    flags=(--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
        --disable-component-update --disable-sync --window-size=1100,1300)
    timeout 90 "$browser" "${flags[@]}" --user-data-dir="$work/profile-dom" --dump-dom "http://localhost:$port/" \
        >"$artifacts/status-page.dom.html" 2>"$work/chromium.err" || fail "Chromium did not render the page"
    timeout 90 "$browser" "${flags[@]}" --user-data-dir="$work/profile-shot" \
        --screenshot="$artifacts/status-page.png" "http://localhost:$port/" 2>>"$work/chromium.err" ||
        fail "Chromium took no screenshot"
    [ "$(head -c 8 "$artifacts/status-page.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] ||
        fail "the screenshot is not a PNG"
    [ "$(stat -c %s "$artifacts/status-page.png")" -gt 10000 ] || fail "the screenshot is nearly empty"
    # The page's text as the browser built it: the state in words, a row per job.
    dom=$(tr '\n' ' ' <"$artifacts/status-page.dom.html")
    text=$(sed -e 's/<[^>]*>/ /g' -e 's/  */ /g' <<<"$dom")
    for want in 'Status Idle' 'Quarterly report pat Completed Printed' \
        '&lt;b&gt;Held&lt;/b&gt; &amp; waiting sam Held Held until released; Waiting for its document' \
        'What it accepts' 'All printer attributes'; do
        grep -qF -- "$want" <<<"$text" || fail "the rendered page lacks \"$want\""
    done
    grep -q '<tr id="job-1"><td><a href="/jobs/1">1</a>' <<<"$dom" || fail "no link to job 1's page"
    grep -q '<tr id="job-2">' <<<"$dom" || fail "no row for job 2"
    grep -q '<b>Held</b>' <<<"$dom" && fail "a job name went into the page unescaped"
    echo "screenshot: $artifacts/status-page.png"
    ;;
dnssd)
    wait_browse _ipp._tcp "$name" || fail "avahi-browse does not find $name: $(cat "$work/browse")"
    line=$(grep -F "$name;" "$work/browse" | grep -v '#' | head -n1)
    [ "$(cut -d';' -f2 <<<"$line")" = "$port" ] || fail "announced on another port: $line"
    uuid=$(ipptool -T 30 -tv "$uri" /usr/share/cups/ipptool/get-printer-attributes.test |
        sed -n 's/^ *printer-uuid (uri) = urn:uuid://p')
    [ -n "$uuid" ] || fail "no printer-uuid"
    for key in '"txtvers=1"' '"qtotal=1"' '"rp=ipp/print"' '"ty=Reference Printer R1"' \
        "\"adminurl=http://localhost:$port/\"" '"product=(Reference Printer R1)"' \
        '"pdl=application/octet-stream,application/pdf,application/postscript,image/jpeg,image/pwg-raster,text/plain"' \
        '"Color=T"' '"Duplex=T"' "\"UUID=$uuid\"" '"PaperMax=legal-A4"' '"kind=document,envelope,photo"' \
        '"printer-type=0x10DC"' '"note="'; do
        grep -qF -- "$key" <<<"$line" || fail "TXT of _ipp._tcp lacks $key: $line"
    done
    wait_browse _ipps._tcp "$name" || fail "no _ipps._tcp for $name: $(cat "$work/browse")"
    secure=$(grep -F "$name;" "$work/browse" | head -n1)
    for key in '"TLS=1.2"' "\"adminurl=https://localhost:$port/\"" "\"UUID=$uuid\""; do
        grep -qF -- "$key" <<<"$secure" || fail "TXT of _ipps._tcp lacks $key: $secure"
    done
    wait_browse _print._sub._ipp._tcp "$name" || fail "$name is not found under the _print subtype"
    wait_browse _print._sub._ipps._tcp "$name" || fail "$name is not found under the _print subtype of _ipps"
    # A second printer of the same name takes another one, as Avahi advises.
    first_port=$port
    start_program second --name "$name"
    pid2=$started
    wait_browse _ipp._tcp "$name #2" || fail "the second printer was not renamed: $(cat "$work/browse")"
    grep -qF "$name #2;$port;" "$work/browse" || fail "the renamed printer is not on its port: $(cat "$work/browse")"
    grep -qF "is taken; announcing as \"$name #2\"" "$work/second.err" || fail "the rename was not told"
    grep -qF "$name;$first_port;" "$work/browse" || fail "the first printer lost its name"
    # Gone with its program.
    kill -TERM "$pid2"
    wait "$pid2"
    pid2=
    gone=$((SECONDS + 15))
    while [ "$SECONDS" -lt "$gone" ]; do
        browse _ipp._tcp >"$work/browse"
        grep -qF "$name #2;" "$work/browse" || break
        sleep 0.25
    done
    grep -qF "$name #2;" "$work/browse" && fail "a stopped printer is still announced"
    ;;
no-avahi)
    grep -q "DNS-SD: not announced, no Avahi daemon" "$work/err" ||
        fail "no word about the missing daemon: $(cat "$work/err")"
    ipptool -T 30 -t "$uri" /usr/share/cups/ipptool/get-printer-attributes.test || status=1
    ;;
*)
    fail "unknown mode $mode"
    ;;
esac

stop_program
exit $status
