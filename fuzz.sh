#!/usr/bin/env bash
# Fuzzes each target in turn on all cores: ./fuzz.sh MINUTES [TARGET...]
# What it learns is kept in build/fuzz/TARGET and starts the next run; an input that breaks the provider is left in
# build/fuzz/broken, and belongs into tests/fuzz/corpus/TARGET once the fault is mended.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
minutes=${1:?usage: ./fuzz.sh MINUTES [TARGET...]}
shift
targets=("$@")
[ $# -gt 0 ] || mapfile -t targets < <(ls tests/fuzz/corpus)
[ -f build/checked/build.ninja ] || cmake --preset checked >/dev/null
cmake --build --preset checked --target "${targets[@]/#/fuzz_}" >/dev/null
mkdir -p build/fuzz/broken
failed=0
for target in "${targets[@]}"; do
    mkdir -p "build/fuzz/$target"
    pids=()
    for ((core = 0; core < $(nproc); core++)); do
        "build/checked/bin/fuzz_$target" -max_total_time="$(awk "BEGIN { print int($minutes * 60) }")" -max_len=4096 \
            -print_final_stats=1 -artifact_prefix="build/fuzz/broken/$target-" \
            "build/fuzz/$target" "tests/fuzz/corpus/$target" >"build/fuzz/$target.$core.log" 2>&1 &
        pids+=($!)
    done
    result=ok
    for pid in "${pids[@]}"; do wait "$pid" || result=BROKEN; done
    [ $result = ok ] || failed=1
    awk -v target="$target" -v result="$result" '/number_of_executed_units/ { sum += $2 }
        END { printf "%-20s %12d executions  %s\n", target, sum, result }' "build/fuzz/$target".*.log
done
exit $failed
