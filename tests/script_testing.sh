# shellcheck shell=bash
# Sourced by the tests written in shell. Each gets a folder of its own ($work, removed at exit, after the
# script's own at_exit when it defines one), a user with no saved settings and a private runtime folder
# unless its surroundings gave one, and fail(), which counts a failed check and lets the others run.
work=$(mktemp -d)
trap 'if declare -F at_exit >/dev/null; then at_exit; fi; rm -rf "$work"' EXIT
export XDG_CONFIG_HOME=$work/config HOME=$work/home
mkdir -p "$XDG_CONFIG_HOME" "$HOME"
if [ ! -w "${XDG_RUNTIME_DIR:-/nonexistent}" ]; then
    export XDG_RUNTIME_DIR=$work/runtime
    mkdir -m 700 "$XDG_RUNTIME_DIR"
fi
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
