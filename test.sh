#!/usr/bin/env bash
# Runs the tests, and builds before what they need.
#
#   ./test.sh                  all tests
#   ./test.sh -R e2e           the tests whose names match, and what these need; -E leaves out those that match
#   ./test.sh -N               lists the tests
#   ./test.sh --help           shows this
#
# Every other argument is passed on to ctest as well. The tests come from four builds, each in build/PRESET:
#
#   mingw          the release for Windows, its tests under Wine
#   checked        unit tests, many-thread tests and fuzz targets under the address and undefined behaviour sanitizers
#   checked-tsan   the many-thread tests under the thread sanitizer
#   counted        instruction counts
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
case ${1:-} in -h | --help) sed -n '2,/^set/ { /^#/s/^# \{0,1\}//p }' "$0"; exit ;; esac

scripts/install-missing test

# The files that the chosen tests of a preset need, as the build names them.
needed_files() {
    ctest --preset "$1" --show-only=json-v1 "${@:2}" |
        sed -n '/"REQUIRED_FILES"/,/\]/ s|^ *"'"$PWD/build/$1"'/\(.*\)",*$|\1|p' | sort -u
}
is_listing() { local argument; for argument; do case $argument in -N | --show-only*) return 0 ;; esac; done; return 1; }

# Tests change the registry and the system folder: they have Wine prefixes of their own.
export WINEPREFIX=$PWD/build/wine/test
finish() {
    for prefix in "$PWD"/build/wine/*/; do
        case $prefix in */demo/) ;; *) WINEPREFIX=$prefix wineserver -k 2>/dev/null || true ;; esac
    done
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

status=0
mkdir -p build
for preset in mingw checked checked-tsan counted; do
    cmake --preset "$preset" -Wno-dev >"build/configure-$preset.log" 2>&1 || { cat "build/configure-$preset.log" >&2; exit 1; }
    if ! is_listing "$@"; then
        mapfile -t needed < <(needed_files "$preset" "$@")
        [ ${#needed[@]} -gt 0 ] || continue
        cmake --build --preset "$preset" --target "${needed[@]}"
        [ $preset != mingw ] || scripts/wine-run cmd /c exit
    fi
    ctest --preset "$preset" "$@" || status=$?
done
exit $status
