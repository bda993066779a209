#!/usr/bin/env bash
# Runs every fuzzer for the given number of minutes (or the named ones), one after the other, under the address and the
# undefined-behaviour sanitizers. Usage: scripts/fuzz.sh MINUTES [NAME...]
# What it learns is kept in build/fuzz/corpus; an input that breaks something stays in build/fuzz/findings.
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
if [[ ! ${1-} =~ ^[0-9]+$ ]]; then
    echo "usage: scripts/fuzz.sh MINUTES [NAME...]" >&2
    exit 2
fi
minutes=$1
shift
scripts/install-deps.sh
cmake --preset fuzz >/dev/null
names=("$@")
if ((${#names[@]} == 0)); then
    for folder in tests/fuzz/corpus/*/; do names+=("$(basename "$folder")"); done
fi
cmake --build build/fuzz --target "${names[@]/#/fuzz_}"
mkdir -p build/fuzz/findings
failed=0
for name in "${names[@]}"; do
    mkdir -p "build/fuzz/corpus/$name"
    log=build/fuzz/$name.log
    echo "fuzz: $name, $minutes minutes"
    "build/fuzz/bin/fuzz_$name" -max_total_time=$((minutes * 60)) -max_len=65536 -timeout=20 -rss_limit_mb=3000 -print_final_stats=1 \
        "-artifact_prefix=build/fuzz/findings/$name-" "build/fuzz/corpus/$name" "tests/fuzz/corpus/$name" >"$log" 2>&1 || failed=1
    sed -n 's/^stat::number_of_executed_units: */    runs: /p; s/^stat::peak_rss_mb: */    peak MB: /p; /^SUMMARY\|^broken/p' "$log"
done
exit $failed
