#!/usr/bin/env bash
# Installs the build tree into a new prefix, moves that to another place, and builds and runs the README's example against it by both routes.
# So does the C example, with a C compiler alone. Usage: install_test.sh BUILD_DIR SOURCE_DIR LIBDIR C++_COMPILER C_COMPILER [FLAGS]
set -euo pipefail
build_dir=$1 source_dir=$2 libdir=$3 compiler=$4 c_compiler=$5
read -r -a flags <<<"${6:-}"
consumer=$source_dir/tests/install/consumer

fail() {
    printf '%s\n' "$*"
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || fail "$(<"$work/log")"
}

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
# shellcheck disable=SC2016
sed -n '/^```cpp$/,/^```$/p' "$source_dir/README.md" | sed '1d;$d' >"$work/readme_example.h"
prefix=$work/moved
quietly cmake --install "$build_dir" --prefix "$work/installed"
mv -- "$work/installed" "$prefix"
samples=$prefix/share/SelvioFacialCapture/samples

check() { # the program given must capture the simulated face and print the record
    local route=$1 program=$2 output
    output=$("$program" "$samples/astronaut.jpg" "$samples/scripts/steady.json" "${@:3}") || fail "$route: failed: $output"
    [[ $output == *'"SelvioResultCode":"SuccessVideo"'* ]] || fail "$route: unexpected output: $output"
    echo "$route: passed"
}

quietly cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_CXX_FLAGS="${flags[*]}" -DEXAMPLE_DIR="$work"
grep -q "SelvioFacialCapture_DIR:PATH=$prefix/" "$work/build/CMakeCache.txt" || fail "find_package found another package"
quietly cmake --build "$work/build"
check find_package "$work/build/consumer"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
read -r -a pkg_flags < <(pkg-config --cflags --libs --print-errors SelvioFacialCaptureLinux SelvioFacialCaptureGtk SelvioFacialCaptureSimulated)
quietly "$compiler" -std=c++20 "${flags[@]}" -I "$work" "$consumer/main.cpp" -o "$work/consumer" "${pkg_flags[@]}" "-Wl,-rpath,$prefix/$libdir"
check pkg-config "$work/consumer"

quietly cmake -S "$source_dir/tests/install/c_consumer" -B "$work/c_build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$c_compiler" -DCMAKE_C_FLAGS="${flags[*]}" -DEXAMPLE="$source_dir/examples/c/capture.c"
quietly cmake --build "$work/c_build"
check "find_package, in C" "$work/c_build/capture" "$work/selfie.jpg"
read -r -a pkg_flags < <(pkg-config --cflags --libs --print-errors SelvioFacialCaptureC)
quietly "$c_compiler" -std=c11 "${flags[@]}" "$source_dir/examples/c/capture.c" -o "$work/capture" "${pkg_flags[@]}" "-Wl,-rpath,$prefix/$libdir"
check "pkg-config, in C" "$work/capture" "$work/selfie.jpg"

[[ $("$prefix/bin/selvio-capture" devices) == *"--source 'simulated'"* ]] || fail "the installed program does not find its samples"
# As where /lib is a link to /usr/lib.
ln -s -- "$prefix/$libdir" "$work/lib"
LD_LIBRARY_PATH=$work/lib quietly "$prefix/bin/selvio-capture" check "$samples/astronaut.jpg"
echo "program: passed"
