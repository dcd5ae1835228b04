#!/usr/bin/env python3
"""A device in software: application and bootloader behind a USB/IP server, in the place of hardware.

usage: software_device.py COMMAND...

Runs the command while the device exists: see "A device in software" in docs/protocol.md.
"""

import contextlib
import os
import socket
import socketserver
import struct
import subprocess
import sys
import threading
import zlib

FLASH_BEGIN, FLASH_BYTES, BLOCK_BYTES = 0x4000, 16 * 1024, 64
CLASSES = {3 + n: n for n in range(9)} | {12: 16, 13: 32, 14: 64, 15: 128}  # payload bytes by size code


def crc8(data: bytes) -> int:
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc << 1 ^ (0x197 if crc & 0x80 else 0)
    return crc


def encode(message_id: int, payload: bytes) -> bytes:
    code, size = next((code, size) for code, size in CLASSES.items() if size >= len(payload))
    even, odd = ((message_id & mask).bit_count() % 2 for mask in (0x1555, 0x2AAA))
    frame = struct.pack("<BH", 0xA0 | code, message_id << 2 | odd << 1 | even) + payload.ljust(size, b"\0")
    return frame + bytes([crc8(frame)])


class Device:  # to refuse a request is to stay silent
    def __init__(self) -> None:
        self.flash = bytearray(FLASH_BYTES - 4)
        self.flash += struct.pack("<I", zlib.crc32(self.flash))
        self.in_bootloader, self.position = False, 0
        self.received, self.sent = bytearray(), bytearray()

    def receive(self, data: bytes) -> None:
        self.received += data
        while self.received:
            size = CLASSES.get(self.received[0] - 0xA0, -4)
            if len(self.received) < size + 4:
                return
            frame = bytes(self.received[:size + 4])
            message_id, payload = int.from_bytes(frame[1:3], "little") >> 2, frame[3:-1]
            if encode(message_id, payload) != frame:
                del self.received[0]  # no frame begins here
                continue
            del self.received[:len(frame)]
            answer = (self.bootloader if self.in_bootloader else self.application)(message_id, payload)
            self.sent += b"" if answer is None else encode(message_id, answer)

    def application(self, message_id: int, payload: bytes) -> bytes | None:
        if message_id != 0x100:
            return b"\0\0" if message_id == 0x814 else None  # no module was reset
        self.in_bootloader = payload == b"\xfd\0"  # CALL
        values = {b"\xeb\0": b"\0\0", b"\xbb\x0a": b"\x01\x01", b"\xbb\x02": b"\x34\x12"}
        return values.get(payload, payload)

    def bootloader(self, message_id: int, payload: bytes) -> bytes | None:
        calculated, stored = struct.pack("<I", zlib.crc32(self.flash[:-4])), bytes(self.flash[-4:])
        values = {0x120: bytes([3, BLOCK_BYTES]), 0x121: b"\x1e\x97\x48", 0x122: b"\x10\x84",
                  0x132: struct.pack("<H", FLASH_BYTES // 1024), 0x136: calculated + stored}
        if message_id == 0x12F:  # START, or LEAVE; an incomplete application is never started
            self.in_bootloader = calculated != stored
        elif message_id == 0x130:  # ERASE
            self.flash[:] = b"\xff" * FLASH_BYTES
        elif message_id == 0x133:  # POSITION
            self.position = int.from_bytes(payload, "little") - FLASH_BEGIN
        elif message_id == 0x134:  # WRITE; a repeated one belongs to the same address
            self.flash[self.position:self.position + BLOCK_BYTES] = payload[:BLOCK_BYTES]
        else:
            return values.get(message_id)
        return b""


# Requests to endpoint 0 by type, request and high byte of the value; any other one is stalled.
CONTROL = {
    (0x80, 6, 1): bytes.fromhex("12 01 0002 02 00 00 40 EB03 0424 0001 00 00 00 01"),
    (0x80, 6, 2): bytes.fromhex("09 02 2900 02 01 00 80 32"  # two interfaces, 41 bytes in all
                                "09 04 00 00 00 02 02 01 00  09 04 01 00 02 0A 00 00 00"
                                "07 05 02 02 4000 00  07 05 81 02 4000 00"),  # bulk, 64 bytes a packet
    (0x00, 9, 0): b"", (0x21, 0x20, 0): b"", (0x21, 0x22, 0): b""}  # configuration, line coding, control lines
RECORD = struct.pack(">256s32s3I3H6B", b"/software", b"1-1", 1, 2, 2, 0x03EB, 0x2404, 0x100, 2, 0, 0, 1, 1, 2)
INTERFACES, STALLED, UNLINKED = bytes([2, 2, 1, 0, 10, 0, 0, 0]), -32, -104


def take(peer: socket.socket, size: int) -> bytes:
    data = peer.recv(size, socket.MSG_WAITALL) if size else b""
    if len(data) < size:
        raise ConnectionError
    return data


def serve_requests(peer: socket.socket, device: Device) -> None:
    def reply(command: int, number: int, status: int, data: bytes = b"", sent: int = 0) -> None:
        peer.sendall(struct.pack(">2I12xiI20x", command, number, status, len(data) or sent) + data)

    waiting = []  # numbers of the requests for data that the device does not have yet
    while header := take(peer, 48):
        command, number, _, inward, endpoint, detail, length = struct.unpack(">7I", header[:28])
        out = take(peer, 0 if inward or command == 2 else length)
        if command == 2:
            reply(4, number, UNLINKED if detail in waiting else 0)
            waiting = [other for other in waiting if other != detail]
        elif endpoint == 0:
            data = CONTROL.get((header[40], header[41], header[43]))
            reply(3, number, STALLED if data is None else 0, (data or b"")[:length], len(out))
        elif inward:
            waiting.append(number)
        else:
            device.receive(out)
            reply(3, number, 0, sent=len(out))
        if waiting and device.sent:
            reply(3, waiting.pop(0), 0, bytes(device.sent[:64]))
            del device.sent[:64]


class Peer(socketserver.BaseRequestHandler):
    device, in_use = Device(), threading.Lock()

    def handle(self) -> None:
        with contextlib.suppress(ConnectionError):
            operation = struct.unpack(">HHI", take(self.request, 8))[1]
            if operation == 0x8005:  # list the devices
                self.request.sendall(struct.pack(">HHII", 0x111, 0x0005, 0, 1) + RECORD + INTERFACES)
            elif operation == 0x8003 and take(self.request, 32):  # import; any other ends the connection
                with self.in_use:
                    self.request.sendall(struct.pack(">HHI", 0x111, 0x0003, 0) + RECORD)
                    serve_requests(self.request, self.device)


def main(command: list[str]) -> int:
    server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Peer)
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return subprocess.call(command, env=os.environ | {"TAVO_SIMULATORS": "127.0.0.1:%d" % server.server_address[1]})


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]) if sys.argv[1:] else __doc__)
