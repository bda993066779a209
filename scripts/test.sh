#!/usr/bin/env bash
# Installs what is missing, builds and runs every test. Usage: scripts/test.sh [--component-sanitizers | --sanitizers]
#   --component-sanitizers   then the tests of the component, the simulated camera and the vision adapter under the
#                            address and the thread sanitizer
#   --sanitizers             then every test under both (takes a good while longer)
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

component=(base_test imaging_test platform_test model_test telemetry_test analyzer_test selvio_camera_test simulated_test
           vision_test)
sanitized=()  # the test programs; none: no sanitizer
case $* in
    "") ;;
    --component-sanitizers) sanitized=("${component[@]}") ;;
    --sanitizers) sanitized=(all) ;;
    *)
        echo "usage: scripts/test.sh [--component-sanitizers | --sanitizers]" >&2
        exit 2
        ;;
esac

scripts/install-deps.sh

# build_and_test PRESET PROGRAM...: the last command's last line is ctest's own closing line.
build_and_test() {
    local preset=$1 labels=()
    shift
    if [[ $1 != all ]]; then labels=(-L "^($(IFS='|' && echo "$*"))\$"); fi
    echo "test: $preset" >&2
    cmake --preset "$preset" >/dev/null
    cmake --build "build/$preset" --target "$@"
    ctest --preset "$preset" "${labels[@]}" --no-tests=error </dev/null
}
build_and_test dev all
if ((${#sanitized[@]})); then
    build_and_test asan "${sanitized[@]}"
    build_and_test tsan "${sanitized[@]}"
fi
