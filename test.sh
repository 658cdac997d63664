#!/usr/bin/env bash
# Builds everything and runs all tests: ./test.sh [CTEST ARGUMENT...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

scripts/install-missing
scripts/build

# Tests change the registry and the system folder: they have Wine prefixes of their own.
export WINEPREFIX=$PWD/build/wine/test
finish() {
    for prefix in "$PWD"/build/wine/test*; do
        [ ! -d "$prefix" ] || WINEPREFIX=$prefix wineserver -k 2>/dev/null || true
    done
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
scripts/wine-run cmd /c exit

ctest --test-dir build/mingw --output-on-failure "$@"
