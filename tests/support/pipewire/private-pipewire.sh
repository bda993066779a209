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

tear_down() {
    for server in $(jobs -p | tac); do
        kill "$server" 2>/dev/null
        wait "$server" 2>/dev/null
    done
    rm -rf "$home"
}
trap tear_down EXIT
trap 'exit 143' TERM INT HUP

# start SERVER COMMAND: the command waits until the server answers
start() {
    "$1" >"$home/log" 2>&1 </dev/null &
    timeout 10 bash -c "until $2; do sleep 0.02; done" || without "$1 does not start: $(tail -n 1 "$home/log")" "${@:3}"
}
# shellcheck disable=SC2016 # for the shell that waits
start pipewire 'test -S "$XDG_RUNTIME_DIR/pipewire-0"' "$@"
start wireplumber 'pw-cli ls Client 2>/dev/null | grep -q "WirePlumber \[export\]"' "$@"

"$@"
