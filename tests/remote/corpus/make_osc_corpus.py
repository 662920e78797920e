#!/usr/bin/env python3
"""Writes the seed corpus of the OSC message fuzzer into osc_message/ beside this script.

Seeds are small datagrams, well-formed and broken, chosen so that the fuzzer starts next to every
branch of the parser: each type tag, blobs, bundles (empty, nested, at and past the nesting limit) and
the usual ways a sender gets sizes and padding wrong. Run it again after changing it; the output is
deterministic, and stale seeds are removed.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "osc_message")


def string(text):
    """An OSC string: UTF-8 bytes, a NUL, then NULs up to a multiple of four."""
    data = text.encode("utf-8") if isinstance(text, str) else text
    return data + b"\0" * (4 - len(data) % 4)


def i32(v):
    return struct.pack(">i", v)


def u32(v):
    return struct.pack(">I", v)


def blob(data):
    return u32(len(data)) + data + b"\0" * (-len(data) % 4)


def message(address, tags=None, data=b""):
    out = string(address)
    if tags is not None:
        out += string("," + tags)
    return out + data


HEADER = b"#bundle\0" + u32(0) + u32(1)  # time tag "immediately"


def bundle(*elements):
    return HEADER + b"".join(u32(len(e)) + e for e in elements)


def nested(levels, inner):
    for _ in range(levels):
        inner = bundle(inner)
    return inner


REC = message("/rec")
ALL = message(
    "/all",
    "ihfdsSTFINcrmtb",
    i32(-2)
    + struct.pack(">q", 1 << 40)
    + struct.pack(">f", 1.5)
    + struct.pack(">d", -2.5)
    + string("text")
    + string("sym")
    + u32(0x41)
    + u32(0xFF0000FF)
    + u32(0x00904060)
    + u32(1) + u32(2)
    + blob(b"abcde"),
)

SEEDS = {
    # Well-formed messages.
    "message-address-only": REC,
    "message-no-arguments": message("/record/toggle", ""),
    "message-int": message("/gap", "i", i32(12)),
    "message-int64": message("/n", "h", struct.pack(">q", -(1 << 62))),
    "message-float": message("/fps", "f", struct.pack(">f", 29.97)),
    "message-double": message("/mbps", "d", struct.pack(">d", 1e300)),
    "message-float-nan": message("/f", "f", u32(0x7FA00001)),
    "message-string": message("/place/1", "s", string("Test Pattern 1080p60")),
    "message-symbol": message("/codec", "S", string("prores4444")),
    "message-utf8": message("/caf\u00e9", "s", string("\u20ac\U0001D11E")),
    "message-bools-impulse-nil": message("/b", "TFIN"),
    "message-char-colour-midi-time": message(
        "/skip", "crmts", u32(0x41) + u32(0xFF) + u32(0x90) + u32(1) + u32(2) + string("x")
    ),
    "message-blob": message("/blob", "bs", blob(b"12345") + string("after")),
    "message-blob-empty": message("/blob", "b", blob(b"")),
    "message-every-tag": ALL,
    "message-nonzero-padding": b"/ab\0,s\0X" + b"hi\0Y",
    "message-trailing-bytes": message("/x", "i", i32(1)) + b"\xde\xad",
    # Well-formed bundles.
    "bundle-empty": HEADER,
    "bundle-two": bundle(message("/a", "i", i32(1)), message("/b", "s", string("two"))),
    "bundle-nested": bundle(REC, bundle(ALL, HEADER), message("/c")),
    "bundle-odd-element-size": bundle(message("/a", "i", i32(1)) + b"!", REC),
    "bundle-depth-16": nested(16, REC),
    # Broken datagrams.
    "bad-first-byte": b"rec\0",
    "bad-string-without-nul": b"/record",
    "bad-string-short-padding": b"/abcd\0\0",
    "bad-int-truncated": message("/gap", "i", b"\0\0\0"),
    "bad-double-truncated": message("/d", "d", b"\0" * 7),
    "bad-blob-too-large": message("/b", "b", u32(9) + b"12345678"),
    "bad-blob-size-wraps": message("/b", "b", u32(0xFFFFFFFD) + b"\0" * 4),
    "bad-unknown-tag-array": message("/u", "[i]", i32(1)),
    "bad-utf8-overlong": message("/t", "s", string(b"\xc0\xaf")),
    "bad-utf8-surrogate-in-address": string(b"/t\xed\xa0\x80"),
    "bad-bundle-17-bytes": HEADER + b"\0",
    "bad-bundle-header": b"#bundlX\0" + u32(0) + u32(1),
    "bad-bundle-element-too-large": HEADER + u32(13) + message("/a", "i", i32(1)),
    "bad-bundle-element-empty": HEADER + u32(0) + REC,
    "bad-bundle-second-element": bundle(REC, message("/bad", "q")),
    "bad-bundle-depth-17": nested(17, REC),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name in os.listdir(OUT):
        os.remove(os.path.join(OUT, name))
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name + ".osc"), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {os.path.relpath(OUT)}")


if __name__ == "__main__":
    main()
