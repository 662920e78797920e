#!/usr/bin/env bash
# quorvarecorder recording another program's pictures through PipeWire, run inside a session of its own
# (tests/sources/with_pipewire.sh): the publisher is listed, a take of it has its size and the pictures it
# published, in their colours; and a publisher that leaves mid-take and returns at another size is
# recorded on, fitted into the movie's size. Usage: record_pipewire.sh PATH_TO_QUORVARECORDER [--real-time]
# With --real-time (an optimised build) every picture published must be written, give or take four.
set -u
recorder=$1
realTime=${2:-}
work=$(mktemp -d)
export XDG_CONFIG_HOME=$work/config HOME=$work/home
mkdir -p "$XDG_CONFIG_HOME" "$HOME" "$work/movies"
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
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
trap 'kill $publisher 2>/dev/null; rm -rf "$work"' EXIT
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
[ "${frames:-0}" -le 154 ] || fail "the movie holds $frames pictures, more than the 150 published"
if [ "$realTime" = --real-time ]; then
    [ "${frames:-0}" -ge 146 ] || fail "the movie holds $frames pictures, not the 150 published"
fi
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

[ $failures -eq 0 ] || exit 1
echo "PipeWire recording: all checks passed"
