#!/usr/bin/env python3
"""Writes the seed corpus of the OSC message fuzzer into osc_message/ beside this script.

A few small datagrams, well-formed and broken, so that the fuzzer starts next to every branch of the
parser: every type tag, blobs, bundles (empty, nested, at and past the nesting limit) and the usual ways
a sender gets sizes and padding wrong. The output is deterministic, and stale seeds are removed.
"""
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "osc_message")


def s(text):
    """An OSC string: the bytes, a NUL, then NULs up to a multiple of four."""
    data = text.encode() if isinstance(text, str) else text
    return data + b"\0" * (4 - len(data) % 4)


def u32(v):
    return struct.pack(">I", v)


def message(address, tags=None, data=b""):
    return s(address) + (s("," + tags) if tags is not None else b"") + data


HEADER = b"#bundle\0" + u32(0) + u32(1)  # time tag "immediately"


def bundle(*elements):
    return HEADER + b"".join(u32(len(e)) + e for e in elements)


def nested(levels):
    packet = REC
    for _ in range(levels):
        packet = bundle(packet)
    return packet


REC = message("/rec")
EVERY_TAG = message("/all", "ihfdsSTFINcrmtb", struct.pack(">iqfd", -2, 1 << 40, 1.5, -2.5) + s("text")
                    + s("sym") + u32(0x41) + u32(0xFF0000FF) + u32(0x904060) + u32(1) + u32(2)
                    + u32(5) + b"abcde\0\0\0")
SEEDS = {
    "message-address-only": REC,
    "message-no-arguments": message("/record/toggle", ""),
    "message-every-tag": EVERY_TAG,
    "message-float-nan": message("/f", "f", u32(0x7FA00001)),
    "message-utf8": message("/caf\u00e9", "s", s("\u20ac\U0001D11E")),
    "message-nonzero-padding": b"/ab\0,s\0X" + b"hi\0Y",
    "message-trailing-bytes": message("/x", "i", u32(1)) + b"\xde\xad",
    "bundle-empty": HEADER,
    "bundle-nested": bundle(REC, bundle(EVERY_TAG, HEADER), message("/c")),
    "bundle-odd-element-size": bundle(message("/a", "i", u32(1)) + b"!", REC),
    "bundle-depth-16": nested(16),
    "bad-first-byte": b"rec\0",
    "bad-string-without-nul": b"/record",
    "bad-string-short-padding": b"/abcd\0\0",
    "bad-double-truncated": message("/d", "d", b"\0" * 7),
    "bad-blob-size-wraps": message("/b", "b", u32(0xFFFFFFFD) + b"\0" * 4),
    "bad-unknown-tag-array": message("/u", "[i]", u32(1)),
    "bad-utf8-surrogate-in-address": s(b"/t\xed\xa0\x80"),
    "bad-bundle-17-bytes": HEADER + b"\0",
    "bad-bundle-header": b"#bundlX\0" + u32(0) + u32(1),
    "bad-bundle-element-too-large": HEADER + u32(13) + message("/a", "i", u32(1)),
    "bad-bundle-element-empty": HEADER + u32(0) + REC,
    "bad-bundle-second-element": bundle(REC, message("/bad", "q")),
    "bad-bundle-depth-17": nested(17),
}

if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    for name in os.listdir(OUT):
        os.remove(os.path.join(OUT, name))
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name + ".osc"), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {os.path.relpath(OUT)}")
