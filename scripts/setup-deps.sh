#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the sanitizer, cross and
# fuzz builds need. Does nothing (and needs no network) when all are present.
set -euo pipefail

packages=(
  cmake
  g++
  libgtest-dev
  libgmock-dev
  googletest              # /usr/src/googletest, built from source for the ARM tests
  libbenchmark-dev
  g++-arm-linux-gnueabihf
  qemu-user
  clang
  libclang-rt-14-dev
  libmicrohttpd-dev       # the HTTP front end (apps/frontend)
  pkg-config              # finds libmicrohttpd, GnuTLS and libcrypt
  libgnutls28-dev         # TLS of the front end: ipps://, its self-signed certificate
  libcrypt-dev            # password hashes of --auth-file (crypt(3))
  cups-ipp-utils          # ipptool, for the end-to-end tests of cmp-ipp-printer
  curl                    # fetches the printer's web page in those tests
  libcups2-dev            # libcups beside the library in bench_msg (optional there)
  avahi-daemon            # DNS-SD end-to-end test: a private daemon on the system D-Bus
  avahi-utils             # avahi-browse, which finds the printer in that test
  dbus                    # the system bus avahi-daemon needs
  chromium                # headless browser that renders the status page in a test (large)
)

missing=()
for pkg in "${packages[@]}"; do
  # dpkg -s also succeeds for removed-but-not-purged packages; check the state.
  status=$(dpkg -s "$pkg" 2>/dev/null || true)
  if ! grep -q '^Status: install ok installed' <<<"$status"; then
    missing+=("$pkg")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "setup-deps: installing ${missing[*]}" >&2
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
