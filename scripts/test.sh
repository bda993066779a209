#!/usr/bin/env bash
# Installs what is missing, builds and runs every test. Usage: scripts/test.sh [--sanitizers]
#   --sanitizers   before that, build and run the tests under the address and the thread sanitizer (takes a good while longer)
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)

sanitizers=false
for argument in "$@"; do
    case $argument in
        --sanitizers) sanitizers=true ;;
        *)
            echo "usage: scripts/test.sh [--sanitizers]" >&2
            exit 2
            ;;
    esac
done

"$root/scripts/install-deps.sh"
cd -- "$root"

# The last command's last line is ctest's own closing line.
build_and_test() {
    local preset=$1
    echo "test: $preset" >&2
    cmake --preset "$preset" >/dev/null
    cmake --build "build/$preset"
    ctest --preset "$preset" --no-tests=error </dev/null
}
if $sanitizers; then
    build_and_test asan
    build_and_test tsan
fi
build_and_test dev
