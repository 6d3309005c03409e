#!/usr/bin/python3
"""Writes keccak256_vectors.txt: Keccak-256 digests of pseudo-random messages,
computed with pycryptodome (an implementation independent of this project's).

Each message is the first `length` bytes of the splitmix64 stream started at
`seed` (every 64-bit output taken least significant byte first), so the file
stores only length, seed and digest and the test regenerates the bytes.

Run from anywhere with Debian's python3 (python3-pycryptodome):
    /usr/bin/python3 CA/src/utils/testdata/make_keccak_vectors.py
The output is deterministic; re-running reproduces the file byte for byte.
"""
import os
import random

from Cryptodome.Hash import keccak

MASK64 = (1 << 64) - 1


def splitmix64_bytes(seed, length):
    out = bytearray()
    state = seed
    while len(out) < length:
        state = (state + 0x9E3779B97F4A7C15) & MASK64
        z = state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & MASK64
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & MASK64
        z ^= z >> 31
        out += z.to_bytes(8, "little")
    return bytes(out[:length])


def keccak256(data):
    h = keccak.new(digest_bits=256)
    h.update(data)
    return h.hexdigest()


def main():
    rng = random.Random(20240531)
    lengths = list(range(0, 411))                            # every length over three blocks
    lengths += [rng.randint(0, 2000) for _ in range(2600)]   # random lengths
    lengths += [65535, 65536, 65537, 136 * 700, 100001]      # beyond one update call
    here = os.path.dirname(os.path.abspath(__file__))
    with open(os.path.join(here, "keccak256_vectors.txt"), "w") as f:
        f.write("# Keccak-256 (padding 0x01) of pseudo-random messages, from pycryptodome.\n")
        f.write("# Made by make_keccak_vectors.py; message = splitmix64 stream from seed.\n")
        f.write("# length seed(hex) digest(hex)\n")
        for length in lengths:
            seed = rng.getrandbits(64)
            msg = splitmix64_bytes(seed, length)
            f.write("%d %016x %s\n" % (length, seed, keccak256(msg)))


if __name__ == "__main__":
    main()
