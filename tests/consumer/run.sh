#!/usr/bin/env bash
# Adoption check: installs a build into a temporary prefix, then builds and runs
# the consumer in this directory against that prefix alone, once through the
# CMake package (find_package) and once through pkg-config, C++ and C; and asks
# the installed programs for their version. No header of the source tree is on
# any include path here. Usage: tests/consumer/run.sh BUILD_DIR
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/cmp-ipp-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "consumer: FAILED: $*" >&2
  exit 1
}

echo "---- install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# Internals stay out of the install.
for private in httpd cmp_ipp_internal.h emw_osw_test.h cmp_ipp_ippc_internal.h cmp_ipp_ipptable_index.h \
  cmp_ipp_html_writer.h cmp_ipp_dictionary_count.h; do
  if [ -n "$(find "$prefix" -name "$private")" ]; then
    fail "private $private was installed"
  fi
done
if grep -rqE 'emwOSWTest|AHTTPD_set|ahttpd' "$prefix/include"; then
  fail "an installed header declares a test hook or the HTTP task layer"
fi

pcfile=$(find "$prefix" -name cmp_ipp.pc)
[ -n "$pcfile" ] || fail "no cmp_ipp.pc installed"
libdir=$(dirname "$(dirname "$pcfile")")
export LD_LIBRARY_PATH=$libdir

echo "---- find_package(cmp_ipp CONFIG)"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" ||
  { cat "$work/cmake.log"; fail "configuring the consumer"; }
cmake --build "$work/cmake" >"$work/cmake-build.log" || { cat "$work/cmake-build.log"; fail "building the consumer"; }
"$work/cmake/consumer"
"$work/cmake/consumer_c"

echo "---- pkg-config cmp_ipp cmp_ipp_dictionary"
export PKG_CONFIG_PATH=$(dirname "$pcfile")
echo "cmp_ipp $(pkg-config --modversion cmp_ipp): $(pkg-config --cflags --libs cmp_ipp_dictionary)"
mkdir -p "$work/pc"
# shellcheck disable=SC2046  # pkg-config's flags are meant to be split
c++ -std=c++17 -Wall -Wextra -Werror -o "$work/pc/consumer" "$here/consumer.cpp" \
  $(pkg-config --cflags --libs cmp_ipp_dictionary)
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -pedantic -o "$work/pc/consumer_c" "$here/consumer.c" \
  $(pkg-config --cflags --libs cmp_ipp)
"$work/pc/consumer"
"$work/pc/consumer_c"

echo "---- installed programs"
version=$(pkg-config --modversion cmp_ipp)
for program in "$prefix"/bin/*; do
  [ -e "$program" ] || continue
  out=$(env -u LD_LIBRARY_PATH "$program" --version) || fail "$program --version"
  [ "$out" = "$(basename "$program") $version" ] || fail "$program --version said: $out"
  echo "$out"
done
echo "consumer: all checks passed"
