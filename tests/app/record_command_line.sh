#!/usr/bin/env bash
# quorvarecorder's command line end to end: a take of the three test patterns, separate and assembled,
# read back with ffprobe; a second identical take beside the first; a take ended by SIGINT; the list of
# sources without the NDI runtime; and the mistakes a user makes. Usage: record_command_line.sh PATH_TO_QUORVARECORDER
# The patterns are the small ones made for tests, which any machine keeps up with however slow or busy
# (a sanitised build included): every picture due must be written, give or take four.
set -uo pipefail
recorder=$1
# No saved settings come in, and the take must save none.
# shellcheck source=tests/script_testing.sh
source "$(dirname "${BASH_SOURCE[0]}")/../script_testing.sh"
export QUORVA_TEST_PATTERNS=small
mkdir "$work/movies"
probe() { # FILE STREAM ENTRIES: one stream's entries, comma-separated
    ffprobe -v error -select_streams "$2" -count_packets -show_entries "stream=$3" -of csv=p=0 "$1"
}
take() {
    "$recorder" record --source "Test Pattern" --source 180 --source alpha --output both --layout grid \
        --sound 180 --duration 5 --folder "$work/movies" >"$work/$1.out" 2>"$work/$1.err" ||
        fail "$1 take exited with $?: $(cat "$work/$1.err")"
}

take first
[ "$(wc -l <"$work/first.out")" -eq 4 ] || fail "the first take lists $(wc -l <"$work/first.out") movies, not 4"
# Pictures: 5 s at each source's rate, the assembled movie at its clock source's (the first, 60), every
# one of them written and listed as due, evenly spaced.
while IFS=$'\t' read -r movie listed due _; do
    case $movie in
    *270p60.mov) rate=60 ;; *180p30.mov | *Alpha\ 270p30.mov) rate=30 ;; *) rate=60 assembled=$movie ;;
    esac
    read -r frames gap span < <(ffprobe -v error -select_streams v:0 -show_entries packet=pts_time -of csv=p=0 \
        "$movie" | sort -n | awk -v r=$rate 'NR == 1 { first = $1 } NR > 1 && $1 - last > gap { gap = $1 - last }
        { last = $1 } END { print NR, gap + 0, last - first + 1 / r }')
    [ "$frames" = "${listed% frames}" ] || fail "$movie holds $frames frames, but the listing says $listed"
    [ "${due% due}" -ge $((5 * rate - 4)) ] && [ "${due% due}" -le $((5 * rate + 4)) ] ||
        fail "$movie lists $due, not $((5 * rate))"
    [ "$frames" -ge $((5 * rate - 4)) ] && [ "$frames" -le $((5 * rate + 4)) ] ||
        fail "$movie has $frames frames, not $((5 * rate))"
    # The four pictures that the count may miss (the start of a take is its busiest moment) may be
    # missing together, and no more.
    awk -v g="$gap" -v r=$rate 'BEGIN { exit !(g < 5.5 / r) }' || fail "$movie leaves out pictures: a gap of $gap s"
    awk -v s="$span" 'BEGIN { exit !(s > 4.8 && s < 5.3) }' || fail "$movie spans $span s, not 5"
done <"$work/first.out"
# Three 16:9 sources in a grid of 2 × 2 cells of the largest, 480 × 270.
[ "$(probe "${assembled:-none}" v:0 width,height)" = "960,540" ] || fail "the assembled movie is not 960 × 540"
sound=$(ffprobe -v error -select_streams a:0 -show_entries stream=duration -of csv=p=0 "${assembled:-none}")
awk -v s="${sound:-0}" 'BEGIN { exit !(s > 4.5) }' || fail "the assembled movie has ${sound:-no} s of sound"

sums=$(cd "$work/movies" && md5sum ./*.mov)
take second
while IFS=$'\t' read -r movie _; do
    grep -qF "$movie" "$work/first.out" && fail "the second take wrote $movie again"
    [ -s "$movie" ] || fail "the second take lists $movie, which is empty or missing"
done <"$work/second.out"
(cd "$work/movies" && md5sum --quiet -c - <<<"$sums") || fail "the second take changed the first one's movies"
# The take's settings go with it; only how fast this machine encodes is kept, with the user's settings.
store=$XDG_CONFIG_HOME/org.quorva.QuorvaRecorder.json
[ "$(ls -A "$XDG_CONFIG_HOME")" = "$(basename "$store")" ] && grep -q '"EncoderSpeed"' "$store" &&
    ! grep -q '"Recorder' "$store" || fail "a take saved settings: $(ls -A "$XDG_CONFIG_HOME") $(cat "$store")"

# SIGINT ends the take early; its movie is finished, readable and listed.
"$recorder" record --source 180 --duration 60 --name Interrupted --folder "$work/movies" >"$work/int.out" 2>&1 &
for _ in $(seq 600); do grep -q "^Recording 1" "$work/int.out" && break; sleep 0.1; done
kill -INT $!
wait $!
status=$?
[ $status -eq 130 ] || fail "a take ended by SIGINT exited with $status, not 130"
frames=$(probe "$work/movies/Interrupted.mov" v:0 nb_read_packets 2>/dev/null)
[ "${frames:-0}" -gt 0 ] && grep -q "Interrupted.mov" "$work/int.out" || fail "the interrupted take kept no movie"

# Without the NDI runtime the other sources are still listed, and one line says why NDI's are not.
QUORVA_NDI_LIBRARY=$work/none/libndi.so.6 env -u QUORVA_TEST_PATTERNS "$recorder" sources >"$work/sources.out" 2>"$work/sources.err" ||
    fail "quorvarecorder sources exited with $?"
[ "$(cut -f1 "$work/sources.out")" = "Test Pattern 1080p60
Test Pattern 720p30
Test Pattern Alpha 1080p30" ] || fail "quorvarecorder sources listed: $(cat "$work/sources.out")"
[ "$(grep -c '^NDI' "$work/sources.err")" -eq 1 ] &&
    grep -qxF "NDI is off: libndi.so.6 was not found in $work/none/libndi.so.6" "$work/sources.err" ||
    fail "quorvarecorder sources said '$(cat "$work/sources.err")' of NDI"

# Mistakes: the status, and what the message says.
while IFS='|' read -r expected message arguments; do
    eval "set -- $arguments"
    # The window needs a display, which none of these has.
    output=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QUORVA_TEST_PATTERNS "$recorder" "$@" 2>&1 >/dev/null)
    status=$?
    [ $status -eq "$expected" ] || fail "quorvarecorder $arguments exited with $status, not $expected"
    grep -qF -- "$message" <<<"$output" || fail "quorvarecorder $arguments said '$output', not '$message'"
done <<'EOF'
2|unknown option '--colour'|record --source 720 --duration 1 --colour red
2|--duration|record --source 720
2|--layout must be row, column, grid or focus, not 'mosaic'|record --source 720 --duration 1 --layout mosaic
2|unknown command 'recrod'|recrod
2|no display to open the window on; record without one with 'quorvarecorder --headless'|
2|--duration must be more than 0 seconds|record --source 720 --duration 0
2|--gap must be a whole number, not '4px'|record --source 720 --duration 1 --gap=4px
1|There is no source called “Nothing Such”|record --source 'Nothing Such' --duration 1
1|No source being recorded is called “1080p60”|record --source 720 --sound 1080p60 --duration 1
EOF
[ $failures -eq 0 ] || exit 1
echo "all good"
