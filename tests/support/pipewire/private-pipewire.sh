#!/usr/bin/env bash
# Runs a command beside a PipeWire of its own, apart from the one of the desktop, with nothing shared and nothing left behind:
#
#   private-pipewire.sh COMMAND...
#
# Exits with the command's code. Where PipeWire cannot start the command runs without SELVIO_PRIVATE_PIPEWIRE.
set -u
without() {
    echo "UNAVAILABLE: $1" >&2
    shift
    env -u SELVIO_PRIVATE_PIPEWIRE "$@"
    exit
}

if [ -z "${SELVIO_PRIVATE_PIPEWIRE:-}" ]; then
    for tool in dbus-run-session pipewire wireplumber pw-cli; do
        command -v "$tool" >/dev/null || without "$tool is not installed" "$@"
    done
    exec env SELVIO_PRIVATE_PIPEWIRE=1 dbus-run-session -- "$0" "$@"
fi

home=$(mktemp -d "${TMPDIR:-/tmp}/selvio-pipewire-XXXXXX") || without "no temporary directory" "$@"
export XDG_RUNTIME_DIR=$home/run XDG_CONFIG_HOME=$home/config XDG_STATE_HOME=$home/state PIPEWIRE_RUNTIME_DIR=$home/run
mkdir -m 700 "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME" "$XDG_STATE_HOME"
unset PIPEWIRE_REMOTE DISPLAY WAYLAND_DISPLAY

pids=()
tear_down() {
    for ((i = ${#pids[@]} - 1; i >= 0; --i)); do
        kill "${pids[i]}" 2>/dev/null
        wait "${pids[i]}" 2>/dev/null
    done
    rm -rf "$home"
}
trap tear_down EXIT
trap 'exit 143' TERM INT HUP

# wait_for SECONDS CONDITION...
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.02
    done
}
manager_is_up() { pw-cli ls Client 2>/dev/null | grep -q 'WirePlumber \[export\]'; }

pipewire >"$home/pipewire.log" 2>&1 </dev/null &
pids+=($!)
wait_for 10 test -S "$XDG_RUNTIME_DIR/pipewire-0" || without "PipeWire does not start: $(tail -n 1 "$home/pipewire.log")" "$@"
wireplumber >"$home/wireplumber.log" 2>&1 </dev/null &
pids+=($!)
wait_for 10 manager_is_up || without "WirePlumber does not start: $(tail -n 1 "$home/wireplumber.log")" "$@"

"$@"
