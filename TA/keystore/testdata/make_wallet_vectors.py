#!/usr/bin/python3
"""Differential vectors for the keystore TA, made only with independent
implementations from Debian: python3-mnemonic (BIP-39 phrase and seed, empty
passphrase), python3-bip32utils (BIP-32), python3-ecdsa (secp256k1, RFC 6979
nonces) and python3-pycryptodome (Keccak-256). This project's own code is
never used to make a value.

Each wallet gives its phrase, then for several five-level paths the private
key and the address, and signatures of a few digests (random ones and the
edge digests 0, 1, n-1, n, n+1, 2^256-1) as r || s || v with a low S and v
the recovery id.

Usage: make_wallet_vectors.py <file>           write the vectors
       make_wallet_vectors.py --check <file>   exit 1 unless <file> is exactly
                                               what this script writes
"""
import hashlib
import random
import sys

from bip32utils import BIP32Key
from Cryptodome.Hash import keccak
from ecdsa import SECP256k1, SigningKey, VerifyingKey
from ecdsa.ellipticcurve import Point
from ecdsa.util import sigencode_strings
from mnemonic import Mnemonic

H = 0x80000000
N = SECP256k1.order
P = SECP256k1.curve.p()
G = SECP256k1.generator

PATHS = [
    [44 | H, 60 | H, 0 | H, 0, 0],
    [44 | H, 60 | H, 0 | H, 0, 1],
    [44 | H, 60 | H, 0 | H, 0, 4],
    [44 | H, 60 | H, 1 | H, 1, 7],
    [44 | H, 0 | H, 0 | H, 0, 0],
    [0, 1, 2, 3, 4],
    [2147483647 | H, 2147483647, 0 | H, 0, 2147483647],
]
EDGE_DIGESTS = [0, 1, N - 1, N, N + 1, 2**256 - 1]


def keccak256(data):
    return keccak.new(digest_bits=256, data=data).digest()


def path_text(path):
    return "/".join(str(i & ~H) + ("H" if i & H else "") for i in path)


def recover(digest, r, s, v):
    """The public point of (r, s, v) over digest, by the textbook formula."""
    y_sq = (pow(r, 3, P) + 7) % P
    y = pow(y_sq, (P + 1) // 4, P)
    if y % 2 != v:
        y = P - y
    R = Point(SECP256k1.curve, r, y)
    z = int.from_bytes(digest, "big") % N
    r_inv = pow(r, -1, N)
    return (R * s + G * ((-z) % N)) * r_inv


def sign(private_key, digest):
    sk = SigningKey.from_string(private_key, curve=SECP256k1)
    r, s = sk.sign_digest_deterministic(digest, hashfunc=hashlib.sha256, sigencode=sigencode_strings)
    r, s = int.from_bytes(r, "big"), int.from_bytes(s, "big")
    assert sk.get_verifying_key().verify_digest(
        r.to_bytes(32, "big") + s.to_bytes(32, "big"), digest, sigdecode=lambda sig, order: (r, s))
    if s > N // 2:
        s = N - s
    pub = sk.get_verifying_key().pubkey.point
    for v in (0, 1):
        q = recover(digest, r, s, v)
        if q.x() == pub.x() and q.y() == pub.y():
            return r.to_bytes(32, "big") + s.to_bytes(32, "big") + bytes([v])
    raise AssertionError("no recovery id")


def wallet_lines(entropy, rng):
    m = Mnemonic("english")
    phrase = m.to_mnemonic(entropy)
    seed = Mnemonic.to_seed(phrase, passphrase="")
    out = [f"wallet {entropy.hex()}", f"phrase {phrase}"]
    root = BIP32Key.fromEntropy(seed)
    for path in PATHS:
        key = root
        for index in path:
            key = key.ChildKey(index)
        private_key = key.PrivateKey().rjust(32, b"\0")
        vk = SigningKey.from_string(private_key, curve=SECP256k1).get_verifying_key()
        address = keccak256(vk.to_string())[12:]
        out.append(f"key {path_text(path)} {private_key.hex()} {address.hex()}")
    signer = root
    for index in PATHS[0]:
        signer = signer.ChildKey(index)
    private_key = signer.PrivateKey().rjust(32, b"\0")
    digests = [rng.randbytes(32) for _ in range(2)] + [d.to_bytes(32, "big") for d in EDGE_DIGESTS]
    for digest in digests:
        out.append(f"sign {path_text(PATHS[0])} {digest.hex()} {sign(private_key, digest).hex()}")
    return out


def make():
    rng = random.Random(20240611)
    lines = ["# Made by make_wallet_vectors.py; do not edit (rerun it)."]
    entropies = [bytes(16)]  # the all-zero entropy: a published phrase and address
    for length in (16, 20, 24, 28, 32, 16, 32):
        entropies.append(rng.randbytes(length))
    for entropy in entropies:
        lines += wallet_lines(entropy, rng)
    return "\n".join(lines) + "\n"


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--check":
        with open(sys.argv[2]) as f:
            ok = f.read() == make()
        print("wallet vectors are up to date" if ok else "wallet vectors differ from what the generator makes")
        sys.exit(0 if ok else 1)
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with open(sys.argv[1], "w") as f:
        f.write(make())


if __name__ == "__main__":
    main()
