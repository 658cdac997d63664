#!/usr/bin/env bash
# Measures what the provider costs, on a Debian 12 machine with nothing prepared: ./bench.sh
#
# Builds it optimised, installs it in a Wine prefix of its own with a virtual token, and compares in one run: the
# provider's entry points with the same work done on the device library itself and with the system's own software CSP,
# one thread with several, tokens with one key and with thousands, log on and log off. Leaves out/bench/bench.json and
# out/bench/bench.svg (docs/images/performance.svg is one such). A missed budget is told, and is no failure: the exit code is about the measuring.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
root=$PWD
pin=246810
state=$root/build/bench
out=$root/out/bench
bin=$root/build/mingw/bin
export WINEPREFIX=$root/build/wine/bench

windows_path() { local path=Z:$1; echo "${path//\//\\}"; }
bench() { local folder=$1; shift; timeout 1200 scripts/wine-run "$folder/talvik_bench.exe" "$@"; }
talvik() { scripts/wine-run "$bin/talvik.exe" "$@" >/dev/null; }

mkdir -p "$state/tokens" "$out"
exec 9>"$state/lock"
flock -n 9 || { echo "bench: another run is on this machine's way" >&2; exit 1; }
trap 'wineserver -k 2>/dev/null || true' EXIT

scripts/install-missing demo bench
echo "Building"
scripts/build TalvikCSP TalvikDSCLibrary talvik talvik_bench bench_listing_library >"$state/build.log" 2>&1 ||
    { tail -n 40 "$state/build.log" >&2; exit 1; }
scripts/register-csp "$bin"
scripts/wine-graphics null
scripts/log-level 2
cp "$bin/bench/talvik_bench.exe" "$bin/TalvikCSP.dll" "$bin/bench/listing/"

# A token of this run's own, in a home that no other program of this machine looks at.
export TALVIK_TOKEN_HOME
TALVIK_TOKEN_HOME=$(windows_path "$state/tokens")
rm -f "$state/tokens"/* "$state"/*.json
talvik token create --id BENCH1 --label Bench --pin "$pin"

echo "Measuring"
loads=()
for i in 1 2 3 4 5; do
    loads+=("$(windows_path "$state/load-$i.json")")
    bench "$bin/bench" load --out "${loads[-1]}"
done
bench "$bin/bench" token --pin "$pin" --out "$(windows_path "$state/token.json")"
bench "$bin/bench/listing" listing --out "$(windows_path "$state/listing.json")"
bench "$bin/bench" report "$(windows_path "$state/token.json")" "$(windows_path "$state/listing.json")" "${loads[@]}" \
    --out "$(windows_path "$out")" | tr -d '\r'
gnuplot -e "data='$out/bench.dat'; picture='$out/bench.svg'" bench/bench.gnuplot
echo
echo "Left in out/bench: bench.json, bench.svg"
