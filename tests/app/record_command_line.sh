#!/usr/bin/env bash
# quorvarecorder's command line end to end: a take of the three test patterns, separate and assembled,
# read back with ffprobe, MediaInfo and GStreamer as an editor reads it, then in each other codec; a second
# identical take beside the first; takes ended by SIGINT and killed; the list of sources without the NDI
# runtime; and the mistakes a user makes. Usage: record_command_line.sh PATH_TO_QUORVARECORDER
# The patterns are the small ones made for tests. A slow or busy machine (a sanitised build with another
# program taking a core) may still drop some of their pictures, the assembled movie's first, as it is
# encoded at the lowest priority: every picture due must be written or counted as dropped. How many a
# machine writes is the benchmark's to measure (recording_bench).
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
        --sound 180 --duration 5 --name Show --folder "$work/movies" >"$work/$1.out" 2>"$work/$1.err" ||
        fail "$1 take exited with $?: $(cat "$work/$1.err")"
}

take first
[ "$(wc -l <"$work/first.out")" -eq 4 ] || fail "the first take lists $(wc -l <"$work/first.out") movies, not 4"
# Pictures: 5 s at each source's rate, the assembled movie at its clock source's (the first, 60), each
# one due written or counted as dropped, give or take four (the start of a take is its busiest moment),
# and every slot of the movie filled: by its picture, or by the one before it where none came in time.
while IFS=$'\t' read -r movie listed due dropped held _; do
    case $movie in
    *270p60.mov) rate=60 ;; *180p30.mov | *Alpha\ 270p30.mov) rate=30 ;; *) rate=60 assembled=$movie ;;
    esac
    frames=$(probe "$movie" v:0 nb_read_packets)
    [ "$frames" -eq $((${listed% frames} + ${held% held})) ] ||
        fail "$movie holds $frames frames, but the listing says $listed and $held"
    [ "${due% due}" -ge $((5 * rate - 4)) ] && [ "${due% due}" -le $((5 * rate + 4)) ] ||
        fail "$movie lists $due, not $((5 * rate))"
    [ $((${listed% frames} + ${dropped% dropped})) -ge $((5 * rate - 4)) ] ||
        fail "$movie has $listed written and $dropped, not $((5 * rate))"
    [ "$frames" -ge $((5 * rate - 1)) ] && [ "$frames" -le $((5 * rate + 1)) ] ||
        fail "$movie has $frames frames, not $((5 * rate))"
    editor_ready "$movie" "$rate.000" "$work/first.ready"
done <"$work/first.out"
one_take "$work/first.ready"
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
# Each take leaves its report beside its movies, under the movies' own number: every movie in it, holding
# the pictures that ffprobe decodes, and a picture of each in the page.
for stem in Show "Show 2"; do
    report=$work/movies/$stem.json page=$work/movies/$stem.html
    [ -s "$report" ] && [ -s "$page" ] || fail "no report $stem.json and $stem.html: $(ls "$work/movies")"
    [ "$(jq -r '.name, (.stop_reason | tostring), (.movies | length)' "$report" 2>/dev/null | paste -sd'|')" = "$stem|null|4" ] ||
        fail "$stem.json says: $(cat "$report")"
    while IFS=$'\t' read -r file written; do
        decoded=$(ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames \
            -of csv=p=0 "$work/movies/$file")
        [ "${decoded:-none}" = "$written" ] || fail "$stem.json: $file holds $written pictures, ffprobe decodes ${decoded:-none}"
    done < <(jq -r '.movies[] | [.file, .frames_written] | @tsv' "$report")
    [ "$(grep -o '<img src="data:image/jpeg;base64,' "$page" | wc -l)" -eq 4 ] || fail "$stem.html shows no picture of every movie"
done
grep -q "^The take's report: $work/movies/Show 2.html$" "$work/second.err" || fail "the second take did not name its report"

# The take's settings go with it; only how fast this machine encodes is kept, with the user's settings.
store=$XDG_CONFIG_HOME/org.quorva.QuorvaRecorder.json
[ "$(ls -A "$XDG_CONFIG_HOME")" = "$(basename "$store")" ] && grep -q '"EncoderSpeed"' "$store" &&
    ! grep -q '"Recorder' "$store" || fail "a take saved settings: $(ls -A "$XDG_CONFIG_HOME") $(cat "$store")"

# Every other codec, with its sound (AAC with HEVC, 24-bit PCM with ProRes), at the NTSC rates too: a
# timecode of 29.97 pictures a second counts with dropped frame numbers, as editors expect.
for codec in hevc:29.97:30000/1001 prores422:60:60 prores4444:59.94:60000/1001; do
    IFS=: read -r name fps rate <<<"$codec"
    shown=$(awk -v r="$rate" 'BEGIN { split(r, f, "/"); printf "%.3f", f[1] / (f[2] ? f[2] : 1) }')
    "$recorder" record --source 180 --source alpha --output both --layout row --sound 180 --codec "$name" \
        --fps "$fps" --duration 2 --name "$name" --folder "$work/movies" >"$work/$name.out" 2>"$work/$name.err" ||
        fail "the $name take exited with $?: $(cat "$work/$name.err")"
    : >"$work/$name.ready"
    while IFS=$'\t' read -r movie _; do
        [ "$(ffprobe -v error -select_streams a:0 -show_entries stream=codec_name -of csv=p=0 "$movie")" = \
            "$([ "$name" = hevc ] && echo aac || echo pcm_s24le)" ] || fail "$movie has the wrong sound"
        editor_ready "$movie" "$shown" "$work/$name.ready"
    done <"$work/$name.out"
    [ "$(wc -l <"$work/$name.ready")" -eq 3 ] || fail "the $name take wrote $(wc -l <"$work/$name.ready") movies"
    one_take "$work/$name.ready"
    [ "$name" != hevc ] || grep -q ';' "$work/$name.ready" || fail "no drop-frame timecode at 29.97: $(cat "$work/$name.ready")"
done

# Killed 3.5 s into a take, a movie keeps at least 2 s, and opens with what it says.
"$recorder" record --source 180 --duration 60 --name Killed --folder "$work/movies" >/dev/null 2>"$work/killed.err" &
for _ in $(seq 600); do grep -q "^Recording 3" "$work/killed.err" && break; sleep 0.05; done
sleep 0.4
kill -KILL $!
wait $! 2>/dev/null
frames=$(probe "$work/movies/Killed.mov" v:0 nb_read_packets 2>/dev/null)
[ "${frames:-0}" -ge 60 ] || fail "a take killed 3.5 s in kept ${frames:-no} pictures, not 2 s of them"
length=$(mediainfo --Inform='Video;%Duration%' "$work/movies/Killed.mov")
awk -v f="${frames:-0}" -v l="${length:-0}" 'BEGIN { exit !(l / 1000 - f / 30 < 0.05 && f / 30 - l / 1000 < 0.05) }' ||
    fail "a killed movie of ${frames:-no} pictures says it lasts ${length:-no} ms"

# SIGINT ends the take early; its movie is finished, readable and listed. Without a name, the take is
# named after the local time at which it began.
started=$(date +%s)
"$recorder" record --source 180 --duration 60 --folder "$work/movies" >"$work/int.out" 2>&1 &
for _ in $(seq 600); do grep -q "^Recording 1" "$work/int.out" && break; sleep 0.1; done
kill -INT $!
wait $!
status=$?
[ $status -eq 130 ] || fail "a take ended by SIGINT exited with $status, not 130"
movie=$(cut -f1 "$work/int.out" | grep '\.mov$' | head -1)
frames=$(probe "${movie:-none}" v:0 nb_read_packets 2>/dev/null)
[ "${frames:-0}" -gt 0 ] || fail "the interrupted take kept no movie: $(cat "$work/int.out")"
stamp='^QuorvaRecorder ([0-9]{4}-[0-9]{2}-[0-9]{2}) ([0-9]{2})\.([0-9]{2})\.([0-9]{2})\.mov$'
[[ $(basename "${movie:-none}") =~ $stamp ]] &&
    began=$(date -d "${BASH_REMATCH[1]} ${BASH_REMATCH[2]}:${BASH_REMATCH[3]}:${BASH_REMATCH[4]}" +%s) &&
    [ $((began - started)) -ge 0 ] && [ $((began - started)) -le 60 ] ||
    fail "a take without a name that began at $(date -d "@$started" '+%F %T') is called '$(basename "${movie:-none}")'"

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
2|--folder-root needs a folder that exists, not '/nonexistent'|--headless --folder-root /nonexistent
2|--headless takes only --folder-root DIR, --allow NETWORK and --bind ADDRESS, not '--gui'|--headless --gui
2|--allow needs an address or a network (address/prefix), IPv4 or IPv6, not '10.0.0.0/33'|--headless --allow 10.0.0.0/33
2|not 'recorder.local'|--headless --allow recorder.local
2|--allow needs an address or a network|--headless --allow
2|--bind needs an address of this machine, not '10.1.2.300'|--headless --bind 10.1.2.300
2|--bind needs an address of this machine, not '192.0.2.1'|--headless --bind 192.0.2.1
EOF
[ $failures -eq 0 ] || exit 1
echo "all good"
