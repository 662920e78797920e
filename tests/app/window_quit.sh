#!/usr/bin/env bash
# The window quit by SIGTERM, as a service manager or a show controller ends it: while recording, the
# movie is finished first and complete; while idle, it quits at once. Run under with_xvfb.sh.
# Usage: window_quit.sh PATH_TO_QUORVARECORDER
set -uo pipefail
recorder=$1
# shellcheck source=tests/script_testing.sh
source "$(dirname "${BASH_SOURCE[0]}")/../script_testing.sh"
mkdir "$work/movies"
cat >"$XDG_CONFIG_HOME/org.quorva.QuorvaRecorder.json" <<JSON
{"RecorderSources": ["Test Pattern 720p30"], "RecorderFolder": "$work/movies", "RecorderName": "Signalled",
 "RecorderOutput": "separate"}
JSON
pid=0
at_exit() { [ "$pid" -eq 0 ] || kill "$pid" 2>/dev/null; }
# Starts the window; answers once its OSC port is known, in $osc.
open_window() {
    "$recorder" >"$work/$1.log" 2>&1 &
    pid=$!
    for _ in $(seq 600); do
        osc=$(sed -n 's/.*namespace of OSC port \([0-9]*\).*/\1/p' "$work/$1.log")
        [ -n "$osc" ] && return 0
        sleep 0.1
    done
    fail "the window did not start: $(tail -n 5 "$work/$1.log")"
    return 1
}
# Waits at most $2 seconds for the window to quit; its status in $status.
quits_within() {
    for _ in $(seq $(($2 * 10))); do
        kill -0 $pid 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 $pid 2>/dev/null; then
        fail "$1: still running $2 s after SIGTERM"
        kill -9 $pid
    fi
    wait $pid
    status=$?
}

if open_window recording; then
    oscsend 127.0.0.1 "$osc" /start
    sleep 3
    kill -TERM $pid
    quits_within recording 60
    [ $status -eq 0 ] || fail "quitting while recording exited with $status"
    grep -q "finishing the recording before quitting" "$work/recording.log" ||
        fail "quitting while recording did not finish the take first"
    movie=$work/movies/Signalled.mov
    frames=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets \
        -of csv=p=0 "$movie" 2>/dev/null)
    # A movie finished properly has its index: ffprobe reads its duration from it.
    duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$movie" 2>/dev/null)
    [ "${frames:-0}" -ge 45 ] || fail "the signalled take holds ${frames:-no} frames"
    awk -v d="${duration:-0}" 'BEGIN { exit !(d > 1.5) }' || fail "the signalled take lasts ${duration:-no} s"
fi

if open_window idle; then
    kill -TERM $pid
    quits_within idle 5
    [ $status -eq 0 ] || fail "quitting while idle exited with $status"
    # The signalled take's movie and its report, and nothing of the idle one.
    [ "$(ls "$work/movies" | tr '\n' ' ')" = "Signalled.html Signalled.json Signalled.mov " ] ||
        fail "quitting while idle left $(ls "$work/movies")"
fi
[ $failures -eq 0 ] || exit 1
echo "all good"
