#!/usr/bin/env bash
# How the rate of `check` grows with cores: the same photographs judged one at a time and as many at once as there are cores, in turns, medians of five.
# Usage: bench/batch.sh [PROGRAM [PHOTOGRAPHS]]
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
program=${1:-$root/build/bench/bin/selvio-capture}
count=${2:-300}
cores=$(nproc)

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
for ((i = 0; i < count; ++i)); do
    ln -s "$root/samples/astronaut.jpg" "$work/$i.jpg"
done
rate() { # JOBS: photographs a second, with a process of its own
    local begin end
    begin=$(date +%s%N)
    "$program" check --csv --jobs "$1" "$work" >/dev/null 2>&1
    end=$(date +%s%N)
    awk "BEGIN { print $count / (($end - $begin) / 1e9) }"
}
median() { sort -n | sed -n 3p; }

for _ in 1 2 3 4 5; do
    rate 1 >>"$work/one"
    rate "$cores" >>"$work/all"
done
one=$(median <"$work/one") all=$(median <"$work/all")
awk "BEGIN { printf \"check, photographs a second: 1 core %.1f, $cores cores %.1f, ratio %.2f (at least 1.8 for 2 cores)\\n\", $one, $all, $all / $one }"
