#!/usr/bin/env python3
"""A long take under remote abuse: the recorder, headless, records the three test patterns with output
"both" (grid, the 720p pattern's sound) while a thousand malformed OSC datagrams a second arrive.

It reports the recorder's memory each minute (it should be flat after the first), and at the end, for
each movie, the frames written against the frames due and how far its sound and pictures end apart.
Not run by CI: it takes as long as the take (60 minutes unless told otherwise).

    bench/soak.py [--minutes 60] [--binary build/release/App/quorvarecorder] [--keep]
"""
import argparse
import json
import os
import random
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

SOURCES = [("Test Pattern 1080p60", 60.0), ("Test Pattern 720p30", 30.0), ("Test Pattern Alpha 1080p30", 30.0)]


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def osc(address, *arguments):
    def padded(data):
        data += b"\0"
        return data + b"\0" * (-len(data) % 4)

    tags, payload = ",", b""
    for a in arguments:
        if isinstance(a, int):
            tags, payload = tags + "i", payload + struct.pack(">i", a)
        else:
            tags, payload = tags + "s", payload + padded(a.encode())
    return padded(address.encode()) + padded(tags.encode()) + payload


def malformed(rng):
    """Datagrams that a broken or hostile sender might send: each one must be refused, none may hurt."""
    kind = rng.randrange(7)
    if kind == 0:
        return rng.randbytes(rng.randrange(1, 512))
    if kind == 1:  # a real message cut short
        whole = osc("/gap", 4)
        return whole[: rng.randrange(1, len(whole))]
    if kind == 2:  # a type tag that promises more than there is
        return osc("/width")[:-4] + b",iiis\0\0\0" + b"\0\0\0\1"
    if kind == 3:  # a bundle whose element claims a huge size
        return b"#bundle\0" + b"\0" * 8 + struct.pack(">i", 0x7FFFFFF0) + b"/x\0\0"
    if kind == 4:  # bundles nested deeper than anyone should
        inner = osc("/gap", 1)
        for _ in range(rng.randrange(10, 40)):
            inner = b"#bundle\0" + b"\0" * 8 + struct.pack(">i", len(inner)) + inner
        return inner
    if kind == 5:  # text without its terminator, unknown tags
        return b"/codec\0\0,s\0\0" + b"h" * rng.randrange(1, 64)
    return osc("/" + "".join(rng.choice("abc/") for _ in range(rng.randrange(1, 30))), rng.randrange(-9, 9))


def value(port, address):
    # A value that the main thread could not read in time is left out of the answer: ask again.
    for _ in range(50):
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{address}?VALUE", timeout=10) as answer:
            body = answer.read()
        if body:
            return json.loads(body)["VALUE"][0]
        time.sleep(0.1)
    raise ValueError(f"OSCQuery never gave a value for {address}")


def memory_mb(pid):
    fields = {}
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            key, _, rest = line.partition(":")
            fields[key] = rest.strip()
    return int(fields["VmRSS"].split()[0]) / 1024, int(fields["VmHWM"].split()[0]) / 1024


def probe(path):
    """Frames of the picture track, and where the pictures and the sound end, in seconds."""
    out = subprocess.run(
        ["ffprobe", "-v", "error", "-count_packets", "-show_entries",
         "stream=codec_type,nb_read_packets,duration", "-of", "json", path],
        capture_output=True, text=True, check=True).stdout
    streams = json.loads(out)["streams"]
    video = next(s for s in streams if s["codec_type"] == "video")
    audio = next((s for s in streams if s["codec_type"] == "audio"), None)
    return int(video["nb_read_packets"]), float(video["duration"]), float(audio["duration"]) if audio else None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=60)
    parser.add_argument("--binary", default="build/release/App/quorvarecorder")
    parser.add_argument("--rate", type=int, default=1000, help="malformed datagrams a second")
    parser.add_argument("--keep", action="store_true", help="keep the movies and print where they are")
    options = parser.parse_args()

    work = tempfile.mkdtemp(prefix="quorva-soak-")
    movies = os.path.join(work, "movies")
    os.makedirs(movies)
    runtime = os.path.join(work, "runtime")
    os.makedirs(runtime, mode=0o700)
    osc_port, query_port = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
    env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"), XDG_RUNTIME_DIR=runtime,
               QUORVA_OSC_PORT=str(osc_port), QUORVA_OSCQUERY_PORT=str(query_port))
    log = open(os.path.join(work, "recorder.log"), "w")
    recorder = subprocess.Popen([options.binary, "--headless"], env=env, stdout=log, stderr=log)
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    send = lambda packet: sender.sendto(packet, ("127.0.0.1", osc_port))
    stop = threading.Event()
    try:
        for _ in range(100):
            try:
                value(query_port, "/status/state")
                break
            except (OSError, ValueError):
                time.sleep(0.1)
        for place, (title, _) in enumerate(SOURCES, start=1):
            send(osc(f"/source/{place}", title))
        for address, argument in [("/output", "both"), ("/layout", "grid"), ("/sound", "720p30"),
                                  ("/folder", movies), ("/name", "Soak")]:
            send(osc(address, argument))
        time.sleep(2)  # the patterns' first pictures
        send(osc("/start"))
        time.sleep(1)
        if value(query_port, "/status/state") != "recording":
            sys.exit("soak: the take did not start: " + str(value(query_port, "/status/error")))
        fps = float(value(query_port, "/fps"))

        def abuse():
            rng = random.Random(1)
            sent, began = 0, time.monotonic()
            while not stop.is_set():
                send(malformed(rng))
                sent += 1
                ahead = sent / options.rate - (time.monotonic() - began)
                if ahead > 0:
                    time.sleep(ahead)

        threading.Thread(target=abuse, daemon=True).start()
        began = time.monotonic()
        print("minute\tresident MB\tpeak MB\tframes written (first place or assembled)", flush=True)
        minute = 0
        while time.monotonic() - began < options.minutes * 60:
            time.sleep(max(0.0, began + (minute + 1) * 60 - time.monotonic()))
            minute += 1
            if recorder.poll() is not None:
                sys.exit(f"soak: the recorder ended ({recorder.returncode}); see {log.name}")
            resident, peak = memory_mb(recorder.pid)
            print(f"{minute}\t{resident:.0f}\t{peak:.0f}\t{value(query_port, '/status/frames')}", flush=True)
        elapsed = float(value(query_port, "/status/elapsed"))
        stop.set()
        send(osc("/stop"))
        for _ in range(6000):
            if value(query_port, "/status/state") == "idle":
                break
            time.sleep(0.1)
        print(f"\ntake of {elapsed:.1f} s; recorder error: {value(query_port, '/status/error')!r}")
        print("movie\tframes written\tdue\twritten %\tsound end - picture end (s)")
        # A frame rate of 0 records each source at its own.
        rates = {title: min(rate, fps) if fps > 0 else rate for title, rate in SOURCES}
        for name in sorted(os.listdir(movies)):
            title = next((t for t in rates if t in name), None)
            rate = rates[title] if title else rates[SOURCES[0][0]]  # the assembled movie follows place 1
            frames, picture_end, sound_end = probe(os.path.join(movies, name))
            due = round(rate * elapsed)
            gap = f"{sound_end - picture_end:+.3f}" if sound_end is not None else "no sound"
            print(f"{name}\t{frames}\t{due}\t{100 * frames / due:.1f}\t{gap}")
    finally:
        stop.set()
        if recorder.poll() is None:
            recorder.terminate()
            recorder.wait(timeout=600)
        if options.keep:
            print("kept in", work)
        else:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
