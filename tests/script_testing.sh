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

# MOVIE RATE LIST: checks what an editor reads of a finished movie, with tools nobody here wrote: MediaInfo
# a constant rate, RATE as it writes it (30.000, 29.970); ffprobe one picture decoded per slot of the
# movie's length; GStreamer the length that ffprobe reads, within 50 ms. Adds to the file LIST a line of
# the movie's length in seconds, the timecode of its first frame and its rate, for one_take.
editor_ready() {
    local movie=$1 rate=$2 mode shown decoded length gst
    IFS='|' read -r mode shown < <(mediainfo --Inform='Video;%FrameRate_Mode%|%FrameRate%' "$movie")
    [ "$mode" = CFR ] && [ "$shown" = "$rate" ] || fail "$movie: MediaInfo reads '$mode' at '$shown', not CFR at $rate"
    decoded=$(ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$movie")
    length=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$movie")
    awk -v n="${decoded:-0}" -v l="${length:-0}" -v r="$rate" 'BEGIN { d = n - l * r; exit !(d < 1 && d > -1) }' ||
        fail "$movie: ffprobe decodes ${decoded:-no} pictures in ${length:-no} s at $rate a second"
    gst=$(gst-discoverer-1.0 "$movie" 2>/dev/null | awk '/Duration:/ { split($2, t, ":"); print t[1] * 3600 + t[2] * 60 + t[3]; exit }')
    awk -v a="${gst:-0}" -v b="${length:-9}" 'BEGIN { exit !(a - b < 0.05 && b - a < 0.05) }' ||
        fail "$movie: GStreamer reads ${gst:-no} s, ffprobe ${length:-no} s"
    echo "${length:-0} $(mediainfo --Inform='Other;%TimeCode_FirstFrame%' "$movie") $rate" >>"$3"
}

# LIST, of editor_ready: the movies of a take are all of the same length within one picture of the
# slowest, and their timecodes at the same moment (their frame numbers count at their own rates).
one_take() {
    awk '{ split($2, t, /[:;]/); at = t[1] * 3600 + t[2] * 60 + t[3] + t[4] / $3; frame = 1 / $3
        if (NR == 1 || frame > slowest) slowest = frame
        if (NR == 1) { shortest = longest = $1; first = last = at }
        if ($1 < shortest) shortest = $1; if ($1 > longest) longest = $1
        if (at < first) first = at; if (at > last) last = at; if ($2 == "") untimed = 1 }
        END { exit !(!untimed && longest - shortest <= slowest + 0.001 && last - first < slowest) }' "$1" ||
        fail "the movies of a take differ in length or timecode: $(cat "$1")"
}
