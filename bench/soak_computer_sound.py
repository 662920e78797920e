#!/usr/bin/env python3
"""A long take of the computer's sound: inside a PipeWire session of its own (tests/sources/with_pipewire.sh),
a 440 Hz tone plays into a null sink made the default output while the recorder records the 720p test
pattern with the computer's sound, output "assembled", from the command line.

At the end it reports the pictures written against those due, how far the sound and the pictures end apart
(they must be within one picture), and what the sound timeline absorbed of the drift between the sound's
clock and the pictures': the silence it inserted (runs in which the tone stops) and the sound it cut
(jumps in the tone's phase). Not run by CI: it takes as long as the take (10 minutes unless told otherwise).

    tests/sources/with_pipewire.sh bench/soak_computer_sound.py [--minutes 10] [--binary PATH] [--keep]
"""
import argparse
import array
import math
import os
import shutil
import subprocess
import sys
import tempfile
import time

RATE = 48000
TONE = 440.0


def probe(movie, stream, entries):
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", stream, "-show_entries", entries,
                          "-of", "csv=p=0", movie], capture_output=True, text=True, check=True).stdout
    return [float(x) for x in out.strip().split(",")]


def absorbed(movie):
    """Inserted silence (seconds, places) and phase jumps of the tone, from 1 s in to 1 s before the end."""
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", movie, "-map", "0:a", "-af", "pan=mono|c0=c0",
                          "-f", "f32le", "-"], capture_output=True, check=True).stdout
    samples = array.array("f")
    samples.frombytes(raw)
    # A pure tone follows x[n] = 2 cos(w) x[n-1] - x[n-2]; what AAC leaves is far below a cut's jump. The
    # edges of an inserted silence jump too, smeared by AAC: a jump within 10 ms of one is not a cut.
    k = 2 * math.cos(2 * math.pi * TONE / RATE)
    silences, jumps, run = [], [], 0
    for n in range(RATE + 2, len(samples) - RATE):
        x = samples[n]
        if abs(x) < 1e-3 and (run or abs(samples[n + 1]) < 1e-3):
            run += 1
            continue
        if run > 8:
            silences.append((n - run, n))
        run = 0
        # A cut throws the next few predictions off too: one cut, however many samples it jolts.
        if abs(x - (k * samples[n - 1] - samples[n - 2])) > 0.05 and (not jumps or n - jumps[-1] > RATE // 100):
            jumps.append(n)
    cuts = [j for j in jumps if not any(a - RATE // 100 <= j <= b + RATE // 100 for a, b in silences)]
    silent = sum(b - a for a, b in silences)
    return silent / RATE, len(silences), len(cuts), len(samples) / RATE


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--binary", default="build/release/App/quorvarecorder")
    parser.add_argument("--keep", action="store_true", help="keep the movie")
    args = parser.parse_args()
    if not os.environ.get("PIPEWIRE_RUNTIME_DIR"):
        sys.exit("run inside tests/sources/with_pipewire.sh: the tone needs a PipeWire session of its own")
    work = tempfile.mkdtemp(prefix="quorva-soak-sound-")
    subprocess.run(["pw-cli", "create-node", "adapter",
                    "{ factory.name=support.null-audio-sink node.name=quorva-speakers node.description=Speakers "
                    "media.class=Audio/Sink object.linger=true audio.position=[FL FR] }"],
                   check=True, stdout=subprocess.DEVNULL)
    tone = subprocess.Popen(["gst-launch-1.0", "-q", "audiotestsrc", "freq=%g" % TONE, "volume=0.5", "!",
                             "audio/x-raw,format=F32LE,rate=48000,channels=2", "!", "pipewiresink"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(1)
    seconds = args.minutes * 60
    env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"))
    started = time.monotonic()
    take = subprocess.run([args.binary, "record", "--source", "720", "--sound", "computer", "--output",
                           "assembled", "--duration", "%g" % seconds, "--name", "Soak", "--folder", work],
                          env=env, capture_output=True, text=True)
    tone.terminate()
    tone.wait()
    if take.returncode != 0:
        sys.exit("the take failed (%d): %s" % (take.returncode, take.stderr[-2000:]))
    movie = os.path.join(work, "Soak.mov")
    listed = take.stdout.strip().split("\t")
    video_start, video_duration = probe(movie, "v:0", "stream=start_time,duration")
    audio_start, audio_duration = probe(movie, "a:0", "stream=start_time,duration")
    silence, runs, jumps, decoded = absorbed(movie)
    print("take: %.0f s of wall time; %s, %s" % (time.monotonic() - started, listed[1], listed[2]))
    print("pictures end at %.4f s, sound at %.4f s: %.1f ms apart (one picture is 33.3 ms)"
          % (video_start + video_duration, audio_start + audio_duration,
             1000 * (audio_start + audio_duration - video_start - video_duration)))
    print("sound timeline: %.1f ms of silence inserted in %d places, %d cuts in the tone, over %.1f s decoded"
          % (1000 * silence, runs, jumps, decoded))
    if args.keep:
        print("movie kept in %s" % work)
    else:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
