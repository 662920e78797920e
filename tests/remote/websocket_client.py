#!/usr/bin/python3
"""WebSocket clients of the recorder's OSCQuery port, written with python3-websockets, for the tests.

  websocket_client.py drive QUERY_PORT OSC_PORT
      listens to /status/state and /gap, drives the recorder over the WebSocket and over UDP, and prints
      what was pushed as one JSON object.
  websocket_client.py listeners QUERY_PORT COUNT ADDRESS
      opens COUNT clients that listen to ADDRESS and prints how many received a push holding "done".
"""
import asyncio
import json
import socket
import struct
import sys

import websockets


def padded(data):
    data += b"\0"
    return data + b"\0" * (-len(data) % 4)


def message(address, *arguments):
    tags, data = ",", b""
    for argument in arguments:
        if isinstance(argument, int):
            tags, data = tags + "i", data + struct.pack(">i", argument)
        elif isinstance(argument, float):
            tags, data = tags + "f", data + struct.pack(">f", argument)
        else:
            tags, data = tags + "s", data + padded(argument.encode())
    return padded(address.encode()) + padded(tags.encode()) + data


def parsed(packet):
    """(address, type tags, arguments) of one OSC message."""
    def text(at):
        end = packet.index(b"\0", at)
        return packet[at:end].decode(), (end + 4) & ~3
    address, at = text(0)
    tags, at = text(at)
    arguments = []
    for tag in tags[1:]:
        if tag == "i":
            arguments.append(struct.unpack_from(">i", packet, at)[0])
            at += 4
        elif tag == "f":
            arguments.append(round(struct.unpack_from(">f", packet, at)[0], 3))
            at += 4
        elif tag == "s":
            value, at = text(at)
            arguments.append(value)
    return address, tags, arguments


async def drive(query_port, osc_port):
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    pushed = []  # [address, tags, arguments] in the order received

    async def until(ws, address, value):
        while True:
            frame = await ws.recv()
            if isinstance(frame, str):
                continue
            pushed.append(list(parsed(frame)))
            if pushed[-1][0] == address and pushed[-1][2] == [value]:
                return

    async with websockets.connect(f"ws://127.0.0.1:{query_port}/") as ws:
        for address in ("/status/state", "/gap"):
            await ws.send(json.dumps({"COMMAND": "LISTEN", "DATA": address}))
        # Sent after the LISTENs on the same connection, so counted as a change once they are.
        await ws.send(message("/gap", 17))
        await until(ws, "/gap", 17)
        udp.sendto(message("/record", 1), ("127.0.0.1", osc_port))
        await until(ws, "/status/state", "recording")
        udp.sendto(message("/record", 0), ("127.0.0.1", osc_port))
        await until(ws, "/status/state", "idle")
        ignored_from = len(pushed)
        await ws.send(json.dumps({"COMMAND": "IGNORE", "DATA": "/status/state"}))
        await ws.send(message("/start"))
        await ws.send(message("/gap", 18))
        await until(ws, "/gap", 18)
        try:  # whatever else comes within a second
            while True:
                frame = await asyncio.wait_for(ws.recv(), 1.0)
                if isinstance(frame, bytes):
                    pushed.append(list(parsed(frame)))
        except asyncio.TimeoutError:
            pass
    print(json.dumps({"pushed": pushed, "ignoredFrom": ignored_from}))


async def listeners(query_port, count, address):
    async def one():
        async with websockets.connect(f"ws://127.0.0.1:{query_port}/", max_size=None) as ws:
            await ws.send(json.dumps({"COMMAND": "LISTEN", "DATA": address}))
            async for frame in ws:
                if isinstance(frame, bytes) and b"done" in frame:
                    return 1
        return 0

    results = await asyncio.gather(*(one() for _ in range(count)), return_exceptions=True)
    print(sum(1 for result in results if result == 1))


if __name__ == "__main__":
    command, port = sys.argv[1], int(sys.argv[2])
    if command == "drive":
        work = drive(port, int(sys.argv[3]))
    else:
        work = listeners(port, int(sys.argv[3]), sys.argv[4])
    try:
        asyncio.run(asyncio.wait_for(work, 120))
    except Exception as error:  # the test reads stdout: say what went wrong there
        print(json.dumps({"error": repr(error)}))
