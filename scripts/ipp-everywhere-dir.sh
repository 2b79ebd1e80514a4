#!/usr/bin/env bash
# Makes DIR a place to run ipptool's ipp-everywhere.test from: a copy of the
# test files (ipp-everywhere.test includes ipp-2.0.test and ipp-1.1.test) and a
# small stand-in for every sample document they name, each of its kind.
# Usage: scripts/ipp-everywhere-dir.sh DIR
set -euo pipefail

dir=${1:?usage: $0 DIR}
tests=${IPPTOOL_TESTS:-/usr/share/cups/ipptool}
mkdir -p "$dir"
cp "$tests/ipp-everywhere.test" "$tests/ipp-2.0.test" "$tests/ipp-1.1.test" "$dir/"
for f in $(sed -n 's/^[[:space:]]*FILE[[:space:]]*\([^$][^[:space:]]*\).*/\1/p' "$dir"/*.test | sort -u); do
  mkdir -p "$dir/$(dirname "$f")"
  case "$f" in
  *.pdf) printf '%%PDF-1.4\n1 0 obj<<>>endobj\ntrailer<<>>\n%%%%EOF\n' ;;
  *.ps) printf '%%!PS-Adobe-3.0\nshowpage\n' ;;
  *.jpg) printf '\377\330\377\340\000\020JFIF\000\001\001\000\000\001\000\001\000\000\377\331' ;;
  *.pwg) printf 'RaS2'; head -c 1796 /dev/zero ;;
  *) printf 'stand-in\n' ;;
  esac >"$dir/$f"
done
echo "$dir: run ipp-everywhere.test from here"
