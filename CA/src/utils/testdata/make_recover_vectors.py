#!/usr/bin/python3
"""Writes recover_vectors.txt: signer-address recovery cases on secp256k1,
made with python3-ecdsa and pycryptodome, independently of this project's
code.

Each line is   kind digest r s v address   with the byte strings in hex
("-" for an empty string) and v in decimal:

  sig            a signature made by python3-ecdsa with a random key, digest
                 and nonce; address is that key's address (from its public
                 key, not from recovery)
  key1           the same with private key 1
  other-parity   a sig line with bit 0 of v flipped
  ...            the other kinds are inputs that the recovery treats
                 specially; see cases() below

It also writes ../fuzz/corpus/restore_address/: a few of these cases as seed
inputs of the fuzz target restore_address_fuzz (v, then digest, r and s of 32 bytes
each: the 97-byte shape that the target compares with libsecp256k1).

For every line, address is what the recovery algorithm gives: a direct
transcription of it in plain integers (reference_recover) on top of
python3-ecdsa's point arithmetic. For sig and key1 lines the script asserts
that this equals the signing key's address, and for the failure kinds that it
equals the address of the all-zero key.

Run with Debian's python3 (python3-ecdsa, python3-pycryptodome):
    /usr/bin/python3 CA/src/utils/testdata/make_recover_vectors.py
Deterministic: re-running reproduces the file byte for byte.
"""
import os
import random

from Cryptodome.Hash import keccak
from ecdsa import SECP256k1, SigningKey
from ecdsa.ellipticcurve import INFINITY, PointJacobi
from ecdsa.util import sigencode_strings

CURVE = SECP256k1.curve
G = SECP256k1.generator
N = SECP256k1.order
P = CURVE.p()


def keccak256(data):
    h = keccak.new(digest_bits=256)
    h.update(data)
    return h.digest()


def address_of_point(x, y):
    return keccak256(x.to_bytes(32, "big") + y.to_bytes(32, "big"))[12:]


ZERO_KEY_ADDRESS = keccak256(bytes(64))[12:]
assert ZERO_KEY_ADDRESS.hex() == "3f17f1962b36e491b30a40b2405849e597ba5fb5"


def lift_x(x, odd):
    """The curve point with this x and y parity, or None."""
    alpha = (pow(x, 3, P) + 7) % P
    y = pow(alpha, (P + 1) // 4, P)  # P = 3 mod 4
    if y * y % P != alpha:
        return None
    if (y & 1) != odd:
        if y == 0:
            return None
        y = P - y
    return PointJacobi(CURVE, x, y, 1, N)


def add(a, b):
    if a == INFINITY:
        return b
    if b == INFINITY:
        return a
    return a + b


def reference_recover(digest, r_bytes, s_bytes, v):
    r = int.from_bytes(r_bytes, "big")
    s = int.from_bytes(s_bytes, "big")
    e = int.from_bytes(digest, "big")
    x = r + N if v > 1 else r
    if x >= P:
        return ZERO_KEY_ADDRESS
    R = lift_x(x, v & 1)
    if R is None:
        return ZERO_KEY_ADDRESS
    if R * N != INFINITY:  # never taken on this curve (cofactor 1)
        return ZERO_KEY_ADDRESS
    if e.bit_length() > 256:
        e >>= e.bit_length() - 256
    e = (-e) % N
    if r % N == 0:
        return ZERO_KEY_ADDRESS
    r_inv = pow(r, -1, N)
    u1 = e * r_inv % N
    u2 = s * r_inv % N
    Q = add(G * u1, R * u2)
    if Q == INFINITY:
        return ZERO_KEY_ADDRESS
    return address_of_point(Q.x(), Q.y())


class Signature:
    """A signature by python3-ecdsa, with the recovery id worked out from
    the nonce point, and the signing key's address."""

    def __init__(self, d, digest, k):
        key = SigningKey.from_secret_exponent(d, curve=SECP256k1)
        self.r, self.s = key.sign_digest(digest, k=k, sigencode=sigencode_strings)
        R = G * k
        self.v = (R.y() & 1) | (2 if R.x() >= N else 0)
        pub = key.get_verifying_key().to_string()  # x || y, 64 bytes
        self.address = keccak256(pub)[12:]
        self.digest = digest
        self.k = k


def int32(value):
    return value.to_bytes(32, "big")


def cases(rng):
    def random_scalar():
        return rng.randrange(1, N)

    def signature(d=None, digest=None):
        d = d if d is not None else random_scalar()
        digest = digest if digest is not None else rng.getrandbits(256).to_bytes(32, "big")
        return Signature(d, digest, random_scalar())

    def off_curve_x():
        while True:
            x = rng.randrange(1, P)
            if lift_x(x, 0) is None:
                return x

    # Correct signatures: random keys and digests, key 1, an all-zero digest.
    sigs = [signature() for _ in range(240)]
    for sig in sigs:
        yield "sig", sig.digest, sig.r, sig.s, sig.v, sig.address
    key1 = signature(d=1)
    assert key1.address.hex() == "7e5f4552091a69125d5dfcb7b8c2659029395bdf"
    yield "key1", key1.digest, key1.r, key1.s, key1.v, key1.address
    zero_digest = signature(digest=bytes(32))
    yield "sig", zero_digest.digest, zero_digest.r, zero_digest.s, zero_digest.v, zero_digest.address

    # The other y parity: a valid point, the wrong key.
    for sig in sigs[:20]:
        yield "other-parity", sig.digest, sig.r, sig.s, sig.v ^ 1, None

    # v in the 27/28 convention: x = r + n lies above p.
    for sig in sigs[20:30]:
        yield "v27-28", sig.digest, sig.r, sig.s, 27 + (sig.v & 1), ZERO_KEY_ADDRESS
        yield "v27-28", sig.digest, sig.r, sig.s, 28 - (sig.v & 1), ZERO_KEY_ADDRESS

    # r = 0 (as 32 zero bytes and as the empty string): no inverse.
    for sig in sigs[30:34]:
        yield "r-zero", sig.digest, bytes(32), sig.s, sig.v, ZERO_KEY_ADDRESS
        yield "r-zero", sig.digest, b"", sig.s, sig.v, ZERO_KEY_ADDRESS

    # r at or above p, including wider than 32 bytes.
    sig = sigs[34]
    for r in (P, P + 1, 2**256 - 1):
        for v in (0, 1):
            yield "r-ge-p", sig.digest, int32(r), sig.s, v, ZERO_KEY_ADDRESS
    yield "r-ge-p", sig.digest, (2**300 + 5).to_bytes(38, "big"), sig.s, 0, ZERO_KEY_ADDRESS

    # r below p but not the x coordinate of any curve point.
    for sig in sigs[35:41]:
        yield "r-not-x", sig.digest, int32(off_curve_x()), sig.s, sig.v & 1, ZERO_KEY_ADDRESS

    # r = n: maybe a point, but r has no inverse mod n.
    for v in (0, 1):
        yield "r-equals-n", sigs[41].digest, int32(N), sigs[41].s, v, ZERO_KEY_ADDRESS

    # n < r < p with a point there: recovery goes ahead with r mod n.
    found = 0
    while found < 4:
        r = rng.randrange(N + 1, P)
        if lift_x(r, 0) is not None:
            sig = sigs[42 + found]
            yield "r-between-n-and-p", sig.digest, int32(r), sig.s, found & 1, None
            found += 1

    # s = 0 with a non-zero digest: not rejected, Q = -e/r G.
    for sig in sigs[46:52]:
        yield "s-zero", sig.digest, sig.r, bytes(32), sig.v, None
    yield "s-zero", sigs[52].digest, sigs[52].r, b"", sigs[52].v, None
    # s = 0 and digest 0: Q is the point at infinity.
    yield "s-zero-digest-zero", bytes(32), sigs[53].r, bytes(32), sigs[53].v, ZERO_KEY_ADDRESS

    # s + n is s mod n: the same key.
    for sig in sigs[54:58]:
        s = int.from_bytes(sig.s, "big") + N
        yield "s-plus-n", sig.digest, sig.r, s.to_bytes(33, "big"), sig.v, sig.address
    # r and s with leading zero bytes are the same numbers.
    for sig in sigs[58:62]:
        yield "padded", sig.digest, b"\0" + sig.r, b"\0\0\0" + sig.s, sig.v, sig.address

    # v above 1 with r small enough that r + n is below p, and a point there.
    found = 0
    while found < 6:
        r = rng.randrange(1, P - N)
        if lift_x(r + N, 0) is not None:
            sig = sigs[62 + found]
            v = (2, 3, 2, 3, 5, 255)[found]
            yield "v-above-1", sig.digest, int32(r), sig.s, v, None
            found += 1

    # u1 G + u2 R = infinity: with R = kG, a digest e = s k (mod n) cancels.
    for sig in sigs[68:72]:
        s = int.from_bytes(sig.s, "big")
        e = s * sig.k % N
        yield "q-infinity", int32(e), sig.r, sig.s, sig.v, ZERO_KEY_ADDRESS

    # Digests longer than 32 bytes: the leftmost 256 bits count.
    for sig in sigs[72:76]:
        longer = sig.digest + bytes([rng.getrandbits(8) for _ in range(8)])
        yield "digest-long", longer, sig.r, sig.s, sig.v, None
    for sig in sigs[76:78]:
        yield "digest-long", b"\0" + sig.digest, sig.r, sig.s, sig.v, sig.address
    # Shorter digests are smaller numbers.
    for sig in sigs[78:82]:
        yield "digest-short", sig.digest[:20], sig.r, sig.s, sig.v, None
    yield "digest-short", b"", sigs[82].r, sigs[82].s, sigs[82].v, None


def hexstr(b):
    return b.hex() if b else "-"


def main():
    rng = random.Random(0x5EC9256B1)
    here = os.path.dirname(os.path.abspath(__file__))
    lines = []
    seeds = []
    for kind, digest, r, s, v, expected in cases(rng):
        if (kind in ("sig", "other-parity", "r-not-x", "v-above-1") and len(digest) == 32 and
                len(r) == 32 and len(s) == 32 and sum(1 for seed in seeds if seed[0] == kind) < 2):
            seeds.append((kind, bytes([v]) + digest + r + s))
        address = reference_recover(digest, r, s, v)
        if expected is not None:
            assert address == expected, (kind, digest.hex(), r.hex(), s.hex(), v)
        assert len(address) == 20
        if kind in ("other-parity", "s-zero", "r-between-n-and-p", "v-above-1"):
            assert address != ZERO_KEY_ADDRESS, (kind, r.hex())
        lines.append("%s %s %s %s %d %s\n" % (kind, hexstr(digest), hexstr(r), hexstr(s), v,
                                              address.hex()))
    with open(os.path.join(here, "recover_vectors.txt"), "w") as f:
        f.write("# Signer address recovery on secp256k1, from python3-ecdsa and pycryptodome.\n")
        f.write("# Made by make_recover_vectors.py.\n")
        f.write("# kind digest r s v address   (hex, '-' for empty; v decimal)\n")
        f.writelines(lines)
    seed_dir = os.path.join(here, "..", "fuzz", "corpus", "restore_address")
    os.makedirs(seed_dir, exist_ok=True)
    for i, (kind, seed) in enumerate(seeds):
        with open(os.path.join(seed_dir, "%02d-%s" % (i, kind)), "wb") as f:
            f.write(seed)


if __name__ == "__main__":
    main()
