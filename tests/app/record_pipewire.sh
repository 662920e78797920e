#!/usr/bin/env bash
# quorvarecorder recording another program's pictures through PipeWire, run inside a session of its own
# (tests/sources/with_pipewire.sh): the publisher is listed, a take of it has its size and the pictures it
# published, in their colours; a publisher that leaves mid-take and returns at another size is recorded
# on, fitted into the movie's size; one that pauses keeps a movie of constant rate and of the take's
# length; and the computer's sound (a tone played into a null sink) is recorded
# in step with the pictures, or its absence said. Usage: record_pipewire.sh PATH_TO_QUORVARECORDER
# The publisher's pictures are small enough for any machine, however slow or busy, to keep every one.
set -u
recorder=$1
# shellcheck source=tests/script_testing.sh
source "$(dirname "${BASH_SOURCE[0]}")/../script_testing.sh"
mkdir "$work/movies"
publisher=0
publish() { # WIDTH HEIGHT PATTERN: StageCam, 30 pictures a second
    gst-launch-1.0 videotestsrc pattern="$3" ! "video/x-raw,width=$1,height=$2,framerate=30/1" ! videoconvert \
        ! video/x-raw,format=BGRx ! pipewiresink mode=provide \
        stream-properties="props,media.class=Video/Source,node.description=StageCam" >"$work/publisher.log" 2>&1 &
    publisher=$!
    # Listed, and waiting for a stream: GStreamer's pipewiresink may never send to one linked earlier.
    for _ in $(seq 100); do
        grep -q PREROLLING "$work/publisher.log" && "$recorder" sources 2>/dev/null | grep -q '^StageCam' && return
        sleep 0.1
    done
    fail "the publisher was not listed"
}
at_exit() { kill $publisher 2>/dev/null; }
pixel() { # MOVIE X Y: the last picture's red, green and blue there
    ffmpeg -v error -sseof -0.3 -i "$1" -vf "crop=2:2:$2:$3" -frames:v 1 -f rawvideo -pix_fmt rgb24 - |
        head -c 3 | od -An -tu1
}
near() { # "R G B" "R G B": within what the encoder's rounding allows
    awk -v a="$1" -v b="$2" 'BEGIN { split(a, x); split(b, y)
        for (i = 1; i <= 3; i++) if (x[i] - y[i] > 24 || y[i] - x[i] > 24) exit 1 }'
}

publish 640 360 smpte
listing=$("$recorder" sources 2>/dev/null | grep '^StageCam')
[ "$listing" = $'StageCam - gst-launch-1.0\tpipewire\tgst-launch-1.0' ] || fail "the publisher is listed as '$listing'"

"$recorder" record --source StageCam --duration 5 --folder "$work/movies" >"$work/take.out" 2>"$work/take.err" ||
    fail "the take exited with $?: $(cat "$work/take.err")"
IFS=$'\t' read -r movie _ <"$work/take.out"
size=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0 "$movie")
[ "$size" = 640,360 ] || fail "the movie is $size, not the publisher's 640 × 360"
frames=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$movie")
[ "${frames:-0}" -ge 146 ] && [ "${frames:-0}" -le 154 ] || fail "the movie holds $frames pictures, not the 150 published"
# SMPTE's bars: white at the top left, blue at the top right.
near "$(pixel "$movie" 20 20)" "255 255 255" || fail "the top left is $(pixel "$movie" 20 20), not white"
near "$(pixel "$movie" 620 20)" "0 0 255" || fail "the top right is $(pixel "$movie" 620 20), not blue"

# The publisher leaves a second into the take and returns square and green: the take goes on, and the
# square is fitted into the movie between black bars. (A fresh publisher: GStreamer's pipewiresink of
# PipeWire 0.3.65 sends nothing to a stream linked a second or more after the last one left.)
kill $publisher
wait $publisher 2>/dev/null
publish 640 360 smpte
"$recorder" record --source StageCam --duration 6 --name Returns --folder "$work/movies" >"$work/returns.out" \
    2>"$work/returns.err" &
take=$!
for _ in $(seq 100); do grep -q "^Recording 1" "$work/returns.err" && break; sleep 0.1; done
kill $publisher
wait $publisher 2>/dev/null
sleep 1
publish 320 320 green
wait $take || fail "the take of a publisher that left exited with $?: $(cat "$work/returns.err")"
movie=$work/movies/Returns.mov
size=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0 "$movie")
[ "$size" = 640,360 ] || fail "the movie of a publisher that returned is $size, not 640 × 360"
near "$(pixel "$movie" 320 180)" "0 255 0" || fail "the returned publisher shows $(pixel "$movie" 320 180), not green"
near "$(pixel "$movie" 20 180)" "0 0 0" || fail "beside the square is $(pixel "$movie" 20 180), not black"

# The computer's sound. Without an output to listen to, a take records its pictures and says why its sound
# is silent.
"$recorder" record --source 720 --sound computer --output assembled --duration 2 --name Unheard \
    --folder "$work/movies" >"$work/unheard.out" 2>"$work/unheard.err" ||
    fail "the take without an output exited with $?: $(cat "$work/unheard.err")"
grep -qF "The computer's sound is not recorded: no sound output to listen to" "$work/unheard.err" ||
    fail "the take without an output said: $(cat "$work/unheard.err")"

# A null sink becomes the default output, and a 440 Hz tone plays into it at half of full scale.
pw-cli create-node adapter '{ factory.name=support.null-audio-sink node.name=quorva-speakers
    node.description=Speakers media.class=Audio/Sink object.linger=true audio.position=[FL FR] }' >/dev/null
for _ in $(seq 50); do wpctl status | grep -q '\*.*Speakers' && break; sleep 0.1; done
gst-launch-1.0 -q audiotestsrc freq=440 volume=0.5 ! audio/x-raw,format=F32LE,rate=48000,channels=2 \
    ! pipewiresink >/dev/null 2>&1 &
tone=$!
at_exit() { kill $publisher $tone 2>/dev/null; }
sleep 1
sound() { # MOVIE: the frequency and peak of its left channel from 0.5 s to 3.5 s, and when it is first loud
    ffmpeg -v error -i "$1" -map 0:a -af "pan=mono|c0=c0" -f f32le - | od -An -f -v -w4 | awk '
        { x = $1 + 0; n++; if (!loud && (x > 0.2 || x < -0.2)) loud = n / 48000 }
        n > 24000 && n <= 168000 { if (x > peak) peak = x; if (n > 24001 && (x < 0) != (last < 0)) c++; last = x }
        END { printf "%.1f %.3f %.4f\n", c / 2 / 3, peak, loud }'
}
# FREQUENCY PEAK FIRST MOVIE: the movie's sound is the tone (within 2 % and 10 %), and it begins with the
# first picture, within one picture (1/30 s).
heard() {
    read -r frequency peak first < <(sound "$4")
    start=$(ffprobe -v error -select_streams v:0 -show_entries stream=start_time -of csv=p=0 "$4")
    # The decoded sound begins at its stream's start, before 0 by the AAC encoder's priming.
    first=$(awk -v f="$first" -v s="$(ffprobe -v error -select_streams a:0 -show_entries stream=start_time \
        -of csv=p=0 "$4")" 'BEGIN { printf "%.4f", f + s }')
    awk -v f="$frequency" -v p="$peak" -v e="$1" -v l="$2" 'BEGIN {
        exit !(f > e * 0.98 && f < e * 1.02 && (l == 0 || (p > l * 0.9 && p < l * 1.1))) }' ||
        fail "$4 sounds at $frequency Hz with a peak of $peak, not $1 Hz at ${2/0/its level}"
    [ "$3" = first ] || return 0
    awk -v a="$first" -v v="${start:-9}" 'BEGIN { exit !(a - v < 1 / 30 && v - a < 1 / 30) }' ||
        fail "$4's sound begins at $first s, its pictures at $start s"
}
"$recorder" record --source 720 --sound computer --output assembled --duration 4 --name Heard \
    --folder "$work/movies" >"$work/heard.out" 2>"$work/heard.err" ||
    fail "the take of the computer's sound exited with $?: $(cat "$work/heard.err")"
heard 440 0.5 first "$work/movies/Heard.mov"

# Separate movies: another program's pictures take the computer's sound, a test pattern keeps its own.
# The publisher pauses for a second mid-take: its movie shows its last picture meanwhile, keeps its
# constant rate and lasts as long as the other.
kill $publisher
wait $publisher 2>/dev/null
publish 640 360 smpte
"$recorder" record --source StageCam --source 720 --sound computer --output separate --duration 4 \
    --name Apart --folder "$work/movies" >"$work/apart.out" 2>"$work/apart.err" &
take=$!
for _ in $(seq 100); do grep -q "^Recording 1" "$work/apart.err" && break; sleep 0.1; done
kill -STOP $publisher
sleep 1
kill -CONT $publisher
wait $take || fail "the separate take exited with $?: $(cat "$work/apart.err")"
heard 440 0.5 first "$work/movies/Apart — StageCam - gst-launch-1.0.mov"
heard 1000 0 - "$work/movies/Apart — Test Pattern 720p30.mov"
: >"$work/apart.ready"
while IFS=$'\t' read -r movie _ _ _ held _; do
    editor_ready "$movie" 30.000 "$work/apart.ready"
    case $movie in *StageCam*) [ "${held% held}" -ge 20 ] || fail "the paused publisher's movie held $held" ;; esac
done <"$work/apart.out"
one_take "$work/apart.ready"

[ $failures -eq 0 ] || exit 1
echo "PipeWire recording: all checks passed"
