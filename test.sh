#!/usr/bin/env bash
# Builds everything and runs all tests: ./test.sh [CTEST ARGUMENT...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-missing test
scripts/build

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
scripts/wine-run cmd /c exit

status=0
ctest --test-dir build/mingw --output-on-failure "$@" || status=$?

# The provider's own code once more, built for this machine under the sanitizers, and its instruction counts.
for preset in checked checked-tsan counted; do
    cmake --preset "$preset" -Wno-dev >"build/configure-$preset.log" 2>&1 || { cat "build/configure-$preset.log" >&2; exit 1; }
    cmake --build --preset "$preset"
    ctest --preset "$preset" "$@" || status=$?
done
exit $status
