#!/usr/bin/env bash
# NDI from the command line, against the fake runtime, whose one sender answers discovery a second after
# the program starts looking (as a sender on the network does): record waits for it and records it, read
# back with ffprobe; a source that never comes is named as missing once the wait is over, and only it.
# Usage: record_ndi.sh PATH_TO_QUORVARECORDER PATH_TO_FAKE_LIBNDI
set -uo pipefail
recorder=$1
export QUORVA_NDI_LIBRARY=$2 FAKE_NDI_LATE_SENDER="HOST (Blue Cam)"
# shellcheck source=tests/script_testing.sh
source "$(dirname "${BASH_SOURCE[0]}")/../script_testing.sh"
mkdir "$work/movies"

"$recorder" record --source "Blue Cam" --duration 2 --output separate --name Late --folder "$work/movies" \
    >"$work/take.out" 2>"$work/take.err" || fail "the take exited with $?: $(cat "$work/take.err")"
[ "$(cut -f1 "$work/take.out")" = "$work/movies/Late.mov" ] || fail "the take listed: $(cat "$work/take.out")"
# The fake's late sender sends 320 × 180.
IFS=, read -r width height frames < <(ffprobe -v error -select_streams v:0 -count_packets \
    -show_entries stream=width,height,nb_read_packets -of csv=p=0 "$work/movies/Late.mov" 2>/dev/null)
[ "${width:-}x${height:-}" = 320x180 ] || fail "the movie is ${width:-?} × ${height:-?}, not the sender's 320 × 180"
[ "${frames:-0}" -gt 0 ] || fail "the movie holds no picture"

# The sender found late is recorded, so the take is refused for the other one alone.
"$recorder" record --source "Blue Cam" --source "Red Cam" --duration 1 --folder "$work/movies" \
    >/dev/null 2>"$work/missing.err"
status=$?
[ $status -eq 1 ] || fail "a take of a missing source exited with $status, not 1"
grep -qxF 'quorvarecorder: There is no source called “Red Cam”' "$work/missing.err" ||
    fail "a take of a missing source said: $(cat "$work/missing.err")"
[ $failures -eq 0 ] || exit 1
echo "all good"
