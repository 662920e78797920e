#!/bin/bash
# with_pipewire.sh COMMAND [ARGS...]: runs COMMAND in a PipeWire session of its own (a session bus,
# PipeWire and WirePlumber, which links streams to nodes) in a private runtime folder, and ends the
# session with it. Its exit status is COMMAND's.
set -u

runtime=$(mktemp -d "${TMPDIR:-/tmp}/quorva-pipewire-XXXXXX")
chmod 700 "$runtime"
export XDG_RUNTIME_DIR=$runtime PIPEWIRE_RUNTIME_DIR=$runtime
export DBUS_SESSION_BUS_ADDRESS=unix:path=$runtime/bus
unset PIPEWIRE_REMOTE

pids=()
end() {
    kill "${pids[@]}" 2>/dev/null
    wait "${pids[@]}" 2>/dev/null
    rm -rf "$runtime"
}
trap end EXIT

dbus-daemon --session --nofork --address="$DBUS_SESSION_BUS_ADDRESS" >"$runtime/dbus.log" 2>&1 &
pids+=($!)
pipewire >"$runtime/pipewire.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do [ -S "$runtime/pipewire-0" ] && break; sleep 0.05; done
wireplumber >"$runtime/wireplumber.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do pw-cli ls Client 2>/dev/null | grep -q WirePlumber && break; sleep 0.05; done
if ! pw-cli ls Client 2>/dev/null | grep -q WirePlumber; then
    echo "with_pipewire.sh: PipeWire or WirePlumber did not start" >&2
    tail -n 5 "$runtime"/*.log >&2
    exit 1
fi
"$@"
