#!/usr/bin/env bash
# Runs a command beside an X display of its own, drawn by the processor alone. Usage: with-display.sh [WIDTHxHEIGHT] COMMAND…
set -euo pipefail
size=1280x720
if [[ $1 =~ ^[0-9]+x[0-9]+$ ]]; then
    size=$1
    shift
fi
exec {display}< <(exec Xvfb -displayfd 1 -screen 0 "${size}x24" -nolisten tcp -noreset 2>/dev/null)
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
read -r -u "$display" number # said when it is ready
export DISPLAY=:$number GDK_BACKEND=x11 GSK_RENDERER=cairo GTK_THEME=Adwaita GTK_A11Y="${GTK_A11Y-none}"
unset WAYLAND_DISPLAY
"$@"
