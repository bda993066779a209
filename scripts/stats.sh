#!/usr/bin/env bash
# Prints how many lines of code and of tests each folder has: neither blank nor only a comment. Usage: scripts/stats.sh
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

# The lines of the files that git tracks under the given path specifications.
count() {
    git ls-files -z -- "$@" | grep -zE '\.(c|cc|cpp|h|hpp|py|sh)$' | xargs -0r cat | grep -cvE '^\s*(//.*|#[^i].*)?$' || true
}
product=(analyzer apps base c camera examples imaging include model platform/capture platform/gtk platform/linux platform/simulated ':(glob)platform/*' python telemetry)
for folder in "${product[@]}"; do
    printf '%6d  %s\n' "$(count "$folder")" "$folder"
done
code=$(count "${product[@]}")
tests=$(count tests)
printf '%6d  product\n%6d  tests, %s of the product\n' "$code" "$tests" "$(awk "BEGIN { printf \"%.2f\", $tests / $code }")"
