#!/usr/bin/env bash
# The long runs of tests/soak; docs/reliability.md tells what they show.
#   ./soak.sh [OPERATIONS]      both faces from eight threads (200000)
#   ./soak.sh --unload CYCLES   load, use, release and free
#   ./soak.sh --power-cut N     the virtual token's process is cut off N times
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

program=soak/soak_tests.exe
case ${1:-200000} in
    --unload) filter='Lifecycle.*' variable=TALVIK_UNLOAD_CYCLES count=${2:-5000} ;;
    --power-cut) filter='PowerCut.*' variable=TALVIK_POWER_CUTS count=${2:-1000} program=virtual_token_tests.exe ;;
    [0-9]*) filter='Soak.*' variable=TALVIK_SOAK_OPERATIONS count=${1:-200000} ;;
    *) sed -n 2,5p "$0" >&2; exit 2 ;;
esac
[[ $count =~ ^[0-9]+$ ]] || { echo "soak: not a number: $count" >&2; exit 2; }

scripts/install-missing test
cmake --preset mingw -Wno-dev >/dev/null
cmake --build --preset mingw --target soak_tests virtual_token_tests

# Copies and a prefix of its own: the project can be built and tested meanwhile.
kept=build/long
mkdir -p "$kept/soak"
exec 9>"$kept/lock"
flock -n 9 || { echo "soak: another run is on this machine's way" >&2; exit 1; }
cp build/mingw/bin/{talvik.exe,TalvikDSCLibrary.dll,TalvikCSP.dll} "$kept/"
cp "build/mingw/bin/$program" "$kept/$program"
export WINEPREFIX=$PWD/build/wine/soak
trap 'wineserver -k 2>/dev/null || true' EXIT
tests/e2e/install "$kept"
export "$variable=$count"
scripts/wine-run "$kept/$program" --gtest_filter="$filter"
