#!/usr/bin/python3
"""Writes the seed corpus of keystore_command_fuzz: one well-formed request
per command (and a few near misses), in the fuzzer's input format (command
byte, flags byte, buffer), with the message format of CTzfrWsm.h.

Usage: make_corpus.py <corpus folder>
"""
import struct
import sys
from pathlib import Path

TOKEN = bytes([0x10]) + bytes([0xA1]) * 31
SEL = 340
PATH = struct.pack("<5I", 44 | 0x80000000, 60 | 0x80000000, 0x80000000, 0, 0)
# Index of each command in the fuzzer's table.
RESTORE, DELETE, SAVE_PIN, CHECK_PIN, MNEMONIC, CHECK_MNEMONIC, ADDRESS, SIGN, GENERATE, KEY = range(10)


def uint(v):
    return struct.pack("<III", 1, 4, v)


def blob(b):
    return struct.pack("<II", 2, len(b)) + b + bytes(-len(b) % 4)


def message(*fields):
    body = b"".join(fields)
    return b"TZW1" + struct.pack("<I", len(body)) + body


def cred():
    return [blob(TOKEN), uint(SEL)]


def main():
    out = Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    phrase = b"abandon " * 11 + b"about"
    seeds = {
        "restore": (RESTORE, message(*cred(), uint(16), blob(bytes(16)))),
        "restore32": (RESTORE, message(*cred(), uint(32), blob(bytes(range(32))))),
        "generate": (GENERATE, message(*cred())),
        "delete": (DELETE, message(*cred())),
        "save_pin": (SAVE_PIN, message(*cred(), uint(6), blob(b"123456"))),
        "check_pin": (CHECK_PIN, message(*cred(), uint(6), blob(b"123456"))),
        "mnemonic": (MNEMONIC, message(*cred())),
        "check_mnemonic": (CHECK_MNEMONIC, message(uint(len(phrase)), blob(phrase))),
        "address": (ADDRESS, message(*cred(), blob(PATH))),
        "key": (KEY, message(*cred(), blob(PATH))),
        "sign": (SIGN, message(*cred(), blob(PATH), uint(32), blob(bytes(range(32))))),
        "sign_short_path": (SIGN, message(*cred(), blob(PATH[:16]), uint(32), blob(bytes(32)))),
    }
    for name, (command, buffer) in seeds.items():
        (out / name).write_bytes(bytes([command, 0]) + buffer)
    # An unknown command number in raw form.
    (out / "unknown").write_bytes(bytes([0xFF, 0]) + struct.pack("<I", 2) + message(*cred()))


if __name__ == "__main__":
    main()
