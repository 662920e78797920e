#!/usr/bin/env bash
# A take longer than its disk holds: two minutes of ProRes 422 into a 40 MB disk of its own (a tmpfs).
# The recorder finishes it by itself well before the disk is full, so that the movie is whole and
# standard, and says why: on standard error, in its exit status and in the take's report. Mounting needs
# root: without it the case is skipped, and says so. Usage: record_full_disk.sh PATH_TO_QUORVARECORDER
set -uo pipefail
recorder=$1
# shellcheck source=tests/script_testing.sh
source "$(dirname "${BASH_SOURCE[0]}")/../script_testing.sh"
export QUORVA_TEST_PATTERNS=small
disk=$work/disk
mkdir "$disk"
if ! mount -t tmpfs -o size=40m quorva-full-disk "$disk" 2>"$work/mount.err"; then
    echo "SKIP: a 40 MB tmpfs cannot be mounted here ($(cat "$work/mount.err")); the full disk is not tested"
    exit 77
fi
at_exit() { umount -l "$disk"; }

started=$(date +%s)
"$recorder" record --source "Test Pattern" --codec prores422 --duration 120 --name Full --folder "$disk" >"$work/full.out" 2>"$work/full.err"
status=$?
took=$(($(date +%s) - started))
[ $status -eq 1 ] || fail "a take that the disk ended exited with $status, not 1: $(cat "$work/full.err")"
[ $took -lt 100 ] || fail "the take ran for $took s of its 120"
grep -q '^quorvarecorder: .*disk' "$work/full.err" || fail "the take did not say that the disk ended it: $(cat "$work/full.err")"
grep -q 'min of disk left' "$work/full.err" || fail "the progress never gave the disk's minutes"
grep -q 'has room for only .* minutes' "$work/full.err" || fail "no warning came before the disk ended the take"
grep -q 'The movie could not be written' "$work/full.err" && fail "a movie ran into the full disk: $(cat "$work/full.err")"

report=$disk/Full.json
jq -e '.stop_reason | test("disk")' "$report" >/dev/null || fail "the report gives no reason: $(cat "$report")"
: >"$work/ready"
while IFS=$'\t' read -r file written error; do
    movie=$disk/$file
    [ "$error" = null ] || fail "$file failed: $error"
    rate=$(jq -r --arg f "$file" '.movies[] | select(.file == $f) | .frame_rate' "$report")
    editor_ready "$movie" "$(awk -v r="$rate" 'BEGIN { printf "%.3f", r }')" "$work/ready"
    decoded=$(ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$movie")
    [ "${decoded:-none}" = "$written" ] || fail "$file holds $written pictures by its report, ffprobe decodes ${decoded:-none}"
    [ "$written" -gt 60 ] || fail "$file holds only $written pictures"
done < <(jq -r '.movies[] | [.file, .frames_written, (.error | tostring)] | @tsv' "$report")
[ "$(wc -l <"$work/ready")" -eq 1 ] || fail "the take wrote $(wc -l <"$work/ready") movies, not 1"

# A disk that would not hold even ten seconds refuses the take at once, and leaves nothing on it.
head -c $(($(df --output=avail -B1 "$disk" | tail -1) - 2 * 1024 * 1024)) /dev/zero >"$disk/filler" 2>/dev/null
"$recorder" record --source "Test Pattern" --codec prores422 --duration 5 --name Refused --folder "$disk" \
    >/dev/null 2>"$work/refused.err"
status=$?
[ $status -eq 1 ] && grep -q 'holds less than ten seconds' "$work/refused.err" ||
    fail "a nearly full disk: exit $status, '$(cat "$work/refused.err")'"
compgen -G "$disk/Refused*" >/dev/null && fail "a refused take left $(ls "$disk")"
[ $failures -eq 0 ] || exit 1
echo "all good"
