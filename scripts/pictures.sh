#!/usr/bin/env bash
# Makes docs/images/: the capture view in its states, from the real program on the simulated camera, in English and German. The program must be built.
# Usage: scripts/pictures.sh [PROGRAM]
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
program=${1:-$root/build/release/bin/selvio-capture}
[[ -x $program ]] || {
    echo "pictures: $program is not built" >&2
    exit 1
}
if [[ -z ${PICTURES_DISPLAY:-} ]]; then
    exec env PICTURES_DISPLAY=1 "$root/tests/support/with-display.sh" 1280x1024 "$0" "$program"
fi
images=$root/docs/images
mkdir -p "$images"
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

shoot() { # NAME
    local window
    window=$(xdotool search --name '^selvio-capture$' | tail -n 1)
    import -window "$window" -resize 320x -colors 256 -strip "$images/$1.png"
    echo "pictures: $1.png"
}

for language in en de; do
    declare -A taken=()
    coproc run {
        exec env LC_ALL="${language}_XX.UTF-8" "$program" run --preview --json --report --out "$work/out" --source simulated --timeout 30 --countdown-time 3 \
            --photo "$root/samples/astronaut.jpg" --script "$root/samples/scripts/demo.json" 2>"$work/log"
    }
    pid=$run_PID
    while read -r -u "${run[0]}" line; do
        case $line in
            *'"statuses":[1]'*) name=waiting ;;
            *'"statuses":[8'*) name=guiding ;;
            *'"statuses":[10]'*) name=countdown ;;
            *detectionSuccess*) name=done ;;
            *) continue ;;
        esac
        [[ -n ${taken[$name]:-} ]] && continue
        taken[$name]=1
        if [[ $name == done ]]; then sleep 1.2; else sleep 0.4; fi # until it is drawn, and the buttons after the first look
        shoot "$name-$language"
        [[ $name == done ]] && break
    done
    xdotool search --name '^selvio-capture$' windowfocus key Return
    wait "$pid" || { cat "$work/log" >&2; exit 1; }
    if command -v chromium >/dev/null; then # no package that anything else needs
        chromium --headless --no-sandbox --hide-scrollbars --window-size=900,1400 --screenshot="$work/report.png" "file://$work/out/report.html" >/dev/null 2>&1
        convert "$work/report.png" -trim -bordercolor white -border 10 -resize 640x -colors 64 -strip "$images/report-$language.png"
        echo "pictures: report-$language.png"
    fi
    [[ ${#taken[@]} == 4 ]] || { echo "pictures: not every state was seen" >&2; exit 1; }
done
